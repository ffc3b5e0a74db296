#include "inference/echo_backend.h"

namespace ostrel::inference {
namespace {

std::string echo_text(const ChatRequest& req) {
  static const std::string kEmpty;
  const std::string& last = req.messages.empty() ? kEmpty : req.messages.back().content;
  std::string out;
  out.reserve(6 + last.size());  // one allocation of the answer's size, however long
  out += "Echo: ";
  out += last;
  return out;
}

// Words with their following blank, so that the pieces concatenate back to
// the text. A long text goes in at most about 256 pieces of several words
// each: one piece per word would make a reply of a million words a million
// events.
template <class Piece>
void for_each_piece(std::string_view text, Piece&& piece) {
  const std::size_t at_least = text.size() / 256;
  std::size_t start = 0;
  while (start < text.size()) {
    std::size_t end = start;
    do {
      const std::size_t space = text.find(' ', end);
      end = space == std::string_view::npos ? text.size() : space + 1;
    } while (end - start < at_least && end < text.size());
    if (!piece(text.substr(start, end - start))) return;
    start = end;
  }
}

std::int64_t word_count(std::string_view text) {
  std::int64_t n = 0;
  std::size_t start = 0;
  while (start < text.size()) {
    const std::size_t space = text.find(' ', start);
    start = space == std::string_view::npos ? text.size() : space + 1;
    ++n;
  }
  return n;
}

}  // namespace

std::optional<InferenceError> EchoBackend::complete(const ChatRequest& req, ChatResponse& resp) {
  requests_.fetch_add(1);
  // The answer names the model that gave it, whatever was asked for.
  resp.model = "echo";
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
  const std::string model = "echo";
  std::optional<InferenceError> result;
  std::string text = echo_text(req);
  const std::int64_t completion_tokens = word_count(text);
  for_each_piece(text, [&](std::string_view piece) {
    ChatChunk chunk;
    // A text of one piece is handed on, not copied.
    if (piece.size() == text.size()) {
      chunk.delta = std::move(text);
    } else {
      chunk.delta.assign(piece);
    }
    chunk.model = model;
    if (sink(chunk)) return true;
    result = InferenceError{499, "echo: stream aborted by sink"};
    return false;
  });
  if (!result) {
    ChatChunk last;
    last.model = model;
    last.finish_reason = "stop";
    last.done = true;
    for (const auto& m : req.messages) last.prompt_tokens += word_count(m.content);
    last.completion_tokens = completion_tokens;
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
