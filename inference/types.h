#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace ostrel::inference {

struct Message {
  std::string role = "user";  // "system", "user", "assistant" or "tool"
  std::string content;
  std::string name;
  std::string tool_call_id;
  // The calls an assistant message makes, as the JSON text of a
  // chat-completions "tool_calls" array (arguments as JSON texts); empty
  // when none.
  std::string tool_calls;
};

struct ChatRequest {
  std::string request_id;
  std::string model;
  std::string session_id;
  std::string tenant_id;
  std::string user_id;
  std::vector<Message> messages;
  std::optional<float> temperature;
  std::optional<float> top_p;
  std::optional<std::int64_t> max_tokens;
  std::optional<float> presence_penalty;
  std::optional<float> frequency_penalty;
  std::vector<std::string> stop;
  std::int64_t priority = 0;
  std::map<std::string, std::string> metadata;
  // The tools the model may call and how it should choose, as the JSON texts
  // of the request's "tools" array and "tool_choice"; empty when absent.
  std::string tools;
  std::string tool_choice;
  // "stream_options": {"include_usage": true}: a streamed answer ends with a
  // chunk that carries the token counts.
  bool include_usage = false;
};

struct ChatResponse {
  std::string request_id;
  std::string model;
  std::string backend_id;
  Message message{"assistant", "", "", "", ""};
  std::string finish_reason = "stop";
  std::int64_t prompt_tokens = 0;
  std::int64_t completion_tokens = 0;
  std::int64_t latency_ms = 0;
};

struct ChatChunk {
  std::string delta;
  std::string model;
  std::optional<std::string> finish_reason;
  std::optional<std::string> error;
  bool done = false;
  // Token counts, on the last chunk when the backend reports them.
  std::int64_t prompt_tokens = 0;
  std::int64_t completion_tokens = 0;
  // Another chunk has already arrived and follows at once: a writer may hold
  // this one back and send both in one write.
  bool more_ready = false;
};

// An HTTP-like status (400, 401, 404, 409, 499, 500, 502, 504, 507) and a text.
struct InferenceError {
  std::uint16_t code = 500;
  std::string message;
};

// The client-facing error type of a code ("quota_exceeded" for 507, …).
const char* error_type(std::uint16_t code);

// Returns false to stop the stream.
using ChunkSink = std::function<bool(const ChatChunk&)>;

struct BackendStats {
  std::string id;
  std::string kind;
  bool healthy = false;
  std::uint64_t requests_total = 0;
  std::uint64_t in_flight = 0;
  std::uint64_t completed = 0;
  std::uint64_t errors = 0;
  std::uint64_t avg_latency_ms = 0;
  std::uint64_t avg_tokens = 0;
  std::vector<std::string> models;
};

// A model server the engine can send chat requests to. Shared between the
// engine, the scheduler's workers and the health thread: implementations keep
// their counters atomic and their cached state under their own lock.
class Backend {
 public:
  virtual ~Backend() = default;
  virtual std::string id() const = 0;
  virtual std::string kind() const = 0;
  virtual std::vector<std::string> list_models() = 0;
  virtual bool is_healthy() const = 0;
  virtual bool poll_health() = 0;
  virtual std::optional<InferenceError> complete(const ChatRequest& req, ChatResponse& resp) = 0;
  virtual std::optional<InferenceError> stream(const ChatRequest& req, const ChunkSink& sink) = 0;
  virtual BackendStats stats() const = 0;
  // Once `fd` (borrowed from the engine) is readable, calls in progress and
  // later ones end at once: the node is shutting down.
  virtual void set_abort_fd(int fd) {}
};

}  // namespace ostrel::inference
