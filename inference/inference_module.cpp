// The "inference" module: the engine behind syscalls and OpenAI-shaped routes,
// local backends, model files on disk and the GPU inventory.
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>
#include <thread>

#include "base/access.h"
#include "base/clock.h"
#include "base/durable_file.h"
#include "base/encoding.h"
#include "base/http_client.h"
#include "base/json.h"
#include "base/logger.h"
#include "base/names.h"
#include "base/paths.h"
#include "base/reply.h"
#include "base/text.h"
#include "identity/source_header.h"
#include "inference/chat_json.h"
#include "inference/echo_backend.h"
#include "inference/engine.h"
#include "inference/gguf.h"
#include "base/hash_embedder.h"
#include "inference/local_backends.h"
#include "inference/ollama_backend.h"
#include "kernel/event_bus.h"
#include "kernel/http/api_gateway.h"
#include "kernel/module.h"
#include "kernel/syscall_table.h"

namespace ostrel::inference {
namespace {

using Json = nlohmann::json;
using base::HashEmbedder;
using kernel::Request;
using kernel::Response;
namespace fs = std::filesystem;

constexpr identity::SourceCode kInferenceSource{0x05, 0x04};
constexpr const char* kNoBackend =
    "no_backend_for_model — no local-LAN backend matched the requested model and embedded "
    "llama.cpp was not compiled in. Register a local backend via POST "
    "/api/v1/inference/local-backends or build with -DOSTREL_ULVO_WITH_INFERENCE=ON.";
const std::set<std::string> kSettingsKeys = {
    "backend",          "gpu_layers", "ctx_length",  "max_contexts",         "batch_size",
    "batching_enabled", "auto_load",  "auto_unload", "auto_unload_timeout_s"};

// A positive whole number, else `fallback`.
std::int64_t setting(const kernel::ConfigView& cfg, const std::string& key, std::int64_t fallback) {
  const std::int64_t n = cfg.get_int(key, fallback);
  return n > 0 ? n : fallback;
}

std::string file_type(const fs::path& p) {
  std::string ext = p.extension().string();
  if (ext == ".gguf") return "gguf";
  if (ext == ".qmm") return "qmm";
  if (ext == ".enrn") return "enrn";
  return "unknown";
}

// A relative path of plain segments ending in ".gguf" (the shared name check:
// no "..", no absolute path, no hidden segments, valid UTF-8).
bool safe_model_path(const std::string& name) {
  std::string why;
  if (!base::safe_file_path(name, why)) return false;
  return name.size() >= 6 && name.compare(name.size() - 5, 5, ".gguf") == 0 &&
         !base::is_temporary_name(fs::path(name).filename().string());
}

// A GGUF file starts with the four bytes "GGUF".
bool has_gguf_magic(const fs::path& file, std::string& why) {
  char magic[4] = {0};
  std::FILE* f = std::fopen(file.c_str(), "rb");
  bool ok = f && std::fread(magic, 1, 4, f) == 4 && std::memcmp(magic, "GGUF", 4) == 0;
  if (f) std::fclose(f);
  if (!ok) why = "the content is not a GGUF model file";
  return ok;
}

// Where a model file is, as answers show it: relative to the model
// directory, never a host path.
std::string shown_path(const std::string& filename) { return "models/" + filename; }

std::set<std::string> split_list(const std::string& text) {
  std::set<std::string> out;
  std::stringstream ss(text);
  std::string item;
  while (std::getline(ss, item, ',')) {
    auto b = item.find_first_not_of(" \t"), e = item.find_last_not_of(" \t");
    if (b != std::string::npos) out.insert(item.substr(b, e - b + 1));
  }
  return out;
}

// "No healthy backend" reaches clients with the explanation of what to do.
InferenceError explain(InferenceError e) {
  if (e.code == 502 && e.message.rfind("scheduler: no healthy backend", 0) == 0)
    e.message = kNoBackend;
  return e;
}

using base::reply;

class InferenceModule : public kernel::Module {
 public:
  ~InferenceModule() override { stop(); }
  identity::SourceCode source_code() const override { return kInferenceSource; }

  bool initialize(const kernel::ModuleContext& ctx) override;
  bool start() override;
  void stop() override;
  kernel::HealthStatus health() override;
  void register_routes(kernel::ApiGateway& gw) override;
  void register_syscalls(kernel::SyscallTable& table) override;

 private:
  Json files_json_() const;
  Json models_list_() const;  // OpenAI list
  Json embeddings_(const Json& args, int& status) const;
  void handle_chat_(const Request& req, Response& res);
  // Streams one chat as server-sent events: the role chunk, one chunk per
  // piece, an "error" chunk on failure, then "data: [DONE]". Returns 0 on
  // success, -1 on failure or when `write` reported the reader gone.
  int stream_sse_(ChatRequest chat, const std::function<bool(std::string_view)>& write,
                  bool coalesce);
  void register_local_engine_backend_(const LocalBackend& b);
  // `full`: with the host's paths and addresses (administrators).
  Json runtime_config_json_(bool full) const;
  Json read_settings_() const;
  bool admin_(const Request& req, Response& res) const;
  void register_model_file_routes_(kernel::ApiGateway& gw);
  void register_backend_routes_(kernel::ApiGateway& gw);
  void gpu_loop_();
  Json gpu_inventory_() const;

  kernel::ModuleContext ctx_;
  std::unique_ptr<base::Logger> log_;
  std::unique_ptr<Engine> engine_;
  std::unique_ptr<LocalBackendRegistry> locals_;
  fs::path config_dir_;
  fs::path model_dir_;
  std::string ollama_url_;
  EngineOptions options_;
  std::uint64_t model_max_bytes_ = 64ULL << 30;
  long pull_timeout_ms_ = 2L * 3600 * 1000;
  std::uint64_t draining_subscription_ = 0;

  std::mutex settings_mu_;  // serialises read-modify-write of inference.json

  // The GPU inventory, refreshed by gpu_thread_ so that no request waits on
  // nvidia-smi.
  mutable std::mutex gpu_mu_;  // guards gpu_devices_ and gpu_stop_
  std::condition_variable gpu_cv_;
  Json gpu_devices_ = Json::array();
  bool gpu_stop_ = false;
  std::thread gpu_thread_;  // joined in stop()
};

bool InferenceModule::initialize(const kernel::ModuleContext& ctx) {
  ctx_ = ctx;
  log_ = std::make_unique<base::Logger>(ctx.logger->with_tag("inference"));
  const kernel::ConfigView& cfg = *ctx.config;
  config_dir_ = base::base_config_dir();
  if (std::string dir = cfg.get("model_dir"); !dir.empty()) {
    model_dir_ = dir;
  } else {
    model_dir_ = fs::path(cfg.get("data_dir", ctx.data_dir)) / "models";
  }
  options_.worker_threads = static_cast<std::size_t>(setting(cfg, "scheduler.worker_threads", 4));
  options_.max_queue_depth =
      static_cast<std::size_t>(setting(cfg, "scheduler.max_queue_depth", 256));
  options_.session_idle_ttl = std::chrono::seconds(setting(cfg, "session_idle_ttl_seconds", 3600));
  options_.health_poll_interval =
      std::chrono::seconds(setting(cfg, "health_poll_interval_seconds", 15));
  ollama_url_ = cfg.get("ollama_url", "");
  if (ollama_url_.empty()) ollama_url_ = "http://127.0.0.1:11434";

  model_max_bytes_ = static_cast<std::uint64_t>(
      setting(cfg, "model_max_bytes", static_cast<std::int64_t>(model_max_bytes_)));
  pull_timeout_ms_ = setting(cfg, "pull_timeout_seconds", 7200) * 1000;
  // Writes a crash cut short leave temporaries behind; they are nobody's.
  std::size_t stale = base::remove_stale_temporaries(model_dir_, true) +
                      base::remove_stale_temporaries(config_dir_);
  if (stale > 0) log_->info("removed " + std::to_string(stale) + " unfinished temporary file(s)");

  locals_ =
      std::make_unique<LocalBackendRegistry>(config_dir_ / "inference-local-backends.jsonl",
                                             split_list(cfg.get("api_key_env_allowlist", "")));
  std::size_t replayed = locals_->replay();
  log_->info("inference local-backend journal replayed " + std::to_string(replayed) +
             " record(s) from " + locals_->journal_path().string());

  engine_ = std::make_unique<Engine>(options_);
  engine_->set_log(*log_);
  engine_->set_metrics(ctx.metrics);
  engine_->register_backend(std::make_shared<EchoBackend>());
  engine_->register_backend(std::make_shared<OllamaBackend>("ollama-local", ollama_url_));
  log_->info("registered Ollama backend at " + ollama_url_);
  for (const auto& b : locals_->list()) register_local_engine_backend_(b);
  return true;
}

bool InferenceModule::start() {
  engine_->start();
  // At shutdown, once the kernel's drain time is up, model calls still in
  // progress end at once: streams get their error chunk and "[DONE]".
  draining_subscription_ = ctx_.bus->subscribe(
      kInferenceSource, "kernel.draining",
      [this](std::string_view, std::string_view) { engine_->abort_inflight(); });
  {
    std::lock_guard lock(gpu_mu_);
    gpu_stop_ = false;
  }
  gpu_thread_ = std::thread([this] { gpu_loop_(); });
  return true;
}

void InferenceModule::stop() {
  if (draining_subscription_) ctx_.bus->unsubscribe(draining_subscription_);
  draining_subscription_ = 0;
  {
    std::lock_guard lock(gpu_mu_);
    gpu_stop_ = true;
  }
  gpu_cv_.notify_all();
  if (gpu_thread_.joinable()) gpu_thread_.join();
  if (engine_) engine_->stop();
}

Json InferenceModule::gpu_inventory_() const {
  Json devices = Json::array();
  std::FILE* p = ::popen(
      "nvidia-smi --query-gpu=index,name,memory.total,memory.used,utilization.gpu,"
      "temperature.gpu --format=csv,noheader,nounits 2>/dev/null",
      "r");
  if (!p) return devices;
  char line[512];
  while (std::fgets(line, sizeof line, p)) {
    std::vector<std::string> f;
    std::stringstream ss(line);
    std::string cell;
    while (std::getline(ss, cell, ',')) {
      size_t b = cell.find_first_not_of(" \t\r\n"), e = cell.find_last_not_of(" \t\r\n");
      f.push_back(b == std::string::npos ? "" : cell.substr(b, e - b + 1));
    }
    if (f.size() < 6) continue;
    auto num = [](const std::string& s) { return std::strtod(s.c_str(), nullptr); };
    devices.push_back({{"index", num(f[0])},
                       {"name", f[1]},
                       {"vram_total_mb", num(f[2])},
                       {"vram_used_mb", num(f[3])},
                       {"util_pct", num(f[4])},
                       {"temperature_c", num(f[5])}});
  }
  ::pclose(p);
  return devices;
}

void InferenceModule::gpu_loop_() {
  constexpr auto kRefresh = std::chrono::seconds(60);
  for (;;) {
    Json devices = gpu_inventory_();
    std::unique_lock lock(gpu_mu_);
    gpu_devices_ = std::move(devices);
    if (gpu_cv_.wait_for(lock, kRefresh, [this] { return gpu_stop_; })) return;
  }
}

void InferenceModule::register_local_engine_backend_(const LocalBackend& b) {
  // The engine speaks the Ollama chat protocol; other providers serve
  // embeddings through their OpenAI-compatible endpoint only.
  if (b.provider == "ollama") {
    engine_->register_backend(std::make_shared<OllamaBackend>(b.id, b.normalised_base()));
  }
}

kernel::HealthStatus InferenceModule::health() {
  std::size_t healthy = 0;
  for (const auto& b : engine_->backends()) healthy += b->is_healthy();
  std::size_t ggufs = 0;
  for (const auto& f : files_json_()) ggufs += f["type"] == "gguf";
  return {kernel::HealthState::healthy,
          "inference ok — " + std::to_string(healthy) + " healthy backend(s); " +
              std::to_string(engine_->available_models().size()) + " model(s) via Engine, " +
              std::to_string(ggufs) + " GGUF(s) on disk"};
}

bool InferenceModule::admin_(const Request& req, Response& res) const {
  if (base::is_admin(req)) return true;
  base::fail(res, 403, "forbidden", {{"detail", "admin role required"}});
  return false;
}

Json InferenceModule::files_json_() const {
  Json out = Json::array();
  std::error_code ec;
  for (fs::recursive_directory_iterator it(model_dir_, ec), end; !ec && it != end;
       it.increment(ec)) {
    std::error_code type_ec;
    const std::string name = it->path().filename().string();
    // Hidden entries (temporaries of writes in progress among them) and
    // names no client could have given are not content.
    if (!name.empty() && name[0] == '.') {
      if (it->is_directory(type_ec)) it.disable_recursion_pending();
      continue;
    }
    if (!it->is_regular_file(type_ec) || base::is_temporary_name(name)) continue;
    const std::string filename = fs::relative(it->path(), model_dir_, type_ec).string();
    if (!text::valid_utf8(filename)) continue;
    out.push_back({{"filename", filename},
                   {"path", shown_path(filename)},
                   {"size_bytes", it->file_size(type_ec)},
                   {"type", file_type(it->path())}});
  }
  return out;
}

Json InferenceModule::models_list_() const {
  const std::int64_t created = base::unix_s();
  Json data = Json::array();
  std::set<std::string> seen;
  auto add = [&](const std::string& id, const std::string& owner) {
    if (id.empty() || !seen.insert(id).second) return;
    data.push_back({{"id", id}, {"object", "model"}, {"created", created}, {"owned_by", owner}});
  };
  for (const auto& m : engine_->available_models()) add(m, m == "echo" ? "echo" : "ostrel");
  add(HashEmbedder::kModelId, "ostrel");
  for (const auto& b : locals_->list()) {
    for (const auto& m : b.models) add(m, b.id);
  }
  for (const auto& f : files_json_()) {
    if (f["type"] == "gguf") add(f["filename"], "local-file");
  }
  return {{"object", "list"}, {"data", data}};
}

// A vector as base64 of its little-endian float32 bytes (the OpenAI
// "encoding_format": "base64").
static std::string base64_floats(const std::vector<float>& v) {
  std::string bytes(v.size() * 4, '\0');
  for (std::size_t i = 0; i < v.size(); ++i) {
    std::uint32_t u;
    std::memcpy(&u, &v[i], 4);
    for (int b = 0; b < 4; ++b) bytes[i * 4 + b] = static_cast<char>((u >> (8 * b)) & 0xff);
  }
  return base::base64_encode(bytes);
}

// What one embeddings request may ask for.
constexpr std::size_t kMaxEmbeddingInputs = 2048;
constexpr std::size_t kMaxEmbeddingTokensPerInput = 8192;
constexpr std::size_t kMaxEmbeddingTokensPerRequest = 300000;

Json InferenceModule::embeddings_(const Json& args, int& status) const {
  status = 200;
  auto model = args.value("model", Json(""));
  if (!model.is_string() || model.get<std::string>().empty()) {
    status = 400;
    return base::error_body("missing_model");
  }
  const std::string m = model;
  // A request's size in work, before any of it is done: inputs, and tokens
  // per input and in all (the limits the OpenAI API sets).
  {
    const Json input = args.value("input", Json(""));
    std::size_t inputs = 0, total = 0, largest = 0;
    auto count = [&](const Json& one) {
      std::size_t n = 0;
      if (one.is_string()) n = HashEmbedder::token_count(one.get_ref<const std::string&>());
      if (one.is_array()) n = one.size();  // token ids
      ++inputs;
      total += n;
      largest = std::max(largest, n);
    };
    if (input.is_array() && !input.empty() && !input[0].is_number()) {
      for (const auto& one : input) count(one);
    } else {
      count(input);
    }
    const char* code = nullptr;
    std::string why;
    if (inputs > kMaxEmbeddingInputs) {
      code = "too_many_inputs";
      why = "at most " + std::to_string(kMaxEmbeddingInputs) + " inputs per request";
    } else if (largest > kMaxEmbeddingTokensPerInput) {
      code = "input_too_long";
      why = "an input may have at most " + std::to_string(kMaxEmbeddingTokensPerInput) + " tokens";
    } else if (total > kMaxEmbeddingTokensPerRequest) {
      code = "too_many_tokens";
      why =
          "at most " + std::to_string(kMaxEmbeddingTokensPerRequest) + " tokens per request in all";
    }
    if (code) {
      status = 400;
      return base::openai_error_body(why, "invalid_request_error", code);
    }
  }
  // OpenAI clients ask for base64 (little-endian float32) unless told otherwise.
  std::string format = "float";
  if (auto f = args.find("encoding_format"); f != args.end() && !f->is_null()) {
    if (!f->is_string() || (*f != "float" && *f != "base64")) {
      status = 400;
      return chat_json::render_error({400, "encoding_format must be \"float\" or \"base64\""});
    }
    format = *f;
  }
  if (m == HashEmbedder::kModelId) {
    Json input = args.value("input", Json(""));
    std::vector<std::string> texts;
    if (input.is_string()) {
      texts.push_back(input);
    } else if (input.is_array() && std::all_of(input.begin(), input.end(),
                                               [](const Json& e) { return e.is_string(); })) {
      texts = input.get<std::vector<std::string>>();
    } else {
      status = 400;
      return {{"error",
               {{"message", "input must be a string or an array of strings"},
                {"type", "invalid_request_error"}}}};
    }
    Json data = Json::array();
    std::size_t tokens = 0;
    for (std::size_t i = 0; i < texts.size(); ++i) {
      std::vector<float> v = HashEmbedder::embed(texts[i]);
      Json embedding = v;
      if (format == "base64") embedding = base64_floats(v);
      data.push_back({{"object", "embedding"}, {"index", i}, {"embedding", embedding}});
      tokens += HashEmbedder::token_count(texts[i]);
    }
    return {{"object", "list"},
            {"data", data},
            {"model", m},
            {"usage", {{"prompt_tokens", tokens}, {"total_tokens", tokens}}}};
  }
  std::optional<LocalBackend> backend = locals_->find_for_model(m);
  if (!backend) {
    status = 404;
    return {{"error",
             {{"message", "no backend serves embedding model '" + m + "'"},
              {"type", "not_implemented"}}}};
  }
  base::HttpHeaders headers = {
      {"X-Ostrel-Source", source_header::make_header("inference", "", "inference")}};
  if (std::string key = backend->resolved_key(); !key.empty()) {
    headers.emplace_back("Authorization", "Bearer " + key);
  }
  const std::string body = base::dump_json(args);
  base::HttpReply r =
      base::http_post(backend->normalised_base(), "/v1/embeddings", body, headers,
                      std::chrono::seconds(60), "application/json", std::chrono::seconds(5));
  if (!r.transport_ok || r.status < 200 || r.status >= 300) {
    status = 502;
    return base::error_body("upstream_failed",
                            {{"detail", "http " + std::to_string(r.status) + ": " +
                                            (r.transport_ok ? r.body : r.error)}});
  }
  Json answer = base::parse_json(r.body);
  if (answer.is_discarded()) {
    status = 502;
    return base::error_body("upstream_failed", {{"detail", "http 200: answer is not JSON"}});
  }
  // An upstream that ignored the format still answers in the one asked for.
  if (format == "base64" && answer.is_object() && answer.contains("data") &&
      answer["data"].is_array()) {
    for (auto& d : answer["data"]) {
      if (d.is_object() && d.contains("embedding") && d["embedding"].is_array()) {
        d["embedding"] = base64_floats(d["embedding"].get<std::vector<float>>());
      }
    }
  }
  return answer;
}

void InferenceModule::handle_chat_(const Request& req, Response& res) {
  ChatRequest chat;
  bool stream = false;
  std::string error;
  if (!chat_json::parse_chat_text(req.body, chat, stream, error)) {
    reply(res, chat_json::render_error({400, error}), 400);
    return;
  }
  std::string session = req.header("X-Session-Id");
  if (session.empty()) session = chat.session_id;
  if (session.empty()) session = "sess-" + base::random_hex(16);
  if (std::string why; !base::safe_id(session, why)) {
    reply(res, chat_json::render_error({400, "session id " + why}), 400);
    return;
  }
  chat.session_id = session;
  // A caller bound to a tenant is queued and counted as that tenant.
  if (!req.tenant.empty() || chat.tenant_id.empty()) chat.tenant_id = req.tenant;
  if (chat.request_id.empty()) chat.request_id = "req-" + base::random_hex(16);
  res.headers["X-Session-Id"] = session;

  const std::string requested = chat.model;
  if (!stream) {
    ChatResponse resp;
    if (auto err = engine_->complete(std::move(chat), resp)) {
      reply(res, chat_json::render_error(explain(*err)), err->code);
      return;
    }
    if (auto note = chat_json::fallback_note(requested, resp.model); !note.empty()) {
      res.headers[chat_json::kFallbackHeader] = note;
    }
    res.body = chat_json::render_completion(resp, base::unix_s());
    return;
  }

  // A stream's head leaves before its first piece: the fall-back is told
  // from the backends' model lists.
  if (!requested.empty()) {
    if (const std::string instead = engine_->fallback_for(requested); !instead.empty()) {
      res.headers[chat_json::kFallbackHeader] = requested + " -> " + instead;
    }
  }
  res.content_type = "text/event-stream";
  // The request moves into the stream: a long conversation is not copied for it.
  res.stream = [this, chat = std::move(chat)](const kernel::StreamWrite& write) mutable {
    stream_sse_(std::move(chat), write, true);
  };
}

int InferenceModule::stream_sse_(ChatRequest chat,
                                 const std::function<bool(std::string_view)>& write,
                                 bool coalesce) {
  if (chat.request_id.empty()) chat.request_id = "req-" + base::random_hex(16);
  const std::string id = "chatcmpl-ulvo-" + chat.request_id;
  const std::int64_t created = base::unix_s();
  const std::string model = chat.model;
  // Coalescing (HTTP): the role chunk leaves with the first piece, pieces
  // that arrived together leave together, and the last one with the closing
  // line. Nothing waits for the network, the order of the events is
  // unchanged, and a write never carries less than the client can use.
  // Otherwise (the syscall) every event is handed on by itself.
  std::string pending =
      kernel::sse_event(chat_json::render_chunk(id, model, created, "", true, nullptr));
  if (!coalesce) {
    if (!write(pending)) return -1;
    pending.clear();
  }
  bool gone = false;
  std::int64_t prompt_tokens = 0, completion_tokens = 0;
  auto err = engine_->stream(std::move(chat), [&](const ChatChunk& c) {
    if (c.done) {
      prompt_tokens = c.prompt_tokens;
      completion_tokens = c.completion_tokens;
    }
    if (!c.delta.empty() || c.finish_reason) {
      const std::string* reason = c.finish_reason ? &*c.finish_reason : nullptr;
      // A rendered chunk is one line (JSON escapes its newlines): it is
      // written into the pending bytes as one event, in place.
      pending += "data: ";
      chat_json::append_chunk(pending, id, c.model.empty() ? model : c.model, created, c.delta,
                              false, reason);
      pending += "\n\n";
    }
    // An empty piece still sends what was held back for it.
    if (pending.empty() || (coalesce && (c.done || c.more_ready))) return true;
    gone = !write(pending);
    pending.clear();
    return !gone;
  });
  if (gone) return -1;  // the reader left: nothing more to say
  if (err) {
    static const std::string kError = "error";
    InferenceError shown = explain(*err);
    pending +=
        kernel::sse_event(chat_json::render_chunk(id, model, created, "", false, &kError, &shown));
    if (!coalesce) {
      if (!write(pending)) return -1;
      pending.clear();
    }
  }
  if (!err && chat.include_usage) {
    pending += kernel::sse_event(
        chat_json::render_usage_chunk(id, model, created, prompt_tokens, completion_tokens));
  }
  pending += "data: [DONE]\n\n";
  write(pending);
  return err ? -1 : 0;
}

Json InferenceModule::read_settings_() const {
  bool opened = false;
  Json j = base::read_json_file(config_dir_ / "inference.json", opened);
  return j.is_object() ? j : Json::object();
}

Json InferenceModule::runtime_config_json_(bool full) const {
  Json settings = read_settings_();
  Json out = Json::object();
  for (const auto& key : kSettingsKeys) out[key] = settings.contains(key) ? settings[key] : Json();
  out["scheduler.worker_threads"] = options_.worker_threads;
  out["scheduler.max_queue_depth"] = options_.max_queue_depth;
  out["session_idle_ttl_seconds"] = options_.session_idle_ttl.count();
  out["health_poll_interval_seconds"] = options_.health_poll_interval.count();
  // Where things are on the host is the operator's business.
  if (full) {
    out["ollama_url"] = ollama_url_;
    out["model_dir"] = model_dir_.string();
  }
  return out;
}

void InferenceModule::register_routes(kernel::ApiGateway& gw) {
  kernel::RouteOptions large;
  large.max_body = kernel::RouteOptions::kLargeBody;

  gw.route(
      "POST", "/v1/inference/chat",
      [this](const Request& req, Response& res) {
        if (!base::require_scope(req, res, "inference.chat")) return;
        handle_chat_(req, res);
      },
      large);

  gw.route(
      "POST", "/v1/inference/embeddings",
      [this](const Request& req, Response& res) {
        if (!base::require_scope(req, res, "inference.chat")) return;
        Json body;
        if (!base::parse_object_body(req, res, body)) return;
        int status = 200;
        Json out = embeddings_(body, status);
        reply(res, out, status);
      },
      large);

  gw.route("GET", "/v1/inference/models",
           [this](const Request&, Response& res) { reply(res, models_list_()); });

  gw.route("GET", "/api/v1/inference/models", [this](const Request&, Response& res) {
    Json list = models_list_()["data"];
    Json models = Json::array();
    for (const auto& m : list) models.push_back({{"id", m["id"]}, {"owned_by", m["owned_by"]}});
    reply(res, {{"models", models}, {"count", models.size()}});
  });

  gw.route("GET", "/api/v1/inference/models/*", [this](const Request& req, Response& res) {
    const std::string id = req.path.substr(std::string("/api/v1/inference/models/").size());
    const std::string action = req.param("action");
    std::string why;
    bool has_file = false;
    fs::path file;
    if (base::safe_file_path(id, why)) {
      std::error_code ec;
      std::string name = safe_model_path(id) ? id : id + ".gguf";
      file = model_dir_ / name;
      has_file = safe_model_path(name) && fs::is_regular_file(file, ec);
    }
    bool known = false;
    const Json models = models_list_();  // named: a range over a temporary's member dangles
    for (const auto& m : models["data"]) known = known || m["id"] == id;
    if (action.empty()) {
      if (!known && !has_file) {
        base::fail(res, 404, "not_found");
        return;
      }
      reply(res, {{"id", id},
                  {"file",
                   has_file ? Json(shown_path(fs::relative(file, model_dir_).string())) : Json()}});
      return;
    }
    if (action != "inspect") {
      base::fail(res, 400, "unknown_action");
      return;
    }
    if (!has_file) {
      base::fail(res, 404, known ? "file_missing" : "not_found");
      return;
    }
    gguf::GGUFFile g;
    std::string error;
    if (!g.open(file.string(), error)) {
      base::fail(res, 422, "gguf_parse_failed", {{"detail", error}});
      return;
    }
    Json tensors = Json::array();
    for (const auto& t : g.tensors) {
      tensors.push_back({{"name", t.name},
                         {"dtype", t.dtype},
                         {"dtype_name", gguf::dtype_name(t.dtype)},
                         {"shape", std::vector<std::uint64_t>(t.shape, t.shape + t.n_dims)},
                         {"offset", t.offset},
                         {"bytes", t.bytes}});
    }
    reply(res, {{"id", id},
                {"architecture", g.architecture},
                {"parameter_count", g.parameter_count},
                {"context_length", g.context_length},
                {"embedding_length", g.embedding_length},
                {"block_count", g.block_count},
                {"gguf_version", g.version},
                {"alignment", g.alignment},
                {"tensor_count", g.tensor_count},
                {"metadata", g.metadata},
                {"tensors", tensors}});
  });

  auto native_only = [](const Request&, Response& res) {
    base::fail(res, 501, "native_inference_not_compiled_in");
  };
  gw.route("DELETE", "/api/v1/inference/models/*", native_only);
  gw.route("POST", "/api/v1/inference/models/preload", native_only);

  gw.route("POST", "/api/v1/inference/models/load", [this](const Request& req, Response& res) {
    if (!ctx_.syscalls->has("inference.models.load")) {
      // No in-process model runtime in this build: models live in the model
      // servers registered as backends, which load them on first use.
      base::fail(res, 501, "load syscall unavailable",
                 "this build has no in-process model runtime; a model listed by a healthy "
                 "backend (GET /api/v1/inference/engine) is loaded by its model server on first "
                 "use, and other servers can be added with POST /api/v1/inference/local-backends");
      return;
    }
    kernel::SyscallResult r =
        ctx_.syscalls->call(kInferenceSource, "inference.models.load", req.body);
    res.status = r.status == 0 ? 200 : 500;
    res.body = r.body;
  });

  gw.route("GET", "/api/v1/inference/engine", [this](const Request& req, Response& res) {
    if (!admin_(req, res)) return;
    Json files = files_json_();
    for (auto& f : files) f["status"] = "on_disk";
    Json backends = Json::array();
    for (const auto& b : engine_->backends()) {
      BackendStats s = b->stats();
      backends.push_back({{"id", s.id},
                          {"kind", s.kind},
                          {"healthy", s.healthy},
                          {"requests_total", s.requests_total},
                          {"in_flight", s.in_flight},
                          {"completed", s.completed},
                          {"errors", s.errors},
                          {"avg_latency_ms", s.avg_latency_ms},
                          {"avg_tokens", s.avg_tokens},
                          {"models", s.models}});
    }
    Scheduler& sch = engine_->scheduler();
    reply(
        res,
        {{"loaded_models", Json::array()},
         {"files", files},
         {"backends", backends},
         {"queue",
          {{"queued", sch.queued()}, {"accepted", sch.accepted()}, {"rejected", sch.rejected()}}}});
  });

  gw.route("GET", "/api/v1/inference/files", [this](const Request&, Response& res) {
    reply(res, {{"files", files_json_()}});
  });

  register_model_file_routes_(gw);

  gw.route("GET", "/api/v1/inference/config", [this](const Request& req, Response& res) {
    reply(res, runtime_config_json_(base::is_admin(req)));
  });

  gw.route("PUT", "/api/v1/inference/config", [this](const Request& req, Response& res) {
    if (!admin_(req, res)) return;
    Json body;
    if (!base::parse_object_body(req, res, body)) return;
    for (auto it = body.begin(); it != body.end(); ++it) {
      if (!kSettingsKeys.count(it.key())) {
        base::fail(res, 400, "unknown_key", {{"key", it.key()}});
        return;
      }
    }
    std::string error;
    {
      // Two writers must not both read the old file and lose one's keys.
      std::lock_guard lock(settings_mu_);
      Json settings = read_settings_();
      for (auto it = body.begin(); it != body.end(); ++it) settings[it.key()] = it.value();
      if (!base::write_file_atomically(config_dir_ / "inference.json",
                                       base::dump_json(settings, 2) + "\n", error)) {
        log_->warn("inference.json not written: " + error);
      } else {
        error.clear();
      }
    }
    if (!error.empty()) {
      base::fail(res, 507, "not_saved",
                 {{"message",
                   "the settings could not be written to the configuration directory "
                   "(OSTREL_CONFIG_DIR); nothing was changed"},
                  {"detail", error}});
      return;
    }
    reply(res, {{"status", "applied"}, {"requires_restart", !body.empty()}, {"persisted", true}});
  });

  gw.route("GET", "/api/v1/inference/gpu", [this](const Request&, Response& res) {
    Json devices;
    {
      std::lock_guard lock(gpu_mu_);
      devices = gpu_devices_;
    }
    reply(res, {{"device_count", devices.size()}, {"devices", devices}});
  });

  register_backend_routes_(gw);
}

void InferenceModule::register_model_file_routes_(kernel::ApiGateway& gw) {
  // Uploads go straight to disk: the body is never held in memory.
  kernel::RouteOptions upload;
  upload.stream_body = true;
  gw.route(
      "POST", "/api/v1/inference/models/upload",
      [this](const Request& req, Response& res) {
        if (!admin_(req, res)) return;
        const std::string filename = req.param("filename");
        if (filename.empty()) {
          base::fail(res, 400, "missing_filename_query");
          return;
        }
        if (!safe_model_path(filename)) {
          base::fail(res, 400, "invalid_path");
          return;
        }
        base::AtomicFileWriter file(model_dir_ / filename);
        std::string error;
        if (!file.open(error)) {
          log_->warn("model upload: cannot open a file in the model directory: " + error);
          base::fail(res, 500, "open_failed");
          return;
        }
        bool too_large = false;
        bool write_failed = false;
        bool read = req.body_reader([&](std::string_view piece) {
          if (file.size() + piece.size() > model_max_bytes_) return !(too_large = true);
          if (!file.write(piece, error)) return !(write_failed = true);
          return true;
        });
        if (too_large) {
          base::fail(res, 413, "payload_too_large",
                     "a model file may not exceed " + std::to_string(model_max_bytes_) +
                         " bytes (inference.model_max_bytes)");
          return;
        }
        if (write_failed) {
          log_->warn("model upload: write failed: " + error);
          base::fail(res, 500, "write_failed");
          return;
        }
        if (!read) {
          base::fail(res, 400, "bad_request", "the upload was cut short");
          return;
        }
        std::string why;
        if (!has_gguf_magic(file.temporary(), why)) {
          base::fail(res, 400, "not_gguf", why);
          return;
        }
        const std::uint64_t size = file.size();
        if (!file.commit(error)) {
          log_->warn("model upload: write failed: " + error);
          base::fail(res, 500, "write_failed");
          return;
        }
        log_->info("model uploaded: " + filename);
        reply(res, {{"status", "uploaded"},
                    {"filename", filename},
                    {"path", shown_path(filename)},
                    {"size_bytes", size}});
      },
      upload);

  gw.route("POST", "/api/v1/inference/models/pull", [this](const Request& req, Response& res) {
    if (!admin_(req, res)) return;
    Json body;
    if (!base::parse_object_body(req, res, body)) return;
    auto url = body.value("url", Json(""));
    if (!url.is_string() || url.get<std::string>().empty()) {
      base::fail(res, 400, "missing_url");
      return;
    }
    const std::string u = url;
    if (u.rfind("http://", 0) != 0 && u.rfind("https://", 0) != 0) {
      base::fail(res, 400, "invalid_scheme", {{"detail", "http or https only"}});
      return;
    }
    auto name_field = body.value("filename", Json(""));
    std::string filename = name_field.is_string() ? name_field.get<std::string>() : "";
    if (filename.empty()) {
      std::string path = u.substr(0, u.find_first_of("?#"));
      filename = path.substr(path.find_last_of('/') + 1);
    }
    if (!safe_model_path(filename)) {
      base::fail(
          res, 400, "invalid_filename",
          {{"detail", "could not derive a safe filename from url; pass filename explicitly"}});
      return;
    }
    fs::path target = model_dir_ / filename;
    std::error_code ec;
    if (fs::exists(target, ec)) {
      base::fail(res, 409, "file_exists", {{"path", shown_path(filename)}});
      return;
    }
    base::HttpRequest pull;
    pull.url = u;
    pull.user_agent = "Ostrel/5.0 InferenceModulePuller";
    pull.follow_redirects = true;
    pull.connect_timeout = std::chrono::seconds(10);
    pull.timeout = std::chrono::milliseconds(pull_timeout_ms_);
    base::HttpReply r = base::http_download(pull, target, model_max_bytes_, has_gguf_magic);
    if (r.error == "file_exists") {
      base::fail(res, 409, "file_exists", {{"path", shown_path(filename)}});
      return;
    }
    if (!r.error.empty()) {
      log_->warn("model pull of " + u + " failed: " + r.error);
      int status = r.error == "too_large" ? 413 : r.error.rfind("rejected", 0) == 0 ? 422 : 502;
      base::fail(res, status, "download_failed", {{"detail", r.error}, {"status", r.status}});
      return;
    }
    log_->info("model pulled: " + u + " → " + filename);
    reply(res, {{"status", "downloaded"},
                {"filename", filename},
                {"path", shown_path(filename)},
                {"size_bytes", fs::file_size(target, ec)}});
  });

  gw.route("DELETE", "/api/v1/inference/files/*", [this](const Request& req, Response& res) {
    if (!admin_(req, res)) return;
    const std::string name = req.path.substr(std::string("/api/v1/inference/files/").size());
    if (!safe_model_path(name)) {
      base::fail(res, 400, "invalid_path");
      return;
    }
    fs::path target = model_dir_ / name;
    std::error_code ec;
    if (!fs::exists(target, ec)) {
      base::fail(res, 404, "not_found");
      return;
    }
    if (!fs::remove(target, ec)) {
      log_->warn("model delete: " + ec.message());
      base::fail(res, 500, "delete_failed");
      return;
    }
    reply(res, {{"status", "deleted"}, {"filename", name}});
  });
}

void InferenceModule::register_backend_routes_(kernel::ApiGateway& gw) {
  gw.route("GET", "/api/v1/inference/local-backends", [this](const Request& req, Response& res) {
    if (!admin_(req, res)) return;
    Json list = Json::array();
    for (const auto& b : locals_->list()) list.push_back(b);
    reply(res, {{"backends", list}});
  });

  gw.route("GET", "/api/v1/inference/local-backends/public", [this](const Request&, Response& res) {
    Json list = Json::array();
    for (const auto& b : locals_->list()) list.push_back(public_view(b));
    reply(res, {{"backends", list}});
  });

  gw.route("POST", "/api/v1/inference/local-backends", [this](const Request& req, Response& res) {
    if (!admin_(req, res)) return;
    Json body;
    if (!base::parse_object_body(req, res, body)) return;
    LocalBackend b;
    std::string error;
    if (!local_backend_from_json(body, b, error) || !locals_->check_env(b, error)) {
      base::fail(res, 400, error);
      return;
    }
    std::string journal_error;
    const auto change = locals_->set(b, journal_error);
    if (change == LocalBackendRegistry::Change::not_saved) {
      log_->warn("local backend " + b.id + " not registered: its journal " +
                 locals_->journal_path().string() + " cannot be written: " + journal_error);
      base::fail(res, 507, "not_saved",
                 {{"message",
                   "the registration could not be written to the configuration "
                   "directory (OSTREL_CONFIG_DIR); nothing was changed"},
                  {"detail", journal_error}});
      return;
    }
    register_local_engine_backend_(b);
    reply(res,
          {{"status", change == LocalBackendRegistry::Change::added ? "registered" : "updated"},
           {"id", b.id},
           {"journal", locals_->journal_path().filename().string()}});
  });

  gw.route("DELETE", "/api/v1/inference/local-backends/*",
           [this](const Request& req, Response& res) {
             if (!admin_(req, res)) return;
             const std::string id =
                 req.path.substr(std::string("/api/v1/inference/local-backends/").size());
             std::string journal_error;
             const auto change = locals_->remove(id, journal_error);
             if (change == LocalBackendRegistry::Change::unknown) {
               base::fail(res, 404, "not_found");
               return;
             }
             if (change == LocalBackendRegistry::Change::not_saved) {
               base::fail(res, 507, "not_saved",
                          {{"message", "the removal could not be written; nothing was changed"},
                           {"detail", journal_error}});
               return;
             }
             engine_->remove_backend(id);
             reply(res, {{"status", "removed"}, {"id", id}});
           });
}

void InferenceModule::register_syscalls(kernel::SyscallTable& table) {
  auto parse_args = [](std::string_view args, Json& out) {
    out = args.empty() ? Json::object() : base::parse_json(args);
    return out.is_object();
  };

  // Journal compaction, asked for by the kernel's compaction route.
  table.register_syscall(kInferenceSource, "inference.journal.compact", [this](std::string_view) {
    std::string error;
    if (!locals_->compact(error)) return base::syscall_error("compact_failed", error);
    std::error_code ec;
    const auto size = std::filesystem::file_size(locals_->journal_path(), ec);
    return base::syscall_ok({{"journal", "inference-local-backends"}, {"bytes", ec ? 0 : size}});
  });

  table.register_syscall(
      kInferenceSource, "inference.chat",
      [this](std::string_view a) {
        try {
          ChatRequest chat;
          bool stream = false;
          std::string error;
          if (!chat_json::parse_chat_text(a, chat, stream, error)) {
            return base::syscall_error_body(chat_json::render_error({400, error}));
          }
          ChatResponse resp;
          if (auto err = engine_->complete(std::move(chat), resp)) {
            return base::syscall_error_body(chat_json::render_error(explain(*err)));
          }
          return kernel::SyscallResult{0, chat_json::render_completion(resp, base::unix_s())};
        } catch (const std::exception& e) {
          return base::syscall_error_body(
              chat_json::render_error({500, base::client_safe_what(e)}));
        }
      },
      kernel::SyscallAccess::tenant("inference.chat"));

  table.register_streaming_syscall(
      kInferenceSource, "inference.chat.stream",
      [this](std::string_view a, kernel::SyscallEmit emit) -> int {
        try {
          ChatRequest chat;
          bool stream = false;
          std::string error;
          if (!chat_json::parse_chat_text(a, chat, stream, error)) {
            emit(kernel::sse_event(base::dump_json(chat_json::render_error({400, error}))));
            return -1;
          }
          return stream_sse_(std::move(chat), emit, false);
        } catch (const std::exception& e) {
          emit(kernel::sse_event(
              base::dump_json(chat_json::render_error({500, base::client_safe_what(e)}))));
          return -1;
        }
      },
      kernel::SyscallAccess::tenant("inference.chat"));

  table.register_syscall(
      kInferenceSource, "inference.models.list",
      [this](std::string_view) { return base::syscall_ok(models_list_()); },
      kernel::SyscallAccess::open());

  table.register_syscall(
      kInferenceSource, "inference.embeddings",
      [this, parse_args](std::string_view a) {
        Json args;
        if (!parse_args(a, args)) {
          return base::syscall_error("invalid_json");
        }
        try {
          int status = 200;
          Json out = embeddings_(args, status);
          return kernel::SyscallResult{status == 200 ? 0 : -1, base::dump_json(out)};
        } catch (const std::exception& e) {
          return base::syscall_error_body(
              base::error_body("internal", {{"message", base::client_safe_what(e)}}));
        }
      },
      kernel::SyscallAccess::scoped("inference.chat"));

  table.register_syscall(
      kInferenceSource, "inference.local_backends.register",
      [this, parse_args](std::string_view a) {
        Json args;
        LocalBackend b;
        std::string error;
        if (!parse_args(a, args) || !local_backend_from_json(args, b, error) ||
            !locals_->check_env(b, error)) {
          return base::syscall_error_body(base::error_body(error.empty() ? "invalid_json" : error));
        }
        std::string journal_error;
        const auto change = locals_->set(b, journal_error);
        if (change == LocalBackendRegistry::Change::not_saved) {
          return base::syscall_error_body(
              base::error_body("not_saved", {{"detail", journal_error}}));
        }
        register_local_engine_backend_(b);
        return base::syscall_ok(Json{
            {"status", change == LocalBackendRegistry::Change::added ? "registered" : "updated"},
            {"id", b.id}});
      });

  // The model that answers in place of `model` when no backend serves it.
  table.register_syscall(
      kInferenceSource, "inference.models.fallback", base::json_syscall([this](const Json& a) {
        return base::syscall_ok(Json{{"instead", engine_->fallback_for(a.value("model", ""))}});
      }));
  table.register_syscall(
      kInferenceSource, "inference.local_backends.list",
      [this](std::string_view) {
        Json list = Json::array();
        for (const auto& b : locals_->list()) list.push_back(public_view(b));
        return base::syscall_ok(Json{{"backends", list}});
      },
      kernel::SyscallAccess::open());
}

}  // namespace
}  // namespace ostrel::inference

static ostrel::kernel::ModuleRegistrar<ostrel::inference::InferenceModule>
    InferenceModule_registrar("inference");
