#pragma once
// Shared by the fuzz targets: a scratch directory of the process's own
// (removed at exit) and a whole-file write of an input.
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>

#include "base/log.h"

namespace ostrel::fuzz {

inline const std::filesystem::path& scratch() {
  static const std::filesystem::path dir = [] {
    auto d = std::filesystem::temp_directory_path() / ("ostrel-fuzz-" + std::to_string(::getpid()));
    std::filesystem::remove_all(d);
    std::filesystem::create_directories(d);
    std::atexit([] {
      std::error_code ec;
      std::filesystem::remove_all(
          std::filesystem::temp_directory_path() / ("ostrel-fuzz-" + std::to_string(::getpid())),
          ec);
    });
    return d;
  }();
  return dir;
}

inline void put(const std::filesystem::path& path, std::string_view bytes) {
  std::filesystem::create_directories(path.parent_path());
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

inline std::string_view as_text(const std::uint8_t* data, std::size_t size) {
  return {reinterpret_cast<const char*>(data), size};
}

}  // namespace ostrel::fuzz

// Log lines of rejected inputs would drown the fuzzer's own output.
extern "C" int LLVMFuzzerInitialize(int*, char***) {
  ostrel::obs::Logger::instance().set_threshold(ostrel::obs::LogLevel::error);
  return 0;
}
