#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <shared_mutex>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "base/journal.h"
#include "base/logger.h"
#include "base/text_arena.h"
#include "data/row_buffer.h"

namespace ostrel::data {

// One stored chunk.
struct VectorRecord {
  std::string id;
  std::string text;
  std::string source;
  std::vector<float> embedding;
  std::int64_t created_ms = 0;
  nlohmann::json metadata = nlohmann::json::object();
};

// A record to store, as views of the caller's storage (valid for the call).
struct RecordView {
  std::string_view id;
  std::string_view text;
  std::string_view source;
  std::string_view metadata;  // the text of a JSON object
  const float* embedding = nullptr;
  std::size_t dim = 0;
  std::int64_t created_ms = 0;
};

// A scored record, copied out of the store.
struct VectorHit {
  std::string id;
  std::string text;
  std::string source;
  nlohmann::json metadata;
  double score = 0;
};

struct VectorNamespaceInfo {
  std::string tenant;
  std::string name;
  std::size_t document_count = 0;
  std::size_t embedding_dim = 0;
  std::uint64_t size_bytes = 0;
};

// The data module's own vectors: one JSON-lines journal per (tenant,
// namespace) at "<root>/<tenant>_<namespace>.jsonl" (an '_' inside the
// tenant is written "%5F", so two tenants can never share a file), loaded
// whole on first use and kept in memory with the embeddings of one
// dimension in one contiguous block, so a search is one pass over memory.
//
// Appends are one write of whole lines: a record acknowledged to the caller
// is in the file if the process dies right after. sync_dirty() flushes them
// to the disk (the data module calls it every second); with `sync_each` every
// append waits for the disk itself.
//
// Thread-safe: map_mu_ guards the namespace map; each namespace's mutex
// guards its records (shared for searches, exclusive for changes). Journal
// writes happen under the namespace's lock so that the file's order is the
// order in memory; no lock is held while embedding or calling peers.
class VectorStore {
 public:
  VectorStore(std::filesystem::path root, base::Logger log, bool sync_each = false);
  ~VectorStore();

  // False with a reason ("invalid …", "persist_failed: …"); then nothing of
  // `records` is stored. A record whose id is already held keeps the first.
  bool append(const std::string& tenant, const std::string& ns, std::span<const RecordView> records,
              std::string& error);
  // The same for whole records.
  bool append(const std::string& tenant, const std::string& ns,
              const std::vector<VectorRecord>& records, std::string& error);

  // The best `k` records at or above `min_score` whose embedding has the
  // query's dimension, best first; equal scores in storage order.
  std::vector<VectorHit> search(const std::string& tenant, const std::string& ns,
                                const std::vector<float>& query, double min_score, std::size_t k);

  // Rewrites the journal without the record. False with "namespace_not_found",
  // "id_not_found", or "rename_failed" (with `detail`).
  bool remove(const std::string& tenant, const std::string& ns, const std::string& id,
              std::string& error, std::string& detail);

  // Namespaces with a journal on disk or in memory; `tenant` filters when not empty.
  std::vector<VectorNamespaceInfo> list(const std::string& tenant);

  // True when the namespace has a journal or records.
  bool exists(const std::string& tenant, const std::string& ns);

  // Flushes every journal written since the last call to the disk.
  void sync_dirty();

  std::filesystem::path journal_path(const std::string& tenant, const std::string& ns) const;

 private:
  struct Rows {
    RowBuffer values;  // row-major, dim floats per row
    std::vector<double> sumsq;
    std::vector<std::uint32_t> record;  // index into records
  };
  // A record held in memory: its id, text, source and metadata text lie one
  // after another in the namespace's text arena, its embedding in the rows
  // of its dimension.
  struct Stored {
    const char* at;
    std::uint32_t id_len, text_len, source_len, metadata_len;
    std::int64_t created_ms;
    std::uint32_t dim, row;
    std::string_view id() const { return {at, id_len}; }
    std::string_view text() const { return {at + id_len, text_len}; }
    std::string_view source() const { return {at + id_len + text_len, source_len}; }
    std::string_view metadata() const {
      return {at + id_len + text_len + source_len, metadata_len};
    }
  };
  // What a namespace holds in memory; rebuilt whole when a record is removed.
  struct Contents {
    base::TextArena texts;
    std::vector<Stored> records;
    std::unordered_map<std::string_view, std::uint32_t> by_id;  // views into texts
    std::map<std::size_t, Rows> rows;                           // by dimension
    // False (nothing added) for an id already held or a field over 4 GiB.
    bool add(const RecordView& r);
    RecordView view(const Stored& s) const;
  };
  struct Namespace {
    std::shared_mutex mu;  // guards everything below
    bool loaded = false;
    Contents contents;
    std::unique_ptr<base::AppendLog> log;
  };

  // The namespace, loaded. REQUIRES: nothing held.
  Namespace& open_(const std::string& tenant, const std::string& ns);
  // REQUIRES: ns.mu held exclusively.
  void load_locked_(Namespace& n, const std::string& tenant, const std::string& ns);

  const std::filesystem::path root_;
  const base::Logger log_;
  const bool sync_each_;
  std::mutex map_mu_;  // guards spaces_
  std::map<std::pair<std::string, std::string>, std::unique_ptr<Namespace>> spaces_;
};

// The JSON line of a record (its journal form): "id", "text", "source",
// "embedding", "created_ms", "metadata", written without a JSON tree.
std::string vector_record_line(const VectorRecord& r);
void append_record_line(std::string& out, const RecordView& r);

}  // namespace ostrel::data
