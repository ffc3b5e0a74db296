#pragma once

#include <filesystem>
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

// Downloads into `target` through a temporary file renamed into place on a
// 2xx answer; nothing is left behind otherwise.
Result download(const std::string& url, const std::filesystem::path& target,
                const std::string& user_agent);

}  // namespace ostrel::inference::http_fetch
