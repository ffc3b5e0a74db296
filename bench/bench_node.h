#pragma once
// A node booted in-process for a benchmark: a directory of its own under
// the temporary directory (removed at the end), the named manifests copied
// from the source tree's modules.d/, the given settings and quiet logs.
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "base/log.h"
#include "kernel/kernel.h"

namespace ostrel::bench {

struct BenchNode {
  std::filesystem::path dir;
  std::unique_ptr<kernel::Kernel> kernel;

  // `prepare` runs on the data directory before boot (to lay down files a
  // benchmark wants the node to load).
  BenchNode(const std::string& name, const std::vector<std::string>& manifests,
            std::vector<std::string> settings = {},
            const std::function<void(const std::filesystem::path& data)>& prepare = nullptr) {
    namespace fs = std::filesystem;
    dir = fs::temp_directory_path() / ("ostrel-bench-" + name + "-" + std::to_string(::getpid()));
    fs::remove_all(dir);
    fs::create_directories(dir / "modules.d");
    for (const auto& m : manifests) {
      fs::copy_file(fs::path(OSTREL_SOURCE_DIR) / "modules.d" / m, dir / "modules.d" / m);
    }
    if (prepare) prepare(dir / "data");
    ::setenv("OSTREL_CONFIG_DIR", (dir / "config").c_str(), 1);
    obs::Logger::instance().set_threshold(obs::LogLevel::warn);
    kernel::KernelConfig cfg;
    cfg.data_dir = (dir / "data").string();
    cfg.modules_d = (dir / "modules.d").string();
    cfg.bind = "127.0.0.1";
    cfg.port = 0;
    cfg.config_overrides = std::move(settings);
    kernel = std::make_unique<kernel::Kernel>(cfg);
    if (!kernel->boot()) std::abort();
    kernel->set_running();
  }

  ~BenchNode() {
    kernel->drain_and_stop();
    kernel.reset();
    std::error_code ec;
    std::filesystem::remove_all(dir, ec);
  }

  BenchNode(const BenchNode&) = delete;
  BenchNode& operator=(const BenchNode&) = delete;
};

}  // namespace ostrel::bench
