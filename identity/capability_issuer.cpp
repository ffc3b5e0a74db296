#include "identity/capability_issuer.h"

#include <openssl/evp.h>
#include <openssl/rand.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "base/clock.h"
#include "base/durable_file.h"
#include "base/encoding.h"
#include "base/journal.h"
#include "base/json.h"

namespace ostrel::identity {
using base::base64url_decode;
using base::base64url_encode;
using base::from_hex;
using base::random_bytes;
using base::to_hex;
namespace {

using Json = nlohmann::json;
namespace fs = std::filesystem;

constexpr std::size_t kGcmNonceBytes = 12;
constexpr std::size_t kGcmTagBytes = 16;

EVP_PKEY* as_pkey(void* p) { return static_cast<EVP_PKEY*>(p); }

// AES-256-GCM; the result is ciphertext followed by the 16-byte tag.
bool gcm_encrypt(const std::string& key, const std::string& nonce, const std::string& plain,
                 std::string& out) {
  EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
  if (!ctx) return false;
  out.assign(plain.size() + kGcmTagBytes, '\0');
  int len = 0, total = 0;
  auto* o = reinterpret_cast<unsigned char*>(out.data());
  bool ok = EVP_EncryptInit_ex(ctx, EVP_aes_256_gcm(), nullptr,
                               reinterpret_cast<const unsigned char*>(key.data()),
                               reinterpret_cast<const unsigned char*>(nonce.data())) == 1 &&
            EVP_EncryptUpdate(ctx, o, &len, reinterpret_cast<const unsigned char*>(plain.data()),
                              static_cast<int>(plain.size())) == 1;
  total = len;
  ok = ok && EVP_EncryptFinal_ex(ctx, o + total, &len) == 1;
  total += len;
  ok = ok && EVP_CIPHER_CTX_ctrl(ctx, EVP_CTRL_GCM_GET_TAG, kGcmTagBytes, o + total) == 1;
  EVP_CIPHER_CTX_free(ctx);
  return ok;
}

bool gcm_decrypt(const std::string& key, const std::string& nonce, const std::string& sealed,
                 std::string& out) {
  if (nonce.size() != kGcmNonceBytes || sealed.size() < kGcmTagBytes) return false;
  const size_t n = sealed.size() - kGcmTagBytes;
  EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
  if (!ctx) return false;
  out.assign(n, '\0');
  int len = 0;
  std::string tag = sealed.substr(n);
  auto* o = reinterpret_cast<unsigned char*>(out.data());
  bool ok = EVP_DecryptInit_ex(ctx, EVP_aes_256_gcm(), nullptr,
                               reinterpret_cast<const unsigned char*>(key.data()),
                               reinterpret_cast<const unsigned char*>(nonce.data())) == 1 &&
            EVP_DecryptUpdate(ctx, o, &len, reinterpret_cast<const unsigned char*>(sealed.data()),
                              static_cast<int>(n)) == 1 &&
            EVP_CIPHER_CTX_ctrl(ctx, EVP_CTRL_GCM_SET_TAG, kGcmTagBytes, tag.data()) == 1 &&
            EVP_DecryptFinal_ex(ctx, o + len, &len) == 1;
  EVP_CIPHER_CTX_free(ctx);
  return ok;
}

}  // namespace

KeyPair::KeyPair(void* pkey) : pkey_(pkey) {
  unsigned char pub[32];
  size_t len = sizeof pub;
  if (EVP_PKEY_get_raw_public_key(as_pkey(pkey_), pub, &len) == 1) {
    public_key_.assign(reinterpret_cast<char*>(pub), len);
  }
}

KeyPair::~KeyPair() { EVP_PKEY_free(as_pkey(pkey_)); }

std::shared_ptr<KeyPair> KeyPair::generate() {
  EVP_PKEY_CTX* ctx = EVP_PKEY_CTX_new_id(EVP_PKEY_ED25519, nullptr);
  if (!ctx) return nullptr;
  EVP_PKEY* pkey = nullptr;
  bool ok = EVP_PKEY_keygen_init(ctx) == 1 && EVP_PKEY_keygen(ctx, &pkey) == 1;
  EVP_PKEY_CTX_free(ctx);
  if (!ok) return nullptr;
  return std::shared_ptr<KeyPair>(new KeyPair(pkey));
}

std::shared_ptr<KeyPair> KeyPair::from_private(const std::string& raw32) {
  if (raw32.size() != 32) return nullptr;
  EVP_PKEY* pkey = EVP_PKEY_new_raw_private_key(
      EVP_PKEY_ED25519, nullptr, reinterpret_cast<const unsigned char*>(raw32.data()), 32);
  if (!pkey) return nullptr;
  return std::shared_ptr<KeyPair>(new KeyPair(pkey));
}

std::string KeyPair::private_key() const {
  unsigned char priv[32];
  size_t len = sizeof priv;
  if (EVP_PKEY_get_raw_private_key(as_pkey(pkey_), priv, &len) != 1) return "";
  return std::string(reinterpret_cast<char*>(priv), len);
}

std::string KeyPair::sign(std::string_view message) const {
  EVP_MD_CTX* ctx = EVP_MD_CTX_new();
  if (!ctx) return "";
  std::string sig;
  size_t len = 0;
  const auto* m = reinterpret_cast<const unsigned char*>(message.data());
  if (EVP_DigestSignInit(ctx, nullptr, nullptr, nullptr, as_pkey(pkey_)) == 1 &&
      EVP_DigestSign(ctx, nullptr, &len, m, message.size()) == 1) {
    sig.assign(len, '\0');
    if (EVP_DigestSign(ctx, reinterpret_cast<unsigned char*>(sig.data()), &len, m,
                       message.size()) != 1) {
      sig.clear();
    } else {
      sig.resize(len);
    }
  }
  EVP_MD_CTX_free(ctx);
  return sig;
}

bool KeyPair::verify(std::string_view message, std::string_view signature) const {
  EVP_MD_CTX* ctx = EVP_MD_CTX_new();
  if (!ctx) return false;
  bool ok = EVP_DigestVerifyInit(ctx, nullptr, nullptr, nullptr, as_pkey(pkey_)) == 1 &&
            EVP_DigestVerify(
                ctx, reinterpret_cast<const unsigned char*>(signature.data()), signature.size(),
                reinterpret_cast<const unsigned char*>(message.data()), message.size()) == 1;
  EVP_MD_CTX_free(ctx);
  return ok;
}

CapabilityIssuer::CapabilityIssuer()
    : node_key_(KeyPair::generate()),
      identity_key_(KeyPair::generate()),
      clock_([] { return base::now(); }) {}

std::shared_ptr<KeyPair> CapabilityIssuer::identity_key() const { return identity_key_; }

bool CapabilityIssuer::open_identity_key_(std::string& error) {
  const fs::path file = state_dir_ / "node.key";
  bool opened = false;
  Json sealed = base::read_json_file(file, opened);
  if (opened) {
    std::string nonce, cipher, priv;
    if (!sealed.is_object() || !from_hex(sealed.value("nonce", ""), nonce) ||
        !from_hex(sealed.value("ciphertext", ""), cipher) ||
        !gcm_decrypt(master_key_, nonce, cipher, priv)) {
      // Never replaced: what it signed could no longer be checked.
      error = "node.key at " + file.string() + " cannot be opened with master.key";
      return false;
    }
    auto pair = KeyPair::from_private(priv);
    if (!pair) {
      error = "node.key at " + file.string() + " holds no Ed25519 key";
      return false;
    }
    identity_key_ = std::move(pair);
    return true;
  }
  auto pair = KeyPair::generate();
  std::string nonce = random_bytes(kGcmNonceBytes), cipher;
  if (!pair || nonce.size() != kGcmNonceBytes ||
      !gcm_encrypt(master_key_, nonce, pair->private_key(), cipher)) {
    error = "node key generation failed";
    return false;
  }
  const Json record = {{"algorithm", "Ed25519"},
                       {"public_key", to_hex(pair->public_key())},
                       {"nonce", to_hex(nonce)},
                       {"ciphertext", to_hex(cipher)}};
  if (!base::write_file_atomically(file, record.dump(2) + "\n", error)) return false;
  identity_key_ = std::move(pair);
  identity_key_created_ = true;
  return true;
}

CapabilityIssuer::~CapabilityIssuer() = default;

bool CapabilityIssuer::open(const fs::path& state_dir, std::string& error) {
  state_dir_ = state_dir;
  std::error_code ec;
  fs::create_directories(state_dir_, ec);
  const fs::path key_file = state_dir_ / "master.key";
  std::ifstream in(key_file, std::ios::binary);
  if (in) {
    std::stringstream buf;
    buf << in.rdbuf();
    std::string key = buf.str();
    if (key.size() != 32) {
      // Never replace an existing key: tenant keys sealed with it would be lost.
      error = "master.key at " + key_file.string() + " holds " + std::to_string(key.size()) +
              " bytes, expected 32";
      return false;
    }
    master_key_ = key;
    if (!open_identity_key_(identity_key_problem_))
      identity_key_problem_ += " (a key for this run only)";
    return true;
  }
  std::string key = random_bytes(32);
  if (key.size() != 32) {
    error = "no secure random bytes for master.key";
    return false;
  }
  if (!base::write_file_atomically(key_file, key, error)) return false;
  master_key_ = key;
  if (!open_identity_key_(identity_key_problem_))
    identity_key_problem_ += " (a key for this run only)";
  return true;
}

std::size_t CapabilityIssuer::load_keys() {
  if (master_key_.empty()) return 0;
  std::lock_guard lock(keys_mu_);
  return base::replay_journal(keys_path_(), [this](const Json& r) {
    if (!r.is_object()) return false;
    const std::string op = r.value("op", "");
    const std::string tenant = r.value("tenant", "");
    if (tenant.empty()) return false;
    if (op == "drop") {
      tenant_keys_.erase(tenant);
      return true;
    }
    if (op != "add") return false;
    std::string nonce, sealed, priv;
    if (!from_hex(r.value("nonce", ""), nonce) || !from_hex(r.value("ciphertext", ""), sealed) ||
        !gcm_decrypt(master_key_, nonce, sealed, priv)) {
      return false;
    }
    auto pair = KeyPair::from_private(priv);
    if (!pair) return false;
    tenant_keys_[tenant] = std::move(pair);
    return true;
  });
}

std::size_t CapabilityIssuer::load_revocations() {
  std::unique_lock lock(revoked_mu_);
  std::size_t revocations = 0;
  base::replay_journal(caps_path_(), [this, &revocations](const Json& r) {
    if (!r.is_object()) return false;
    auto id = r.find("id");
    if (id == r.end() || !id->is_string()) return false;
    const std::string op = r.value("op", "");
    if (op == "revoke") {
      revoked_.insert(id->get<std::string>());
      ++revocations;
      return true;
    }
    if (op != "issue") return false;
    Issued entry;
    entry.durable = true;
    auto exp = r.find("exp");
    auto parent = r.find("parent");
    if (exp != r.end() && exp->is_number_integer()) entry.expires_at_s = exp->get<std::int64_t>();
    if (parent != r.end() && parent->is_string()) entry.parent = parent->get<std::string>();
    issued_[id->get<std::string>()] = std::move(entry);
    return true;
  });
  return revocations;
}

std::string CapabilityIssuer::issue(SourceCode holder, const std::vector<std::string>& scopes,
                                    const std::string& tenant, std::int64_t lifetime_s,
                                    const std::string& parent, CapabilityToken* minted) {
  auto now = clock_();
  std::int64_t iat = base::unix_s(now);
  std::int64_t exp = base::unix_s(now + std::chrono::seconds(lifetime_s));
  auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(now.time_since_epoch()).count();
  char id[24];
  std::snprintf(id, sizeof id, "%016llx%04x", static_cast<unsigned long long>(ns), holder.value());

  Json payload = {{"v", 1},      {"id", id},   {"h", holder.value()}, {"s", scopes},
                  {"t", tenant}, {"iat", iat}, {"exp", exp}};
  const std::string payload_text = payload.dump();

  std::shared_ptr<KeyPair> key = node_key_;
  std::string kid;
  if (!tenant.empty()) {
    std::lock_guard lock(keys_mu_);
    auto it = tenant_keys_.find(tenant);
    if (it != tenant_keys_.end()) {
      key = it->second;
      kid = "t:" + tenant;
    }
  }
  if (!key) return "";
  std::string signature = key->sign(payload_text);
  if (signature.empty()) return "";
  Json envelope = {
      {"p", base64url_encode(payload_text)}, {"s", base64url_encode(signature)}, {"kid", kid}};

  Issued entry{exp, parent, !kid.empty()};
  {
    std::unique_lock lock(revoked_mu_);
    if (entry.durable && !state_dir_.empty()) {
      Json record = {{"op", "issue"}, {"id", id}, {"exp", exp}};
      if (!parent.empty()) record["parent"] = parent;
      std::string error;
      // A token whose id is not on disk could not be revoked after a restart.
      if (!base::append_journal_line(caps_path_(), record.dump(), error)) return "";
    }
    issued_[id] = std::move(entry);
    if (++issues_since_sweep_ >= 4096) forget_expired_locked_(iat);
  }
  if (minted) *minted = CapabilityToken{id, holder, scopes, tenant, iat, exp};
  return base64url_encode(envelope.dump());
}

bool CapabilityIssuer::attenuate(const CapabilityToken& parent,
                                 const std::vector<std::string>& scopes, std::int64_t lifetime_s,
                                 std::string& token, std::string& error, CapabilityToken* minted) {
  for (const auto& s : scopes) {
    if (std::find(parent.scopes.begin(), parent.scopes.end(), s) == parent.scopes.end()) {
      error = "scope_not_subset";
      return false;
    }
  }
  const double now = std::chrono::duration<double>(clock_().time_since_epoch()).count();
  const double remaining = static_cast<double>(parent.expires_at_s) - now;
  if (remaining < 1.0) {
    error = "expired";
    return false;
  }
  lifetime_s = std::min(lifetime_s, static_cast<std::int64_t>(remaining));
  token = issue(parent.holder, scopes, parent.tenant, lifetime_s, parent.id, minted);
  if (token.empty()) {
    error = "signing_failed";
    return false;
  }
  return true;
}

void CapabilityIssuer::forget_expired_locked_(std::int64_t now_s) {
  issues_since_sweep_ = 0;
  // A child never outlives its parent, so dropping expired entries never
  // breaks the chain of a token that still verifies.
  for (auto it = issued_.begin(); it != issued_.end();) {
    it = it->second.expires_at_s < now_s ? issued_.erase(it) : std::next(it);
  }
}

std::shared_ptr<KeyPair> CapabilityIssuer::key_for_kid_(const std::string& kid) const {
  if (kid.empty()) return node_key_;
  if (kid.size() <= 2 || kid.compare(0, 2, "t:") != 0) return nullptr;
  std::lock_guard lock(keys_mu_);
  auto it = tenant_keys_.find(kid.substr(2));
  return it == tenant_keys_.end() ? nullptr : it->second;
}

bool CapabilityIssuer::verify(const std::string& token, CapabilityToken& out,
                              std::string& error) const {
  auto fail = [&error](const char* e) {
    error = e;
    return false;
  };
  std::string envelope_text;
  if (!base64url_decode(token, envelope_text)) return fail("bad_encoding");
  Json envelope = base::parse_json(envelope_text);
  if (!envelope.is_object()) return fail("bad_encoding");
  auto p = envelope.find("p");
  auto s = envelope.find("s");
  if (p == envelope.end() || s == envelope.end() || !p->is_string() || !s->is_string()) {
    return fail("bad_encoding");
  }
  std::string payload_text, signature;
  if (!base64url_decode(p->get<std::string>(), payload_text) ||
      !base64url_decode(s->get<std::string>(), signature)) {
    return fail("bad_encoding");
  }
  std::string kid;
  if (auto k = envelope.find("kid"); k != envelope.end() && k->is_string()) kid = *k;
  std::shared_ptr<KeyPair> key = key_for_kid_(kid);
  if (!key) return fail("unknown_key");
  if (!key->verify(payload_text, signature)) return fail("bad_signature");

  Json payload = base::parse_json(payload_text);
  if (!payload.is_object()) return fail("bad_encoding");
  auto v = payload.find("v");
  if (v == payload.end() || !v->is_number_integer() || v->get<std::int64_t>() != 1) {
    return fail("unknown_version");
  }
  CapabilityToken t;
  try {
    t.id = payload.value("id", "");
    t.tenant = payload.value("t", "");
    t.holder = SourceCode::from_value(static_cast<std::uint16_t>(payload.value("h", 0u)));
    if (auto sc = payload.find("s"); sc != payload.end() && sc->is_array()) {
      for (const auto& e : *sc) {
        if (e.is_string()) t.scopes.push_back(e.get<std::string>());
      }
    }
    t.issued_at_s = base::int_value(payload, "iat", 0);
    t.expires_at_s = base::int_value(payload, "exp", 0);
  } catch (const Json::exception&) {
    // A signed payload of the wrong shape: only our own keys could make one.
    return fail("bad_encoding");
  }
  std::int64_t now = base::unix_s(clock_());
  if (now < t.issued_at_s) return fail("not_yet_valid");
  if (t.expires_at_s < now) return fail("expired");
  if (is_revoked(t.id)) return fail("revoked");
  out = std::move(t);
  return true;
}

bool CapabilityIssuer::has_scope(const CapabilityToken& token, const std::string& required) {
  for (const auto& s : token.scopes) {
    if (s == required) return true;
    if (required.size() > s.size() + 1 && required.compare(0, s.size(), s) == 0 &&
        required[s.size()] == ':') {
      return true;
    }
  }
  return false;
}

bool CapabilityIssuer::add_tenant_key(const std::string& tenant, std::string& error) {
  if (tenant.empty()) {
    error = "missing tenant";
    return false;
  }
  if (master_key_.empty()) {
    error = "key store not open";
    return false;
  }
  auto pair = KeyPair::generate();
  std::string nonce = random_bytes(kGcmNonceBytes), sealed;
  if (!pair || nonce.size() != kGcmNonceBytes ||
      !gcm_encrypt(master_key_, nonce, pair->private_key(), sealed)) {
    error = "key generation failed";
    return false;
  }
  Json record = {
      {"op", "add"}, {"tenant", tenant}, {"nonce", to_hex(nonce)}, {"ciphertext", to_hex(sealed)}};
  std::lock_guard lock(keys_mu_);
  if (!base::append_journal_line(keys_path_(), record.dump(), error)) return false;
  tenant_keys_[tenant] = std::move(pair);
  return true;
}

bool CapabilityIssuer::drop_tenant_key(const std::string& tenant) {
  std::lock_guard lock(keys_mu_);
  if (!tenant_keys_.count(tenant)) return false;
  std::string error;
  if (!master_key_.empty() &&
      !base::append_journal_line(keys_path_(), Json{{"op", "drop"}, {"tenant", tenant}}.dump(),
                                 error)) {
    return false;
  }
  tenant_keys_.erase(tenant);
  return true;
}

bool CapabilityIssuer::has_tenant_key(const std::string& tenant) const {
  std::lock_guard lock(keys_mu_);
  return tenant_keys_.count(tenant) != 0;
}

bool CapabilityIssuer::public_key(const std::string& tenant, std::string& raw32) const {
  std::shared_ptr<KeyPair> key = tenant.empty() ? node_key_ : key_for_kid_("t:" + tenant);
  if (!key) return false;
  raw32 = key->public_key();
  return true;
}

CapabilityIssuer::RevokeResult CapabilityIssuer::revoke(const std::string& id) {
  std::unique_lock lock(revoked_mu_);
  if (is_revoked_locked_(id)) return RevokeResult::already_revoked;
  if (!issued_.count(id)) return RevokeResult::unknown;
  std::string error;
  bool journalled =
      state_dir_.empty() ||
      base::append_journal_line(caps_path_(), Json{{"op", "revoke"}, {"id", id}}.dump(), error);
  // Refusing the token from now on matters more than the journal: it is
  // revoked in memory either way, and the caller learns that it will not
  // survive a restart.
  revoked_.insert(id);
  return journalled ? RevokeResult::revoked : RevokeResult::journal_failed;
}

bool CapabilityIssuer::compact_revocations(std::string& error) {
  std::unique_lock lock(revoked_mu_);
  forget_expired_locked_(base::unix_s(clock_()));
  std::vector<std::string> ids(revoked_.begin(), revoked_.end());
  std::sort(ids.begin(), ids.end());
  std::vector<std::string> lines;
  for (const auto& id : ids) lines.push_back(Json{{"op", "revoke"}, {"id", id}}.dump());
  std::vector<std::pair<std::string, const Issued*>> live;
  for (const auto& [id, entry] : issued_) {
    if (entry.durable) live.emplace_back(id, &entry);
  }
  // Ids sort by issue time: parents come before their children.
  std::sort(live.begin(), live.end());
  for (const auto& [id, entry] : live) {
    Json record = {{"op", "issue"}, {"id", id}, {"exp", entry->expires_at_s}};
    if (!entry->parent.empty()) record["parent"] = entry->parent;
    lines.push_back(record.dump());
  }
  return base::rewrite_journal(caps_path_(), lines, error);
}

bool CapabilityIssuer::is_revoked_locked_(const std::string& id) const {
  std::string current = id;
  // Bounded walk: a chain cannot be longer than the table (a cycle would
  // need a token to be its own ancestor, which ids ordered by time forbid).
  for (std::size_t hops = 0; hops <= issued_.size() && !current.empty(); ++hops) {
    if (revoked_.count(current)) return true;
    auto it = issued_.find(current);
    if (it == issued_.end()) return false;
    current = it->second.parent;
  }
  return false;
}

bool CapabilityIssuer::is_revoked(const std::string& id) const {
  std::shared_lock lock(revoked_mu_);
  return is_revoked_locked_(id);
}

std::vector<std::string> CapabilityIssuer::revocations() const {
  std::shared_lock lock(revoked_mu_);
  std::vector<std::string> out(revoked_.begin(), revoked_.end());
  std::sort(out.begin(), out.end());
  return out;
}

}  // namespace ostrel::identity
