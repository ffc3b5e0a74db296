#pragma once

#include <array>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/encoding.h"
#include "base/hash_chain.h"
#include "base/journal.h"
#include "base/no_copy.h"
#include "base/text_arena.h"
#include "identity/source_code.h"

namespace ostrel::identity {

using Hash = base::HashChain::Hash;

// One audited action: who (source and actor) did what (action, resource,
// outcome) for which tenant, chained to its predecessor by `prev_hash`.
struct AuditEvent {
  std::uint64_t seq = 0;
  std::int64_t ts_ms = 0;
  SourceCode source{};
  std::string actor;
  std::string action;
  std::string resource;
  std::string outcome;
  std::string tenant;
  std::string metadata = "{}";  // a JSON object as its compact text
  Hash prev_hash{};
  Hash hash{};
  // A journal line that could not be read back (torn by a crash, or edited
  // beyond parsing): it holds its seq only and never verifies.
  bool damaged = false;
};

// The node's append-only, hash-chained audit log: every event's hash is
// SHA-256(prev_hash ‖ canonical body), so editing, dropping or reordering a
// journal line breaks the chain at that line. Events live in memory for the
// life of the process and are rebuilt from "audit.jsonl" at boot; each append
// writes one line with one write() (no fsync: a killed process loses nothing
// written, a power cut may lose the last lines, which verify then cannot
// miss since nothing refers to them).
// Thread-safe: mu_ guards the events and their arena, the counter, the last
// hash, the hasher and the journal's file descriptor, so appends from many threads get
// consecutive seq values and one chain.
class AuditLog : private base::NoCopy {
 public:
  explicit AuditLog(std::filesystem::path journal);
  ~AuditLog();

  // Rebuilds the log from the journal and opens it for appending; returns
  // the number of lines read back (damaged ones included).
  std::size_t replay_journal();

  AuditEvent append(SourceCode source, std::string actor, std::string action, std::string resource,
                    std::string outcome, std::string tenant, std::string metadata);

  struct Verification {
    bool ok = true;
    std::uint64_t checked = 0;
    std::uint64_t first_bad_seq = 0;  // when !ok
    std::size_t total = 0;
  };
  Verification verify() const;

  // Events matching every given filter (newest last), at most `limit` of
  // the newest; `total` is the size of the whole log.
  struct Filter {
    std::size_t limit = 100;
    std::optional<std::string> actor;
    std::optional<std::string> action;
    std::optional<std::string> tenant;
    std::int64_t since_ms = 0;  // 0: no bound
    std::int64_t until_ms = 0;
  };
  std::vector<AuditEvent> query(const Filter& filter, std::size_t& total) const;

  std::size_t size() const;
  // The number of events and the hash of the last one (hex; 64 zeros when
  // there is none), read together.
  std::pair<std::uint64_t, std::string> head() const;
  // The chain's hash after each of `counts` events (hex), for the counts the
  // log reaches.
  std::map<std::uint64_t, std::string> heads_after(const std::vector<std::uint64_t>& counts) const;
  const std::filesystem::path& journal_path() const { return journal_; }
  // Called after every append, outside the lock (the records counter). Set
  // before the first append.
  void set_on_append(std::function<void()> hook) { on_append_ = std::move(hook); }

  // The exact bytes hashed: seq|ts_ms|domain:subdomain|actor|action|resource|
  // outcome|tenant|metadata, decimal numbers, nothing escaped.
  static std::string canonical_body(const AuditEvent& e);
  static std::string to_hex(const Hash& h);
  // The journal record (one line, without the newline).
  static std::string journal_line(const AuditEvent& e);
  // The event as routes answer it.
  static nlohmann::json to_json(const AuditEvent& e);

 private:
  // One event as kept in memory: its canonical body (the bytes the chain
  // hashes) in the arena, and where the text fields lie inside it, so verify
  // hashes the stored body as it is and queries read fields without copies.
  // A million events with 100-byte bodies take about 220 MB this way.
  struct Record {
    std::uint64_t seq = 0;
    std::int64_t ts_ms = 0;
    const char* body = nullptr;
    std::uint32_t size = 0;
    // Where actor, action, resource, outcome, tenant and metadata start.
    std::array<std::uint32_t, 6> starts{};
    SourceCode source{};
    bool damaged = false;
    Hash prev_hash{};
    Hash hash{};

    std::string_view field(std::size_t i) const;  // 0 actor … 5 metadata
    AuditEvent event() const;
  };
  // Lays out `e`'s canonical body in the arena; with mu_ held.
  Record store_(const AuditEvent& e);
  // SHA-256(prev ‖ the record's body), the chain rule; with mu_ held.
  Hash chain_hash_(const Hash& prev, const Record& r) const;

  const std::filesystem::path journal_;
  mutable std::mutex mu_;
  std::vector<Record> events_;
  base::TextArena bodies_;
  std::uint64_t next_seq_ = 1;
  mutable base::HashChain chain_;  // the head is the newest event's hash
  base::AppendLog log_;
  std::function<void()> on_append_;
};

}  // namespace ostrel::identity
