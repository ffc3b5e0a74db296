#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace ostrel::kernel {

enum class GpuNeed : std::uint8_t { required = 0, recommended = 1, optional = 2, none = 3 };

struct HardwareProfile {
  GpuNeed gpu = GpuNeed::none;
  std::string gpu_min_vram;
  std::string min_ram;
  std::string min_disk;
  std::string network;
};

struct StartupProbe {
  std::string endpoint = "/health";
  unsigned initial_delay = 5;
  unsigned period = 3;
};

struct HealthProbe {
  std::string endpoint = "/health";
  unsigned interval = 10;
  unsigned timeout = 5;
  unsigned unhealthy_threshold = 3;
  StartupProbe startup_probe;
};

struct EndpointDef {
  std::string path;
  std::string method = "GET";
  bool auth = true;
  std::string description;
  bool streaming = false;
};

struct ConfigField {
  std::string key;
  std::string type = "string";
  std::string default_value;
  // Cluster-wide variables ("OSTREL_ULVO_CONTROLLER_URL") whose value, when
  // set, replaces the default; the first set one wins.
  std::vector<std::string> env;
  std::string description;
  std::string admin_group;
  std::string requires_hardware;
  std::vector<std::string> values;
  std::optional<std::int64_t> min;
  std::optional<std::int64_t> max;
};

struct MetricDef {
  std::string name;
  std::string type = "counter";
  std::string description;
  std::vector<double> buckets;
};

struct AlertDef {
  std::string name;
  std::string condition;
  std::string severity = "warning";
  std::string message;
};

struct ServiceConfig {
  std::string type = "simple";
  std::string restart = "always";
  unsigned restart_sec = 5;
  std::vector<std::string> after;
  std::vector<std::string> wanted_by;
  std::vector<std::pair<std::string, std::string>> environment;
};

struct IntentDecl {
  std::vector<std::string> handles;
  std::vector<std::string> keywords;
  std::vector<std::string> required;
  std::vector<std::string> optional;
};

struct SyscallDef {
  std::string name;
  std::string description;
  std::string input;   // YAML text of the sub-tree
  std::string output;  // YAML text of the sub-tree
};

struct HelpTopicDecl {
  std::string id;
  std::string title;
  std::string path;
  std::string summary;
  std::vector<std::string> keywords;
  std::vector<std::string> tags;
  std::string audience = "user";
};

struct FirewallPort {
  unsigned port = 0;
  std::string protocol = "tcp";
  std::string description;
};

struct SourceCodeDecl {
  std::string domain;
  std::string subdomain_name;
  std::string subdomain;
};

// A parsed `*.module.yaml` manifest.
struct ModuleDefinition {
  std::string name;
  std::string display_name;
  std::string description;
  std::string version = "0.0.0";
  std::string category;
  std::uint16_t default_port = 0;
  std::string binary;
  std::string config_file;
  std::string data_dir;
  HardwareProfile hardware;
  std::vector<std::string> depends_on;
  HealthProbe health;
  std::string api_prefix = "/api/v1";
  std::vector<EndpointDef> endpoints;
  std::vector<ConfigField> config;
  std::vector<MetricDef> metrics;
  std::vector<AlertDef> alerts;
  ServiceConfig service;
  IntentDecl intent;
  std::vector<SyscallDef> syscalls;
  std::vector<HelpTopicDecl> help;
  std::vector<FirewallPort> firewall;
  SourceCodeDecl source_code;
  std::filesystem::path source_path;
};

namespace module_loader {

struct LoadResult {
  bool ok = false;
  ModuleDefinition definition;
  std::vector<std::string> errors;
  std::vector<std::string> warnings;
};

struct ValidationResult {
  bool ok = true;
  std::vector<std::string> errors;
  std::vector<std::string> warnings;
};

struct BulkResult {
  std::vector<ModuleDefinition> definitions;
  std::vector<LoadResult> failures;
  std::vector<std::string> messages;
};

// Schema problems come back as errors and warnings; a YAML syntax error leaves
// as the YAML library's exception.
LoadResult load_from_string(const std::string& yaml_text, const std::filesystem::path& source);

// Every "*.module.yaml" regular file directly in `dir`, in directory order. A
// file with a YAML syntax error lands among the failures with the parser's text.
BulkResult load_directory(const std::filesystem::path& dir);

ValidationResult validate(const ModuleDefinition& def);

}  // namespace module_loader
}  // namespace ostrel::kernel
