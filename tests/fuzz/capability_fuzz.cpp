// Credentials a client presents: capability tokens (as sent, and valid
// tokens of this issuer with bytes changed, so the signature and claim
// checks behind the decoding are reached) and the source header.
#include "identity/capability_issuer.h"
#include "identity/source_header.h"
#include "tests/fuzz/fuzz_support.h"

namespace {

using ostrel::identity::CapabilityIssuer;

struct Issuer {
  CapabilityIssuer issuer;
  std::string node_token, tenant_token;
  Issuer() {
    std::string error;
    if (!issuer.open(ostrel::fuzz::scratch() / "state", error)) std::abort();
    if (!issuer.add_tenant_key("acme", error)) std::abort();
    node_token = issuer.issue({0xfe, 0x01}, {"data.read", "audit.*"}, "", 3600);
    tenant_token = issuer.issue({0xfe, 0x01}, {"data.write:acme"}, "acme", 3600);
    if (node_token.empty() || tenant_token.empty()) std::abort();
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static Issuer is;
  if (size == 0) return 0;
  const std::string rest(ostrel::fuzz::as_text(data + 1, size - 1));
  std::string token;
  switch (data[0] % 4) {
    case 0:
      token = rest;
      break;
    case 1:
    case 2: {
      // A valid token with the input written over it from an offset.
      token = data[0] % 4 == 1 ? is.node_token : is.tenant_token;
      if (!rest.empty()) {
        const std::size_t at = static_cast<unsigned char>(rest[0]) % token.size();
        token.replace(at, std::min(rest.size() - 1, token.size() - at), rest.substr(1));
      }
      break;
    }
    default: {
      const auto parsed = ostrel::source_header::parse(rest);
      (void)parsed;
      return 0;
    }
  }
  ostrel::identity::CapabilityToken out;
  std::string error;
  if (is.issuer.verify(token, out, error)) {
    CapabilityIssuer::has_scope(out, "data.read");
    CapabilityIssuer::has_scope(out, "audit.read:acme");
  }
  return 0;
}
