#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <filesystem>
#include <functional>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>

#include <thread>
#include "modules/controller/address_guard.h"

#include "base/logger.h"
#include "base/no_copy.h"
#include "base/sqlite.h"
#include "base/workers.h"

// Outbound webhooks: subscriptions in "webhooks.db", a queue of delivery
// jobs and the dispatcher thread that POSTs them signed, records each
// delivery and disables subscriptions that keep failing.
namespace ostrel::controller {

// The two signature schemes every delivery carries:
//  - "X-Ostrel-Signature: sha256=" + hex HMAC-SHA256(secret, body);
//  - Standard Webhooks: "webhook-signature: v1," + base64 HMAC-SHA256(key,
//    id + "." + timestamp + "." + body), where the key is the base64 part of
//    a "whsec_…" secret, or the secret's own bytes otherwise.
std::string ostrel_signature(const std::string& secret, const std::string& body);
std::string standard_signature(const std::string& secret, const std::string& id,
                               std::int64_t timestamp, const std::string& body);

class Webhooks : private base::NoCopy {
 public:
  struct Options {
    int attempts = 3;                 // per delivery, the first included
    int retry_pause_ms = 500;         // doubled after each attempt
    int disable_after_failures = 10;  // consecutive failed deliveries
    int timeout_s = 15;
    int connect_timeout_s = 5;
    // Which targets may be inside addresses (loopback, private, link-local):
    // none unless named.
    AddressGuard guard;
  };

  Webhooks(Options options, base::Logger log);
  ~Webhooks();

  // Opens (creating) the database; logs the outcome. Routes answer
  // "webhooks_db_unavailable" while it is closed.
  bool open(const std::filesystem::path& path);
  bool is_open() const;
  void start();  // the dispatcher thread
  void stop();   // joins it; jobs still queued are dropped

  // Route bodies: a JSON answer and its HTTP status.
  struct Answer {
    nlohmann::json body;
    int status = 200;
  };
  Answer list();
  Answer create(const nlohmann::json& body);
  Answer remove(const std::string& id);
  Answer test(const std::string& id);
  Answer deliveries(const std::string& subscription_id, int limit);

  // Queues `event` for every active subscription that wants it (an empty
  // events list or "*" wants everything).
  void enqueue_event(const std::string& event, const nlohmann::json& payload);

 private:
  struct Job {
    std::string subscription_id, url, secret, event, body;
  };
  void dispatch_loop_();
  void deliver_(const Job& job);
  void push_(Job job);

  Options opt_;
  base::Logger log_;
  std::mutex db_mu_;  // guards db_ (the one connection)
  base::sqlite::Connection db_;
  std::deque<Job> queue_;     // guarded by dispatcher_'s lock
  base::Workers dispatcher_;  // the delivery loop; joined by stop() (declared last)
};

}  // namespace ostrel::controller
