// Unified search on the kernel: the engine with its eight sources, and the
// routes POST /api/v1/search and POST /v1/search.
#include <cstdlib>
#include <nlohmann/json.hpp>

#include "base/access.h"
#include "base/env.h"
#include "base/reply.h"
#include "identity/identity_registry.h"
#include "kernel/kernel.h"
#include "kernel/obs/metrics.h"
#include "kernel/search/search_sources.h"

namespace ostrel::kernel {
namespace {

using Json = nlohmann::json;
constexpr std::int64_t kMaxLimit = 1000;

Json hit_json(const ostrel::search::Hit& h) {
  Json metadata = Json::object();
  for (const auto& [k, v] : h.metadata) metadata[k] = v;
  return {{"source_kind", h.source_kind}, {"id", h.id},          {"title", h.title},
          {"snippet", h.snippet},         {"uri", h.uri},        {"score", h.score},
          {"ts_unix_ms", h.ts_unix_ms},   {"metadata", metadata}};
}

}  // namespace

void Kernel::start_search_() {
  const std::int64_t deadline_ms = base::env::integer("OSTREL_SEARCH_DEADLINE_MS", 5000, 1);
  obs::Counter& failures = obs::MetricsRegistry::instance().counter(
      "ostrel_search_source_failures_total", "Search sources that failed or missed the deadline");
  search_ = std::make_unique<ostrel::search::SearchEngine>(
      std::chrono::milliseconds(deadline_ms), [&failures](const std::string&) { failures.add(); });
  auto sources = search::kernel_sources(&syscalls_, &logger_, config_.data_dir);
  for (std::size_t i = 0; i < sources.size(); ++i) {
    auto* k = static_cast<search::KernelSearchSource*>(sources[i].get());
    std::string sub = k->name();
    for (char& c : sub) c = c == '.' ? '_' : c;
    identity_registry::register_subdomain(k->caller().domain, k->caller().subdomain, sub);
    search_->register_source(std::move(sources[i]));
  }
  // Then the sources the modules declare.
  for (auto& m : modules_) {
    for (auto& source : m.instance->search_sources()) {
      if (source) search_->register_source(std::move(source));
    }
  }
  logger_.info("search engine ready: " + std::to_string(search_->sources().size()) +
               " source(s) registered");

  // The whole search of one request body: the answer, or an error body with
  // its status. `bound_tenant` is the caller's tenant when a credential binds
  // it to one (a body naming another tenant is refused).
  // `caller`: the HTTP request, whose credential decides the tenant and the
  // sources it may read; null for modules (the syscall).
  auto run = [this](const Json& body, const Request* caller, int& status) -> Json {
    status = 400;
    ostrel::search::Query q;
    auto text = body.contains("query") ? body["query"] : body.value("q", Json());
    if (!text.is_string() || text.get<std::string>().empty())
      return base::error_body("missing_query");
    q.text = text;
    Json tenant = body.contains("tenant_id") ? body["tenant_id"] : body.value("tenant", Json(""));
    if (tenant.is_null()) tenant = "";
    if (!tenant.is_string()) {
      return base::error_body("invalid_field", {{"field", "tenant_id"}});
    }
    q.tenant_id = tenant;
    if (caller) {
      // Each source is read as its own route would be: for the caller's
      // tenant, and only with that route's scope.
      Response refused;
      const std::string asked = q.tenant_id;
      if (!acting_tenant(*caller, asked, q.tenant_id, refused)) {
        status = refused.status;
        return base::parse_json(refused.body);
      }
      q.may_read = [caller](const std::vector<std::string>& any_of) {
        for (const auto& scope : any_of) {
          if (has_scope(*caller, scope)) return true;
        }
        return false;
      };
    }
    auto limit = body.value("limit", Json(20));
    if (!limit.is_number_integer() || limit.get<std::int64_t>() < 0 ||
        limit.get<std::int64_t>() > kMaxLimit) {
      return base::error_body("invalid_limit",
                              {{"message", "limit must be a whole number from 0 to 1000"}});
    }
    q.limit = limit.get<std::size_t>();
    auto scope = body.value("scope", Json("all"));
    if (!scope.is_string())
      return base::error_body("invalid_scope", {{"message", "scope must be a string"}});
    std::string scope_text = scope;
    if (!ostrel::search::parse_scope(scope_text, q.scope)) scope_text = "unknown";
    if (auto f = body.find("filters"); f != body.end() && !f->is_null()) {
      if (!f->is_object()) {
        return base::error_body("invalid_filters", {{"message", "filters must be an object"}});
      }
      // Text, or a number or true/false given as such ("min_score": 0.1).
      for (auto it = f->begin(); it != f->end(); ++it) {
        if (it->is_string()) {
          q.filters[it.key()] = it->get<std::string>();
        } else if (it->is_number() || it->is_boolean()) {
          q.filters[it.key()] = it->dump();
        } else {
          return base::error_body(
              "invalid_filters",
              {{"message", "filter '" + it.key() + "' must be text, a number or true/false"}});
        }
      }
    }
    ostrel::search::SearchResult r = search_->search(q);
    Json hits = Json::array();
    for (const auto& h : r.hits) hits.push_back(hit_json(h));
    status = 200;
    return {{"hits", hits},
            {"sources_queried", r.sources_queried},
            {"sources_failed", r.sources_failed},
            {"sources_denied", r.sources_denied},
            {"duration_ms", r.duration_ms},
            {"scope", scope_text}};
  };

  auto handler = [run](const Request& req, Response& res) {
    Json body;
    if (!base::parse_object_body(req, res, body)) return;
    int status = 200;
    Json out = run(body, &req, status);
    base::reply(res, out, status);
  };
  gateway_.route("POST", "/api/v1/search", handler);
  gateway_.route("POST", "/v1/search", handler);
  // For modules (the agents' search tool): the same body and answer.
  syscalls_.register_syscall(
      identity::kKernelSource, "search.query", base::json_syscall([run](const Json& args) {
        int status = 200;
        Json out = run(args, nullptr, status);
        return status == 200 ? base::syscall_ok(out) : base::syscall_error_body(out);
      }),
      kernel::SyscallAccess::tenant("search.query"));
}

}  // namespace ostrel::kernel
