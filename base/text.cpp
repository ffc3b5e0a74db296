#include "base/text.h"

#include <cstdio>

namespace ostrel::text {

std::size_t utf8_sequence_length(std::string_view s) {
  if (s.empty()) return 0;
  const auto b = [&](std::size_t i) { return static_cast<unsigned char>(s[i]); };
  const unsigned char c = b(0);
  if (c < 0x80) return 1;
  std::size_t n = 0;
  unsigned char lo = 0x80, hi = 0xbf;  // the allowed range of the second byte
  if (c >= 0xc2 && c <= 0xdf) {
    n = 2;
  } else if (c >= 0xe0 && c <= 0xef) {
    n = 3;
    if (c == 0xe0) lo = 0xa0;  // overlong
    if (c == 0xed) hi = 0x9f;  // surrogates
  } else if (c >= 0xf0 && c <= 0xf4) {
    n = 4;
    if (c == 0xf0) lo = 0x90;  // overlong
    if (c == 0xf4) hi = 0x8f;  // above U+10FFFF
  } else {
    return 0;
  }
  if (s.size() < n || b(1) < lo || b(1) > hi) return 0;
  for (std::size_t i = 2; i < n; ++i) {
    if (b(i) < 0x80 || b(i) > 0xbf) return 0;
  }
  return n;
}

bool valid_utf8(std::string_view s) {
  std::size_t i = 0;
  while (i < s.size()) {
    if (static_cast<unsigned char>(s[i]) < 0x80) {
      ++i;
      continue;
    }
    std::size_t n = utf8_sequence_length(s.substr(i));
    if (n == 0) return false;
    i += n;
  }
  return true;
}

void append_json_string(std::string& out, std::string_view s) {
  out += '"';
  std::size_t i = 0;
  while (i < s.size()) {
    // A run of characters that need no escaping goes out in one append.
    std::size_t run = i;
    while (run < s.size()) {
      const unsigned char r = static_cast<unsigned char>(s[run]);
      if (r < 0x20 || r >= 0x80 || r == '"' || r == '\\') break;
      ++run;
    }
    if (run > i) {
      out.append(s.data() + i, run - i);
      i = run;
      if (i == s.size()) break;
    }
    const unsigned char c = static_cast<unsigned char>(s[i]);
    if (c >= 0x80) {
      std::size_t n = utf8_sequence_length(s.substr(i));
      if (n == 0) {
        out += "\xef\xbf\xbd";  // U+FFFD for a byte that starts no valid sequence
        ++i;
      } else {
        out.append(s.data() + i, n);
        i += n;
      }
      continue;
    }
    ++i;
    switch (c) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\r':
        out += "\\r";
        break;
      case '\t':
        out += "\\t";
        break;
      default:
        if (c < 0x20) {
          char buf[8];
          std::snprintf(buf, sizeof buf, "\\u%04x", c);
          out += buf;
        } else {
          out += static_cast<char>(c);
        }
    }
  }
  out += '"';
}

bool iequals(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    char x = a[i], y = b[i];
    if (x >= 'A' && x <= 'Z') x = static_cast<char>(x - 'A' + 'a');
    if (y >= 'A' && y <= 'Z') y = static_cast<char>(y - 'A' + 'a');
    if (x != y) return false;
  }
  return true;
}

std::vector<std::string> split_list(std::string_view text, char sep) {
  std::vector<std::string> out;
  std::size_t at = 0;
  while (at <= text.size()) {
    const std::size_t end = std::min(text.find(sep, at), text.size());
    std::string_view item = text.substr(at, end - at);
    const auto b = item.find_first_not_of(" \t\r\n");
    if (b != std::string_view::npos) {
      const auto e = item.find_last_not_of(" \t\r\n");
      out.emplace_back(item.substr(b, e - b + 1));
    }
    at = end + 1;
  }
  return out;
}

}  // namespace ostrel::text
