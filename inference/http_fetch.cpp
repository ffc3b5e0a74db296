#include "inference/http_fetch.h"

#include <curl/curl.h>

#include <cstdio>

#include "base/durable_file.h"

namespace ostrel::inference::http_fetch {
namespace {

size_t to_string(char* data, size_t size, size_t n, void* user) {
  static_cast<std::string*>(user)->append(data, size * n);
  return size * n;
}

}  // namespace

Result post(const std::string& url, const std::string& body,
            const std::vector<std::string>& headers, long timeout_ms) {
  Result r;
  CURL* curl = curl_easy_init();
  if (!curl) {
    r.error = "curl_easy_init failed";
    return r;
  }
  curl_slist* list = nullptr;
  for (const auto& h : headers) list = curl_slist_append(list, h.c_str());
  curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(curl, CURLOPT_TIMEOUT_MS, timeout_ms);
  curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT_MS, 5000L);
  curl_easy_setopt(curl, CURLOPT_HTTPHEADER, list);
  curl_easy_setopt(curl, CURLOPT_POSTFIELDS, body.c_str());
  curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE, static_cast<long>(body.size()));
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, to_string);
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, &r.body);
  CURLcode rc = curl_easy_perform(curl);
  r.transport_ok = rc == CURLE_OK;
  if (!r.transport_ok) r.error = curl_easy_strerror(rc);
  curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &r.status);
  curl_slist_free_all(list);
  curl_easy_cleanup(curl);
  return r;
}

Result download(const std::string& url, const std::filesystem::path& target,
                const std::string& user_agent, const DownloadLimits& limits) {
  Result r;
  base::AtomicFileWriter file(target);
  if (!file.open(r.error)) {
    r.error = "open_failed: " + r.error;
    return r;
  }
  CURL* curl = curl_easy_init();
  if (!curl) {
    r.error = "curl_easy_init failed";
    return r;
  }
  struct Sink {
    base::AtomicFileWriter* file;
    std::uint64_t max;
    bool too_large = false;
    std::string error;
  } sink{&file, limits.max_bytes, false, {}};
  auto write = [](char* data, size_t size, size_t n, void* user) -> size_t {
    auto* s = static_cast<Sink*>(user);
    const size_t bytes = size * n;
    if (s->max && s->file->size() + bytes > s->max) {
      s->too_large = true;
      return 0;
    }
    return s->file->write(std::string_view(data, bytes), s->error) ? bytes : 0;
  };
  curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, 1L);
  curl_easy_setopt(curl, CURLOPT_MAXREDIRS, 5L);
  curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(curl, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(curl, CURLOPT_USERAGENT, user_agent.c_str());
  curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT_MS, 10000L);
  if (limits.total_timeout_ms > 0)
    curl_easy_setopt(curl, CURLOPT_TIMEOUT_MS, limits.total_timeout_ms);
  if (limits.max_bytes) {
    curl_easy_setopt(curl, CURLOPT_MAXFILESIZE_LARGE, static_cast<curl_off_t>(limits.max_bytes));
  }
  // Only a 2xx body is worth writing.
  curl_easy_setopt(curl, CURLOPT_FAILONERROR, 1L);
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, +write);
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, &sink);
  CURLcode rc = curl_easy_perform(curl);
  curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &r.status);
  curl_easy_cleanup(curl);
  r.transport_ok = rc == CURLE_OK || rc == CURLE_HTTP_RETURNED_ERROR;
  if (sink.too_large || rc == CURLE_FILESIZE_EXCEEDED) {
    r.error = "too_large";
    return r;
  }
  if (!sink.error.empty()) {
    r.error = "write_failed: " + sink.error;
    return r;
  }
  if (rc != CURLE_OK) {
    r.error = rc == CURLE_HTTP_RETURNED_ERROR ? "http " + std::to_string(r.status)
                                              : curl_easy_strerror(rc);
    return r;
  }
  if (limits.accept) {
    std::string why;
    if (!limits.accept(file.temporary(), why)) {
      r.error = "rejected: " + why;
      return r;
    }
  }
  if (!file.commit(r.error, /*replace=*/false)) {
    if (r.error != "file_exists") r.error = "write_failed: " + r.error;
    return r;
  }
  return r;
}

}  // namespace ostrel::inference::http_fetch
