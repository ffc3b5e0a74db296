#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "base/no_copy.h"
#include "base/sqlite.h"

namespace ostrel::clusterfs {

struct ChunkRef {
  std::string chunk_id;
  std::uint64_t offset = 0;
  std::uint64_t length = 0;
  std::uint64_t compressed_length = 0;
};

struct StripeLayout {
  std::int64_t stripe_count = 1;
  std::int64_t stripe_size = 0;
  std::vector<std::string> ost_ids;
};

using TimePoint = std::chrono::system_clock::time_point;

struct ObjectMeta {
  std::string object_id;
  std::string tenant_id;
  std::string path;
  std::uint64_t size_bytes = 0;
  std::int64_t version = 1;
  std::string content_type;
  int tier = 3;
  StripeLayout layout;
  TimePoint created_at{};
  TimePoint modified_at{};
  std::optional<TimePoint> accessed_at;
  std::int64_t access_count = 0;
  std::string attrs_json = "{}";
  std::vector<ChunkRef> chunks;  // in seq order
};

// Object metadata in SQLite ("mds.db"): which chunks, in which order, make
// up each (tenant, path), with attributes and layout. Every operation reports
// failure as false plus a text (SQLite's message where it comes from SQLite).
// Thread-safe: mu_ serialises every statement on the one connection.
class MetadataStore : private base::NoCopy {
 public:
  MetadataStore() = default;
  ~MetadataStore();

  bool open(const std::filesystem::path& db, std::string& error);

  bool lookup(const std::string& tenant_id, const std::string& path, ObjectMeta& out,
              std::string& error);
  bool get(const std::string& object_id, ObjectMeta& out, std::string& error);
  // Objects whose path starts with `prefix` (matched literally), by path.
  std::vector<ObjectMeta> list(const std::string& tenant_id, const std::string& prefix);
  void for_each(const std::function<void(const ObjectMeta&)>& visit);

  // Creates the object (version 1) or, when (tenant, path) exists, overwrites
  // it (version + 1) and replaces its chunk rows — in one transaction. On
  // success `meta` holds the stored object id and version.
  bool put(ObjectMeta& meta, std::string& error);
  bool touch_access(const std::string& object_id, std::string& error);
  bool set_tier(const std::string& object_id, int tier, std::string& error);
  // Deletes the row; its chunk rows go with it (chunk files stay).
  bool remove(const std::string& object_id, std::string& error);

  struct Stats {
    std::int64_t objects = 0;
    std::int64_t bytes = 0;
    std::int64_t chunk_rows = 0;
  };
  Stats stats();

  // "lowercase ascii, digits, hyphen; 2-63 chars; no leading/trailing hyphen"
  static bool valid_tenant_id(const std::string& id);

 private:
  bool load_chunks_locked_(ObjectMeta& meta, std::string& error);
  bool exec_locked_(const char* sql, std::string& error);

  std::mutex mu_;  // serialises all use of db_
  base::sqlite::Connection db_;
  std::string prep_error_;  // the last prepare failure; db_.message() says the same
};

}  // namespace ostrel::clusterfs
