// Help topics: the kernel's own, every module's, single topics and free
// questions (GET /api/v1/help/topics, GET /api/v1/help/topic, POST
// /api/v1/help/ask).
#include <algorithm>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>

#include "base/env.h"
#include "base/json.h"
#include "base/reply.h"
#include "kernel/kernel.h"

namespace ostrel::kernel {
namespace {

using Json = nlohmann::json;
namespace fs = std::filesystem;
using base::reply;

struct KernelTopic {
  const char* id;
  const char* file;
  const char* title;
  const char* summary;
  const char* audience;
  std::vector<std::string> keywords;
};

const std::vector<KernelTopic>& kernel_topics() {
  static const std::vector<KernelTopic> kTopics = {
      {"kernel.extensions",
       "help/kernel/extensions.help.md",
       "Extensions (Tier-2, loadable)",
       "What extensions are and what this build offers of them.",
       "developer",
       {"extension", "plugin"}},
      {"kernel.audit",
       "help/kernel/audit.help.md",
       "Audit trail",
       "The hash-chained audit log: what is recorded, reading it, verifying it.",
       "admin",
       {"audit", "log", "verify", "chain", "tamper"}},
      {"kernel.capabilities",
       "help/kernel/capabilities.help.md",
       "Capability tokens",
       "Signed tokens that grant scopes to a holder for a tenant.",
       "admin",
       {"token", "capability", "scope", "revoke", "auth"}},
      {"kernel.otp",
       "help/kernel/otp.help.md",
       "OTP — Ostrel Tool Protocol",
       "How tools are described, offered to models and run.",
       "developer",
       {"tool", "otp", "function"}},
      {"kernel.tenants",
       "help/kernel/tenants.help.md",
       "Tenants (multi-tenant isolation)",
       "Tenants, their lifecycle, users, roles and quotas.",
       "admin",
       {"tenant", "quota", "role", "user"}},
      {"kernel.telemetry",
       "help/kernel/telemetry.help.md",
       "Telemetry (Prometheus)",
       "Metrics on /metrics, traces, structured logs and OTLP export.",
       "operations",
       {"metrics", "prometheus", "telemetry", "otlp", "trace", "log"}},
      {"kernel.presets",
       "help/kernel/presets.help.md",
       "Post-install presets",
       "Presets that configure a fresh node.",
       "operations",
       {"preset", "install"}},
      {"kernel.catalog",
       "help/kernel/catalog.help.md",
       "Extension catalog",
       "The catalogue extensions are installed from.",
       "operations",
       {"catalog", "extension"}},
      {"kernel.layout",
       "help/kernel/layout.help.md",
       "Install layout — RPM baseline vs live overlay",
       "Where a node keeps its binary, manifests, configuration and data.",
       "operations",
       {"layout", "directory", "data", "files"}},
      {"kernel.extension-lifecycle",
       "help/kernel/extension-lifecycle.help.md",
       "Extension lifecycle — load, invoke, unload",
       "The states an extension goes through.",
       "developer",
       {"extension", "lifecycle"}},
      {"kernel.installing",
       "help/kernel/installing.help.md",
       "Installing Ostrel ULVO from the official repo",
       "Building, installing and running a node.",
       "operations",
       {"install", "build", "run", "service"}},
      {"kernel.smoke-test",
       "help/kernel/smoke-test.help.md",
       "Validating an install — the smoke harness",
       "Checking a freshly installed node end to end.",
       "operations",
       {"smoke", "test", "validate", "health"}},
  };
  return kTopics;
}

bool read_text(const fs::path& p, std::string& out) {
  std::ifstream in(p, std::ios::binary);
  if (!in) return false;
  std::stringstream ss;
  ss << in.rdbuf();
  out = ss.str();
  return true;
}

std::string lower(std::string s) {
  std::transform(s.begin(), s.end(), s.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return s;
}

// The words of a question that can match a topic.
std::vector<std::string> words_of(const std::string& question) {
  static const std::set<std::string> kStop = {
      "the", "and", "how",   "what", "does", "can",   "for",  "with",  "that", "this", "are",
      "you", "use", "about", "from", "into", "where", "when", "which", "who",  "why",  "is",
      "do",  "to",  "of",    "a",    "an",   "in",    "on",   "my",    "i",    "me",   "it"};
  std::vector<std::string> out;
  std::string w;
  for (char c : lower(question) + " ") {
    if (std::isalnum(static_cast<unsigned char>(c)) || c == '-' || c == '_') {
      w += c;
    } else {
      if (w.size() >= 3 && !kStop.count(w)) out.push_back(w);
      w.clear();
    }
  }
  return out;
}

Json topic_json(const help::Topic& t) {
  return {{"id", t.id},
          {"title", t.title},
          {"summary", t.summary},
          {"module", t.module},
          {"keywords", t.keywords},
          {"tags", t.tags},
          {"audience", t.audience}};
}

}  // namespace

fs::path Kernel::help_dir_() const {
  // OSTREL_HELP_DIR names the directory holding "help/", or "help/" itself.
  if (std::string d = base::env::text("OSTREL_HELP_DIR"); !d.empty()) {
    std::error_code ec;
    fs::path named = fs::absolute(d, ec).lexically_normal();
    if (named.filename().empty()) named = named.parent_path();
    if (named.filename() == "help" && !fs::is_directory(named / "help", ec))
      return named.parent_path();
    return named;
  }
  // Beside the manifests' directory in a checkout or an install.
  std::error_code abs_ec;
  fs::path manifests = fs::absolute(config_.modules_d, abs_ec).lexically_normal();
  if (manifests.filename().empty()) manifests = manifests.parent_path();  // "modules.d/"
  const fs::path beside = manifests.parent_path();
  std::error_code ec;
  if (fs::is_directory(beside / "help", ec)) return beside;
  return "/usr/share/ostrel-ulvo";
}

std::vector<help::Topic> Kernel::help_catalogue_() const {
  std::vector<help::Topic> out;
  for (const auto& k : kernel_topics()) {
    out.push_back({k.id, k.title, k.summary, "kernel", k.keywords, {"kernel"}, k.audience});
  }
  std::set<std::string> seen;
  for (const auto& t : out) seen.insert(t.id);
  for (const auto& m : modules_) {
    std::vector<help::Topic> own = m.instance->help_topics();
    // Topics the manifest declares, for modules that do not list their own.
    for (const auto& d : m.definition.help) {
      if (std::none_of(own.begin(), own.end(),
                       [&](const help::Topic& t) { return t.id == d.id; })) {
        own.push_back(
            {d.id, d.title, d.summary, m.definition.name, d.keywords, d.tags, d.audience});
      }
    }
    for (auto& t : own) {
      if (t.module.empty()) t.module = m.definition.name;
      if (seen.insert(t.id).second) out.push_back(std::move(t));
    }
  }
  return out;
}

void Kernel::register_help_routes_() {
  gateway_.route("GET", "/api/v1/help/topics", [this](const Request&, Response& res) {
    Json list = Json::array();
    for (const auto& t : help_catalogue_()) list.push_back(topic_json(t));
    reply(res, {{"topics", list}, {"count", list.size()}});
  });

  gateway_.route("GET", "/api/v1/help/topic", [this](const Request& req, Response& res) {
    const std::string id = req.param("id");
    if (id.empty()) return base::fail(res, 400, "missing ?id=");
    const fs::path dir = help_dir_();
    auto answer = [&](const help::TopicContent& c) {
      reply(res, {{"id", id},
                  {"title", c.title},
                  {"markdown", c.markdown},
                  {"html", c.html},
                  {"related", c.related},
                  {"prerequisites", c.prerequisites},
                  {"source", c.source},
                  {"path", c.path},
                  {"module", c.module}});
    };
    for (const auto& k : kernel_topics()) {
      if (id != k.id) continue;
      help::TopicContent c;
      c.title = k.title;
      c.module = "kernel";
      c.source = "disk";
      c.path = k.file;
      if (!read_text(dir / k.file, c.markdown)) {
        logger_.warn(std::string("kernel help topic '") + id +
                     "' file unreadable: " + (dir / k.file).string());
        return base::fail(res, 404, "topic_not_found", {{"id", id}});
      }
      return answer(c);
    }
    for (const auto& m : modules_) {
      help::TopicContent c = m.instance->help_topic_content(id);
      if (!c.markdown.empty()) {
        if (c.module.empty()) c.module = m.definition.name;
        return answer(c);
      }
      for (const auto& d : m.definition.help) {
        if (d.id != id) continue;
        c.title = d.title;
        c.module = m.definition.name;
        c.source = "disk";
        c.path = d.path;
        if (d.path.empty()) {
          logger_.warn("help topic '" + id + "' file missing: (no path declared)");
          return base::fail(res, 404, "topic_not_found", {{"id", id}});
        }
        // A declared path never leaves the help directory.
        const fs::path file = fs::weakly_canonical(dir / d.path);
        const fs::path root = fs::weakly_canonical(dir);
        const std::string rel = file.lexically_relative(root).string();
        if (rel.empty() || rel.rfind("..", 0) == 0 || !read_text(file, c.markdown)) {
          logger_.warn("bundled help topic '" + id +
                       "' declared but file unreadable: " + (dir / d.path).string());
          return base::fail(res, 404, "topic_not_found", {{"id", id}});
        }
        return answer(c);
      }
    }
    base::fail(res, 404, "topic_not_found", {{"id", id}});
  });

  gateway_.route("POST", "/api/v1/help/ask", [this](const Request& req, Response& res) {
    Json body;
    if (!base::parse_object_body(req, res, body)) return;
    help::DynamicQuery q;
    if (body.contains("question") && body["question"].is_string()) q.question = body["question"];
    if (q.question.empty()) return base::fail(res, 400, "missing question");
    q.user_id = body.contains("user_id") && body["user_id"].is_string()
                    ? body["user_id"].get<std::string>()
                    : req.user_id;
    q.tenant_id = body.contains("tenant_id") && body["tenant_id"].is_string()
                      ? body["tenant_id"].get<std::string>()
                      : req.tenant;
    if (body.contains("context_tags") && body["context_tags"].is_array()) {
      for (const auto& t : body["context_tags"]) {
        if (t.is_string()) q.context_tags.push_back(t);
      }
    }
    Json answers = Json::array();
    // The kernel answers with the topics whose words the question uses.
    const std::vector<std::string> words = words_of(q.question);
    std::vector<std::pair<int, help::Topic>> ranked;
    for (const auto& t : help_catalogue_()) {
      const std::string hay = lower(t.id + " " + t.title + " " + t.summary);
      int score = 0;
      for (const auto& w : words) {
        score += hay.find(w) != std::string::npos;
        for (const auto& k : t.keywords) score += lower(k) == w ? 2 : 0;
      }
      if (score > 0) ranked.push_back({score, t});
    }
    std::stable_sort(ranked.begin(), ranked.end(),
                     [](const auto& a, const auto& b) { return a.first > b.first; });
    if (!ranked.empty()) {
      std::string md = "Topics that may answer this:\n\n";
      Json related = Json::array();
      for (std::size_t i = 0; i < ranked.size() && i < 5; ++i) {
        md += "- **" + ranked[i].second.title + "** (`" + ranked[i].second.id +
              "`): " + ranked[i].second.summary + "\n";
        related.push_back(ranked[i].second.id);
      }
      answers.push_back({{"module", "kernel"},
                         {"summary", "See " + ranked[0].second.title + "."},
                         {"markdown", md},
                         {"related", related}});
    }
    for (const auto& m : modules_) {
      help::DynamicAnswer a = m.instance->answer_dynamic_help(q);
      if (a.empty()) continue;
      if (a.module.empty()) a.module = m.definition.name;
      answers.push_back({{"module", a.module},
                         {"summary", a.summary},
                         {"markdown", a.markdown},
                         {"related", a.related}});
    }
    reply(res, {{"answers", answers}});
  });
}

}  // namespace ostrel::kernel
