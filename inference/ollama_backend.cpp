#include "inference/ollama_backend.h"

#include <charconv>
#include <nlohmann/json.hpp>

#include "base/http_client.h"
#include "base/json.h"
#include "base/text.h"
#include "inference/ollama_fields.h"

namespace ostrel::inference {
namespace {

using Json = nlohmann::json;

constexpr std::chrono::milliseconds kTagsTimeout{5000};

struct StreamState {
  const ChunkSink* sink;
  std::string model;
  std::string pending;  // bytes after the last complete line
  std::string body;     // everything, for error reports
  bool aborted = false;
  bool finished = false;
  bool http_error = false;
  std::string parse_error;
};

// Feeds complete NDJSON lines to the sink; false ends the transfer.
bool on_stream_data(StreamState* st, std::string_view data) {
  if (st->http_error) {
    st->body.append(data);
    return true;
  }
  st->pending.append(data);
  size_t start = 0;
  while (true) {
    size_t nl = st->pending.find('\n', start);
    if (nl == std::string::npos) break;
    std::string_view line(st->pending.data() + start, nl - start);
    start = nl + 1;
    if (line.empty() || st->finished) continue;
    ChatChunk chunk;
    if (OllamaFields f; scan_ollama_fields(line, f)) {
      chunk.model = f.model ? *f.model : st->model;
      if (f.message_is_object) chunk.delta = f.content.value_or("");
      if (f.done.value_or(false)) {
        chunk.done = true;
        chunk.finish_reason = f.done_reason.value_or("stop");
        chunk.prompt_tokens = f.prompt_eval_count.value_or(0);
        chunk.completion_tokens = f.eval_count.value_or(0);
      }
    } else {
      Json obj = base::parse_json(line);
      if (!obj.is_object()) {
        st->parse_error = std::string(line);
        continue;
      }
      chunk.model = obj.value("model", st->model);
      if (auto m = obj.find("message"); m != obj.end() && m->is_object()) {
        chunk.delta = m->value("content", "");
      }
      if (obj.value("done", false)) {
        chunk.done = true;
        chunk.finish_reason = obj.value("done_reason", "stop");
        chunk.prompt_tokens = base::int_value(obj, "prompt_eval_count", 0);
        chunk.completion_tokens = base::int_value(obj, "eval_count", 0);
      }
    }
    st->finished = chunk.done;
    chunk.more_ready = !st->finished && st->pending.find('\n', start) != std::string::npos;
    if (!(*st->sink)(chunk)) {
      st->aborted = true;
      return false;
    }
  }
  st->pending.erase(0, start);
  return true;
}

// Chat-completions tool calls (arguments as JSON texts) in Ollama's form
// (arguments as objects; arguments that do not parse become {}).
std::string ollama_tool_calls(const std::string& openai_calls) {
  Json calls = base::parse_json(openai_calls);
  Json out = Json::array();
  if (!calls.is_array()) return "[]";
  for (const auto& c : calls) {
    if (!c.is_object() || !c.contains("function") || !c["function"].is_object()) continue;
    const Json& f = c["function"];
    Json args = Json::object();
    if (f.contains("arguments")) {
      if (f["arguments"].is_string()) {
        Json parsed = base::parse_json(f["arguments"].get<std::string>());
        if (parsed.is_object()) args = parsed;
      } else if (f["arguments"].is_object()) {
        args = f["arguments"];
      }
    }
    out.push_back({{"function", {{"name", f.value("name", "")}, {"arguments", args}}}});
  }
  return base::dump_json(out);
}

// Ollama's tool calls in the chat-completions form: each with an id, the
// type "function" and its arguments as a JSON text.
std::string openai_tool_calls(const Json& ollama_calls, const std::string& request_id) {
  Json out = Json::array();
  int i = 0;
  for (const auto& c : ollama_calls) {
    if (!c.is_object() || !c.contains("function") || !c["function"].is_object()) continue;
    const Json& f = c["function"];
    Json args = f.contains("arguments") ? f["arguments"] : Json::object();
    out.push_back(
        {{"id", c.value("id", "call_" + request_id + "_" + std::to_string(i++))},
         {"type", "function"},
         {"function",
          {{"name", f.value("name", "")},
           {"arguments", args.is_string() ? args.get<std::string>() : base::dump_json(args)}}}});
  }
  return out.empty() ? std::string() : base::dump_json(out);
}

}  // namespace

OllamaBackend::OllamaBackend(std::string id, std::string base_url)
    : id_(std::move(id)), base_(std::move(base_url)), chat_(base_) {
  while (!base_.empty() && base_.back() == '/') base_.pop_back();
}

OllamaBackend::~OllamaBackend() = default;

// Written directly rather than through a JSON tree: this runs for every
// request and the tree costs several times the text.
std::string OllamaBackend::build_chat_body(const ChatRequest& req, bool stream) {
  std::string out;
  out.reserve(128 + req.messages.size() * 64);
  out += "{\"model\":";
  text::append_json_string(out, req.model);
  out += ",\"messages\":[";
  for (size_t i = 0; i < req.messages.size(); ++i) {
    const Message& m = req.messages[i];
    out += i ? ",{\"role\":" : "{\"role\":";
    text::append_json_string(out, m.role);
    out += ",\"content\":";
    text::append_json_string(out, m.content);
    if (!m.name.empty()) {
      out += ",\"name\":";
      text::append_json_string(out, m.name);
    }
    if (!m.tool_calls.empty()) {
      out += ",\"tool_calls\":";
      out += ollama_tool_calls(m.tool_calls);
    }
    out += '}';
  }
  out += ']';
  if (!req.tools.empty()) {
    // Ollama takes tools in the chat-completions shape.
    out += ",\"tools\":";
    out += req.tools;
  }
  out += stream ? ",\"stream\":true,\"options\":{" : ",\"stream\":false,\"options\":{";
  bool first = true;
  auto option = [&](const char* key, auto value) {
    char num[64];
    auto [end, ec] = std::to_chars(num, num + sizeof num, value);
    if (ec != std::errc()) return;
    if (!first) out += ',';
    first = false;
    out += '"';
    out += key;
    out += "\":";
    out.append(num, end);
  };
  if (req.temperature) option("temperature", *req.temperature);
  if (req.top_p) option("top_p", *req.top_p);
  if (req.max_tokens) option("num_predict", *req.max_tokens);
  if (req.presence_penalty) option("presence_penalty", *req.presence_penalty);
  if (req.frequency_penalty) option("frequency_penalty", *req.frequency_penalty);
  out += '}';
  if (!req.stop.empty()) {
    out += ",\"stop\":[";
    for (size_t i = 0; i < req.stop.size(); ++i) {
      if (i) out += ',';
      text::append_json_string(out, req.stop[i]);
    }
    out += ']';
  }
  out += '}';
  return out;
}

std::optional<InferenceError> OllamaBackend::http_to_error(const base::UpstreamHttp::Reply& reply,
                                                           const std::string& body) {
  if (reply.shutting_down()) return InferenceError{503, "ollama: node shutting down"};
  if (!reply.transport_ok()) return InferenceError{502, "ollama: curl " + reply.error()};
  const long status = reply.status;
  if (status >= 200 && status < 300) return std::nullopt;
  if (status >= 500) {
    return InferenceError{502, "ollama: upstream " + std::to_string(status) + " " + body};
  }
  std::uint16_t code =
      (status == 400 || status == 401 || status == 404) ? static_cast<std::uint16_t>(status) : 500;
  return InferenceError{code, "ollama: http " + std::to_string(status) + ": " + body};
}

std::vector<std::string> OllamaBackend::list_models() {
  const base::HttpReply tags = base::http_get(base_, "/api/tags", {}, kTagsTimeout);
  std::vector<std::string> names;
  Json reply = tags.transport_ok && tags.status == 200 ? base::parse_json(tags.body) : Json();
  if (!reply.is_object()) {
    healthy_ = false;
    std::lock_guard lock(models_mu_);
    return models_;
  }
  if (auto m = reply.find("models"); m != reply.end() && m->is_array()) {
    for (const auto& entry : *m) {
      if (entry.is_object() && entry.contains("name") && entry["name"].is_string()) {
        names.push_back(entry["name"]);
      }
    }
  }
  healthy_ = true;
  std::lock_guard lock(models_mu_);
  models_ = names;
  return names;
}

bool OllamaBackend::poll_health() { return !list_models().empty() || healthy_.load(); }

std::optional<InferenceError> OllamaBackend::complete(const ChatRequest& req, ChatResponse& resp) {
  BackendCounters::Scope scope(counters_);
  try {
    const std::string payload = build_chat_body(req, false);
    std::string body;
    const base::UpstreamHttp::Reply upstream =
        chat_.post("/api/chat", "application/json", "application/json", payload, nullptr,
                   [&body](std::string_view piece) {
                     body.append(piece);
                     return true;
                   });
    if (upstream.failed_init()) return InferenceError{500, "ollama: curl_easy_init failed"};
    if (auto err = http_to_error(upstream, body)) return err;

    std::string content;
    std::string tool_calls;
    const bool has_tool_calls = body.find("\"tool_calls\"") != std::string::npos;
    if (OllamaFields f; !has_tool_calls && scan_ollama_fields(body, f)) {
      content = f.message_is_object ? f.content.value_or("") : f.response.value_or("");
      resp.model = f.model ? *f.model : req.model;
      resp.finish_reason = f.done_reason.value_or("stop");
      resp.prompt_tokens = f.prompt_eval_count.value_or(0);
      resp.completion_tokens = f.eval_count.value_or(0);
    } else {
      Json reply = base::parse_json(body);
      if (!reply.is_object()) {
        return InferenceError{502, "ollama: bad response JSON: " + body.substr(0, 200)};
      }
      if (auto m = reply.find("message"); m != reply.end() && m->is_object()) {
        content = m->contains("content") && (*m)["content"].is_string()
                      ? (*m)["content"].get<std::string>()
                      : "";
        if (auto t = m->find("tool_calls"); t != m->end() && t->is_array()) {
          tool_calls = openai_tool_calls(*t, req.request_id);
        }
      } else {
        content = reply.value("response", "");
      }
      resp.model = reply.value("model", req.model);
      resp.finish_reason = reply.value("done_reason", "stop");
      if (!tool_calls.empty()) resp.finish_reason = "tool_calls";
      resp.prompt_tokens = base::int_value(reply, "prompt_eval_count", 0);
      resp.completion_tokens = base::int_value(reply, "eval_count", 0);
    }
    resp.backend_id = id_;
    resp.message = Message{"assistant", std::move(content), "", "", std::move(tool_calls)};
    scope.succeed(static_cast<std::uint64_t>(resp.completion_tokens));
    return std::nullopt;
  } catch (const std::exception& e) {
    return InferenceError{500, std::string("ollama: ") + e.what()};
  } catch (...) {
    return InferenceError{500, "ollama: unknown exception"};
  }
}

std::optional<InferenceError> OllamaBackend::stream(const ChatRequest& req, const ChunkSink& sink) {
  if (!sink) return InferenceError{400, "ollama: sink callback is null"};
  BackendCounters::Scope scope(counters_);
  try {
    const std::string payload = build_chat_body(req, true);
    StreamState st;
    st.sink = &sink;
    st.model = req.model;
    // The status is known before the first body byte: an error answer is
    // collected whole instead of being fed to the sink.
    const base::UpstreamHttp::Reply upstream = chat_.post(
        "/api/chat", "application/json", "application/x-ndjson", payload,
        [&st](long status) { st.http_error = status >= 300; },
        [&st](std::string_view piece) { return on_stream_data(&st, piece); });
    if (st.aborted) return InferenceError{499, "ollama: stream aborted by sink"};
    if (upstream.failed_init()) return InferenceError{500, "ollama: curl_easy_init failed"};
    if (auto err = http_to_error(upstream, st.body)) return err;
    if (!st.finished) {
      // The server ended the body without its closing object.
      if (!st.pending.empty()) {
        return InferenceError{502, "ollama: bad response JSON: " + st.pending.substr(0, 200)};
      }
      return InferenceError{502, "ollama: stream ended without done"};
    }
    scope.succeed(0);
    return std::nullopt;
  } catch (const std::exception& e) {
    return InferenceError{500, std::string("ollama: ") + e.what()};
  } catch (...) {
    return InferenceError{500, "ollama: unknown exception"};
  }
}

BackendStats OllamaBackend::stats() const {
  BackendStats s;
  s.id = id_;
  s.kind = "ollama";
  s.healthy = healthy_.load();
  counters_.fill(s);
  std::lock_guard lock(models_mu_);
  s.models = models_;
  return s;
}

}  // namespace ostrel::inference
