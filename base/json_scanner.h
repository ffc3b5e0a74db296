#pragma once

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>

#include "base/text.h"

namespace ostrel::base {

// The deepest nesting skip_value() passes over.
inline constexpr int kJsonScanMaxDepth = 64;

// The members of interest of one object, each allowed once: a repeat is
// refused (the JSON parser keeps the last one; the scanner does not follow).
class OnceEach {
 public:
  bool first(unsigned bit) {
    const bool fresh = !(seen_ & bit);
    seen_ |= bit;
    return fresh;
  }

 private:
  unsigned seen_ = 0;
};

// A strict JSON reader over a text that refuses what it does not handle
// (plain_string() anything beyond plain ASCII, string() invalid UTF-8 and
// lone surrogates): refusal sends the caller to the full JSON parser, so this
// reader never has to agree with it on the hard cases.
// The fast paths that read common texts without building a JSON tree are
// made of it.
class JsonScanner {
 public:
  explicit JsonScanner(std::string_view text) : t_(text) {}

  char peek() {
    skip_space();
    return p_ < t_.size() ? t_[p_] : '\0';
  }
  bool eat(char c) {
    if (peek() != c) return false;
    ++p_;
    return true;
  }
  bool at_end() {
    skip_space();
    return p_ == t_.size();
  }

  // A string of printable ASCII with no escapes.
  bool plain_string(std::string_view& out) {
    if (!eat('"')) return false;
    const std::size_t start = p_;
    for (; p_ < t_.size(); ++p_) {
      const unsigned char c = static_cast<unsigned char>(t_[p_]);
      if (c == '"') {
        out = t_.substr(start, p_ - start);
        ++p_;
        return true;
      }
      if (c == '\\' || c < 0x20 || c >= 0x7f) return false;
    }
    return false;
  }

  bool null() { return literal("null"); }

  bool boolean(std::optional<bool>& out) {
    if (literal("true")) {
      out = true;
    } else if (literal("false")) {
      out = false;
    } else {
      return false;
    }
    return true;
  }

  // A JSON number, as its text.
  bool number_text(std::string_view& out) {
    const std::size_t start = (skip_space(), p_);
    if (!number()) return false;
    out = t_.substr(start, p_ - start);
    return true;
  }

  // A JSON integer that fits in 64 bits (no fraction, no exponent).
  bool integer(std::optional<std::int64_t>& out) {
    std::string_view text;
    if (!number_text(text)) return false;
    if (text.find_first_of(".eE") != std::string_view::npos) return false;
    std::int64_t v = 0;
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), v);
    if (ec != std::errc() || end != text.data() + text.size()) return false;
    out = v;
    return true;
  }

  // An object whose keys are plain strings: `member(key)` is called with the
  // scanner at each value, which it must read or skip; false stops.
  template <class Member>
  bool object(Member&& member) {
    if (!eat('{')) return false;
    if (eat('}')) return true;
    do {
      std::string_view key;
      if (!plain_string(key) || !eat(':') || !member(key)) return false;
    } while (eat(','));
    return eat('}');
  }

  // An array: `element()` is called at each element, which it must read.
  template <class Element>
  bool array(Element&& element) {
    if (!eat('[')) return false;
    if (eat(']')) return true;
    do {
      if (!element()) return false;
    } while (eat(','));
    return eat(']');
  }

  // Any JSON string, decoded (escapes, \u sequences and surrogate pairs);
  // false for bytes that are not valid UTF-8 and for lone surrogates, which
  // the JSON parser then judges.
  bool string(std::string& out) {
    if (!eat('"')) return false;
    out.clear();
    // A long string is decoded into room made once (its text bounds it):
    // growing by doubling would hold up to three times its size.
    if (t_.size() - p_ > 4096) out.reserve(string_end_() - p_);
    for (;;) {
      const std::size_t run = text::plain_json_run(t_, p_);
      out.append(t_.data() + p_, run - p_);
      p_ = run;
      if (p_ >= t_.size()) return false;
      const unsigned char c = static_cast<unsigned char>(t_[p_]);
      if (c == '"') {
        ++p_;
        return true;
      }
      if (c < 0x20) return false;
      if (c >= 0x80) {
        const std::size_t n = text::utf8_sequence_length(t_.substr(p_));
        if (n == 0) return false;
        out.append(t_.data() + p_, n);
        p_ += n;
        continue;
      }
      // An escape.
      if (++p_ >= t_.size()) return false;
      const char e = t_[p_++];
      switch (e) {
        case '"':
          out += '"';
          break;
        case '\\':
          out += '\\';
          break;
        case '/':
          out += '/';
          break;
        case 'b':
          out += '\b';
          break;
        case 'f':
          out += '\f';
          break;
        case 'n':
          out += '\n';
          break;
        case 'r':
          out += '\r';
          break;
        case 't':
          out += '\t';
          break;
        case 'u': {
          std::uint32_t cp = 0;
          if (!hex4_(cp)) return false;
          if (cp >= 0xD800 && cp <= 0xDBFF) {
            std::uint32_t low = 0;
            if (p_ + 1 >= t_.size() || t_[p_] != '\\' || t_[p_ + 1] != 'u') return false;
            p_ += 2;
            if (!hex4_(low) || low < 0xDC00 || low > 0xDFFF) return false;
            cp = 0x10000 + ((cp - 0xD800) << 10) + (low - 0xDC00);
          } else if (cp >= 0xDC00 && cp <= 0xDFFF) {
            return false;
          }
          append_utf8_(out, cp);
          break;
        }
        default:
          return false;
      }
    }
  }

  // The text of the next value, checked (for handing a part on to the JSON
  // parser).
  bool raw_value(std::string_view& out) {
    skip_space();
    const std::size_t start = p_;
    if (!skip_value(0)) return false;
    out = t_.substr(start, p_ - start);
    return true;
  }

  // Any JSON value, checked and passed over.
  bool skip_value(int depth) {
    if (depth > kJsonScanMaxDepth) return false;
    switch (peek()) {
      case '"':
        return skip_string();
      case '{':
        ++p_;
        if (eat('}')) return true;
        do {
          if (!skip_string() || !eat(':') || !skip_value(depth + 1)) return false;
        } while (eat(','));
        return eat('}');
      case '[':
        ++p_;
        if (eat(']')) return true;
        do {
          if (!skip_value(depth + 1)) return false;
        } while (eat(','));
        return eat(']');
      case 't':
        return literal("true");
      case 'f':
        return literal("false");
      case 'n':
        return literal("null");
      default:
        return number();
    }
  }

 private:
  // Where the string starting at p_ (after its opening quote) ends: its
  // closing quote, or the end of the text.
  std::size_t string_end_() const {
    std::size_t at = p_;
    for (;;) {
      const std::size_t q = t_.find('"', at);
      if (q == std::string_view::npos) return t_.size();
      std::size_t slashes = 0;
      while (q > p_ + slashes && t_[q - 1 - slashes] == '\\') ++slashes;
      if (slashes % 2 == 0) return q;
      at = q + 1;
    }
  }
  void skip_space() {
    while (p_ < t_.size() &&
           (t_[p_] == ' ' || t_[p_] == '\t' || t_[p_] == '\n' || t_[p_] == '\r')) {
      ++p_;
    }
  }
  bool literal(std::string_view word) {
    skip_space();
    if (t_.substr(p_, word.size()) != word) return false;
    p_ += word.size();
    return true;
  }
  bool digits() {
    const std::size_t start = p_;
    while (p_ < t_.size() && t_[p_] >= '0' && t_[p_] <= '9') ++p_;
    return p_ > start;
  }
  // -?(0|[1-9][0-9]*)(\.[0-9]+)?([eE][+-]?[0-9]+)? whose value is finite as a
  // double: the JSON library refuses 1e400 and so does the scanner.
  bool number() {
    skip_space();
    const std::size_t start = p_;
    if (!number_shape()) return false;
    // Only a number with over 300 digits before the point, or a large positive
    // exponent, can overflow: the common ones are not converted here.
    const std::string_view text = t_.substr(start, p_ - start);
    const std::size_t e = text.find_first_of("eE");
    const std::size_t whole = text.substr(0, std::min(text.find('.'), e)).size();
    const bool big_exponent =
        e != std::string_view::npos && text[e + 1] != '-' && (text.size() - e >= 3 || whole > 200);
    if (whole > 300 || big_exponent) {
      const std::string copy(text);
      if (std::isinf(std::strtod(copy.c_str(), nullptr))) return false;
    }
    return true;
  }
  bool number_shape() {
    if (p_ < t_.size() && t_[p_] == '-') ++p_;
    if (p_ < t_.size() && t_[p_] == '0') {
      ++p_;
    } else if (!digits()) {
      return false;
    }
    if (p_ < t_.size() && t_[p_] == '.') {
      ++p_;
      if (!digits()) return false;
    }
    if (p_ < t_.size() && (t_[p_] == 'e' || t_[p_] == 'E')) {
      ++p_;
      if (p_ < t_.size() && (t_[p_] == '+' || t_[p_] == '-')) ++p_;
      if (!digits()) return false;
    }
    return true;
  }
  // A string in ASCII, escapes checked but not decoded.
  bool skip_string() {
    if (!eat('"')) return false;
    for (; p_ < t_.size(); ++p_) {
      const unsigned char c = static_cast<unsigned char>(t_[p_]);
      if (c == '"') {
        ++p_;
        return true;
      }
      if (c < 0x20 || c >= 0x7f) return false;
      if (c != '\\') continue;
      if (++p_ >= t_.size()) return false;
      const char e = t_[p_];
      if (e == 'u') {
        // Surrogates come in pairs, as the JSON parser wants them.
        ++p_;
        std::uint32_t cp = 0;
        if (!hex4_(cp) || (cp >= 0xDC00 && cp <= 0xDFFF)) return false;
        if (cp >= 0xD800 && cp <= 0xDBFF) {
          std::uint32_t low = 0;
          if (p_ + 1 >= t_.size() || t_[p_] != '\\' || t_[p_ + 1] != 'u') return false;
          p_ += 2;
          if (!hex4_(low) || low < 0xDC00 || low > 0xDFFF) return false;
        }
        --p_;  // the loop steps past the last digit
      } else if (std::string_view("\"\\/bfnrt").find(e) == std::string_view::npos) {
        return false;
      }
    }
    return false;
  }

  bool hex4_(std::uint32_t& out) {
    if (p_ + 4 > t_.size()) return false;
    out = 0;
    for (int i = 0; i < 4; ++i) {
      const char c = t_[p_++];
      out <<= 4;
      if (c >= '0' && c <= '9') {
        out |= static_cast<std::uint32_t>(c - '0');
      } else if (c >= 'a' && c <= 'f') {
        out |= static_cast<std::uint32_t>(c - 'a' + 10);
      } else if (c >= 'A' && c <= 'F') {
        out |= static_cast<std::uint32_t>(c - 'A' + 10);
      } else {
        return false;
      }
    }
    return true;
  }
  static void append_utf8_(std::string& out, std::uint32_t cp) {
    if (cp < 0x80) {
      out += static_cast<char>(cp);
    } else if (cp < 0x800) {
      out += static_cast<char>(0xC0 | (cp >> 6));
      out += static_cast<char>(0x80 | (cp & 0x3F));
    } else if (cp < 0x10000) {
      out += static_cast<char>(0xE0 | (cp >> 12));
      out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (cp & 0x3F));
    } else {
      out += static_cast<char>(0xF0 | (cp >> 18));
      out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
      out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (cp & 0x3F));
    }
  }

  std::string_view t_;
  std::size_t p_ = 0;
};

}  // namespace ostrel::base
