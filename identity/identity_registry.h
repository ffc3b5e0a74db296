#pragma once

#include <cstdint>
#include <string>

#include "identity/source_code.h"

namespace ostrel::kernel {
struct ModuleDefinition;
class Logger;
}  // namespace ostrel::kernel

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
IdentityResult register_source_code(const kernel::ModuleDefinition& def, kernel::Logger& logger);

}  // namespace ostrel::identity_registry
