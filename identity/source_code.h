#pragma once

#include <cstdint>
#include <string>

namespace ostrel::identity {

// The two-byte identity of a module, a kernel component or an external caller:
// a domain byte and a subdomain byte registered in the identity registry.
// Shown as one number (domain * 256 + subdomain) wherever it is printed.
struct SourceCode {
  std::uint8_t domain = 0;
  std::uint8_t subdomain = 0;

  constexpr SourceCode() = default;
  constexpr SourceCode(std::uint8_t d, std::uint8_t s) : domain(d), subdomain(s) {}

  constexpr std::uint16_t value() const {
    return static_cast<std::uint16_t>((domain << 8) | subdomain);
  }
  static constexpr SourceCode from_value(std::uint16_t v) {
    return SourceCode(static_cast<std::uint8_t>(v >> 8), static_cast<std::uint8_t>(v & 0xff));
  }

  // "0x%02x%02x", e.g. "0x0e06".
  std::string hex() const;

  friend constexpr bool operator==(SourceCode a, SourceCode b) { return a.value() == b.value(); }
};

// The kernel's own identity ("kernel/core").
inline constexpr SourceCode kKernelSource{0x0e, 0x01};

}  // namespace ostrel::identity
