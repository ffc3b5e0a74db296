#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

// Plain outbound HTTP over libcurl for the inference module: a JSON POST and
// a download to a file. Blocking; thread-safe (one curl handle per call).
namespace ostrel::inference::http_fetch {

struct Result {
  bool transport_ok = false;  // false: no HTTP answer at all (see error)
  long status = 0;
  std::string body;
  std::string error;
};

Result post(const std::string& url, const std::string& body,
            const std::vector<std::string>& headers, long timeout_ms);

struct DownloadLimits {
  std::uint64_t max_bytes = 0;  // 0: no limit
  long total_timeout_ms = 0;    // 0: no limit
  // Checks the finished temporary file before it takes the target's place;
  // false with a reason refuses it.
  std::function<bool(const std::filesystem::path& file, std::string& why)> accept;
};

// Downloads into `target` through a temporary file of its own that takes
// the target's place on a 2xx answer, only if no file has that name yet
// (error "file_exists"); nothing is left behind otherwise. Errors:
// "too_large", "rejected: <why>", "http <status>", libcurl's text.
Result download(const std::string& url, const std::filesystem::path& target,
                const std::string& user_agent, const DownloadLimits& limits = {});

}  // namespace ostrel::inference::http_fetch
