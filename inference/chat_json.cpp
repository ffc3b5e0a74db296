#include "inference/chat_json.h"

#include "inference/scheduler.h"

#include <charconv>
#include <nlohmann/json.hpp>

#include "base/json.h"
#include "base/json_scanner.h"
#include "base/reply.h"
#include "base/text.h"

namespace ostrel::inference::chat_json {

using base::JsonScanner;
using base::OnceEach;

using Json = nlohmann::json;

namespace {

bool read_float(const Json& j, const char* key, std::optional<float>& out, std::string& error) {
  auto it = j.find(key);
  if (it == j.end() || it->is_null()) return true;
  if (!it->is_number()) {
    error = std::string(key) + " must be a number";
    return false;
  }
  out = it->get<float>();
  return true;
}

bool read_string(const Json& j, const char* key, std::string& out, std::string& error) {
  auto it = j.find(key);
  if (it == j.end() || it->is_null()) return true;
  if (!it->is_string()) {
    error = std::string(key) + " must be a string";
    return false;
  }
  out = it->get<std::string>();
  return true;
}

}  // namespace

bool parse_chat_request(const Json& j, ChatRequest& out, bool& stream, std::string& error) {
  if (!j.is_object()) {
    error = "request body must be a JSON object";
    return false;
  }
  ChatRequest r;
  if (!read_string(j, "model", r.model, error)) return false;
  if (auto m = j.find("messages"); m != j.end() && !m->is_null()) {
    if (!m->is_array()) {
      error = "messages must be an array";
      return false;
    }
    for (const auto& item : *m) {
      if (!item.is_object()) {
        error = "each message must be an object";
        return false;
      }
      Message msg;
      if (!read_string(item, "role", msg.role, error)) return false;
      if (msg.role.empty()) msg.role = "user";
      if (auto c = item.find("content"); c != item.end() && !c->is_null()) {
        if (c->is_string()) {
          msg.content = c->get<std::string>();
        } else if (c->is_array()) {
          // Content parts: the text parts, joined.
          for (const auto& part : *c) {
            if (part.is_object() && part.value("type", "") == "text") {
              msg.content += part.value("text", "");
            }
          }
        } else {
          error = "message content must be a string or an array of parts";
          return false;
        }
      }
      if (!read_string(item, "name", msg.name, error) ||
          !read_string(item, "tool_call_id", msg.tool_call_id, error)) {
        return false;
      }
      if (auto t = item.find("tool_calls"); t != item.end() && !t->is_null()) {
        if (!t->is_array()) {
          error = "tool_calls must be an array";
          return false;
        }
        if (!t->empty()) msg.tool_calls = base::dump_json(*t);
      }
      r.messages.push_back(std::move(msg));
    }
  }
  stream = false;
  if (auto s = j.find("stream"); s != j.end() && !s->is_null()) {
    if (!s->is_boolean()) {
      error = "stream must be a boolean";
      return false;
    }
    stream = *s;
  }
  if (!read_float(j, "temperature", r.temperature, error) ||
      !read_float(j, "top_p", r.top_p, error) ||
      !read_float(j, "presence_penalty", r.presence_penalty, error) ||
      !read_float(j, "frequency_penalty", r.frequency_penalty, error)) {
    return false;
  }
  if (auto m = j.find("max_tokens"); m != j.end() && !m->is_null()) {
    if (!m->is_number_integer()) {
      error = "max_tokens must be an integer";
      return false;
    }
    r.max_tokens = m->get<std::int64_t>();
  }
  if (auto s = j.find("stop"); s != j.end() && !s->is_null()) {
    if (s->is_string()) {
      r.stop.push_back(*s);
    } else if (s->is_array()) {
      for (const auto& e : *s) {
        if (!e.is_string()) {
          error = "stop must be a string or an array of strings";
          return false;
        }
        r.stop.push_back(e);
      }
    } else {
      error = "stop must be a string or an array of strings";
      return false;
    }
  }
  if (auto p = j.find("priority"); p != j.end() && p->is_number_integer()) r.priority = *p;
  if (auto t = j.find("tools"); t != j.end() && !t->is_null()) {
    if (!t->is_array()) {
      error = "tools must be an array";
      return false;
    }
    if (!t->empty()) r.tools = base::dump_json(*t);
  }
  if (auto t = j.find("tool_choice"); t != j.end() && !t->is_null()) {
    r.tool_choice = base::dump_json(*t);
  }
  if (auto o = j.find("stream_options"); o != j.end() && !o->is_null()) {
    if (!o->is_object()) {
      error = "stream_options must be an object";
      return false;
    }
    if (auto u = o->find("include_usage"); u != o->end() && !u->is_null()) {
      if (!u->is_boolean()) {
        error = "stream_options.include_usage must be a boolean";
        return false;
      }
      r.include_usage = *u;
    }
  }
  if (!read_string(j, "tenant_id", r.tenant_id, error) ||
      !read_string(j, "session_id", r.session_id, error) ||
      !read_string(j, "user_id", r.user_id, error)) {
    return false;
  }
  if (r.user_id.empty() && !read_string(j, "user", r.user_id, error)) return false;
  out = std::move(r);
  return true;
}

namespace {

bool plain(JsonScanner& s, std::string& out) {
  std::string_view v;
  if (!s.plain_string(v)) return false;
  out.assign(v);
  return true;
}

// A number converted as the JSON path converts it: integers through a 64-bit
// integer, other numbers through a double. Out of range: refused.
bool to_float(JsonScanner& s, std::optional<float>& out) {
  std::string_view t;
  if (!s.number_text(t)) return false;
  const char* end = t.data() + t.size();
  if (t.find_first_of(".eE") == std::string_view::npos) {
    std::int64_t v = 0;
    auto [at, ec] = std::from_chars(t.data(), end, v);
    if (ec != std::errc() || at != end) return false;
    out = static_cast<float>(v);
  } else {
    double v = 0;
    auto [at, ec] = std::from_chars(t.data(), end, v);
    if (ec != std::errc() || at != end) return false;
    out = static_cast<float>(v);
  }
  return true;
}

// A string (any, decoded once into its own room) or null (left empty).
bool text_or_null(JsonScanner& s, std::string& out) {
  if (s.peek() == 'n') return s.null();
  return s.string(out);
}

// A value kept as JSON text, written as the JSON path writes it; null leaves
// it empty, and so does an empty array where an array is wanted.
bool json_text(JsonScanner& s, std::string& out, bool array) {
  if (s.peek() == 'n') return s.null();
  std::string_view raw;
  if (!s.raw_value(raw)) return false;
  Json v = base::parse_json(raw);
  if (v.is_discarded() || (array && !v.is_array())) return false;
  if (!(array && v.empty())) out = base::dump_json(v);
  return true;
}

bool scan_message(JsonScanner& s, Message& m) {
  OnceEach once;
  bool ok = s.object([&](std::string_view key) {
    if (key == "role") return once.first(1) && plain(s, m.role);
    if (key == "content") return once.first(2) && text_or_null(s, m.content);
    if (key == "name") return once.first(4) && plain(s, m.name);
    if (key == "tool_call_id") return once.first(8) && plain(s, m.tool_call_id);
    if (key == "tool_calls") return once.first(16) && json_text(s, m.tool_calls, true);
    return s.skip_value(2);
  });
  if (m.role.empty()) m.role = "user";
  return ok;
}

bool scan_stop(JsonScanner& s, std::vector<std::string>& stop) {
  auto one = [&] {
    std::string v;
    if (!plain(s, v)) return false;
    stop.push_back(std::move(v));
    return true;
  };
  return s.peek() == '[' ? s.array(one) : one();
}

}  // namespace

bool scan_chat_request(std::string_view text, ChatRequest& out, bool& stream) {
  JsonScanner s(text);
  ChatRequest r;
  bool st = false;
  std::string user;
  OnceEach once;
  bool ok = s.object([&](std::string_view key) {
    if (key == "model") return once.first(1) && plain(s, r.model);
    if (key == "messages") {
      return once.first(2) && s.array([&] {
        Message m;
        if (!scan_message(s, m)) return false;
        r.messages.push_back(std::move(m));
        return true;
      });
    }
    if (key == "stream") {
      std::optional<bool> b;
      if (!once.first(4) || !s.boolean(b)) return false;
      st = *b;
      return true;
    }
    if (key == "temperature") return once.first(8) && to_float(s, r.temperature);
    if (key == "top_p") return once.first(16) && to_float(s, r.top_p);
    if (key == "presence_penalty") return once.first(32) && to_float(s, r.presence_penalty);
    if (key == "frequency_penalty") return once.first(64) && to_float(s, r.frequency_penalty);
    if (key == "max_tokens") return once.first(128) && s.integer(r.max_tokens);
    if (key == "stop") return once.first(256) && scan_stop(s, r.stop);
    if (key == "priority") {
      std::optional<std::int64_t> p;
      if (!once.first(512) || !s.integer(p)) return false;
      r.priority = *p;
      return true;
    }
    if (key == "tenant_id") return once.first(1024) && plain(s, r.tenant_id);
    if (key == "session_id") return once.first(2048) && plain(s, r.session_id);
    if (key == "user_id") return once.first(4096) && plain(s, r.user_id);
    if (key == "user") return once.first(8192) && plain(s, user);
    if (key == "tools") return once.first(32768) && json_text(s, r.tools, true);
    if (key == "tool_choice") return once.first(65536) && json_text(s, r.tool_choice, false);
    if (key == "stream_options") {
      if (!once.first(16384) || s.peek() != '{') return false;
      return s.object([&](std::string_view k) {
        if (k != "include_usage") return s.skip_value(2);
        std::optional<bool> b;
        if (!s.boolean(b)) return false;
        r.include_usage = *b;
        return true;
      });
    }
    return s.skip_value(1);
  });
  if (!ok || !s.at_end()) return false;
  if (r.user_id.empty()) r.user_id = std::move(user);
  out = std::move(r);
  stream = st;
  return true;
}

bool parse_chat_text(std::string_view text, ChatRequest& out, bool& stream, std::string& error) {
  if (scan_chat_request(text, out, stream)) return true;
  Json j = text.empty() ? Json::object() : base::parse_json_lean(text);
  if (j.is_discarded()) {
    error = "invalid JSON body";
    return false;
  }
  return parse_chat_request(j, out, stream, error);
}

std::string answer_model(std::string_view completion) {
  base::JsonScanner s(completion);
  std::string model;
  const bool ok = s.object([&](std::string_view key) {
    if (key != "model") return s.skip_value(0);
    std::string_view v;
    if (!s.plain_string(v)) return s.skip_value(0);
    model.assign(v);
    return true;
  });
  return ok ? model : std::string();
}

std::string fallback_note(const std::string& requested, const std::string& answered) {
  if (requested.empty() || answered.empty() || model_matches(requested, answered)) return "";
  return requested + " -> " + answered;
}

// The completion and chunk texts are written directly: they are produced for
// every request (and every streamed piece), where a JSON tree costs several
// times the text.
std::string render_completion(const ChatResponse& resp, std::int64_t created) {
  std::string out;
  // Room for everything at once (escapes aside): a long answer that
  // outgrew its room would be copied into twice its size.
  out.reserve(512 + resp.request_id.size() + resp.model.size() + resp.message.content.size() +
              resp.message.tool_calls.size() + resp.finish_reason.size());
  out += "{\"id\":";
  text::append_json_string(out, "chatcmpl-ulvo-" + resp.request_id);
  out += ",\"object\":\"chat.completion\",\"created\":" + std::to_string(created);
  out += ",\"model\":";
  text::append_json_string(out, resp.model);
  out += ",\"choices\":[{\"index\":0,\"message\":{\"role\":\"assistant\",\"content\":";
  if (resp.message.content.empty() && !resp.message.tool_calls.empty()) {
    out += "null";
  } else {
    text::append_json_string(out, resp.message.content);
  }
  if (!resp.message.tool_calls.empty()) {
    out += ",\"tool_calls\":";
    out += resp.message.tool_calls;
  }
  out += "},\"finish_reason\":";
  text::append_json_string(out, resp.finish_reason.empty() ? "stop" : resp.finish_reason);
  out += "}],\"usage\":{\"prompt_tokens\":" + std::to_string(resp.prompt_tokens) +
         ",\"completion_tokens\":" + std::to_string(resp.completion_tokens) +
         ",\"total_tokens\":" + std::to_string(resp.prompt_tokens + resp.completion_tokens) + "}}";
  return out;
}

std::string render_chunk(const std::string& id, const std::string& model, std::int64_t created,
                         const std::string& content, bool first, const std::string* finish_reason,
                         const InferenceError* error) {
  std::string out;
  append_chunk(out, id, model, created, content, first, finish_reason, error);
  return out;
}

void append_chunk(std::string& out, const std::string& id, const std::string& model,
                  std::int64_t created, const std::string& content, bool first,
                  const std::string* finish_reason, const InferenceError* error) {
  out.reserve(out.size() + 256 + id.size() + model.size() + content.size());
  out += "{\"id\":";
  text::append_json_string(out, id);
  out += ",\"object\":\"chat.completion.chunk\",\"created\":" + std::to_string(created);
  out += ",\"model\":";
  text::append_json_string(out, model);
  out += first ? ",\"choices\":[{\"index\":0,\"delta\":{\"role\":\"assistant\",\"content\":"
               : ",\"choices\":[{\"index\":0,\"delta\":{\"content\":";
  text::append_json_string(out, content);
  out += "},\"finish_reason\":";
  if (finish_reason) {
    text::append_json_string(out, *finish_reason);
  } else {
    out += "null";
  }
  out += "}]";
  if (error) {
    out += ",\"error\":{\"message\":";
    text::append_json_string(out, error->message);
    out += ",\"type\":";
    text::append_json_string(out, error_type(error->code));
    out += '}';
  }
  out += '}';
}

Json render_error(const InferenceError& e) {
  return base::openai_error_body(e.message, error_type(e.code), error_type(e.code));
}

std::string render_usage_chunk(const std::string& id, const std::string& model,
                               std::int64_t created, std::int64_t prompt_tokens,
                               std::int64_t completion_tokens) {
  std::string out = "{\"id\":";
  text::append_json_string(out, id);
  out += ",\"object\":\"chat.completion.chunk\",\"created\":" + std::to_string(created);
  out += ",\"model\":";
  text::append_json_string(out, model);
  out += ",\"choices\":[],\"usage\":{\"prompt_tokens\":" + std::to_string(prompt_tokens) +
         ",\"completion_tokens\":" + std::to_string(completion_tokens) +
         ",\"total_tokens\":" + std::to_string(prompt_tokens + completion_tokens) + "}}";
  return out;
}

}  // namespace ostrel::inference::chat_json
