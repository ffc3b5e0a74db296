#include "base/types.h"

#include "base/text.h"

namespace ostrel::base {

std::size_t HeaderHash::operator()(std::string_view s) const {
  // FNV-1a over the lower-cased bytes.
  std::size_t h = 1469598103934665603ULL;
  for (char c : s) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    h ^= static_cast<unsigned char>(c);
    h *= 1099511628211ULL;
  }
  return h;
}

bool HeaderEqual::operator()(std::string_view a, std::string_view b) const {
  return text::iequals(a, b);
}

const std::string& Request::header(std::string_view name) const {
  static const std::string empty;
  auto it = headers.find(name);
  return it == headers.end() ? empty : it->second;
}

std::string Request::param(const std::string& name, const std::string& fallback) const {
  auto it = params.find(name);
  return it == params.end() ? fallback : it->second;
}

std::string sse_event(std::string_view payload) {
  // Every line of the payload gets its own "data: " field so that a payload
  // with newlines still arrives as one event.
  std::string out;
  out.reserve(payload.size() + 8);
  size_t start = 0;
  while (true) {
    size_t nl = payload.find('\n', start);
    out += "data: ";
    out +=
        payload.substr(start, nl == std::string_view::npos ? std::string_view::npos : nl - start);
    out += '\n';
    if (nl == std::string_view::npos) break;
    start = nl + 1;
  }
  out += '\n';
  return out;
}

}  // namespace ostrel::base
