#include "kernel/search/search_sources.h"

#include <algorithm>
#include <cctype>
#include <nlohmann/json.hpp>

#include "base/json.h"
#include "base/logger.h"
#include "base/names.h"
#include "kernel/syscall_table.h"

namespace ostrel::kernel::search {
namespace {

using Json = nlohmann::json;
namespace fs = std::filesystem;

using base::string_field;

double number_of(const Json& j, const char* key, double fallback = 0) {
  auto it = j.find(key);
  return it != j.end() && it->is_number() ? it->get<double>() : fallback;
}

std::string filter(const Query& q, const std::string& key, const std::string& fallback) {
  auto it = q.filters.find(key);
  return it == q.filters.end() || it->second.empty() ? fallback : it->second;
}

// The tenant a file-scanning source walks: "_global" for none; nothing for a
// name that could leave the data directory.
std::optional<std::string> tenant_dir(const Query& q) {
  if (q.tenant_id.empty()) return std::string("_global");
  std::string why;
  if (!base::safe_name(q.tenant_id, why, 64)) return std::nullopt;
  return q.tenant_id;
}

class VectorSource : public KernelSearchSource {
 public:
  using KernelSearchSource::KernelSearchSource;
  std::vector<std::string> required_scopes() const override {
    return {"data.vector.search", "data.memory.recall"};
  }
  std::string source_kind() const override { return "vector"; }
  bool in_scope(Scope s) const override { return s == Scope::All || s == Scope::Knowledge; }
  std::vector<Hit> search(const Query& q, std::size_t limit) override {
    // Without a namespace filter, every namespace of the tenant; without a
    // score floor, the vector route's own is too high for a search that
    // ranks hits of many kinds together, so any positive match counts.
    const std::string ns = filter(q, "namespace", "*");
    Json args = {{"query", q.text},
                 {"tenant", q.tenant_id.empty() ? "default" : q.tenant_id},
                 {"namespace", ns},
                 {"top_k", std::clamp<std::size_t>(limit, 1, 1000)},
                 {"keyword_query", filter(q, "keyword_query", "")}};
    if (auto model = filter(q, "embedding_model", ""); !model.empty()) {
      args["embedding_model"] = model;
    }
    args["min_score"] = 0.01;
    if (auto m = filter(q, "min_score", ""); !m.empty()) args["min_score"] = std::atof(m.c_str());
    std::vector<Hit> out;
    auto answer = call_("data.vector.search", args, missing_);
    if (!answer || !answer->contains("hits") || !(*answer)["hits"].is_array()) return out;
    for (const auto& h : (*answer)["hits"]) {
      if (out.size() >= limit) break;
      Hit hit;
      hit.source_kind = "vector";
      hit.id = string_field(h, "id");
      hit.snippet = h.contains("text") ? string_field(h, "text") : string_field(h, "content");
      hit.title = string_field(h, "source").empty() ? hit.id : string_field(h, "source");
      hit.score = number_of(h, "score");
      hit.uri = "vector:///" + (h.contains("namespace") ? string_field(h, "namespace") : ns) + "/" +
                hit.id;
      for (const char* key : {"source", "chunk_index", "peer", "backend"}) {
        if (h.contains(key)) hit.metadata[key] = string_field(h, key);
      }
      out.push_back(std::move(hit));
    }
    return out;
  }

 private:
  std::atomic<bool> missing_{false};
};

class MemorySource : public KernelSearchSource {
 public:
  using KernelSearchSource::KernelSearchSource;
  std::vector<std::string> required_scopes() const override { return {"data.memory.recall"}; }
  std::string source_kind() const override { return "qmm"; }
  bool in_scope(Scope s) const override { return s == Scope::All || s == Scope::Knowledge; }
  std::vector<Hit> search(const Query& q, std::size_t limit) override {
    const std::string ns = filter(q, "namespace", "default");
    std::vector<Hit> out;
    auto answer = call_("data.memory.recall",
                        {{"query", q.text},
                         {"tenant", q.tenant_id.empty() ? "default" : q.tenant_id},
                         {"namespace", ns},
                         {"limit", std::clamp<std::size_t>(limit, 1, 1000)}},
                        missing_);
    if (!answer || !answer->contains("hits") || !(*answer)["hits"].is_array()) return out;
    const double confidence = number_of(*answer, "confidence");
    const bool matrix = answer->value("enabled", false);
    for (const auto& h : (*answer)["hits"]) {
      if (out.size() >= limit) break;
      Hit hit;
      hit.source_kind = "qmm";
      hit.id = string_field(h, "key");
      hit.title = hit.id;
      hit.snippet = string_field(h, "value");
      hit.score = h.contains("score") ? number_of(h, "score") : confidence;
      hit.ts_unix_ms = static_cast<std::int64_t>(number_of(h, "ts_unix_ms"));
      const std::string hit_ns = h.contains("namespace") ? string_field(h, "namespace") : ns;
      hit.uri = "qmm:///" + hit_ns + "/" + hit.id;
      hit.metadata["matrix"] = matrix ? "true" : "false";
      if (h.contains("via")) hit.metadata["via"] = string_field(h, "via");
      out.push_back(std::move(hit));
    }
    return out;
  }

 private:
  std::atomic<bool> missing_{false};
};

class CommSource : public KernelSearchSource {
 public:
  using KernelSearchSource::KernelSearchSource;
  std::vector<std::string> required_scopes() const override { return {"comm.read"}; }
  std::string source_kind() const override { return "comm"; }
  bool in_scope(Scope s) const override { return s == Scope::All || s == Scope::Comms; }
  std::vector<Hit> search(const Query& q, std::size_t limit) override {
    std::vector<Hit> out;
    auto answer = call_("data.comm.search",
                        {{"query", q.text},
                         {"tenant", q.tenant_id},
                         {"limit", limit},
                         {"caller_scopes", Json::array()}},
                        missing_);
    if (!answer) return out;
    const Json& list = answer->contains("messages") ? (*answer)["messages"] : (*answer)["hits"];
    if (!list.is_array()) return out;
    for (const auto& m : list) {
      if (out.size() >= limit) break;
      Hit hit;
      hit.source_kind = "comm";
      hit.id = string_field(m, "id");
      const std::string subject = string_field(m, "subject");
      hit.title = string_field(m, "from") + ": " + (subject.empty() ? "(no subject)" : subject);
      hit.snippet = string_field(m, "body");
      hit.score = number_of(m, "score");
      hit.ts_unix_ms = static_cast<std::int64_t>(number_of(m, "ts_unix_ms"));
      hit.uri = "comm://" + hit.id;
      hit.metadata["protocol"] = string_field(m, "protocol");
      out.push_back(std::move(hit));
    }
    return out;
  }

 private:
  std::atomic<bool> missing_{false};
};

class ArtifactSource : public KernelSearchSource {
 public:
  ArtifactSource(SyscallTable* s, identity::SourceCode c, std::string n, const Logger* l,
                 fs::path root)
      : KernelSearchSource(s, c, std::move(n), l), root_(std::move(root)) {}
  std::vector<std::string> required_scopes() const override { return {"data.storage.read"}; }
  std::string source_kind() const override { return "artifact"; }
  bool in_scope(Scope s) const override { return s == Scope::All || s == Scope::Artifacts; }
  std::vector<Hit> search(const Query& q, std::size_t limit) override {
    std::vector<Hit> out;
    auto tenant = tenant_dir(q);
    if (!tenant) return out;
    std::error_code ec;
    for (fs::directory_iterator it(root_ / *tenant, ec), end; !ec && it != end; it.increment(ec)) {
      if (out.size() >= limit) break;
      const std::string name = it->path().filename().string();
      if (name.size() <= 10 || name.compare(name.size() - 10, 10, ".meta.json") != 0) continue;
      bool opened = false;
      Json meta = base::read_json_file(it->path(), opened);
      if (!meta.is_object()) continue;
      const std::string title = string_field(meta, "title");
      const std::string description = string_field(meta, "description");
      if (!icontains(title, q.text) && !icontains(description, q.text)) continue;
      Hit hit;
      hit.source_kind = "artifact";
      hit.id = meta.contains("id") ? string_field(meta, "id") : name.substr(0, name.size() - 10);
      hit.title = title;
      hit.snippet = description;
      hit.score = icontains(title, q.text) ? 0.6 : 0.5;
      hit.uri = "artifact://" + hit.id;
      hit.metadata["size_bytes"] = string_field(meta, "size_bytes");
      out.push_back(std::move(hit));
    }
    return out;
  }

 private:
  fs::path root_;
};

class ScienceSource : public KernelSearchSource {
 public:
  using KernelSearchSource::KernelSearchSource;
  std::vector<std::string> required_scopes() const override { return {"science.read"}; }
  std::string source_kind() const override { return "science"; }
  bool in_scope(Scope s) const override { return s == Scope::All || s == Scope::Science; }
  std::vector<Hit> search(const Query& q, std::size_t limit) override {
    std::vector<Hit> out;
    auto answer = call_("science.search",
                        {{"query", q.text}, {"limit", limit}, {"tenant", q.tenant_id}}, missing_);
    if (!answer) return out;
    const Json& list = answer->contains("results") ? (*answer)["results"] : (*answer)["hits"];
    if (!list.is_array()) return out;
    for (const auto& r : list) {
      if (out.size() >= limit) break;
      Hit hit;
      hit.source_kind = "science";
      hit.id = string_field(r, "id");
      hit.title = string_field(r, "title");
      hit.snippet =
          r.contains("abstract") ? string_field(r, "abstract") : string_field(r, "summary");
      hit.score = number_of(r, "score");
      hit.uri = "science://" + hit.id;
      for (const char* key : {"authors", "url", "source", "upstream"}) {
        if (r.contains(key)) hit.metadata[key] = string_field(r, key);
      }
      out.push_back(std::move(hit));
    }
    return out;
  }

 private:
  std::atomic<bool> missing_{false};
};

class SwarmSource : public KernelSearchSource {
 public:
  using KernelSearchSource::KernelSearchSource;
  std::vector<std::string> required_scopes() const override { return {"agent.invoke"}; }
  std::string source_kind() const override { return "swarm"; }
  bool in_scope(Scope s) const override { return s == Scope::All || s == Scope::Swarms; }
  std::vector<Hit> search(const Query& q, std::size_t limit) override {
    std::vector<Hit> out;
    auto answer = call_("swarm.list", Json::object(), missing_);
    if (!answer) return out;
    const Json& list = answer->is_array() ? *answer : (*answer)["swarms"];
    if (!list.is_array()) return out;
    for (const auto& s : list) {
      if (out.size() >= limit) break;
      if (!icontains(string_field(s, "name"), q.text) &&
          !icontains(string_field(s, "goal"), q.text)) {
        continue;
      }
      Hit hit;
      hit.source_kind = "swarm";
      hit.id = string_field(s, "id");
      hit.title = string_field(s, "name");
      hit.snippet = string_field(s, "goal");
      hit.score = 0.5;
      hit.uri = "swarm:///" + hit.id;
      hit.metadata["topology"] = string_field(s, "topology");
      hit.metadata["agent_count"] = string_field(s, "agent_count");
      out.push_back(std::move(hit));
    }
    return out;
  }

 private:
  std::atomic<bool> missing_{false};
};

class TrainingSource : public KernelSearchSource {
 public:
  using KernelSearchSource::KernelSearchSource;
  std::vector<std::string> required_scopes() const override { return {"training.read"}; }
  std::string source_kind() const override { return "training"; }
  bool in_scope(Scope s) const override { return s == Scope::All || s == Scope::Training; }
  std::vector<Hit> search(const Query& q, std::size_t limit) override {
    std::vector<Hit> out;
    auto answer = call_("training.jobs.list", Json::object(), missing_);
    if (!answer) return out;
    const Json& list = answer->is_array() ? *answer : (*answer)["jobs"];
    if (!list.is_array()) return out;
    for (const auto& j : list) {
      if (out.size() >= limit) break;
      if (!icontains(string_field(j, "name"), q.text) &&
          !icontains(string_field(j, "base_model"), q.text) &&
          !icontains(string_field(j, "method"), q.text)) {
        continue;
      }
      Hit hit;
      hit.source_kind = "training";
      hit.id = string_field(j, "id");
      hit.title = string_field(j, "name");
      hit.snippet =
          "method=" + string_field(j, "method") + ", base=" + string_field(j, "base_model") +
          ", backend=" + string_field(j, "backend") + ", state=" + string_field(j, "state");
      hit.score = 0.5;
      hit.uri = "training:///jobs/" + hit.id;
      out.push_back(std::move(hit));
    }
    return out;
  }

 private:
  std::atomic<bool> missing_{false};
};

class FileSource : public KernelSearchSource {
 public:
  FileSource(SyscallTable* s, identity::SourceCode c, std::string n, const Logger* l, fs::path root)
      : KernelSearchSource(s, c, std::move(n), l), root_(std::move(root)) {}
  std::vector<std::string> required_scopes() const override { return {"data.storage.read"}; }
  std::string source_kind() const override { return "file"; }
  bool in_scope(Scope s) const override { return s == Scope::All || s == Scope::Files; }
  std::vector<Hit> search(const Query& q, std::size_t limit) override {
    std::vector<Hit> out;
    auto tenant = tenant_dir(q);
    if (!tenant) return out;
    auto add = [&](const std::string& path, std::uint64_t size) {
      Hit hit;
      hit.source_kind = "file";
      hit.id = path;
      hit.title = fs::path(path).filename().string();
      hit.snippet = path;
      hit.score = 0.4;
      hit.uri = "clusterfs:///" + path;
      hit.metadata["size_bytes"] = std::to_string(size);
      out.push_back(std::move(hit));
    };
    // The tenant's storage tree.
    const fs::path tree = root_ / *tenant;
    std::error_code ec;
    for (fs::recursive_directory_iterator it(tree, ec), end; !ec && it != end && out.size() < limit;
         it.increment(ec)) {
      std::error_code type_ec;
      if (!it->is_regular_file(type_ec)) continue;
      const std::string rel = fs::relative(it->path(), tree, type_ec).string();
      if (icontains(rel, q.text)) add(*tenant + "/" + rel, it->file_size(type_ec));
    }
    // The object store, when the data module serves it.
    if (out.size() < limit && syscalls_->has("data.objects.list")) {
      auto answer = call_("data.objects.list",
                          {{"tenant", q.tenant_id.empty() ? "default" : q.tenant_id}}, missing_);
      if (answer && answer->contains("objects") && (*answer)["objects"].is_array()) {
        for (const auto& o : (*answer)["objects"]) {
          if (out.size() >= limit) break;
          const std::string path = string_field(o, "path");
          if (icontains(path, q.text)) {
            add(path, static_cast<std::uint64_t>(number_of(o, "size_bytes")));
          }
        }
      }
    }
    return out;
  }

 private:
  fs::path root_;
  std::atomic<bool> missing_{false};
};

}  // namespace

bool icontains(const std::string& haystack, const std::string& needle) {
  if (needle.empty()) return true;
  auto lower = [](std::string s) {
    for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return s;
  };
  return lower(haystack).find(lower(needle)) != std::string::npos;
}

void KernelSearchSource::warn_once_missing(std::atomic<bool>& flag,
                                           const std::string& syscall) const {
  if (flag.exchange(true)) return;
  if (log_) {
    log_->warn("search source '" + name_ + "' degraded: optional syscall '" + syscall +
               "' is not registered (returns empty results)");
  }
}

std::optional<Json> KernelSearchSource::call_(const std::string& syscall, const Json& args,
                                              std::atomic<bool>& missing_flag) const {
  if (!syscalls_->has(syscall)) {
    warn_once_missing(missing_flag, syscall);
    return std::nullopt;
  }
  SyscallResult r = syscalls_->call(caller_, syscall, base::dump_json(args));
  if (r.status != 0) return std::nullopt;
  Json answer = base::parse_json(r.body);
  if (answer.is_discarded()) return std::nullopt;
  return answer;
}

identity::SourceCode source_identity(std::size_t index) {
  return identity::SourceCode{0x0e, static_cast<std::uint8_t>(0x20 + index)};
}

std::vector<std::shared_ptr<ostrel::search::SearchSource>> kernel_sources(
    SyscallTable* syscalls, const Logger* log, const fs::path& data_dir) {
  std::vector<std::shared_ptr<ostrel::search::SearchSource>> out;
  out.push_back(std::make_shared<VectorSource>(syscalls, source_identity(0), "search.vector", log));
  out.push_back(std::make_shared<MemorySource>(syscalls, source_identity(1), "search.memory", log));
  out.push_back(std::make_shared<CommSource>(syscalls, source_identity(2), "search.comm", log));
  out.push_back(std::make_shared<ArtifactSource>(syscalls, source_identity(3), "search.artifact",
                                                 log, data_dir / "artifacts"));
  out.push_back(
      std::make_shared<ScienceSource>(syscalls, source_identity(4), "search.science", log));
  out.push_back(std::make_shared<SwarmSource>(syscalls, source_identity(5), "search.swarm", log));
  out.push_back(
      std::make_shared<TrainingSource>(syscalls, source_identity(6), "search.training", log));
  out.push_back(std::make_shared<FileSource>(syscalls, source_identity(7), "search.file", log,
                                             data_dir / "storage"));
  return out;
}

}  // namespace ostrel::kernel::search
