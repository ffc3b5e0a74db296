#pragma once

#include <cstdint>
#include <string>

#include "identity/source_code.h"

// The process-wide table of identity domains and their subdomains.
// Thread-safe: every operation holds the registry mutex for its whole run
// (seeding the domain table on first use included).
namespace ostrel::identity_registry {

struct SubdomainResult {
  bool ok = false;
  std::string error;
};

enum class IdentityStatus { ok = 0, warning = 1, error = 2 };

struct IdentityResult {
  IdentityStatus status = IdentityStatus::ok;
  std::string message;
  std::uint8_t domain = 0;
  std::uint8_t subdomain = 0;
  // Lines for the caller's log: what was registered, what was auto-allocated.
  std::string info_line;
  std::string warn_line;
};

// The `source_code` block of a module's manifest.
struct SourceCodeDecl {
  std::string module;  // the module's name
  std::string domain;
  std::string subdomain_name;
  std::string subdomain;  // a byte value as text, or empty
};

SubdomainResult register_subdomain(std::uint8_t domain, std::uint8_t sub, const std::string& name);

// "<domain>/<sub name>", "<domain>/0x%02x" or "0x%02x%02x" depending on what is known.
std::string path_name(std::uint8_t domain, std::uint8_t sub);
inline std::string path_name(identity::SourceCode code) {
  return path_name(code.domain, code.subdomain);
}

// Domain byte for a domain name; false when the name is not in the table.
bool domain_byte(const std::string& name, std::uint8_t& out);

// Binds the `source_code` block of a manifest to a registered identity.
IdentityResult register_source_code(const SourceCodeDecl& decl);

}  // namespace ostrel::identity_registry
