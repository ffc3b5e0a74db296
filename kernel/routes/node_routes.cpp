// The kernel's smaller families: feature flags, message catalogues, the
// hybrid logical clock, and the extension routes this build does not fill.
#include <algorithm>
#include <filesystem>
#include <limits>
#include <nlohmann/json.hpp>

#include "base/access.h"
#include "base/clock.h"
#include "base/durable_file.h"
#include "base/json.h"
#include "base/names.h"
#include "base/reply.h"
#include "kernel/kernel.h"

namespace ostrel::kernel {
namespace {

using Json = nlohmann::json;
namespace fs = std::filesystem;
using base::reply;

// The logical counter stops at its top instead of wrapping to negative.
std::int64_t next_logical(std::int64_t v) {
  return v >= std::numeric_limits<std::int64_t>::max() ? v : std::max<std::int64_t>(v, -1) + 1;
}

}  // namespace

// ---------------------------------------------------------------------------
// Hybrid logical clock

HybridClock::Stamp HybridClock::now() {
  std::lock_guard lock(mu_);
  const std::int64_t wall = base::unix_ms();
  if (wall > last_.physical_ms) {
    last_ = {wall, 0};
  } else {
    last_.logical = next_logical(last_.logical);
  }
  return last_;
}

HybridClock::Stamp HybridClock::update(Stamp remote) {
  std::lock_guard lock(mu_);
  const std::int64_t wall = base::unix_ms();
  const std::int64_t top = std::max({wall, last_.physical_ms, remote.physical_ms});
  if (top == last_.physical_ms && top == remote.physical_ms) {
    last_.logical = next_logical(std::max(last_.logical, remote.logical));
  } else if (top == last_.physical_ms) {
    last_.logical = next_logical(last_.logical);
  } else if (top == remote.physical_ms) {
    last_ = {top, next_logical(remote.logical)};
  } else {
    last_ = {top, 0};
  }
  last_.physical_ms = top;
  return last_;
}

// ---------------------------------------------------------------------------

void Kernel::register_node_routes_() {
  const fs::path state = fs::path(config_.data_dir) / "state";

  // Feature flags: named switches operators turn on and off at run time,
  // kept whole in "<data_dir>/state/flags.json".
  {
    bool opened = false;
    Json saved = base::read_json_file(state / "flags.json", opened);
    std::lock_guard lock(flags_mu_);
    flags_ = saved.is_object() && saved.contains("flags") && saved["flags"].is_object()
                 ? saved["flags"]
                 : Json::object();
  }
  gateway_.route("GET", "/api/v1/flags", [this](const Request&, Response& res) {
    std::lock_guard lock(flags_mu_);
    Json list = Json::array();
    for (auto it = flags_.begin(); it != flags_.end(); ++it) {
      Json f = it.value();
      f["name"] = it.key();
      list.push_back(f);
    }
    reply(res, {{"flags", list}, {"count", list.size()}});
  });
  const std::string prefix = "/api/v1/flags/";
  gateway_.route("GET", "/api/v1/flags/*", [this, prefix](const Request& req, Response& res) {
    const std::string name = req.path.substr(prefix.size());
    std::lock_guard lock(flags_mu_);
    if (!flags_.contains(name)) return base::fail(res, 404, "flag_not_found", {{"name", name}});
    Json f = flags_[name];
    f["name"] = name;
    reply(res, f);
  });
  gateway_.route(
      "POST", "/api/v1/flags/*", [this, prefix, state](const Request& req, Response& res) {
        if (!require_admin(req, res)) return;
        const std::string name = req.path.substr(prefix.size());
        std::string why;
        if (!base::safe_name(name, why)) return base::fail(res, 400, "invalid_flag_name", why);
        Json body;
        if (!base::parse_object_body(req, res, body)) return;
        auto enabled = body.find("enabled");
        if (enabled == body.end() || !enabled->is_boolean()) {
          return base::fail(res, 400, "invalid_field",
                            {{"field", "enabled"}, {"message", "enabled must be true or false"}});
        }
        std::lock_guard lock(flags_mu_);
        Json next = flags_;
        Json f = next.contains(name) ? next[name] : Json::object();
        f["enabled"] = *enabled;
        if (body.contains("value")) f["value"] = body["value"];
        if (body.contains("description") && body["description"].is_string())
          f["description"] = body["description"];
        f["updated_at_ms"] = base::unix_ms();
        next[name] = f;
        std::string error;
        if (!base::write_file_atomically(state / "flags.json",
                                         base::dump_json(Json{{"flags", next}}) + "\n", error)) {
          return base::fail(res, 500, "persist_failed");
        }
        flags_ = std::move(next);
        bus_.publish(identity::kKernelSource, "kernel.flag.changed",
                     base::dump_json({{"name", name}, {"enabled", *enabled}}));
        f["name"] = name;
        reply(res, f);
      });
  gateway_.route(
      "DELETE", "/api/v1/flags/*", [this, prefix, state](const Request& req, Response& res) {
        if (!require_admin(req, res)) return;
        const std::string name = req.path.substr(prefix.size());
        std::lock_guard lock(flags_mu_);
        if (!flags_.contains(name)) return base::fail(res, 404, "flag_not_found", {{"name", name}});
        Json next = flags_;
        next.erase(name);
        std::string error;
        if (!base::write_file_atomically(state / "flags.json",
                                         base::dump_json(Json{{"flags", next}}) + "\n", error)) {
          return base::fail(res, 500, "persist_failed");
        }
        flags_ = std::move(next);
        reply(res, {{"status", "deleted"}, {"name", name}});
      });

  // Message catalogues: "<data_dir>/i18n/<locale>.json", each {key: text}.
  const fs::path i18n = fs::path(config_.data_dir) / "i18n";
  {
    std::error_code ec;
    if (fs::is_directory(i18n, ec)) {
      std::size_t keys = 0;
      std::lock_guard lock(i18n_mu_);
      for (fs::directory_iterator it(i18n, ec), end; !ec && it != end; it.increment(ec)) {
        if (it->path().extension() != ".json") continue;
        bool opened = false;
        Json j = base::read_json_file(it->path(), opened);
        if (!j.is_object()) {
          logger_.warn("i18n: " + it->path().filename().string() +
                       " is not a JSON object — skipped");
          continue;
        }
        keys += j.size();
        catalogs_[it->path().stem().string()] = j;
      }
      logger_.info("i18n: loaded " + std::to_string(catalogs_.size()) + " catalog(s), " +
                   std::to_string(keys) + " message(s) from " + i18n.string());
    }
  }
  gateway_.route("GET", "/api/v1/i18n", [this](const Request& req, Response& res) {
    std::lock_guard lock(i18n_mu_);
    const std::string locale = req.param("locale");
    if (locale.empty()) {
      Json locales = Json::array();
      for (const auto& [l, m] : catalogs_)
        locales.push_back({{"locale", l}, {"messages", m.size()}});
      return reply(res, {{"locales", locales}});
    }
    auto it = catalogs_.find(locale);
    if (it == catalogs_.end())
      return base::fail(res, 404, "locale_not_found", {{"locale", locale}});
    reply(res, {{"locale", locale}, {"messages", it->second}});
  });
  gateway_.route("POST", "/api/v1/i18n", [this, i18n](const Request& req, Response& res) {
    if (!require_admin(req, res)) return;
    Json body;
    if (!base::parse_object_body(req, res, body)) return;
    const std::string locale = body.contains("locale") && body["locale"].is_string()
                                   ? body["locale"].get<std::string>()
                                   : "";
    std::string why;
    if (!base::safe_name(locale, why, 32)) return base::fail(res, 400, "invalid_locale", why);
    auto messages = body.find("messages");
    if (messages == body.end() || !messages->is_object() ||
        !std::all_of(messages->begin(), messages->end(),
                     [](const Json& v) { return v.is_string(); })) {
      return base::fail(
          res, 400, "invalid_field",
          {{"field", "messages"}, {"message", "messages must be an object of strings"}});
    }
    std::lock_guard lock(i18n_mu_);
    Json merged = catalogs_.count(locale) ? catalogs_[locale] : Json::object();
    merged.update(*messages);
    std::string error;
    if (!base::write_file_atomically(i18n / (locale + ".json"), base::dump_json(merged) + "\n",
                                     error)) {
      return base::fail(res, 500, "persist_failed");
    }
    catalogs_[locale] = merged;
    reply(res, {{"locale", locale}, {"messages", merged.size()}});
  });

  // The hybrid logical clock.
  auto stamp_json = [this](HybridClock::Stamp s) {
    return Json{{"physical_ms", s.physical_ms},
                {"logical", s.logical},
                {"node_id", config_.node_id},
                {"timestamp", std::to_string(s.physical_ms) + "." + std::to_string(s.logical)}};
  };
  gateway_.route("GET", "/api/v1/hlc", [this, stamp_json](const Request&, Response& res) {
    reply(res, stamp_json(hlc_.now()));
  });
  gateway_.route("POST", "/api/v1/hlc/update",
                 [this, stamp_json](const Request& req, Response& res) {
                   // Peers merge their clocks here (administrators may too);
                   // nobody else moves this node's clock.
                   if (!is_peer(req) && !is_admin(req)) {
                     return base::fail(res, 403, "forbidden",
                                       {{"reason", "only peer nodes update the clock"}});
                   }
                   Json body;
                   if (!base::parse_object_body(req, res, body)) return;
                   auto p = body.find("physical_ms");
                   auto l = body.find("logical");
                   if (p == body.end() || !p->is_number_integer() ||
                       (l != body.end() && !l->is_number_integer())) {
                     return base::fail(res, 400, "invalid_field",
                                       "physical_ms (and logical) must be whole numbers");
                   }
                   HybridClock::Stamp remote{p->get<std::int64_t>(),
                                             l == body.end() ? 0 : l->get<std::int64_t>()};
                   // A peer's clock far in the future would drag this node's along.
                   if (remote.physical_ms > base::unix_ms() + 60000) {
                     return base::fail(res, 400, "clock_skew",
                                       "physical_ms is more than 60 s ahead of this node");
                   }
                   reply(res, stamp_json(hlc_.update(remote)));
                 });

  // Extensions are not part of this build: the list is empty, and the
  // routes that would change it are not served.
  gateway_.route("GET", "/api/v1/extensions", [](const Request&, Response& res) {
    reply(res, {{"extensions", Json::array()},
                {"count", 0},
                {"note", "extensions are not part of this build"}});
  });
  gateway_.route("GET", "/api/v1/audit/extensions", [](const Request&, Response& res) {
    reply(res, {{"ok", true},
                {"entries", Json::array()},
                {"note", "extensions are not part of this build"}});
  });
  syscalls_.register_syscall(identity::kKernelSource, "extension.list", [](std::string_view) {
    return base::syscall_ok({{"extensions", Json::array()}});
  });
  syscalls_.register_syscall(
      identity::kKernelSource, "extension.invoke_tool", [](std::string_view) {
        return base::syscall_error("not_implemented", "extensions are not part of this build");
      });
}

}  // namespace ostrel::kernel
