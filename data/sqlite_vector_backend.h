#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>
#include <unordered_map>
#include <vector>

#include "base/logger.h"
#include "base/no_copy.h"
#include "base/sqlite.h"

namespace ostrel::modules_data {

struct SearchHit {
  std::string id;
  std::string content;
  std::string source;
  std::string namespace_id;
  nlohmann::json metadata = nlohmann::json::object();
  double score = 0;
  std::int64_t created_at = 0;
  std::int32_t chunk_index = 0;
  std::int32_t total_chunks = 0;
};

struct NamespaceInfo {
  std::string tenant;
  std::string name;
  std::string db_path;
  std::uint64_t size_bytes = 0;
  std::int64_t document_count = 0;
  std::int32_t embedding_dim = 0;
};

// Exact cosine search over vector namespaces kept as one SQLite file per
// (tenant, namespace) under a vectors root, written by another process. Files
// are opened read-only (full-mutex) and their connections cached. Vector-only
// searches run over a decoded in-memory copy of a namespace's embeddings,
// rebuilt when the file's data_version changes, with the same arithmetic as
// a scan of the rows, so results are identical.
// Thread-safe: mu_ guards the connection map, cache_mu_ the decoded copies;
// neither is held while a file is opened or scanned.
class SqliteVectorBackend : private base::NoCopy {
 public:
  SqliteVectorBackend();
  ~SqliteVectorBackend();

  bool initialize(const std::string& vectors_root, const base::Logger& logger);
  std::vector<SearchHit> search(const std::string& tenant, const std::string& ns,
                                const std::vector<float>& query, std::int32_t k, double min_score,
                                const std::string& text);
  std::vector<NamespaceInfo> list_namespaces(const std::string& tenant_filter);

  // The prefilter's MATCH expression for a text query ("" when no token is left).
  static std::string fts_query(const std::string& text);
  // Namespaces holding more floats than this are scanned instead of copied.
  static constexpr std::size_t kMaxCachedFloats = 1024ull * 1024 * 1024 / 4;

 private:
  struct Decoded;
  std::filesystem::path db_path_(const std::string& tenant, const std::string& ns) const;
  // The read-only connection to `path`, opened once; null when it cannot be.
  base::sqlite::Connection* get_db_(const std::string& path);
  std::shared_ptr<const Decoded> decoded_(const std::string& path, base::sqlite::Connection& db,
                                          std::size_t dim);

  std::unique_ptr<base::Logger> log_;
  std::filesystem::path root_;
  bool ready_ = false;
  std::mutex mu_;  // guards dbs_
  // Connections are never closed while the backend lives, so the pointers
  // get_db_ hands out stay valid.
  std::unordered_map<std::string, std::unique_ptr<base::sqlite::Connection>> dbs_;
  std::mutex cache_mu_;  // guards cache_
  std::unordered_map<std::string, std::shared_ptr<const Decoded>> cache_;
};

}  // namespace ostrel::modules_data
