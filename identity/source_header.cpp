#include "identity/source_header.h"

#include <unistd.h>

#include <ctime>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <nlohmann/json.hpp>
#include <sstream>

#include "base/durable_file.h"
#include "base/encoding.h"
#include "base/env.h"
#include "base/json.h"
#include "base/paths.h"
#include "base/reply.h"

namespace ostrel::source_header {
namespace {

using Json = nlohmann::json;

std::string trim(const std::string& s) {
  size_t b = s.find_first_not_of(" \t");
  if (b == std::string::npos) return "";
  size_t e = s.find_last_not_of(" \t");
  return s.substr(b, e - b + 1);
}

bool is_loopback(const std::string& addr) {
  return addr.rfind("127.", 0) == 0 || addr == "::1" || addr == "0:0:0:0:0:0:0:1" ||
         addr.rfind("::ffff:127.", 0) == 0;
}

struct PolicyState {
  std::once_flag loaded;
  std::mutex mu;  // guards policy
  Policy policy;
};

PolicyState& policy_state() {
  static PolicyState s;
  return s;
}

void load_policy_once() {
  PolicyState& s = policy_state();
  std::call_once(s.loaded, [&s] {
    std::ifstream in(base::base_config_dir() + "/eis_policy.json");
    if (!in) return;
    std::stringstream buf;
    buf << in.rdbuf();
    Json j = base::parse_json(buf.str());
    std::lock_guard lock(s.mu);
    s.policy = Policy::fromJson(j);
  });
}

std::set<std::string> string_set(const Json& j, const char* key) {
  std::set<std::string> out;
  if (auto it = j.find(key); it != j.end() && it->is_array()) {
    for (const auto& e : *it) {
      if (e.is_string()) out.insert(e.get<std::string>());
    }
  }
  return out;
}

SourceDecision verdict(const char* action, int status, const char* error) {
  SourceDecision d;
  d.action = action;
  d.status = status;
  if (error) d.body = base::dump_json(base::error_body(error));
  return d;
}

}  // namespace

Json Policy::toJson() const {
  return Json{{"mode", mode == PolicyMode::enforce ? "enforce" : "advisory"},
              {"allowed_eis_ids", allowed_eis_ids},
              {"allowed_domains", allowed_domains},
              {"allowed_modules", allowed_modules},
              {"deny_unknown_eis", deny_unknown_eis}};
}

Policy Policy::fromJson(const Json& j) {
  Policy p;
  if (!j.is_object()) return p;
  auto mode = j.find("mode");
  if (mode != j.end() && mode->is_string() && *mode == "enforce") p.mode = PolicyMode::enforce;
  p.allowed_eis_ids = string_set(j, "allowed_eis_ids");
  p.allowed_domains = string_set(j, "allowed_domains");
  p.allowed_modules = string_set(j, "allowed_modules");
  if (auto d = j.find("deny_unknown_eis"); d != j.end() && d->is_boolean()) {
    p.deny_unknown_eis = d->get<bool>();
  }
  return p;
}

std::string make_header(const std::string& module, const std::string& tenant,
                        const std::string& domain) {
  std::string h = "eis=" + current_eis_id() + ";node=" + current_node_id();
  if (!module.empty()) h += ";module=" + module;
  if (!domain.empty()) h += ";domain=" + domain;
  if (!tenant.empty()) h += ";tenant=" + tenant;
  return h;
}

ParsedSource parse(const std::string& header) {
  ParsedSource p;
  size_t i = 0;
  while (i < header.size()) {
    while (i < header.size() && (header[i] == ' ' || header[i] == ';')) ++i;
    if (i >= header.size()) break;
    size_t end = header.find(';', i);
    if (end == std::string::npos) end = header.size();
    std::string segment = header.substr(i, end - i);
    i = end;
    size_t eq = segment.find('=');
    if (eq == std::string::npos || eq + 1 >= segment.size()) continue;
    std::string key = trim(segment.substr(0, eq));
    std::string value = trim(segment.substr(eq + 1));
    if (key.empty() || value.empty()) continue;
    p.ok = true;
    if (key == "eis") {
      p.eis = value;
    } else if (key == "node") {
      p.node = value;
    } else if (key == "module") {
      p.module = value;
    } else if (key == "domain") {
      p.domain = value;
    } else if (key == "tenant") {
      p.tenant = value;
    }
  }
  return p;
}

std::string current_eis_id() {
  static const std::string id = [] {
    const std::string path = base::base_config_dir() + "/eis_id";
    std::ifstream in(path);
    if (in) {
      std::stringstream buf;
      buf << in.rdbuf();
      std::string s = buf.str();
      while (!s.empty() &&
             (s.back() == '\t' || s.back() == '\n' || s.back() == '\r' || s.back() == ' ')) {
        s.pop_back();
      }
      if (!s.empty()) return s;
    }
    std::string bytes = base::random_bytes(16);
    if (bytes.size() != 16) {
      bytes.assign(16, '\0');
      auto mix = static_cast<unsigned long long>(::getpid()) ^
                 (static_cast<unsigned long long>(std::clock()) << 20) ^
                 reinterpret_cast<std::uintptr_t>(&bytes);
      for (int k = 0; k < 16; ++k) bytes[k] = static_cast<char>(mix >> ((k % 8) * 8));
    }
    std::string fresh = base::to_hex(bytes);
    std::string error;
    // A failed write is ignored: the id still holds for this process.
    base::write_file_atomically(path, fresh, error);
    return fresh;
  }();
  return id;
}

std::string current_node_id() {
  static const std::string id = [] {
    if (std::string id = base::env::text("OSTREL_NODE_ID"); !id.empty()) return id;
    char host[256];
    if (::gethostname(host, sizeof host) == 0) {
      host[sizeof host - 1] = '\0';
      if (host[0]) return std::string(host);
    }
    return std::string("unknown");
  }();
  return id;
}

Policy current_policy() {
  load_policy_once();
  std::lock_guard lock(policy_state().mu);
  return policy_state().policy;
}

void set_policy(Policy policy) {
  load_policy_once();
  std::lock_guard lock(policy_state().mu);
  policy_state().policy = std::move(policy);
}

SourceDecision admit(const std::string& client_addr, const std::string& header) {
  if (is_loopback(client_addr)) {
    SourceDecision d;
    d.action = "loopback";
    d.eis_known = !header.empty() && !parse(header).eis.empty();
    return d;
  }
  Policy p = current_policy();
  const bool enforce = p.mode == PolicyMode::enforce;
  if (header.empty()) {
    if (p.deny_unknown_eis && enforce) return verdict("denied_unknown", 403, "eis_id_required");
    return verdict("allowed", 0, nullptr);
  }
  ParsedSource src = parse(header);
  SourceDecision d;
  if (!src.ok) {
    d = verdict("denied_shape", 400, "invalid_eis_source_header");
  } else if (p.deny_unknown_eis && src.eis.empty()) {
    d = verdict("denied_unknown", enforce ? 403 : 0, enforce ? "eis_id_required" : nullptr);
  } else if (!p.allowed_eis_ids.empty() && !src.eis.empty() && !p.allowed_eis_ids.count(src.eis)) {
    d = verdict("denied_eis_id", enforce ? 403 : 0, enforce ? "eis_id_not_allowed" : nullptr);
  } else if (!p.allowed_domains.empty() && !src.domain.empty() &&
             !p.allowed_domains.count(src.domain)) {
    d = verdict("denied_domain", enforce ? 403 : 0, enforce ? "domain_not_allowed" : nullptr);
  } else if (!p.allowed_modules.empty() && !src.module.empty() &&
             !p.allowed_modules.count(src.module)) {
    d = verdict("denied_module", enforce ? 403 : 0, enforce ? "module_not_allowed" : nullptr);
  } else {
    d = verdict("allowed", 0, nullptr);
  }
  d.eis_known = !src.eis.empty();
  d.eis_id = src.eis;
  d.module = src.module;
  d.domain = src.domain;
  return d;
}

}  // namespace ostrel::source_header
