#include "identity/source_header.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <nlohmann/json.hpp>

#include "tests/support/test_support.h"

namespace ostrel::source_header {
namespace {

using Json = nlohmann::json;

TEST(SourceHeader, ParsesLenientlyAndStrictly) {
  ParsedSource p = parse(" ;; eis = abc ;node=n1;;bogus=x;module=");
  EXPECT_TRUE(p.ok);
  EXPECT_EQ(p.eis, "abc");
  EXPECT_EQ(p.node, "n1");
  EXPECT_EQ(p.module, "");
  EXPECT_FALSE(parse("novalue;=empty").ok);
  EXPECT_FALSE(parse("").ok);
  EXPECT_FALSE(parse(" ; ;").ok);
  ParsedSource dup = parse("tenant=a;tenant=b;domain=data");
  EXPECT_EQ(dup.tenant, "b");
  EXPECT_EQ(dup.domain, "data");
  EXPECT_EQ(parse("EIS=x").eis, "");  // keys are case-sensitive
  EXPECT_TRUE(parse("EIS=x").ok);
}

TEST(SourceHeader, EisIdPersistsAndHeadersCarryIt) {
  testing::TempDir dir;
  ::setenv("OSTREL_CONFIG_DIR", dir.path().c_str(), 1);
  ::setenv("OSTREL_NODE_ID", "gpu-7", 1);
  std::string id = current_eis_id();
  EXPECT_EQ(id.size(), 32u);
  EXPECT_EQ(testing::read_file(dir / "eis_id"), id);
  EXPECT_EQ(current_eis_id(), id);
  EXPECT_EQ(current_node_id(), "gpu-7");
  EXPECT_EQ(make_header("", "", ""), "eis=" + id + ";node=gpu-7");
  EXPECT_EQ(make_header("data", "acme", "data"),
            "eis=" + id + ";node=gpu-7;module=data;domain=data;tenant=acme");
  ParsedSource back = parse(make_header("data", "acme", "data"));
  EXPECT_EQ(back.eis, id);
  EXPECT_EQ(back.tenant, "acme");
}

TEST(SourceHeader, AdmissionVerdicts) {
  testing::TempDir dir;
  testing::write_file(dir / "eis_policy.json",
                      R"({"mode":"advisory","allowed_domains":["data"],"deny_unknown_eis":true})");
  ::setenv("OSTREL_CONFIG_DIR", dir.path().c_str(), 1);
  Policy loaded = current_policy();
  EXPECT_EQ(loaded.mode, PolicyMode::advisory);
  EXPECT_EQ(loaded.allowed_domains, std::set<std::string>{"data"});
  EXPECT_TRUE(loaded.deny_unknown_eis);
  EXPECT_EQ(Policy::fromJson(loaded.toJson()).toJson(), loaded.toJson());

  // Loopback skips the policy, even for a malformed header.
  auto d = admit("127.0.0.1", "junk");
  EXPECT_EQ(d.action, "loopback");
  EXPECT_EQ(d.status, 0);
  EXPECT_TRUE(admit("::1", "eis=abc").eis_known);

  // Advisory: denials are named but let through; a bad shape is always refused.
  d = admit("10.0.0.5", "node=n1;domain=data");
  EXPECT_EQ(d.action, "denied_unknown");
  EXPECT_EQ(d.status, 0);
  d = admit("10.0.0.5", "garbage");
  EXPECT_EQ(d.action, "denied_shape");
  EXPECT_EQ(d.status, 400);
  EXPECT_EQ(d.body, "{\"error\":\"invalid_eis_source_header\"}");
  EXPECT_EQ(admit("10.0.0.5", "").action, "allowed");

  Policy strict;
  strict.mode = PolicyMode::enforce;
  strict.allowed_eis_ids = {"e1"};
  strict.allowed_domains = {"data"};
  strict.allowed_modules = {"data"};
  strict.deny_unknown_eis = true;
  set_policy(strict);
  auto expect = [](const std::string& header, const char* action, int status, const char* body) {
    auto v = admit("192.0.2.1", header);
    EXPECT_EQ(v.action, action) << header;
    EXPECT_EQ(v.status, status) << header;
    if (body) {
      EXPECT_EQ(v.body, body) << header;
    }
  };
  expect("", "denied_unknown", 403, "{\"error\":\"eis_id_required\"}");
  expect("node=n", "denied_unknown", 403, "{\"error\":\"eis_id_required\"}");
  expect("eis=e2", "denied_eis_id", 403, "{\"error\":\"eis_id_not_allowed\"}");
  expect("eis=e1;domain=iot", "denied_domain", 403, "{\"error\":\"domain_not_allowed\"}");
  expect("eis=e1;domain=data;module=agent", "denied_module", 403,
         "{\"error\":\"module_not_allowed\"}");
  expect("eis=e1;domain=data;module=data", "allowed", 0, nullptr);
  expect("eis=e1", "allowed", 0, nullptr);  // absent fields are not checked
}

}  // namespace
}  // namespace ostrel::source_header
