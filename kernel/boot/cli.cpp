#include "kernel/boot/cli.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace ostrel::kernel::cli {
namespace {

constexpr const char* kUsage =
    "Ostrel ULVO \xe2\x80\x94 v5.0\n"
    "\n"
    "Usage: %s [options]\n"
    "\n"
    "Options:\n"
    "  --role=<list>         Comma-separated module names to activate (default: all loaded)\n"
    "  --modules-d=<path>    Directory containing *.module.yaml (default: modules.d)\n"
    "  --data-dir=<path>     Data root (default: $OSTREL_DATA_DIR or platform_paths default)\n"
    "  --node-id=<id>        Node identifier (default: $OSTREL_NODE_ID, else node-1)\n"
    "  --bind=<address>      Bind address (default: 0.0.0.0)\n"
    "  --port=<port>         HTTP port (default: 8880)\n"
    "  --extensions-d=<path> Writable overlay dir for admin-installed extensions.\n"
    "                         Scanned AFTER --modules-d/extensions/; duplicates\n"
    "                         override baseline with a WARN log. Catalog install\n"
    "                         writes here when set. OSTREL_ULVO_EXTENSIONS_D env\n"
    "                         has the same effect.\n"
    "  --lax-identity        Accept modules with identity warnings (default: strict)\n"
    "  --auth=<off|enforce>  Capability-token middleware (default: off).\n"
    "                         enforce: every non-public request needs\n"
    "                           X-Ostrel-Capability: <token>. A bootstrap\n"
    "                           admin token is printed on stdout at boot.\n"
    "                         Overridable via OSTREL_AUTH env var.\n"
    "  --config-set K=V      Override module config (K=<module>.<key>, repeatable)\n"
    "  --list-modules        Print registered module factories and exit\n"
    "  --help, -h            This help\n"
    "\n"
    "Config resolution (highest priority first):\n"
    "  1. --config-set module.key=value\n"
    "  2. env var OSTREL_<MODULE>_<KEY>  (uppercase, '-' and '.' \xe2\x86\x92 '_')\n"
    "  3. module.yaml config.<key>.default\n"
    "\n"
    "Examples:\n"
    "  %s --role=data --port=8892\n"
    "  %s --role=edge,router --port=8880\n"
    "  %s --role=data --config-set data.vector_backend=faiss\n"
    "  OSTREL_DATA_VECTOR_BACKEND=faiss %s --role=data\n";

// Matches "--name=value" or "--name value" (consuming the next argument).
bool take_value(std::string_view name, int argc, const char* const* argv, int& i,
                std::string& value) {
  std::string_view arg = argv[i];
  if (arg.size() > name.size() && arg.substr(0, name.size()) == name && arg[name.size()] == '=') {
    value = std::string(arg.substr(name.size() + 1));
    return true;
  }
  if (arg == name && i + 1 < argc) {
    value = argv[++i];
    return true;
  }
  return false;
}

std::vector<std::string> split_roles(const std::string& list) {
  std::vector<std::string> roles;
  size_t start = 0;
  while (start <= list.size()) {
    size_t comma = list.find(',', start);
    if (comma == std::string::npos) comma = list.size();
    if (comma > start) roles.push_back(list.substr(start, comma - start));
    start = comma + 1;
  }
  return roles;
}

// Decimal, with optional leading blanks and sign, kept in 16 bits (wrapping).
bool parse_port(const std::string& text, std::uint16_t& port) {
  errno = 0;
  char* end = nullptr;
  long long v = std::strtoll(text.c_str(), &end, 10);
  if (end == text.c_str() || errno == ERANGE) return false;
  port = static_cast<std::uint16_t>(v);
  return true;
}

}  // namespace

void print_usage(const char* argv0, std::FILE* err) {
  std::fprintf(err, kUsage, argv0, argv0, argv0, argv0, argv0);
}

ParseOutcome parse(int argc, const char* const* argv, const EnvLookup& env, std::FILE* err) {
  ParseOutcome out;
  KernelConfig& cfg = out.config;

  if (auto dir = env("OSTREL_DATA_DIR")) {
    cfg.data_dir = *dir;  // even when empty
  } else if (auto home = env("HOME")) {
    cfg.data_dir = *home + "/.local/share/ostrel";
  } else {
    cfg.data_dir = "/tmp/ostrel";
  }
  if (auto ext = env("OSTREL_ULVO_EXTENSIONS_D")) cfg.extensions_d = *ext;
  // The node's id: --node-id, else OSTREL_NODE_ID, else "node-1".
  if (auto id = env("OSTREL_NODE_ID"); id && !id->empty()) cfg.node_id = *id;
  if (auto auth = env("OSTREL_AUTH")) {
    std::string_view a = *auth;
    if (a == "enforce" || a == "1" || a == "on") cfg.auth_mode = AuthMode::enforce;
  }

  const char* argv0 = argc > 0 ? argv[0] : "ostrel-ulvo";
  bool list_modules = false;
  for (int i = 1; i < argc; ++i) {
    std::string_view arg = argv[i];
    std::string value;
    if (arg == "--help" || arg == "-h") {
      print_usage(argv0, err);
      out.action = Action::exit;
      out.exit_status = 0;
      return out;
    } else if (arg == "--version") {
      out.action = Action::version;
      return out;
    } else if (arg == "--list-modules") {
      list_modules = true;
    } else if (arg == "--lax-identity") {
      cfg.strict_identity = false;
    } else if (take_value("--config-set", argc, argv, i, value)) {
      cfg.config_overrides.push_back(value);
    } else if (take_value("--role", argc, argv, i, value)) {
      cfg.roles = split_roles(value);
    } else if (take_value("--modules-d", argc, argv, i, value)) {
      cfg.modules_d = value;
    } else if (take_value("--data-dir", argc, argv, i, value)) {
      cfg.data_dir = value;
    } else if (take_value("--node-id", argc, argv, i, value)) {
      cfg.node_id = value;
    } else if (take_value("--bind", argc, argv, i, value)) {
      cfg.bind = value;
    } else if (take_value("--port", argc, argv, i, value)) {
      if (!parse_port(value, cfg.port)) {
        std::fprintf(err, "--port must be a number, got %s\n", value.c_str());
        out.action = Action::exit;
        out.exit_status = 2;
        return out;
      }
    } else if (take_value("--extensions-d", argc, argv, i, value)) {
      cfg.extensions_d = value;
    } else if (take_value("--auth", argc, argv, i, value)) {
      if (value == "enforce" || value == "on" || value == "1") {
        cfg.auth_mode = AuthMode::enforce;
      } else if (value == "off" || value == "0") {
        cfg.auth_mode = AuthMode::off;
      } else {
        std::fprintf(err, "--auth must be off|enforce, got %s\n", value.c_str());
        out.action = Action::exit;
        out.exit_status = 2;
        return out;
      }
    } else {
      std::fprintf(err, "unknown option: %s\n\n", argv[i]);
      print_usage(argv0, err);
      out.action = Action::exit;
      out.exit_status = 2;
      return out;
    }
  }
  if (list_modules) out.action = Action::list_modules;
  return out;
}

}  // namespace ostrel::kernel::cli
