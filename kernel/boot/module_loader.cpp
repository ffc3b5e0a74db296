#include <yaml-cpp/yaml.h>

#include <algorithm>
#include <cmath>
#include <fstream>
#include <limits>
#include <set>
#include <sstream>
#include <system_error>

#include "kernel/boot/manifest.h"

namespace ostrel::kernel::module_loader {
namespace {

namespace fs = std::filesystem;

const std::set<std::string>& module_keys() {
  static const std::set<std::string> keys = {
      "name",     "display_name", "description", "version",    "category",   "default_port",
      "binary",   "config_file",  "data_dir",    "hardware",   "depends_on", "health",
      "api",      "config",       "metrics",     "alerts",     "service",    "intent",
      "syscalls", "help",         "firewall",    "source_code"};
  return keys;
}

// Lenient scalar readers: a missing key or a value of the wrong kind leaves
// the default in place.
void read(const YAML::Node& map, const char* key, std::string& out) {
  if (!map.IsMap()) return;
  const YAML::Node v = map[key];
  if (v && v.IsScalar()) out = v.Scalar();
}

void read(const YAML::Node& map, const char* key, bool& out) {
  if (!map.IsMap()) return;
  const YAML::Node v = map[key];
  if (!v || !v.IsScalar()) return;
  try {
    out = v.as<bool>();
  } catch (const YAML::Exception&) {
  }
}

void read(const YAML::Node& map, const char* key, unsigned& out) {
  if (!map.IsMap()) return;
  const YAML::Node v = map[key];
  if (!v || !v.IsScalar()) return;
  try {
    long long n = v.as<long long>();
    if (n >= 0 && n <= std::numeric_limits<unsigned>::max()) out = static_cast<unsigned>(n);
  } catch (const YAML::Exception&) {
  }
}

void read(const YAML::Node& map, const char* key, std::optional<std::int64_t>& out) {
  if (!map.IsMap()) return;
  const YAML::Node v = map[key];
  if (!v || !v.IsScalar()) return;
  try {
    out = v.as<std::int64_t>();
  } catch (const YAML::Exception&) {
  }
}

void read(const YAML::Node& map, const char* key, std::vector<std::string>& out) {
  if (!map.IsMap()) return;
  const YAML::Node v = map[key];
  if (!v || !v.IsSequence()) return;
  out.clear();
  for (const auto& item : v) {
    if (item.IsScalar()) out.push_back(item.Scalar());
  }
}

// The text of a node: scalars as written, anything else as emitted YAML.
std::string text_of(const YAML::Node& v) {
  if (!v || v.IsNull()) return "";
  if (v.IsScalar()) return v.Scalar();
  YAML::Emitter out;
  out << v;
  return out.c_str();
}

bool parse_number(std::string text, double& out) {
  std::string lower = text;
  std::transform(lower.begin(), lower.end(), lower.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  if (lower == ".inf" || lower == "+.inf") {
    out = std::numeric_limits<double>::infinity();
    return true;
  }
  if (lower == "-.inf") {
    out = -std::numeric_limits<double>::infinity();
    return true;
  }
  if (lower == ".nan") {
    out = std::numeric_limits<double>::quiet_NaN();
    return true;
  }
  char* end = nullptr;
  out = std::strtod(text.c_str(), &end);
  return end != text.c_str() && *end == '\0';
}

GpuNeed gpu_from(const std::string& s) {
  if (s == "required") return GpuNeed::required;
  if (s == "recommended") return GpuNeed::recommended;
  if (s == "optional") return GpuNeed::optional;
  return GpuNeed::none;
}

void read_hardware(const YAML::Node& n, HardwareProfile& hw) {
  std::string gpu;
  read(n, "gpu", gpu);
  hw.gpu = gpu_from(gpu);
  read(n, "gpu_min_vram", hw.gpu_min_vram);
  read(n, "min_ram", hw.min_ram);
  read(n, "min_disk", hw.min_disk);
  read(n, "network", hw.network);
}

void read_health(const YAML::Node& n, HealthProbe& h) {
  read(n, "endpoint", h.endpoint);
  read(n, "interval", h.interval);
  read(n, "timeout", h.timeout);
  read(n, "unhealthy_threshold", h.unhealthy_threshold);
  if (n.IsMap() && n["startup_probe"]) {
    const YAML::Node s = n["startup_probe"];
    read(s, "endpoint", h.startup_probe.endpoint);
    read(s, "initial_delay", h.startup_probe.initial_delay);
    read(s, "period", h.startup_probe.period);
  }
}

void read_api(const YAML::Node& n, ModuleDefinition& def) {
  read(n, "prefix", def.api_prefix);
  if (!n.IsMap() || !n["endpoints"] || !n["endpoints"].IsSequence()) return;
  for (const auto& item : n["endpoints"]) {
    if (!item.IsMap()) continue;
    EndpointDef e;
    read(item, "path", e.path);
    read(item, "method", e.method);
    read(item, "auth", e.auth);
    read(item, "description", e.description);
    read(item, "streaming", e.streaming);
    def.endpoints.push_back(std::move(e));
  }
}

void read_config(const YAML::Node& n, ModuleDefinition& def) {
  if (!n.IsMap()) return;
  for (const auto& kv : n) {
    ConfigField f;
    f.key = kv.first.Scalar();
    const YAML::Node field = kv.second;
    if (field.IsMap()) {
      read(field, "type", f.type);
      f.default_value = text_of(field["default"]);
      read(field, "description", f.description);
      f.admin_group = text_of(field["admin_group"]);
      f.requires_hardware = text_of(field["requires_hardware"]);
      read(field, "values", f.values);
      read(field, "min", f.min);
      read(field, "max", f.max);
      if (field["env"] && field["env"].IsScalar()) {
        f.env.push_back(field["env"].Scalar());
      } else {
        read(field, "env", f.env);
      }
    }
    def.config.push_back(std::move(f));
  }
}

void read_metrics(const YAML::Node& n, ModuleDefinition& def) {
  if (!n.IsSequence()) return;
  for (const auto& item : n) {
    if (!item.IsMap()) continue;
    MetricDef m;
    read(item, "name", m.name);
    read(item, "type", m.type);
    read(item, "description", m.description);
    if (item["buckets"] && item["buckets"].IsSequence()) {
      for (const auto& b : item["buckets"]) {
        double v;
        if (b.IsScalar() && parse_number(b.Scalar(), v)) m.buckets.push_back(v);
      }
    }
    def.metrics.push_back(std::move(m));
  }
}

void read_alerts(const YAML::Node& n, ModuleDefinition& def) {
  if (!n.IsSequence()) return;
  for (const auto& item : n) {
    if (!item.IsMap()) continue;
    AlertDef a;
    read(item, "name", a.name);
    read(item, "condition", a.condition);
    read(item, "severity", a.severity);
    read(item, "message", a.message);
    def.alerts.push_back(std::move(a));
  }
}

void read_service(const YAML::Node& n, ServiceConfig& s) {
  read(n, "type", s.type);
  read(n, "restart", s.restart);
  read(n, "restart_sec", s.restart_sec);
  read(n, "after", s.after);
  read(n, "wanted_by", s.wanted_by);
  if (!n.IsMap() || !n["environment"]) return;
  const YAML::Node env = n["environment"];
  if (env.IsMap()) {
    for (const auto& kv : env) s.environment.emplace_back(kv.first.Scalar(), text_of(kv.second));
  } else if (env.IsSequence()) {
    for (const auto& item : env) {
      if (!item.IsScalar()) continue;
      const std::string& line = item.Scalar();
      size_t eq = line.find('=');
      if (eq == std::string::npos) {
        s.environment.emplace_back(line, "");
      } else {
        s.environment.emplace_back(line.substr(0, eq), line.substr(eq + 1));
      }
    }
  }
}

void read_intent(const YAML::Node& n, IntentDecl& intent, std::vector<std::string>& warnings) {
  static const std::set<std::string> keys = {"handles", "keywords", "required", "optional"};
  for (const auto& kv : n) {
    std::string key = kv.first.Scalar();
    if (!keys.count(key)) warnings.push_back("unknown module key: '" + key + "' (ignored)");
  }
  read(n, "handles", intent.handles);
  read(n, "keywords", intent.keywords);
  read(n, "required", intent.required);
  read(n, "optional", intent.optional);
}

void read_syscalls(const YAML::Node& n, ModuleDefinition& def) {
  if (!n.IsSequence()) return;
  for (const auto& item : n) {
    if (!item.IsMap()) continue;
    SyscallDef s;
    read(item, "name", s.name);
    read(item, "description", s.description);
    s.input = text_of(item["input"]);
    s.output = text_of(item["output"]);
    def.syscalls.push_back(std::move(s));
  }
}

void read_help(const YAML::Node& n, ModuleDefinition& def) {
  if (!n.IsSequence()) return;
  for (const auto& item : n) {
    if (!item.IsMap()) continue;
    HelpTopicDecl h;
    read(item, "id", h.id);
    read(item, "title", h.title);
    read(item, "path", h.path);
    read(item, "summary", h.summary);
    read(item, "keywords", h.keywords);
    read(item, "tags", h.tags);
    read(item, "audience", h.audience);
    def.help.push_back(std::move(h));
  }
}

void read_firewall(const YAML::Node& n, ModuleDefinition& def) {
  if (!n.IsSequence()) return;
  for (const auto& item : n) {
    if (!item.IsMap()) continue;
    FirewallPort f;
    read(item, "port", f.port);
    read(item, "protocol", f.protocol);
    read(item, "description", f.description);
    def.firewall.push_back(std::move(f));
  }
}

void read_module(const YAML::Node& m, ModuleDefinition& def, std::vector<std::string>& warnings) {
  read(m, "name", def.name);
  read(m, "display_name", def.display_name);
  read(m, "description", def.description);
  read(m, "version", def.version);
  read(m, "category", def.category);
  unsigned port = def.default_port;
  read(m, "default_port", port);
  if (port <= 0xFFFF) def.default_port = static_cast<std::uint16_t>(port);
  read(m, "binary", def.binary);
  read(m, "config_file", def.config_file);
  read(m, "data_dir", def.data_dir);
  if (m["hardware"]) read_hardware(m["hardware"], def.hardware);
  read(m, "depends_on", def.depends_on);
  if (m["health"]) read_health(m["health"], def.health);
  if (m["api"]) read_api(m["api"], def);
  if (m["config"]) read_config(m["config"], def);
  if (m["metrics"]) read_metrics(m["metrics"], def);
  if (m["alerts"]) read_alerts(m["alerts"], def);
  if (m["service"]) read_service(m["service"], def.service);
  if (m["intent"] && m["intent"].IsMap()) read_intent(m["intent"], def.intent, warnings);
  if (m["syscalls"]) read_syscalls(m["syscalls"], def);
  if (m["help"]) read_help(m["help"], def);
  if (m["firewall"]) read_firewall(m["firewall"], def);
  if (m["source_code"]) {
    const YAML::Node sc = m["source_code"];
    read(sc, "domain", def.source_code.domain);
    read(sc, "subdomain_name", def.source_code.subdomain_name);
    read(sc, "subdomain", def.source_code.subdomain);
  }
}

bool valid_name_char(char c) {
  return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == '_';
}

}  // namespace

ValidationResult validate(const ModuleDefinition& def) {
  ValidationResult r;
  const std::string& name = def.name;
  if (!name.empty()) {
    if (std::any_of(name.begin() + 1, name.end(), [](char c) { return !valid_name_char(c); }) ||
        (!valid_name_char(name[0]) && !(name[0] >= 'A' && name[0] <= 'Z'))) {
      r.errors.push_back("module name contains invalid character: '" + name + "'");
    }
    if (name[0] < 'a' || name[0] > 'z') {
      r.errors.push_back("module name must start with a lowercase letter: '" + name + "'");
    }
  }
  if (def.default_port >= 1 && def.default_port <= 1023) {
    r.warnings.push_back("default_port " + std::to_string(def.default_port) +
                         " is in the privileged range (<1024)");
  }
  for (const auto& e : def.endpoints) {
    if (e.path.empty() || e.path[0] != '/') {
      r.errors.push_back("endpoint path must start with '/': '" + e.path + "'");
    }
  }
  std::set<std::string> ids;
  for (const auto& h : def.help) {
    if (!ids.insert(h.id).second) r.errors.push_back("duplicate help topic id: '" + h.id + "'");
  }
  r.ok = r.errors.empty();
  return r;
}

LoadResult load_from_string(const std::string& yaml_text, const fs::path& source) {
  LoadResult r;
  r.definition.source_path = source;
  YAML::Node root = YAML::Load(yaml_text);
  if (!root.IsMap() || !root["module"]) {
    r.errors.push_back("root must be a YAML mapping with `module:` key");
    return r;
  }
  const YAML::Node m = root["module"];
  if (!m.IsMap()) {
    r.errors.push_back("`module:` root must be a mapping");
    return r;
  }
  for (const auto& kv : root) {
    std::string key = kv.first.Scalar();
    if (key != "module") r.warnings.push_back("unknown top-level key: '" + key + "' (ignored)");
  }
  for (const auto& kv : m) {
    std::string key = kv.first.Scalar();
    if (!module_keys().count(key)) {
      r.warnings.push_back("unknown module key: '" + key + "' (ignored)");
    }
  }
  read_module(m, r.definition, r.warnings);

  const ModuleDefinition& def = r.definition;
  if (def.help.empty()) {
    r.warnings.push_back(
        "no help topics declared — per OstrelOS.md §8476 a module must ship at least one "
        ".help.md");
  }
  if (def.source_code.domain.empty()) {
    r.warnings.push_back("source_code.domain not declared (cannot self-register)");
  }
  if (def.version == "0.0.0") r.warnings.push_back("no version declared — defaulting to 0.0.0");
  if (def.name.empty()) r.errors.push_back("missing required field: module.name");

  ValidationResult v = validate(def);
  r.errors.insert(r.errors.end(), v.errors.begin(), v.errors.end());
  r.warnings.insert(r.warnings.end(), v.warnings.begin(), v.warnings.end());
  r.ok = r.errors.empty();
  return r;
}

BulkResult load_directory(const fs::path& dir) {
  BulkResult out;
  std::error_code ec;
  if (!fs::is_directory(dir, ec)) {
    out.messages.push_back("not a directory: " + dir.string());
    return out;
  }
  constexpr std::string_view kSuffix = ".module.yaml";
  for (fs::directory_iterator it(dir, ec), end; !ec && it != end; it.increment(ec)) {
    const fs::path& path = it->path();
    std::string file = path.filename().string();
    if (file.size() < kSuffix.size() ||
        file.compare(file.size() - kSuffix.size(), kSuffix.size(), kSuffix) != 0) {
      continue;
    }
    std::error_code type_ec;
    if (!it->is_regular_file(type_ec)) continue;

    std::ifstream in(path, std::ios::binary);
    if (!in) {
      out.messages.push_back("cannot open file: " + path.string());
      continue;
    }
    std::stringstream buf;
    buf << in.rdbuf();

    LoadResult r;
    try {
      r = load_from_string(buf.str(), path);
    } catch (const YAML::Exception& e) {
      r = LoadResult{};
      r.definition.source_path = path;
      r.errors.push_back(std::string("YAML syntax error: ") + e.what());
    }
    if (!r.ok) {
      out.failures.push_back(std::move(r));
      continue;
    }
    auto dup = std::find_if(out.definitions.begin(), out.definitions.end(),
                            [&](const ModuleDefinition& d) { return d.name == r.definition.name; });
    if (dup != out.definitions.end()) {
      out.messages.push_back("duplicate module name '" + r.definition.name + "' at " +
                             path.string() + " (first definition wins)");
      continue;
    }
    out.definitions.push_back(std::move(r.definition));
  }
  if (ec) out.messages.push_back("cannot read directory " + dir.string() + ": " + ec.message());
  return out;
}

}  // namespace ostrel::kernel::module_loader
