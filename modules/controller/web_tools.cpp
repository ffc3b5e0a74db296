#include "modules/controller/web_tools.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cctype>
#include <cstring>

#include "base/http_client.h"
#include "base/json.h"
#include "base/reply.h"
#include "modules/controller/address_guard.h"

namespace ostrel::controller {
namespace {

using Json = nlohmann::json;
constexpr std::size_t kMaxBytes = 2 << 20;
constexpr std::size_t kMaxText = 20000;

struct Got {
  long status = 0;
  std::string content_type, error, final_url, body;
  bool truncated = false;
};

Got get(const std::string& url, const AddressGuard& guard) {
  base::HttpRequest r;
  r.url = url;
  r.follow_redirects = true;
  r.timeout = std::chrono::seconds(10);
  r.connect_timeout = std::chrono::seconds(5);
  r.decompress = true;
  r.max_body = kMaxBytes;
  r.check_connect = guard.check_for(url);
  base::HttpReply reply = base::http_request(r);
  Got g;
  g.status = reply.status;
  g.content_type = std::move(reply.content_type);
  g.final_url = std::move(reply.final_url);
  g.body = std::move(reply.body);
  g.truncated = reply.truncated;
  if (!reply.transport_ok) g.error = reply.blocked ? "address_not_allowed" : reply.error;
  return g;
}

bool http_url(const std::string& url) {
  return (url.rfind("http://", 0) == 0 || url.rfind("https://", 0) == 0) && url.size() <= 4096 &&
         url.find_first_of(" \r\n\t") == std::string::npos;
}

std::string lower(std::string s) {
  for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return s;
}

}  // namespace

std::string html_to_text(const std::string& html, std::string* title) {
  const std::string low = lower(html);
  if (title) {
    const auto t = low.find("<title");
    const auto gt = t == std::string::npos ? t : low.find('>', t);
    const auto end = gt == std::string::npos ? gt : low.find("</title", gt);
    if (end != std::string::npos) *title = html_to_text(html.substr(gt + 1, end - gt - 1));
  }
  std::string out;
  bool space = false;
  auto emit = [&](char c) {
    if (std::isspace(static_cast<unsigned char>(c))) {
      space = true;
      return;
    }
    if (space && !out.empty()) out += ' ';
    space = false;
    out += c;
  };
  for (std::size_t i = 0; i < html.size();) {
    if (html[i] == '<') {
      for (const char* skip : {"script", "style", "noscript", "head"}) {
        const std::size_t n = std::strlen(skip);
        const char after = i + 1 + n < low.size() ? low[i + 1 + n] : '>';
        // "<head>" but not "<header>": the name must end there.
        if (low.compare(i + 1, n, skip) == 0 &&
            (after == '>' || after == '/' || std::isspace(static_cast<unsigned char>(after)))) {
          const auto close = low.find(std::string("</") + skip, i);
          i = close == std::string::npos ? html.size() : close;
          break;
        }
      }
      const auto gt = html.find('>', i);
      i = gt == std::string::npos ? html.size() : gt + 1;
      space = true;
      continue;
    }
    if (html[i] == '&') {
      static const std::pair<const char*, char> kEntities[] = {{"&amp;", '&'},  {"&lt;", '<'},
                                                               {"&gt;", '>'},   {"&quot;", '"'},
                                                               {"&#39;", '\''}, {"&nbsp;", ' '}};
      bool done = false;
      for (const auto& [e, c] : kEntities) {
        if (html.compare(i, std::strlen(e), e) == 0) {
          emit(c);
          i += std::strlen(e);
          done = true;
          break;
        }
      }
      if (done) continue;
    }
    emit(html[i++]);
  }
  return out;
}

void WebTools::configure(std::string search_url, bool allow_private) {
  search_url_ = std::move(search_url);
  while (!search_url_.empty() && search_url_.back() == '/') search_url_.pop_back();
  fetch_guard_.configure(allow_private, {});
  // The search service is the operator's choice: it may be an inside one.
  search_guard_.configure(true, {});
}

WebTools::Answer WebTools::fetch(const std::string& url) const {
  if (!http_url(url)) {
    return {
        base::error_body("invalid_url", {{"message", "url must start with http:// or https://"}}),
        400};
  }
  Got g = get(url, fetch_guard_);
  if (!g.error.empty()) {
    const bool blocked = g.error == "address_not_allowed";
    return {base::error_body(
                blocked ? "address_not_allowed" : "fetch_failed",
                {{"message", blocked ? "private and loopback addresses are not fetched" : g.error},
                 {"url", url}}),
            blocked ? 403 : 502};
  }
  std::string title, text;
  const bool html = lower(g.content_type).find("html") != std::string::npos;
  text = html ? html_to_text(g.body, &title) : g.body;
  bool truncated = g.truncated;
  if (text.size() > kMaxText) {
    text.resize(kMaxText);
    truncated = true;
  }
  return {{{"url", g.final_url.empty() ? url : g.final_url},
           {"status", g.status},
           {"content_type", g.content_type},
           {"title", title},
           {"text", text},
           {"truncated", truncated}},
          200};
}

WebTools::Answer WebTools::search(const std::string& query, int max_results) const {
  if (query.empty()) return {base::error_body("missing query"), 400};
  if (search_url_.empty()) {
    return {
        base::error_body(
            "web_search_not_configured",
            {{"message", "set controller.web_search_url to a SearXNG-compatible search service"}}),
        501};
  }
  Got g = get(search_url_ + "/search?format=json&q=" + base::escape_query(query), search_guard_);
  if (!g.error.empty() || g.status < 200 || g.status >= 300) {
    return {base::error_body(
                "search_failed",
                {{"message", g.error.empty() ? "http " + std::to_string(g.status) : g.error}}),
            502};
  }
  Json j = base::parse_json(g.body);
  Json results = Json::array();
  if (j.is_object() && j.contains("results") && j["results"].is_array()) {
    for (const auto& r : j["results"]) {
      if (static_cast<int>(results.size()) >= std::clamp(max_results, 1, 20)) break;
      if (!r.is_object()) continue;
      results.push_back({{"title", r.value("title", "")},
                         {"url", r.value("url", "")},
                         {"snippet", r.value("content", "")}});
    }
  }
  return {{{"query", query}, {"results", results}, {"count", results.size()}}, 200};
}

}  // namespace ostrel::controller
