#pragma once

#include <httplib.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/test_support.h"

namespace ostrel::testing {

// A setting a test changes while the server's threads read it: assignment
// and reads take a lock, so the two sides are ordered for ThreadSanitizer
// too (it cannot see the ordering the request's socket gives them).
template <typename T>
class Guarded {
 public:
  Guarded(T v = T()) : v_(std::move(v)) {}  // NOLINT: assigned like the plain value
  Guarded& operator=(T v) {
    std::lock_guard lock(mu_);
    v_ = std::move(v);
    return *this;
  }
  T get() const {
    std::lock_guard lock(mu_);
    return v_;
  }

 private:
  mutable std::mutex mu_;
  T v_;
};

// A loopback model server speaking the Ollama protocol: /api/tags lists
// `models`, /api/chat answers `reply` whole or as NDJSON pieces (one per word,
// `piece_delay` apart), or fails with `fail_status`. Records every chat body.
class FakeOllama {
 public:
  Guarded<std::vector<std::string>> models{std::vector<std::string>{"llama3"}};
  Guarded<std::string> reply{"hello from the model"};
  Guarded<int> fail_status{0};
  Guarded<std::string> fail_body{"{\"error\":\"nope\"}"};
  Guarded<std::chrono::milliseconds> piece_delay{std::chrono::milliseconds(0)};
  // Before a whole (non-streamed) answer.
  Guarded<std::chrono::milliseconds> reply_delay{std::chrono::milliseconds(0)};
  // >= 0: drop the connection after that many pieces.
  Guarded<int> pieces_before_dying{-1};

  FakeOllama() {
    server_.Get("/api/tags", [this](const httplib::Request&, httplib::Response& res) {
      nlohmann::json list = nlohmann::json::array();
      for (const auto& m : models.get()) list.push_back({{"name", m}});
      res.set_content(nlohmann::json{{"models", list}}.dump(), "application/json");
    });
    server_.Post("/api/chat", [this](const httplib::Request& req, httplib::Response& res) {
      nlohmann::json body = nlohmann::json::parse(req.body, nullptr, false);
      {
        std::lock_guard lock(mu_);
        bodies_.push_back(body);
      }
      if (const int failing = fail_status.get()) {
        res.status = failing;
        res.set_content(fail_body.get(), "application/json");
        return;
      }
      const std::string model = body.value("model", "");
      if (!body.value("stream", false)) {
        std::this_thread::sleep_for(reply_delay.get());
        res.set_content(
            nlohmann::json{{"model", model},
                           {"message", {{"role", "assistant"}, {"content", reply.get()}}},
                           {"done", true},
                           {"done_reason", "stop"},
                           {"prompt_eval_count", 7},
                           {"eval_count", 4}}
                .dump(),
            "application/json");
        return;
      }
      res.set_chunked_content_provider(
          "application/x-ndjson",
          [this, model, reply = reply.get(), piece_delay = piece_delay.get(),
           pieces_before_dying = pieces_before_dying.get()](size_t, httplib::DataSink& sink) {
            std::vector<std::string> words;
            size_t start = 0;
            while (start < reply.size()) {
              size_t sp = reply.find(' ', start);
              size_t end = sp == std::string::npos ? reply.size() : sp + 1;
              words.push_back(reply.substr(start, end - start));
              start = end;
            }
            int sent = 0;
            for (const auto& w : words) {
              if (pieces_before_dying >= 0 && sent == pieces_before_dying) return false;
              std::string line =
                  nlohmann::json{{"model", model},
                                 {"message", {{"role", "assistant"}, {"content", w}}},
                                 {"done", false}}
                      .dump() +
                  "\n";
              if (!sink.write(line.data(), line.size())) {
                client_gone_ = true;
                return false;
              }
              ++sent;
              ++pieces_sent_;
              // Interruptible, so that a test can end a stalled stream.
              auto until = std::chrono::steady_clock::now() + piece_delay;
              while (!stopping_ && std::chrono::steady_clock::now() < until) {
                std::this_thread::sleep_for(std::chrono::milliseconds(5));
              }
              if (stopping_) return false;
            }
            std::string last =
                nlohmann::json{{"model", model}, {"done", true}, {"done_reason", "length"}}.dump() +
                "\n";
            sink.write(last.data(), last.size());
            sink.done();
            return true;
          });
    });
    thread_ = serve_on_loopback(server_, port_);
  }
  ~FakeOllama() {
    stopping_ = true;
    server_.stop();
    thread_.join();
  }

  std::string url() const { return "http://127.0.0.1:" + std::to_string(port_); }
  std::vector<nlohmann::json> bodies() {
    std::lock_guard lock(mu_);
    return bodies_;
  }
  bool client_gone() const { return client_gone_; }
  int pieces_sent() const { return pieces_sent_; }

 private:
  httplib::Server server_;
  int port_ = 0;
  std::thread thread_;
  std::mutex mu_;
  std::vector<nlohmann::json> bodies_;
  std::atomic<bool> client_gone_{false};
  std::atomic<int> pieces_sent_{0};
  std::atomic<bool> stopping_{false};
};

}  // namespace ostrel::testing
