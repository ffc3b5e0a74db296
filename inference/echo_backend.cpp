#include "inference/echo_backend.h"

namespace ostrel::inference {
namespace {

std::string echo_text(const ChatRequest& req) {
  return "Echo: " + (req.messages.empty() ? std::string() : req.messages.back().content);
}

// Words with their following blank, so that the pieces concatenate back to the text.
std::vector<std::string> pieces(const std::string& text) {
  std::vector<std::string> out;
  size_t start = 0;
  while (start < text.size()) {
    size_t space = text.find(' ', start);
    size_t end = space == std::string::npos ? text.size() : space + 1;
    out.push_back(text.substr(start, end - start));
    start = end;
  }
  return out;
}

std::int64_t word_count(const std::string& text) {
  return static_cast<std::int64_t>(pieces(text).size());
}

}  // namespace

std::optional<InferenceError> EchoBackend::complete(const ChatRequest& req, ChatResponse& resp) {
  requests_.fetch_add(1);
  resp.model = req.model.empty() ? "echo" : req.model;
  resp.backend_id = id_;
  resp.message = Message{"assistant", echo_text(req), "", "", ""};
  resp.finish_reason = "stop";
  for (const auto& m : req.messages) resp.prompt_tokens += word_count(m.content);
  resp.completion_tokens = word_count(resp.message.content);
  total_tokens_.fetch_add(static_cast<std::uint64_t>(resp.completion_tokens));
  completed_.fetch_add(1);
  return std::nullopt;
}

std::optional<InferenceError> EchoBackend::stream(const ChatRequest& req, const ChunkSink& sink) {
  if (!sink) return InferenceError{400, "echo: sink callback is null"};
  requests_.fetch_add(1);
  const std::string model = req.model.empty() ? "echo" : req.model;
  std::optional<InferenceError> result;
  for (const auto& piece : pieces(echo_text(req))) {
    ChatChunk chunk;
    chunk.delta = piece;
    chunk.model = model;
    if (!sink(chunk)) {
      result = InferenceError{499, "echo: stream aborted by sink"};
      break;
    }
  }
  if (!result) {
    ChatChunk last;
    last.model = model;
    last.finish_reason = "stop";
    last.done = true;
    for (const auto& m : req.messages) last.prompt_tokens += word_count(m.content);
    last.completion_tokens = word_count(echo_text(req));
    sink(last);
  }
  completed_.fetch_add(1);
  return result;
}

BackendStats EchoBackend::stats() const {
  BackendStats s;
  s.id = id_;
  s.kind = "echo";
  s.healthy = true;
  // Completed first: a request finishing between the two loads must not make
  // in_flight negative.
  s.completed = completed_.load();
  s.requests_total = requests_.load();
  s.in_flight = s.requests_total - s.completed;
  s.errors = 0;
  s.avg_tokens = s.completed ? total_tokens_.load() / s.completed : 0;
  s.models = {"echo"};
  return s;
}

}  // namespace ostrel::inference
