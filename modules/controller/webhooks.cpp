#include "modules/controller/webhooks.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>

#include "base/clock.h"
#include "base/encoding.h"
#include "base/http_client.h"
#include "base/json.h"
#include "base/reply.h"

namespace ostrel::controller {
namespace {

using Json = nlohmann::json;

constexpr const char* kSchema =
    "CREATE TABLE IF NOT EXISTS subscriptions ( id TEXT PRIMARY KEY, url TEXT NOT NULL, "
    "events_json TEXT NOT NULL DEFAULT '[]', secret TEXT NOT NULL DEFAULT '', description TEXT "
    "NOT NULL DEFAULT '', created_at TEXT NOT NULL, last_delivery_at TEXT, failure_count INTEGER "
    "NOT NULL DEFAULT 0, disabled INTEGER NOT NULL DEFAULT 0 );"
    "CREATE INDEX IF NOT EXISTS ix_subs_disabled ON subscriptions(disabled);"
    "CREATE TABLE IF NOT EXISTS deliveries ( id INTEGER PRIMARY KEY AUTOINCREMENT, "
    "subscription_id TEXT NOT NULL, event_type TEXT NOT NULL, sent_at TEXT NOT NULL, http_status "
    "INTEGER NOT NULL DEFAULT 0, response_body_truncated TEXT NOT NULL DEFAULT '', error TEXT NOT "
    "NULL DEFAULT '', retry_count INTEGER NOT NULL DEFAULT 0 );"
    "CREATE INDEX IF NOT EXISTS ix_deliveries_sub ON deliveries(subscription_id);"
    "CREATE INDEX IF NOT EXISTS ix_deliveries_sent ON deliveries(sent_at DESC);";

bool wants(const Json& events, const std::string& event) {
  if (!events.is_array() || events.empty()) return true;
  for (const auto& e : events) {
    if (e.is_string() && (e == event || e == "*")) return true;
  }
  return false;
}

struct Outcome {
  long status = 0;
  std::string body, error;
};

Outcome post(const std::string& url, const base::HttpHeaders& headers, const std::string& body,
             int timeout_s, int connect_timeout_s, const AddressGuard& guard) {
  base::HttpRequest r;
  r.method = "POST";
  r.url = url;
  r.headers = headers;
  r.body = body;
  r.timeout = std::chrono::seconds(timeout_s);
  r.connect_timeout = std::chrono::seconds(connect_timeout_s);
  r.max_body = 4096;                       // enough of an answer to report
  r.check_connect = guard.check_for(url);  // a delivery goes where it was subscribed
  base::HttpReply reply = base::http_request(r);
  Outcome o;
  o.status = reply.status;
  o.body = std::move(reply.body);
  if (!reply.transport_ok) {
    o.error = reply.blocked ? "address_not_allowed: inside addresses are refused unless "
                              "named in controller.webhook_private_hosts"
                            : reply.error;
  }
  return o;
}

// True when the URL's host is an address literal inside the node's networks.
bool literal_inside(const std::string& url) {
  std::string host = url_authority(url);
  if (!host.empty() && host.front() == '[') {
    host = host.substr(1, host.find(']') - 1);
    sockaddr_in6 a6{};
    a6.sin6_family = AF_INET6;
    return ::inet_pton(AF_INET6, host.c_str(), &a6.sin6_addr) == 1 &&
           inside_address(reinterpret_cast<const sockaddr*>(&a6));
  }
  host = host.substr(0, host.find(':'));
  if (host == "localhost") return true;
  sockaddr_in a4{};
  a4.sin_family = AF_INET;
  return ::inet_pton(AF_INET, host.c_str(), &a4.sin_addr) == 1 &&
         inside_address(reinterpret_cast<const sockaddr*>(&a4));
}

}  // namespace

std::string ostrel_signature(const std::string& secret, const std::string& body) {
  return base::to_hex(base::hmac_sha256(secret, body));
}

std::string standard_signature(const std::string& secret, const std::string& id,
                               std::int64_t timestamp, const std::string& body) {
  std::string key = secret;
  if (secret.rfind("whsec_", 0) == 0) {
    // The key is base64 (standard alphabet, padded) after the prefix.
    std::string b64 = secret.substr(6), raw;
    std::replace(b64.begin(), b64.end(), '+', '-');
    std::replace(b64.begin(), b64.end(), '/', '_');
    while (!b64.empty() && b64.back() == '=') b64.pop_back();
    if (base::base64url_decode(b64, raw)) key = raw;
  }
  return "v1," + base::base64_encode(
                     base::hmac_sha256(key, id + "." + std::to_string(timestamp) + "." + body));
}

Webhooks::Webhooks(Options options, base::Logger log) : opt_(options), log_(std::move(log)) {}

Webhooks::~Webhooks() { stop(); }

bool Webhooks::open(const std::filesystem::path& path) {
  std::lock_guard lock(db_mu_);
  std::string error;
  std::error_code ec;
  std::filesystem::create_directories(path.parent_path(), ec);
  if (!db_.open(path, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX, error) ||
      !db_.exec("PRAGMA journal_mode=WAL;", error) || !db_.exec(kSchema, error)) {
    log_.warn("webhooks db open failed at " + path.string() + (error.empty() ? "" : ": " + error));
    db_ = base::sqlite::Connection();
    return false;
  }
  log_.info("webhooks db open at " + path.string());
  return true;
}

bool Webhooks::is_open() const { return static_cast<bool>(db_); }

void Webhooks::start() {
  dispatcher_.spawn([this] { dispatch_loop_(); });
}

void Webhooks::stop() { dispatcher_.stop(); }

Webhooks::Answer Webhooks::list() {
  std::lock_guard lock(db_mu_);
  if (!db_) return {base::error_body("webhooks_db_unavailable"), 503};
  std::string error;
  auto st = db_.prepare(
      "SELECT id,url,events_json,description,created_at, last_delivery_at,failure_count,disabled "
      "FROM subscriptions ORDER BY created_at DESC;",
      error);
  if (!st) return {base::error_body("db_prepare_failed", {{"detail", error}}), 500};
  Json out = Json::array();
  while (st.step() == SQLITE_ROW) {
    out.push_back({{"id", st.text(0)},
                   {"url", st.text(1)},
                   {"events", base::parse_json(st.text(2))},
                   {"description", st.text(3)},
                   {"created_at", st.text(4)},
                   {"last_delivery_at", st.is_null(5) ? Json(nullptr) : Json(st.text(5))},
                   {"failure_count", st.int64(6)},
                   {"disabled", st.int64(7) != 0}});
  }
  return {{{"subscriptions", out}, {"count", out.size()}}, 200};
}

Webhooks::Answer Webhooks::create(const Json& body) {
  const std::string url = body.value("url", "");
  if (url.rfind("http://", 0) != 0 && url.rfind("https://", 0) != 0) {
    return {base::error_body("missing_or_invalid_url"), 400};
  }
  if (url.size() > 2048 || url.find_first_of(" \r\n\t") != std::string::npos) {
    return {base::error_body("missing_or_invalid_url"), 400};
  }
  // An inside address written as such is refused at once (a name that
  // resolves to one is refused at delivery).
  if (!opt_.guard.named(url) && literal_inside(url)) {
    return {
        base::error_body("private_target_refused",
                         {{"message",
                           "loopback, private and link-local targets are refused unless named in "
                           "controller.webhook_private_hosts"}}),
        400};
  }
  Json events = body.contains("events") ? body["events"] : Json::array();
  if (!events.is_array() ||
      !std::all_of(events.begin(), events.end(), [](const Json& e) { return e.is_string(); })) {
    return {
        base::error_body("invalid_events", {{"message", "events must be a list of event types"}}),
        400};
  }
  const std::string secret = body.contains("secret") && body["secret"].is_string()
                                 ? body["secret"].get<std::string>()
                                 : "";
  const std::string description = body.contains("description") && body["description"].is_string()
                                      ? body["description"].get<std::string>()
                                      : "";
  const std::string id = "wh-" + base::random_alnum(12), created = base::utc_text();
  std::lock_guard lock(db_mu_);
  if (!db_) return {base::error_body("webhooks_db_unavailable"), 503};
  std::string error;
  auto st = db_.prepare(
      "INSERT INTO subscriptions(id,url,events_json,secret,description,created_at,failure_count,"
      "disabled) VALUES (?,?,?,?,?,?,0,0);",
      error);
  if (!st) return {base::error_body("db_insert_failed", {{"detail", error}}), 500};
  st.bind(1, id).bind(2, url).bind(3, base::dump_json(events)).bind(4, secret);
  st.bind(5, description).bind(6, created);
  if (st.step() != SQLITE_DONE) {
    return {base::error_body("db_insert_failed", {{"detail", db_.message()}}), 500};
  }
  return {{{"subscription_id", id}, {"url", url}, {"events", events}, {"created_at", created}},
          200};
}

Webhooks::Answer Webhooks::remove(const std::string& id) {
  std::lock_guard lock(db_mu_);
  if (!db_) return {base::error_body("webhooks_db_unavailable"), 503};
  std::string error;
  auto st = db_.prepare("DELETE FROM subscriptions WHERE id=?;", error);
  if (!st) return {base::error_body("db_prepare_failed"), 500};
  st.bind(1, id);
  if (st.step() != SQLITE_DONE) return {base::error_body("db_delete_failed"), 500};
  if (db_.changes() == 0) return {base::error_body("not_found"), 404};
  return {{{"status", "deleted"}}, 200};
}

Webhooks::Answer Webhooks::test(const std::string& id) {
  Job job;
  {
    std::lock_guard lock(db_mu_);
    if (!db_) return {base::error_body("webhooks_db_unavailable"), 503};
    std::string error;
    auto st = db_.prepare("SELECT url,secret FROM subscriptions WHERE id=? AND disabled=0;", error);
    if (!st) return {base::error_body("db_prepare_failed"), 500};
    st.bind(1, id);
    if (st.step() != SQLITE_ROW) return {base::error_body("not_found_or_disabled"), 404};
    job = {id, st.text(0), st.text(1), "webhook.test", ""};
  }
  job.body = base::dump_json(
      {{"event", job.event},
       {"ts", base::utc_text()},
       {"payload", {{"message", "manual test from /api/v1/webhooks/subscriptions/" + id}}}});
  push_(std::move(job));
  return {{{"status", "queued"}, {"subscription_id", id}}, 200};
}

Webhooks::Answer Webhooks::deliveries(const std::string& subscription_id, int limit) {
  std::lock_guard lock(db_mu_);
  if (!db_) return {base::error_body("webhooks_db_unavailable"), 503};
  std::string error;
  auto st = db_.prepare(
      subscription_id.empty()
          ? "SELECT id,subscription_id,event_type,sent_at,http_status,response_body_truncated,"
            "error,retry_count FROM deliveries ORDER BY id DESC LIMIT ?;"
          : "SELECT id,subscription_id,event_type,sent_at,http_status,response_body_truncated,"
            "error,retry_count FROM deliveries WHERE subscription_id=? ORDER BY id DESC LIMIT ?;",
      error);
  if (!st) return {base::error_body("db_prepare_failed"), 500};
  if (subscription_id.empty()) {
    st.bind(1, static_cast<std::int64_t>(limit));
  } else {
    st.bind(1, subscription_id).bind(2, static_cast<std::int64_t>(limit));
  }
  Json out = Json::array();
  while (st.step() == SQLITE_ROW) {
    out.push_back({{"id", st.int64(0)},
                   {"subscription_id", st.text(1)},
                   {"event_type", st.text(2)},
                   {"sent_at", st.text(3)},
                   {"http_status", st.int64(4)},
                   {"response_body_truncated", st.text(5)},
                   {"error", st.text(6)},
                   {"retry_count", st.int64(7)}});
  }
  return {{{"deliveries", out}, {"count", out.size()}}, 200};
}

void Webhooks::enqueue_event(const std::string& event, const Json& payload) {
  std::vector<Job> jobs;
  {
    std::lock_guard lock(db_mu_);
    if (!db_) return;
    std::string error;
    auto st =
        db_.prepare("SELECT id,url,secret,events_json FROM subscriptions WHERE disabled=0;", error);
    if (!st) return;
    const std::string body =
        base::dump_json({{"event", event}, {"ts", base::utc_text()}, {"payload", payload}});
    while (st.step() == SQLITE_ROW) {
      if (wants(base::parse_json(st.text(3)), event)) {
        jobs.push_back({st.text(0), st.text(1), st.text(2), event, body});
      }
    }
  }
  for (auto& j : jobs) push_(std::move(j));
}

void Webhooks::push_(Job job) {
  {
    auto lock = dispatcher_.lock();
    if (dispatcher_.stopping(lock) || queue_.size() >= 10000) return;
    queue_.push_back(std::move(job));
  }
  dispatcher_.wake();
}

void Webhooks::dispatch_loop_() {
  while (true) {
    Job job;
    {
      auto lock = dispatcher_.lock();
      if (dispatcher_.wait(lock, [this] { return !queue_.empty(); })) return;
      job = std::move(queue_.front());
      queue_.pop_front();
    }
    deliver_(job);
  }
}

void Webhooks::deliver_(const Job& job) {
  const std::string msg_id = "msg_" + base::to_hex(base::random_bytes(12));
  Outcome o;
  int attempt = 0;
  bool permanent = false;
  for (int pause = opt_.retry_pause_ms; attempt < opt_.attempts; pause *= 2) {
    ++attempt;
    const std::int64_t ts = base::unix_s();
    o = post(job.url,
             {{"X-Ostrel-Event", job.event},
              {"X-Ostrel-Signature", "sha256=" + ostrel_signature(job.secret, job.body)},
              {"webhook-id", msg_id},
              {"webhook-timestamp", std::to_string(ts)},
              {"webhook-signature", standard_signature(job.secret, msg_id, ts, job.body)}},
             job.body, opt_.timeout_s, opt_.connect_timeout_s, opt_.guard);
    if (o.error.empty() && o.status >= 200 && o.status < 300) break;
    permanent = o.status == 410 || o.error.rfind("address_not_allowed", 0) == 0 ||
                o.error.find("Couldn't resolve host") != std::string::npos ||
                o.error.find("Could not resolve host") != std::string::npos;
    if (permanent || attempt >= opt_.attempts) break;
    if (dispatcher_.wait_for(std::chrono::milliseconds(pause))) return;
  }
  const bool ok = o.error.empty() && o.status >= 200 && o.status < 300;
  const std::string now = base::utc_text();
  std::lock_guard lock(db_mu_);
  if (!db_) return;
  std::string error;
  const char* update =
      ok ? "UPDATE subscriptions SET last_delivery_at=?, failure_count=0 WHERE id=?;"
      : permanent
          ? "UPDATE subscriptions SET last_delivery_at=?, failure_count = failure_count + 1, "
            "disabled = 1 WHERE id=?;"
          : "UPDATE subscriptions SET last_delivery_at=?, failure_count = failure_count + 1, "
            "disabled = CASE WHEN failure_count + 1 >= ? THEN 1 ELSE disabled END WHERE id=?;";
  auto st = db_.prepare(update, error);
  if (st) {
    st.bind(1, now);
    if (!ok && !permanent) {
      st.bind(2, static_cast<std::int64_t>(opt_.disable_after_failures))
          .bind(3, job.subscription_id);
    } else {
      st.bind(2, job.subscription_id);
    }
    st.step();
  }
  if (!ok) {
    log_.warn("webhook delivery to " + job.subscription_id +
              " failed: " + (o.error.empty() ? "http " + std::to_string(o.status) : o.error) +
              (permanent ? " (disabled)" : ""));
  }
  auto ins = db_.prepare(
      "INSERT INTO deliveries(subscription_id,event_type,sent_at,http_status,"
      "response_body_truncated,error,retry_count) VALUES (?,?,?,?,?,?,?);",
      error);
  if (ins) {
    ins.bind(1, job.subscription_id).bind(2, job.event).bind(3, now);
    ins.bind(4, static_cast<std::int64_t>(o.status)).bind(5, o.body.substr(0, 512));
    ins.bind(6, o.error).bind(7, static_cast<std::int64_t>(attempt - 1));
    ins.step();
  }
  db_.exec(
      "DELETE FROM deliveries WHERE id NOT IN ( SELECT id FROM deliveries ORDER BY id DESC "
      "LIMIT 1000);",
      error);
}

}  // namespace ostrel::controller
