// The command line as an operator types it: the arguments parsed, then each
// --config-set string applied over a shipped manifest's settings and read
// back through the typed getters.
#include <cstdio>
#include <fstream>
#include <sstream>

#include "kernel/boot/cli.h"
#include "kernel/boot/config_view.h"
#include "kernel/boot/manifest.h"
#include "tests/fuzz/fuzz_support.h"

namespace {

const ostrel::kernel::ModuleDefinition& shipped() {
  static const ostrel::kernel::ModuleDefinition def = [] {
    std::ifstream in(std::string(OSTREL_SOURCE_DIR) + "/modules.d/data.module.yaml");
    std::stringstream s;
    s << in.rdbuf();
    auto r = ostrel::kernel::module_loader::load_from_string(s.str(), "data.module.yaml");
    if (!r.ok) std::abort();
    return r.definition;
  }();
  return def;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // Arguments are the input's NUL-separated pieces.
  std::vector<std::string> pieces{"ostrel-ulvo"};
  std::string piece;
  for (std::size_t i = 0; i < size; ++i) {
    if (data[i] == 0) {
      pieces.push_back(piece);
      piece.clear();
    } else {
      piece += static_cast<char>(data[i]);
    }
  }
  pieces.push_back(piece);
  std::vector<const char*> argv;
  for (const auto& p : pieces) argv.push_back(p.c_str());
  static std::FILE* sink = std::fopen("/dev/null", "w");
  auto outcome = ostrel::kernel::cli::parse(
      static_cast<int>(argv.size()), argv.data(), [](const char*) { return std::nullopt; }, sink);
  unsigned applied = 0;
  ostrel::kernel::ConfigView view = ostrel::kernel::config_overlay::resolve(
      shipped(), outcome.config.config_overrides, applied, nullptr);
  for (const char* key : {"embedding_model", "chunk_size", "search_top_k", "sync_each_write"}) {
    view.get(key);
    view.get_int(key, 0);
    view.get_bool(key, false);
  }
  return 0;
}
