#include "base/text.h"

#include <bit>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>

namespace ostrel::text {

namespace {

// 10^k for k in [-50, 60], each literal rounded by the compiler.
constexpr int kPowMin = -50;
constexpr double kPow10[] = {
    1e-50, 1e-49, 1e-48, 1e-47, 1e-46, 1e-45, 1e-44, 1e-43, 1e-42, 1e-41, 1e-40, 1e-39, 1e-38,
    1e-37, 1e-36, 1e-35, 1e-34, 1e-33, 1e-32, 1e-31, 1e-30, 1e-29, 1e-28, 1e-27, 1e-26, 1e-25,
    1e-24, 1e-23, 1e-22, 1e-21, 1e-20, 1e-19, 1e-18, 1e-17, 1e-16, 1e-15, 1e-14, 1e-13, 1e-12,
    1e-11, 1e-10, 1e-9,  1e-8,  1e-7,  1e-6,  1e-5,  1e-4,  1e-3,  1e-2,  1e-1,  1e0,   1e1,
    1e2,   1e3,   1e4,   1e5,   1e6,   1e7,   1e8,   1e9,   1e10,  1e11,  1e12,  1e13,  1e14,
    1e15,  1e16,  1e17,  1e18,  1e19,  1e20,  1e21,  1e22,  1e23,  1e24,  1e25,  1e26,  1e27,
    1e28,  1e29,  1e30,  1e31,  1e32,  1e33,  1e34,  1e35,  1e36,  1e37,  1e38,  1e39,  1e40,
    1e41,  1e42,  1e43,  1e44,  1e45,  1e46,  1e47,  1e48,  1e49,  1e50,  1e51,  1e52,  1e53,
    1e54,  1e55,  1e56,  1e57,  1e58,  1e59,  1e60};
double pow10(int k) { return kPow10[k - kPowMin]; }

}  // namespace

char* write_float(char* at, float v) {
  std::uint32_t bits;
  std::memcpy(&bits, &v, sizeof bits);
  const int biased = static_cast<int>((bits >> 23) & 0xff);
  char* p = at;
  if (biased == 0xff || (bits & 0x7fffffff) == 0) {  // NaN, infinity, zero
    *p++ = '0';
    return p;
  }
  *p = '-';
  p += bits >> 31;
  const double a = std::fabs(static_cast<double>(v));
  // The decimal exponent e10 with 10^e10 <= a < 10^(e10+1). For normal
  // numbers floor(e2 · log10 2) (78913 / 2^18 is just below log10 2) is it to
  // within one; subnormals take the slow road.
  int e10;
  if (biased != 0) {
    e10 = ((biased - 127) * 78913) >> 18;
    e10 += a >= pow10(e10 + 1) ? 1 : 0;
  } else {
    e10 = static_cast<int>(std::floor(std::log10(a)));
    if (a >= pow10(e10 + 1)) ++e10;
    if (a < pow10(e10)) --e10;
  }
  // Nine significant digits. The product is exact to a few units of the
  // double's last place, far below the float's half spacing, so the digits
  // round-trip.
  auto digits = static_cast<std::uint32_t>(a * pow10(8 - e10) + 0.5);
  if (digits >= 1000000000) {
    ++e10;
    digits = static_cast<std::uint32_t>(a * pow10(8 - e10) + 0.5);
  }
  // The nine digits: the leading one, then the other eight as one 64-bit
  // word holding a digit per byte (split into halves of four digits, each
  // into pairs, each pair into digits, all lanes at once, with multiplies
  // that equal the divisions for these ranges). The most significant digit
  // lands in the lowest byte, so the word is stored as it is; trailing zero
  // digits are the zero bytes at its top.
  static_assert(std::endian::native == std::endian::little);
  const std::uint32_t first = digits / 100000000;
  const std::uint32_t rest = digits - first * 100000000;
  std::uint64_t w = (rest / 10000) | (std::uint64_t{rest % 10000} << 32);
  std::uint64_t q = ((w * 10486) >> 20) & 0x0000007F0000007FULL;  // / 100 per lane
  w = q | ((w - q * 100) << 16);
  q = ((w * 103) >> 10) & 0x000F000F000F000FULL;  // / 10 per lane
  w = q | ((w - q * 10) << 8);
  const int used = 9 - (w == 0 ? 8 : std::countl_zero(w) / 8);
  w += 0x3030303030303030ULL;
  auto put_digits = [first, w](char* to) {
    to[0] = static_cast<char>('0' + first);
    std::memcpy(to + 1, &w, 8);
  };
  if (e10 < 0 && e10 >= -5) {  // 0.000ddd
    std::memcpy(p, "0.000000", 8);
    p += 1 - e10;
    put_digits(p);
    return p + used;
  }
  if (e10 >= 0 && e10 < 9) {  // ddd.ddd, or ddd000 when the digits run out
    const int whole = e10 + 1;
    put_digits(p);
    if (used <= whole) return p + whole;  // the zeros are digits already
    for (int i = 9; i > whole; --i) p[i] = p[i - 1];
    p[whole] = '.';
    return p + used + 1;
  }
  // d.ddde±x
  put_digits(p + 1);
  p[0] = p[1];
  p[1] = '.';
  p += used > 1 ? used + 1 : 1;
  *p++ = 'e';
  return std::to_chars(p, p + 4, e10).ptr;  // "-45" at most
}

void append_floats(std::string& out, const float* values, std::size_t n) {
  if (n == 0) return;
  const std::size_t start = out.size();
  out.resize(start + n * (kFloatChars + 1));
  char* const begin = out.data() + start;
  char* p = begin;
  for (std::size_t i = 0; i < n; ++i) {
    p = write_float(p, values[i]);
    *p++ = ',';
  }
  out.resize(start + static_cast<std::size_t>(p - begin) - 1);
}

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
    const std::size_t run = plain_json_run(s, i);
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

void append_json_string_map(std::string& out, const std::map<std::string, std::string>& pairs) {
  out += '{';
  bool first = true;
  for (const auto& [k, v] : pairs) {
    if (!first) out += ',';
    first = false;
    append_json_string(out, k);
    out += ':';
    append_json_string(out, v);
  }
  out += '}';
}

bool json_compact(std::string_view text) {
  bool in_string = false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (in_string) {
      if (c == '\\') {
        ++i;
      } else if (c == '"') {
        in_string = false;
      }
    } else if (c == '"') {
      in_string = true;
    } else if (c == ' ' || c == '\n' || c == '\r' || c == '\t') {
      return false;
    }
  }
  return true;
}

}  // namespace ostrel::text
