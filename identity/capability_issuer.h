#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "base/no_copy.h"
#include "identity/source_code.h"

namespace ostrel::identity {

// An Ed25519 key pair (the OpenSSL handle is freed with the pair).
class KeyPair : private base::NoCopy {
 public:
  static std::shared_ptr<KeyPair> generate();
  static std::shared_ptr<KeyPair> from_private(const std::string& raw32);
  ~KeyPair();

  const std::string& public_key() const { return public_key_; }  // 32 raw bytes
  std::string private_key() const;                               // 32 raw bytes
  std::string sign(std::string_view message) const;              // empty on failure
  bool verify(std::string_view message, std::string_view signature) const;

 private:
  explicit KeyPair(void* pkey);
  void* pkey_;  // EVP_PKEY*
  std::string public_key_;
};

// The verified content of a capability token.
struct CapabilityToken {
  std::string id;
  SourceCode holder;
  std::vector<std::string> scopes;
  std::string tenant;
  std::int64_t issued_at_s = 0;
  std::int64_t expires_at_s = 0;
};

// Mints, verifies and revokes capability tokens: Ed25519-signed grants of
// scopes to a holder acting for a tenant, valid between two times. Signs with
// the node's key (made fresh per process, never stored) or with a tenant's
// own key, whose private half is kept in "keys.jsonl" encrypted with
// AES-256-GCM under "master.key". Revocations are journalled in "caps.jsonl".
// Thread-safe: keys_mu_ guards the tenant key table, revoked_mu_ the
// revocation set and lineage; signing and verification run outside both
// locks. Journal appends (synced) happen under the lock of what they change,
// so that each journal's order is the order of the changes; key changes,
// revocations and tenant-key issues are rare next to verifications, which
// take no lock on the write side.
class CapabilityIssuer {
 public:
  using Clock = std::function<std::chrono::system_clock::time_point()>;

  CapabilityIssuer();
  ~CapabilityIssuer();

  // Where "master.key", "keys.jsonl" and "caps.jsonl" live; loads or creates
  // the master key. False with a reason when the master key is unusable.
  bool open(const std::filesystem::path& state_dir, std::string& error);
  // Replays "keys.jsonl"; returns the number of records applied.
  std::size_t load_keys();
  // Replays "caps.jsonl" (revocations and the ids of tenant-key tokens);
  // returns the number of revocations read.
  std::size_t load_revocations();

  // The token text, or "" when signing failed. Tokens signed with a tenant
  // key outlive the process, so their ids are journalled (revocation can then
  // tell a known id from a stranger's); `parent` is the id of the token this
  // one was attenuated from, so that revoking an ancestor revokes it too.
  std::string issue(SourceCode holder, const std::vector<std::string>& scopes,
                    const std::string& tenant, std::int64_t lifetime_s,
                    const std::string& parent = "", CapabilityToken* minted = nullptr);
  // A child of the verified `parent` with a subset of its scopes and at most
  // its remaining lifetime. False with "scope_not_subset", "expired" or
  // "signing_failed".
  bool attenuate(const CapabilityToken& parent, const std::vector<std::string>& scopes,
                 std::int64_t lifetime_s, std::string& token, std::string& error,
                 CapabilityToken* minted = nullptr);
  // False with one of "bad_encoding", "unknown_key", "bad_signature",
  // "unknown_version", "not_yet_valid", "expired", "revoked". Never throws.
  bool verify(const std::string& token, CapabilityToken& out, std::string& error) const;

  // A scope grants `required` when equal to it, or when it is a prefix that
  // ends where `required` has ':' and at least one more character.
  static bool has_scope(const CapabilityToken& token, const std::string& required);

  bool add_tenant_key(const std::string& tenant, std::string& error);
  bool drop_tenant_key(const std::string& tenant);
  bool has_tenant_key(const std::string& tenant) const;
  // The node key's public half ("" tenant) or a tenant's; false when unknown.
  bool public_key(const std::string& tenant, std::string& raw32) const;

  enum class RevokeResult { revoked, already_revoked, unknown, journal_failed };
  // Journals, then adds, the id to the revocation set. Permanent. Only ids
  // this node issued (and has not forgotten as expired) can be revoked.
  RevokeResult revoke(const std::string& id);
  // True when the token or any token it was attenuated from is revoked.
  bool is_revoked(const std::string& id) const;
  std::vector<std::string> revocations() const;
  // Rewrites "caps.jsonl" as one record per revoked id and per unexpired
  // journalled token.
  bool compact_revocations(std::string& error);

  // The node's long-lived identity key: made once and kept in "node.key"
  // (sealed with the master key), so it survives restarts. It signs what
  // others must be able to check later: audit checkpoints and this node's
  // gossip records. A fresh key for this process only while open() has not
  // succeeded. Never null.
  std::shared_ptr<KeyPair> identity_key() const;
  // True when open() made the identity key (none was kept yet).
  bool identity_key_created() const { return identity_key_created_; }
  // Why the identity key could not be kept across restarts ("" when it is).
  const std::string& identity_key_problem() const { return identity_key_problem_; }

  const std::filesystem::path& state_dir() const { return state_dir_; }
  // For tests: the wall clock the issuer reads.
  void set_clock(Clock clock) { clock_ = std::move(clock); }

 private:
  std::shared_ptr<KeyPair> key_for_kid_(const std::string& kid) const;
  std::filesystem::path keys_path_() const { return state_dir_ / "keys.jsonl"; }
  std::filesystem::path caps_path_() const { return state_dir_ / "caps.jsonl"; }

  // Loads "node.key" or makes and seals a new one; false with the reason.
  bool open_identity_key_(std::string& error);

  std::shared_ptr<KeyPair> node_key_;
  std::shared_ptr<KeyPair> identity_key_;  // set in the constructor and open(); read-only after
  std::string identity_key_problem_;
  bool identity_key_created_ = false;
  std::filesystem::path state_dir_;
  std::string master_key_;  // 32 bytes; empty until open()
  Clock clock_;

  mutable std::mutex keys_mu_;  // guards tenant_keys_ and appends to keys.jsonl
  std::unordered_map<std::string, std::shared_ptr<KeyPair>> tenant_keys_;
  struct Issued {
    std::int64_t expires_at_s = 0;
    std::string parent;    // the token it was attenuated from, or ""
    bool durable = false;  // signed with a tenant key: journalled
  };
  // REQUIRES: revoked_mu_ is held (shared or exclusive).
  bool is_revoked_locked_(const std::string& id) const;
  void forget_expired_locked_(std::int64_t now_s);

  // Guards revoked_, issued_ and appends to caps.jsonl. The journal append
  // happens under it so that the file's order is the order of the changes.
  mutable std::shared_mutex revoked_mu_;
  std::unordered_set<std::string> revoked_;
  std::unordered_map<std::string, Issued> issued_;  // ids this node signed
  std::size_t issues_since_sweep_ = 0;
};

}  // namespace ostrel::identity
