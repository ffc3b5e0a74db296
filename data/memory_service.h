#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <string_view>
#include <tuple>
#include <unordered_map>
#include <vector>

#include "base/journal.h"
#include "base/logger.h"
#include "data/matrix_memory.h"

namespace ostrel::data {

// One matrix of the index ("_matrix_index.json").
struct MatrixIndexEntry {
  std::string id;
  std::string tenant_id;
  std::string user_id;
  std::string domain;
  std::string name;
  MemoryLevel level = MemoryLevel::domain;
  std::string file_path;
  std::int64_t tier = 0;
  std::int64_t last_accessed = 0;
  std::uint64_t size_bytes = 0;
};

// What one remembered entry of a matrix records.
struct MemoryEntry {
  std::string entry_id;
  std::string key_text;
  std::string value_text;
  std::string ns;  // the namespace it was stored under
  std::string domain = "general";
  double importance = 0.5;
  std::int64_t access_count = 0;
  std::int64_t correction_count = 0;
  double avg_recall_relevance = 0;
  std::int64_t created_at = 0;
  std::int64_t last_recalled_at = 0;
  std::int64_t last_corrected_at = 0;
  bool user_confirmed = false;
  bool forgotten = false;
};

struct MemoryStoreRequest {
  std::string tenant = "default";
  std::string ns = "default";
  std::string key;
  std::string value;
  std::string domain = "general";
  double importance = 0.5;
  bool replica = false;
};

struct MemoryStoreOutcome {
  bool ok = false;
  std::string error;
  std::string matrix;  // "yes", "no" (the matrix refused) or "skip" (no embedding)
  std::size_t bytes = 0;
  bool ignored = false;  // a replica write for a forgotten key
};

struct MemoryHit {
  std::string key;
  std::string value;
  std::string ns;
  double score = 0;
  std::string via;  // "key", "text" or "matrix"
};

struct MemoryRecallOutcome {
  std::vector<MemoryHit> hits;
  float confidence = 0;
  std::int64_t recall_time_us = 0;
  bool enabled = false;  // a matrix took part
};

struct MemoryForgetRequest {
  std::string tenant = "default";
  std::string ns = "default";
  std::string key;
  std::string mode = "soft";  // "soft", "hard" or "bulk"
  float damp_factor = 0.5f;
  std::string ns_prefix;
  std::int64_t older_than_seconds = -1;
};

struct MemoryForgetOutcome {
  bool ok = false;
  std::string error;
  std::size_t removed = 0;
  std::size_t forgotten = 0;
  std::vector<std::string> forgotten_keys;
  std::size_t matrices_touched = 0;
  std::size_t kv_removed = 0;
};

// The per-tenant memory over matrix memories: an index of matrices (one per
// tenant, user, domain and level), the entries each matrix remembers, a
// key-value copy of every stored value, and tombstones for forgotten keys.
//
// Persistence, all under the base directory:
//   "_matrix_index.json"           the index, rewritten (temporary + rename)
//                                  when a matrix is added;
//   "<tenant>/kv.jsonl"            every store and forget of the tenant, one
//                                  line each, replayed at start: the
//                                  key-value copy and the tombstones;
//   "<matrix file>.meta.json"      a matrix's entries, written whole at
//                                  checkpoints, plus "<…>.meta.jsonl", the
//                                  entries added or changed since: a store
//                                  costs one appended line, whatever the
//                                  number of entries;
//   the matrices' own files, logs and checkpoints.
// A store acknowledged to the caller is in these files when the process dies
// right after; sync_dirty() makes the journals survive a power loss too.
//
// Thread-safe: mu_ guards the index, the matrices' bookkeeping, the key-value
// copy and the tombstones, and is held for the journal appends so that their
// order is the order of the changes; embedding and the matrices' own work
// happen outside it (each MatrixMemory has its own lock).
class MatrixMemoryService {
 public:
  using Embed =
      std::function<bool(std::string_view text, std::vector<float>& out, std::string& error)>;

  MatrixMemoryService(std::filesystem::path base_dir, Embed embed, base::Logger log,
                      bool sync_each = false);
  ~MatrixMemoryService();

  // Loads the index and replays every tenant's key-value journal.
  bool initialize(std::string& error);
  bool initialized() const;

  MemoryStoreOutcome store(const MemoryStoreRequest& request);
  MemoryRecallOutcome recall(const std::string& tenant, const std::string& ns,
                             const std::string& query, const std::string& domain,
                             std::size_t limit);
  MemoryForgetOutcome forget(const MemoryForgetRequest& request);
  bool is_tombstoned(const std::string& tenant, const std::string& ns, const std::string& key);

  // Checkpoints every open matrix and writes every matrix's entries whole.
  nlohmann::json checkpoint();
  std::vector<MatrixIndexEntry> list_matrices(const std::string& tenant,
                                              const std::string& user) const;
  nlohmann::json status() const;
  nlohmann::json metrics() const;
  // Every matrix of the index: its file, whether it loads, its counters.
  nlohmann::json verify();
  void sync_dirty();

  // The configuration a domain's matrices start with (Part of the presets).
  static MatrixMemoryConfig preset(const std::string& domain, std::int32_t dimension);

 private:
  struct OpenMatrix {
    MatrixIndexEntry index;
    std::unique_ptr<MatrixMemory> memory;
    std::vector<MemoryEntry> entries;
    std::unordered_map<std::string, std::size_t> entry_by_key;  // "<ns>\n<key>" → entries
    std::vector<std::vector<float>> value_vectors;  // parallel to entries, filled lazily
    std::unique_ptr<base::AppendLog> meta_log;
    std::size_t meta_log_lines = 0;
    bool entries_loaded = false;
  };
  struct Stored {
    std::string value;
    std::int64_t stored_at = 0;
    std::vector<std::string> words;  // of key and value, sorted; filled by the first recall
  };
  using Scope = std::pair<std::string, std::string>;  // (tenant, namespace)

  OpenMatrix* matrix_locked_(const std::string& tenant, const std::string& domain,
                             std::int32_t dimension, bool create, std::string& error);
  bool save_index_locked_(std::string& error);
  bool load_entries_locked_(OpenMatrix& m);
  bool write_entries_locked_(OpenMatrix& m, std::string& error);
  void track_store_locked_(OpenMatrix& m, const MemoryStoreRequest& request);
  void replay_tenant_(const std::string& tenant);
  base::AppendLog& kv_log_locked_(const std::string& tenant);
  bool apply_record_locked_(const nlohmann::json& record);
  std::filesystem::path meta_path_(const OpenMatrix& m) const;
  static std::string tomb_key(const std::string& tenant, const std::string& ns,
                              const std::string& key);

  const std::filesystem::path base_dir_;
  const Embed embed_;
  const base::Logger log_;
  const bool sync_each_;

  mutable std::mutex mu_;  // guards everything below
  bool initialized_ = false;
  std::map<std::string, std::unique_ptr<OpenMatrix>> matrices_;  // by matrix id
  std::map<std::tuple<std::string, std::string, std::string, int>, std::string> by_scope_;
  std::map<Scope, std::map<std::string, Stored>> kv_;
  std::set<std::string> tombstones_;
  std::map<std::string, std::unique_ptr<base::AppendLog>> kv_logs_;  // by tenant
  std::uint64_t stores_ = 0, recalls_ = 0, forgets_ = 0;
};

}  // namespace ostrel::data
