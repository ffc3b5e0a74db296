#include "inference/http_fetch.h"

#include <curl/curl.h>

#include <unistd.h>

#include <cstdio>

namespace ostrel::inference::http_fetch {
namespace {

size_t to_string(char* data, size_t size, size_t n, void* user) {
  static_cast<std::string*>(user)->append(data, size * n);
  return size * n;
}

size_t to_file(char* data, size_t size, size_t n, void* user) {
  return std::fwrite(data, size, n, static_cast<std::FILE*>(user)) * size;
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
                const std::string& user_agent) {
  Result r;
  std::filesystem::path tmp = target;
  tmp += ".part";
  std::FILE* out = std::fopen(tmp.c_str(), "wb");
  if (!out) {
    r.error = "open_failed";
    return r;
  }
  CURL* curl = curl_easy_init();
  if (!curl) {
    std::fclose(out);
    std::remove(tmp.c_str());
    r.error = "curl_easy_init failed";
    return r;
  }
  curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, 1L);
  curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(curl, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(curl, CURLOPT_USERAGENT, user_agent.c_str());
  curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT_MS, 10000L);
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, to_file);
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, out);
  CURLcode rc = curl_easy_perform(curl);
  curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &r.status);
  curl_easy_cleanup(curl);
  bool flushed = std::fflush(out) == 0 && ::fsync(fileno(out)) == 0;
  std::fclose(out);
  r.transport_ok = rc == CURLE_OK;
  if (!r.transport_ok) r.error = curl_easy_strerror(rc);
  if (!r.transport_ok || r.status < 200 || r.status >= 300 || !flushed ||
      std::rename(tmp.c_str(), target.c_str()) != 0) {
    std::remove(tmp.c_str());
    if (r.error.empty()) r.error = flushed ? "http " + std::to_string(r.status) : "write_failed";
    r.transport_ok = r.transport_ok && flushed;
  }
  return r;
}

}  // namespace ostrel::inference::http_fetch
