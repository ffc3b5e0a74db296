#include "identity/capability_issuer.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <atomic>
#include <fstream>
#include <nlohmann/json.hpp>
#include <thread>

#include "base/encoding.h"
#include "tests/support/test_support.h"

namespace ostrel::identity {
using base::base64url_decode;
using base::base64url_encode;
using base::from_hex;
namespace {

using Json = nlohmann::json;
namespace fs = std::filesystem;

const SourceCode kHolder{0xfe, 0x01};

struct Decoded {
  Json envelope;
  std::string payload_text;
  Json payload;
  std::string signature;
};

Decoded decode(const std::string& token) {
  Decoded d;
  std::string envelope_text;
  EXPECT_TRUE(base64url_decode(token, envelope_text));
  d.envelope = Json::parse(envelope_text);
  EXPECT_TRUE(base64url_decode(d.envelope["p"].get<std::string>(), d.payload_text));
  EXPECT_TRUE(base64url_decode(d.envelope["s"].get<std::string>(), d.signature));
  d.payload = Json::parse(d.payload_text);
  return d;
}

std::string envelope_token(const std::string& payload, const std::string& sig,
                           const std::string& kid) {
  Json env = {{"p", base64url_encode(payload)}, {"s", base64url_encode(sig)}, {"kid", kid}};
  return base64url_encode(env.dump());
}

// Independent Ed25519 verification straight from the raw public key.
bool openssl_verify(const std::string& pub, const std::string& msg, const std::string& sig) {
  EVP_PKEY* key = EVP_PKEY_new_raw_public_key(
      EVP_PKEY_ED25519, nullptr, reinterpret_cast<const unsigned char*>(pub.data()), pub.size());
  EVP_MD_CTX* ctx = EVP_MD_CTX_new();
  bool ok = EVP_DigestVerifyInit(ctx, nullptr, nullptr, nullptr, key) == 1 &&
            EVP_DigestVerify(ctx, reinterpret_cast<const unsigned char*>(sig.data()), sig.size(),
                             reinterpret_cast<const unsigned char*>(msg.data()), msg.size()) == 1;
  EVP_MD_CTX_free(ctx);
  EVP_PKEY_free(key);
  return ok;
}

// Decrypts a tenant's private key from "keys.jsonl" with "master.key", the way
// an operator's recovery tool would: AES-256-GCM, hex nonce, ciphertext + tag.
std::string recover_private_key(const fs::path& dir, const std::string& tenant) {
  std::string master = testing::read_file(dir / "master.key");
  std::string found;
  for (const auto& line : testing::lines_with(testing::read_file(dir / "keys.jsonl"), tenant)) {
    Json r = Json::parse(line);
    if (r["op"] != "add") continue;
    std::string nonce, sealed;
    EXPECT_TRUE(from_hex(r["nonce"].get<std::string>(), nonce));
    EXPECT_TRUE(from_hex(r["ciphertext"].get<std::string>(), sealed));
    EXPECT_EQ(nonce.size(), 12u);
    EXPECT_EQ(sealed.size(), 32u + 16u);
    EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
    std::string plain(32, '\0');
    int len = 0;
    auto* o = reinterpret_cast<unsigned char*>(plain.data());
    std::string tag = sealed.substr(32);
    bool ok = EVP_DecryptInit_ex(ctx, EVP_aes_256_gcm(), nullptr,
                                 reinterpret_cast<const unsigned char*>(master.data()),
                                 reinterpret_cast<const unsigned char*>(nonce.data())) == 1 &&
              EVP_DecryptUpdate(ctx, o, &len, reinterpret_cast<const unsigned char*>(sealed.data()),
                                32) == 1 &&
              EVP_CIPHER_CTX_ctrl(ctx, EVP_CTRL_GCM_SET_TAG, 16, tag.data()) == 1 &&
              EVP_DecryptFinal_ex(ctx, o + len, &len) == 1;
    EVP_CIPHER_CTX_free(ctx);
    EXPECT_TRUE(ok);
    found = plain;
  }
  return found;
}

TEST(CapabilityIssuer, WireFormatIsSignedJsonInBase64url) {
  testing::TempDir dir;
  CapabilityIssuer issuer;
  std::string error;
  ASSERT_TRUE(issuer.open(dir.path(), error)) << error;
  EXPECT_EQ(testing::read_file(dir / "master.key").size(), 32u);

  auto t0 = std::chrono::system_clock::time_point(std::chrono::nanoseconds(1700000000123456789LL));
  issuer.set_clock([&] { return t0; });
  std::string token = issuer.issue(kHolder, {"audit.read", "data.*"}, "", 3600);
  ASSERT_FALSE(token.empty());
  EXPECT_EQ(token.find_first_of("=+/"), std::string::npos);

  Decoded d = decode(token);
  EXPECT_EQ(d.envelope["kid"], "");
  EXPECT_EQ(d.envelope.size(), 3u);
  EXPECT_EQ(d.payload_text,
            "{\"exp\":1700003600,\"h\":65025,\"iat\":1700000000,\"id\":\"17979cfe3d85cd15fe01\","
            "\"s\":[\"audit.read\",\"data.*\"],\"t\":\"\",\"v\":1}");
  EXPECT_EQ(d.signature.size(), 64u);
  std::string pub;
  ASSERT_TRUE(issuer.public_key("", pub));
  EXPECT_EQ(pub.size(), 32u);
  EXPECT_TRUE(openssl_verify(pub, d.payload_text, d.signature));

  CapabilityToken t;
  ASSERT_TRUE(issuer.verify(token, t, error)) << error;
  EXPECT_EQ(t.id, "17979cfe3d85cd15fe01");
  EXPECT_EQ(t.holder, kHolder);
  EXPECT_EQ(t.scopes, (std::vector<std::string>{"audit.read", "data.*"}));
  EXPECT_EQ(t.expires_at_s - t.issued_at_s, 3600);
}

TEST(CapabilityIssuer, RefusesTamperedForgedAndTimedOutTokens) {
  testing::TempDir dir;
  CapabilityIssuer issuer;
  std::string error;
  ASSERT_TRUE(issuer.open(dir.path(), error));
  auto now = std::chrono::system_clock::now();
  issuer.set_clock([&] { return now; });
  std::string token = issuer.issue(kHolder, {"a"}, "", 0);
  CapabilityToken t;
  EXPECT_TRUE(issuer.verify(token, t, error));

  auto expect_error = [&](const std::string& tok, const char* want) {
    CapabilityToken out;
    std::string err;
    EXPECT_FALSE(issuer.verify(tok, out, err));
    EXPECT_EQ(err, want);
  };
  // Lifetime 0: valid in its second, expired one second later.
  now += std::chrono::seconds(1);
  expect_error(token, "expired");
  now -= std::chrono::seconds(5);
  expect_error(token, "not_yet_valid");
  now += std::chrono::seconds(4);

  Decoded d = decode(token);
  std::string payload = d.payload_text;
  payload[payload.find("\"a\"") + 1] = 'b';  // grant another scope
  expect_error(envelope_token(payload, d.signature, ""), "bad_signature");
  expect_error(envelope_token(d.payload_text, d.signature, "t:nobody"), "unknown_key");
  expect_error(envelope_token(d.payload_text, d.signature, "x:y"), "unknown_key");
  expect_error(envelope_token(d.payload_text, d.signature, "t:"), "unknown_key");
  expect_error("not a token at all", "bad_encoding");
  expect_error(base64url_encode("[1,2]"), "bad_encoding");
  expect_error(base64url_encode("{\"p\":\"e30\"}"), "bad_encoding");
  expect_error("", "bad_encoding");

  // A payload of version 2, properly signed with a tenant key recovered from disk.
  ASSERT_TRUE(issuer.add_tenant_key("acme", error)) << error;
  auto key = KeyPair::from_private(recover_private_key(dir.path(), "acme"));
  ASSERT_TRUE(key);
  std::string pub;
  ASSERT_TRUE(issuer.public_key("acme", pub));
  EXPECT_EQ(key->public_key(), pub);
  Json v2 = d.payload;
  v2["v"] = 2;
  expect_error(envelope_token(v2.dump(), key->sign(v2.dump()), "t:acme"), "unknown_version");

  issuer.revoke(t.id);
  expect_error(token, "revoked");
}

TEST(CapabilityIssuer, RestartKeepsTenantKeysAndRevocationsButNotTheNodeKey) {
  testing::TempDir dir;
  std::string error, node_token, acme_token, beta_token, revoked_token;
  {
    CapabilityIssuer issuer;
    ASSERT_TRUE(issuer.open(dir.path(), error));
    ASSERT_TRUE(issuer.add_tenant_key("acme", error));
    ASSERT_TRUE(issuer.add_tenant_key("beta", error));
    node_token = issuer.issue(kHolder, {"x"}, "", 600);
    acme_token = issuer.issue(kHolder, {"x"}, "acme", 600);
    beta_token = issuer.issue(kHolder, {"x"}, "beta", 600);
    revoked_token = issuer.issue(kHolder, {"y"}, "acme", 600);
    EXPECT_EQ(decode(acme_token).envelope["kid"], "t:acme");
    CapabilityToken t;
    ASSERT_TRUE(issuer.verify(revoked_token, t, error));
    issuer.revoke(t.id);
    issuer.revoke(t.id);  // idempotent: one journal line
    EXPECT_TRUE(issuer.drop_tenant_key("beta"));
    EXPECT_FALSE(issuer.verify(beta_token, t, error));
    EXPECT_EQ(error, "unknown_key");
  }
  EXPECT_EQ(testing::lines_with(testing::read_file(dir / "caps.jsonl"), "revoke").size(), 1u);
  // A crash mid-append leaves a torn line; it is skipped and cut off.
  {
    std::ofstream torn(dir / "caps.jsonl", std::ios::app);
    torn << "{\"op\":\"revoke\",\"id\":\"trunc";
    std::ofstream torn_keys(dir / "keys.jsonl", std::ios::app);
    torn_keys << "{\"op\":\"drop\",\"ten";
  }

  CapabilityIssuer restarted;
  ASSERT_TRUE(restarted.open(dir.path(), error));
  EXPECT_EQ(restarted.load_keys(), 3u);  // add, add, drop
  EXPECT_EQ(restarted.load_revocations(), 1u);
  CapabilityToken t;
  EXPECT_FALSE(restarted.verify(node_token, t, error));
  EXPECT_EQ(error, "bad_signature");
  EXPECT_TRUE(restarted.verify(acme_token, t, error)) << error;
  EXPECT_FALSE(restarted.verify(beta_token, t, error));
  EXPECT_EQ(error, "unknown_key");
  EXPECT_FALSE(restarted.verify(revoked_token, t, error));
  EXPECT_EQ(error, "revoked");
  // Ids this node never issued cannot be revoked; tenant-key tokens can be
  // revoked after a restart, and revoking a parent revokes what was
  // attenuated from it, also after the next restart.
  EXPECT_EQ(restarted.revoke("abc"), CapabilityIssuer::RevokeResult::unknown);
  ASSERT_TRUE(restarted.verify(acme_token, t, error));
  std::string child, grandchild;
  CapabilityToken child_t, grandchild_t;
  ASSERT_TRUE(restarted.attenuate(t, {"x"}, 60, child, error, &child_t)) << error;
  ASSERT_TRUE(restarted.attenuate(child_t, {"x"}, 60, grandchild, error, &grandchild_t));
  EXPECT_EQ(restarted.revoke(child_t.id), CapabilityIssuer::RevokeResult::revoked);
  EXPECT_FALSE(restarted.verify(grandchild, t, error));
  EXPECT_EQ(error, "revoked");
  EXPECT_TRUE(restarted.verify(acme_token, t, error));  // the parent still works
  CapabilityIssuer again;
  ASSERT_TRUE(again.open(dir.path(), error));
  again.load_keys();
  // The torn tails are gone, so new records land on lines of their own.
  EXPECT_EQ(again.load_revocations(), 2u);
  EXPECT_TRUE(again.is_revoked(grandchild_t.id));
  EXPECT_FALSE(again.verify(grandchild, t, error));
  EXPECT_TRUE(again.verify(acme_token, t, error));
  EXPECT_EQ(again.revoke(t.id), CapabilityIssuer::RevokeResult::revoked);
  EXPECT_EQ(again.revoke(t.id), CapabilityIssuer::RevokeResult::already_revoked);
  // Compaction keeps what is needed to rebuild exactly this.
  ASSERT_TRUE(again.compact_revocations(error)) << error;
  CapabilityIssuer compacted;
  ASSERT_TRUE(compacted.open(dir.path(), error));
  compacted.load_keys();
  EXPECT_EQ(compacted.load_revocations(), 3u);
  EXPECT_TRUE(compacted.is_revoked(grandchild_t.id));
  EXPECT_EQ(compacted.revoke(grandchild_t.id), CapabilityIssuer::RevokeResult::already_revoked);
}

TEST(CapabilityIssuer, UnusableMasterKeyIsNeverReplaced) {
  testing::TempDir dir;
  testing::write_file(dir / "master.key", "short");
  CapabilityIssuer issuer;
  std::string error;
  EXPECT_FALSE(issuer.open(dir.path(), error));
  EXPECT_NE(error.find("expected 32"), std::string::npos);
  EXPECT_EQ(testing::read_file(dir / "master.key"), "short");
  EXPECT_FALSE(issuer.add_tenant_key("acme", error));
}

TEST(CapabilityIssuer, ScopeMatching) {
  CapabilityToken t;
  t.scopes = {"audit.read", "data"};
  EXPECT_TRUE(CapabilityIssuer::has_scope(t, "audit.read"));
  EXPECT_TRUE(CapabilityIssuer::has_scope(t, "audit.read:tenant-a"));
  EXPECT_FALSE(CapabilityIssuer::has_scope(t, "audit.read:"));
  EXPECT_FALSE(CapabilityIssuer::has_scope(t, "audit.reader"));
  EXPECT_FALSE(CapabilityIssuer::has_scope(t, "audit"));
  EXPECT_FALSE(CapabilityIssuer::has_scope(t, "data.memory"));
  EXPECT_TRUE(CapabilityIssuer::has_scope(t, "data:x"));
}

TEST(CapabilityIssuer, ConcurrentIssueVerifyRevoke) {
  testing::TempDir dir;
  CapabilityIssuer issuer;
  std::string error;
  ASSERT_TRUE(issuer.open(dir.path(), error));
  ASSERT_TRUE(issuer.add_tenant_key("acme", error));
  std::atomic<int> verified{0}, revoked_seen{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&, i] {
      for (int j = 0; j < 200; ++j) {
        std::string tok = issuer.issue(SourceCode(0xfe, static_cast<std::uint8_t>(i + 1)), {"s"},
                                       j % 2 ? "acme" : "", 60);
        CapabilityToken t;
        std::string err;
        if (!issuer.verify(tok, t, err)) continue;
        ++verified;
        if (j % 3 == 0) {
          issuer.revoke(t.id);
          if (!issuer.verify(tok, t, err) && err == "revoked") ++revoked_seen;
        }
      }
    });
  }
  threads.emplace_back([&] {
    for (int j = 0; j < 50; ++j) {
      std::string err;
      issuer.add_tenant_key("churn", err);
      issuer.drop_tenant_key("churn");
    }
  });
  for (auto& th : threads) th.join();
  EXPECT_EQ(verified.load(), 800);
  EXPECT_EQ(revoked_seen.load(), 4 * 67);
  CapabilityIssuer reloaded;
  ASSERT_TRUE(reloaded.open(dir.path(), error));
  EXPECT_EQ(reloaded.load_revocations(), static_cast<std::size_t>(4 * 67));
  reloaded.load_keys();
  EXPECT_TRUE(reloaded.has_tenant_key("acme"));
  EXPECT_FALSE(reloaded.has_tenant_key("churn"));
}

}  // namespace
}  // namespace ostrel::identity
