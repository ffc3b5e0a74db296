#include "identity/identity_registry.h"

#include <gtest/gtest.h>

namespace ostrel::identity_registry {
namespace {

SourceCodeDecl manifest(const std::string& name, const std::string& domain, const std::string& sub,
                        const std::string& sub_name) {
  return {name, domain, sub_name, sub};
}

TEST(IdentityRegistry, SubdomainRules) {
  EXPECT_TRUE(register_subdomain(4, 2, "data").ok);
  EXPECT_TRUE(register_subdomain(4, 2, "data").ok);  // idempotent
  auto other = register_subdomain(4, 2, "other");
  EXPECT_FALSE(other.ok);
  EXPECT_EQ(other.error, "subdomain already registered with a different name: data");
  EXPECT_EQ(register_subdomain(4, 3, "data").error,
            "name already registered in this domain for a different subdomain");
  EXPECT_EQ(register_subdomain(4, 0, "z").error,
            "subdomain must be in [0x01, 0xFE] (0x00 and 0xFF reserved)");
  EXPECT_FALSE(register_subdomain(4, 255, "z").ok);
  EXPECT_EQ(register_subdomain(15, 1, "z").error,
            "unknown domain byte (must be one of the canonical 32)");
  EXPECT_FALSE(register_subdomain(56, 1, "z").ok);
  for (const std::string& bad :
       std::vector<std::string>{"Upper", "1lead", "", std::string(65, 'a')}) {
    EXPECT_FALSE(register_subdomain(4, 9, bad).ok) << bad;
  }
  EXPECT_TRUE(register_subdomain(4, 9, "a-b_c9").ok);
  EXPECT_TRUE(register_subdomain(4, 10, std::string(64, 'a')).ok);

  EXPECT_TRUE(register_subdomain(14, 6, "security").ok);
  EXPECT_EQ(path_name(14, 6), "kernel/security");
  EXPECT_EQ(path_name(14, 0x99), "kernel/0x99");
  EXPECT_EQ(path_name(15, 1), "0x0f01");
}

TEST(IdentityRegistry, SourceCodeBindingAndAutoAllocation) {
  auto no_domain = register_source_code(manifest("m", "", "", ""));
  EXPECT_EQ(no_domain.status, IdentityStatus::warning);
  EXPECT_EQ(no_domain.message, "module 'm' did not declare source_code.domain");

  auto unknown = register_source_code(manifest("m", "nowhere", "1", ""));
  EXPECT_EQ(unknown.status, IdentityStatus::error);
  EXPECT_EQ(unknown.message, "unknown domain 'nowhere' (not in canonical 32)");

  auto pinned = register_source_code(manifest("alpha", "lab", "0x11", ""));
  EXPECT_EQ(pinned.status, IdentityStatus::ok);
  EXPECT_EQ(pinned.domain, 0x25);
  EXPECT_EQ(pinned.subdomain, 0x11);
  EXPECT_EQ(path_name(0x25, 0x11), "lab/alpha");

  auto clash = register_source_code(manifest("beta", "lab", "17", "alpha2"));
  EXPECT_EQ(clash.status, IdentityStatus::error);
  EXPECT_EQ(clash.message,
            "subdomain registration failed: subdomain already registered with a different name: "
            "alpha");

  auto neither = register_source_code(manifest("n", "lab", "", ""));
  EXPECT_EQ(neither.status, IdentityStatus::warning);

  // Auto-allocation from the extension range skips bytes pinned earlier.
  ASSERT_TRUE(register_subdomain(0x20, 0x80, "pinned").ok);
  auto first = register_source_code(manifest("e1", "infrastructure", "", "e1"));
  EXPECT_EQ(first.status, IdentityStatus::warning);
  EXPECT_EQ(first.message, "auto-allocated extension-range byte (prefer pinning in manifest)");
  EXPECT_EQ(first.subdomain, 0x81);
  EXPECT_EQ(register_source_code(manifest("e2", "infrastructure", "", "e2")).subdomain, 0x82);
  // The same name again fails, even from the same module.
  EXPECT_EQ(register_source_code(manifest("e1", "infrastructure", "", "e1")).status,
            IdentityStatus::error);

  // 96 bytes in the extension range; an empty domain runs out after them.
  for (int i = 0; i < 96; ++i) {
    auto r = register_source_code(manifest("x", "mining", "", "x" + std::to_string(i)));
    ASSERT_EQ(r.status, IdentityStatus::warning) << i;
    EXPECT_EQ(r.subdomain, i < 64 ? 0x80 + i : 0xC0 + (i - 64));
  }
  auto exhausted = register_source_code(manifest("x", "mining", "", "x96"));
  EXPECT_EQ(exhausted.status, IdentityStatus::error);
  EXPECT_EQ(exhausted.message,
            "auto-allocation failed in extension range (exhausted or name taken)");
}

}  // namespace
}  // namespace ostrel::identity_registry
