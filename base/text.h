#pragma once

#ifdef __SSE2__
#include <emmintrin.h>
#endif

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <map>
#include <string>
#include <string_view>
#include <vector>

// Small text helpers for code that writes JSON or headers without pulling in
// the JSON library (the gateway's hot path, the log sinks).
namespace ostrel::text {

// Appends `s` as a JSON string literal (quotes included); control characters
// become \u00XX escapes and bytes that are not valid UTF-8 become U+FFFD, so
// the result is always valid JSON.
void append_json_string(std::string& out, std::string_view s);

// Appends {"key":"value",…} for string pairs in the map's order.
void append_json_string_map(std::string& out, const std::map<std::string, std::string>& pairs);

// True when a JSON text has no whitespace outside its strings (the form the
// node writes, so a signed or chained body reads back byte for byte).
bool json_compact(std::string_view text);

inline std::string json_quote(std::string_view s) {
  std::string out;
  out.reserve(s.size() + 2);
  append_json_string(out, s);
  return out;
}

// Writes `v` at `at` as a JSON number with at most 9 significant digits and
// returns the end; at most kFloatChars bytes. The text always reads back
// (through strtof, or strtod and a cast) as the same float; trailing zeros are
// dropped, magnitudes below 10^-5 or from 10^9 up use an exponent, and NaN or
// infinity (which JSON cannot hold) become 0. Two to three times faster than the
// shortest round-trip form of std::to_chars, and at most a digit longer.
constexpr std::size_t kFloatChars = 16;
char* write_float(char* at, float v);

inline void append_float(std::string& out, float v) {
  char buf[kFloatChars];
  out.append(buf, write_float(buf, v));
}

// Appends `n` values as JSON numbers separated by commas ("1,0.5,-2e-7").
void append_floats(std::string& out, const float* values, std::size_t n);

// The end of the run of bytes of `s` from `from` that a JSON string holds as
// they are (no control character, '"', '\\' or byte from 0x80, which needs a
// UTF-8 check): s.size() when the run reaches the end. Sixteen bytes are
// tested at a time with SSE2 (as signed bytes, "below 0x20" also catches
// every byte from 0x80), then eight at a time with the usual "some byte is
// below n" word tricks, which are exact as a whole since a byte with its
// high bit set ends the run anyway.
inline std::size_t plain_json_run(std::string_view s, std::size_t from) {
  std::size_t i = from;
#ifdef __SSE2__
  const __m128i quote = _mm_set1_epi8('"');
  const __m128i backslash = _mm_set1_epi8('\\');
  const __m128i space = _mm_set1_epi8(0x20);
  for (; i + 16 <= s.size(); i += 16) {
    const __m128i x = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s.data() + i));
    const __m128i stop =
        _mm_or_si128(_mm_or_si128(_mm_cmpeq_epi8(x, quote), _mm_cmpeq_epi8(x, backslash)),
                     _mm_cmplt_epi8(x, space));
    if (const int mask = _mm_movemask_epi8(stop); mask != 0) {
      return i + static_cast<std::size_t>(std::countr_zero(static_cast<unsigned>(mask)));
    }
  }
#endif
  constexpr std::uint64_t kOnes = 0x0101010101010101ULL;
  constexpr std::uint64_t kHighs = 0x8080808080808080ULL;
  for (; i + 8 <= s.size(); i += 8) {
    std::uint64_t x;
    std::memcpy(&x, s.data() + i, sizeof x);
    const std::uint64_t quote = x ^ (kOnes * '"');
    const std::uint64_t backslash = x ^ (kOnes * '\\');
    const std::uint64_t hits = ((x - kOnes * 0x20) & ~x) | ((quote - kOnes) & ~quote) |
                               ((backslash - kOnes) & ~backslash) | x;
    if (hits & kHighs) break;
  }
  for (; i < s.size(); ++i) {
    const auto c = static_cast<unsigned char>(s[i]);
    if (c < 0x20 || c >= 0x80 || c == '"' || c == '\\') break;
  }
  return i;
}

// True when `s` is well-formed UTF-8 (no overlong forms, no surrogates, nothing
// above U+10FFFF).
bool valid_utf8(std::string_view s);

// The length of the well-formed UTF-8 sequence at the start of `s`, or 0.
std::size_t utf8_sequence_length(std::string_view s);

// ASCII case-insensitive comparison, for header names.
bool iequals(std::string_view a, std::string_view b);

// The items of a `sep`-separated list, blanks around each trimmed, empty
// items dropped: " a , ,b," → {"a", "b"}.
std::vector<std::string> split_list(std::string_view text, char sep = ',');

// The name of an enumerator from a table of names in the order of its values
// (0, 1, 2, …); `fallback` for a value the table does not reach.
template <typename Enum, std::size_t N>
constexpr const char* enum_name(Enum value, const char* const (&names)[N], const char* fallback) {
  const auto i = static_cast<std::size_t>(value);
  return i < N ? names[i] : fallback;
}

}  // namespace ostrel::text
