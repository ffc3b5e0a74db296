#include "data/vector_store.h"

#include <charconv>
#include <cstring>
#include <limits>
#include <system_error>

#include "base/durable_file.h"
#include "base/json.h"
#include "base/names.h"
#include "base/text.h"
#include "data/top_k.h"
#include "data/vector_math.h"

namespace ostrel::data {
namespace {

namespace fs = std::filesystem;
using Json = nlohmann::json;

std::string escape_tenant(const std::string& tenant) {
  std::string out;
  for (char c : tenant) {
    if (c == '_') {
      out += "%5F";
    } else {
      out += c;
    }
  }
  return out;
}

std::string unescape_tenant(std::string_view s) {
  std::string out;
  for (std::size_t i = 0; i < s.size(); ++i) {
    if (s.substr(i, 3) == "%5F") {
      out += '_';
      i += 2;
    } else {
      out += s[i];
    }
  }
  return out;
}

bool record_from_json(const Json& j, VectorRecord& r) {
  if (!j.is_object()) return false;
  auto id = j.find("id");
  auto emb = j.find("embedding");
  if (id == j.end() || !id->is_string() || emb == j.end() || !emb->is_array()) return false;
  r.id = *id;
  if (auto t = j.find("text"); t != j.end() && t->is_string()) r.text = *t;
  if (auto s = j.find("source"); s != j.end() && s->is_string()) r.source = *s;
  if (auto c = j.find("created_ms"); c != j.end() && c->is_number_integer()) r.created_ms = *c;
  if (auto m = j.find("metadata"); m != j.end() && m->is_object()) r.metadata = *m;
  r.embedding.reserve(emb->size());
  for (const auto& v : *emb) {
    if (!v.is_number()) return false;
    r.embedding.push_back(v.get<float>());
  }
  return true;
}

// A journal line as this store writes it, read without building a JSON tree
// for its embedding (the bulk of the line): the numbers are parsed in place
// and the rest of the line, with an empty array, goes to the JSON parser.
bool record_from_line(std::string_view line, VectorRecord& r) {
  static constexpr std::string_view kKey = "\"embedding\":[";
  const std::size_t at = line.find(kKey);
  if (at == std::string_view::npos) return record_from_json(base::parse_json(line), r);
  const char* p = line.data() + at + kKey.size();
  const char* end = line.data() + line.size();
  std::vector<float> values;
  values.reserve(512);
  while (p < end && *p != ']') {
    float v = 0;
    auto [next, ec] = std::from_chars(p, end, v);
    if (ec != std::errc()) return false;
    values.push_back(v);
    p = next;
    if (p < end && *p == ',') ++p;
  }
  if (p >= end) return false;
  std::string rest;
  rest.reserve(line.size() - static_cast<std::size_t>(p - (line.data() + at)));
  rest.append(line.substr(0, at + kKey.size()));
  rest.append(p, static_cast<std::size_t>(end - p));
  if (!record_from_json(base::parse_json(rest), r)) return false;
  r.embedding = std::move(values);
  return true;
}

}  // namespace

namespace {

// Room for a record's line in the usual case (escapes in the text aside).
std::size_t line_size_hint(const RecordView& r) {
  return 128 + r.text.size() + r.text.size() / 8 + r.source.size() + r.metadata.size() +
         r.dim * (text::kFloatChars + 1);
}

// A view of a whole record; its metadata text is kept in `metadata`.
RecordView view_of(const VectorRecord& r, std::string& metadata) {
  metadata = r.metadata.is_object() ? base::dump_json(r.metadata) : "{}";
  return {r.id, r.text, r.source, metadata, r.embedding.data(), r.embedding.size(), r.created_ms};
}

// Room for one more element, growing geometrically.
template <typename Vector>
void make_room(Vector& v) {
  if (v.size() == v.capacity()) v.reserve(v.size() < 8 ? 8 : v.size() * 2);
}

}  // namespace

void append_record_line(std::string& out, const RecordView& r) {
  out.reserve(out.size() + line_size_hint(r));
  out += "{\"id\":";
  text::append_json_string(out, r.id);
  out += ",\"text\":";
  text::append_json_string(out, r.text);
  out += ",\"source\":";
  text::append_json_string(out, r.source);
  out += ",\"embedding\":[";
  text::append_floats(out, r.embedding, r.dim);
  out += "],\"created_ms\":";
  char digits[24];
  out.append(digits, std::to_chars(digits, digits + sizeof digits, r.created_ms).ptr);
  out += ",\"metadata\":";
  out += r.metadata.empty() ? std::string_view("{}") : r.metadata;
  out += "}\n";
}

std::string vector_record_line(const VectorRecord& r) {
  std::string metadata;
  std::string out;
  append_record_line(out, view_of(r, metadata));
  return out;
}

VectorStore::VectorStore(fs::path root, base::Logger log, bool sync_each)
    : root_(std::move(root)), log_(std::move(log)), sync_each_(sync_each) {}

VectorStore::~VectorStore() { sync_dirty(); }

fs::path VectorStore::journal_path(const std::string& tenant, const std::string& ns) const {
  return root_ / (escape_tenant(tenant) + "_" + ns + ".jsonl");
}

bool VectorStore::Contents::add(const RecordView& r) {
  constexpr std::size_t kMaxField = std::numeric_limits<std::uint32_t>::max();
  if (r.id.size() > kMaxField || r.text.size() > kMaxField || r.source.size() > kMaxField ||
      r.metadata.size() > kMaxField || r.dim > kMaxField || records.size() >= kMaxField) {
    return false;
  }
  if (by_id.count(r.id)) return false;
  // Everything that can fail to allocate comes first, and a failure undoes
  // what went before, so that the rows, their scores and the records never
  // fall out of step (a search reads them by position).
  Rows& rows = this->rows[r.dim];
  make_room(rows.sumsq);
  make_room(rows.record);
  make_room(records);
  const std::size_t total = r.id.size() + r.text.size() + r.source.size() + r.metadata.size();
  char* at = texts.allocate(total);
  char* p = at;
  for (std::string_view part : {r.id, r.text, r.source, r.metadata}) {
    if (!part.empty()) std::memcpy(p, part.data(), part.size());
    p += part.size();
  }
  const auto index = static_cast<std::uint32_t>(records.size());
  const auto placed = by_id.emplace(std::string_view(at, r.id.size()), index).first;
  try {
    rows.values.append(r.embedding, r.dim);
  } catch (...) {
    by_id.erase(placed);
    throw;
  }
  // Within the room made above: these do not allocate.
  const auto row = static_cast<std::uint32_t>(rows.sumsq.size());
  rows.sumsq.push_back(dot(r.embedding, r.embedding, r.dim));
  rows.record.push_back(index);
  records.push_back(
      {at, static_cast<std::uint32_t>(r.id.size()), static_cast<std::uint32_t>(r.text.size()),
       static_cast<std::uint32_t>(r.source.size()), static_cast<std::uint32_t>(r.metadata.size()),
       r.created_ms, static_cast<std::uint32_t>(r.dim), row});
  return true;
}

RecordView VectorStore::Contents::view(const Stored& s) const {
  const float* embedding = rows.at(s.dim).values.data() + std::size_t{s.row} * s.dim;
  return {s.id(), s.text(), s.source(), s.metadata(), embedding, s.dim, s.created_ms};
}

void VectorStore::load_locked_(Namespace& n, const std::string& tenant, const std::string& ns) {
  if (n.loaded) return;
  const fs::path path = journal_path(tenant, ns);
  base::ReplayStats stats;
  std::string metadata;
  base::replay_journal_lines(
      path,
      [&](std::string_view line) {
        VectorRecord r;
        if (!record_from_line(line, r)) return false;
        // A duplicate line: the first stands.
        return n.contents.add(view_of(r, metadata));
      },
      &stats);
  if (stats.skipped > 0 || stats.torn_bytes > 0) {
    log_.warn("vector journal " + path.filename().string() + ": skipped " +
              std::to_string(stats.skipped) + " malformed line(s), cut " +
              std::to_string(stats.torn_bytes) + " byte(s) of an unfinished last line");
  }
  n.log = std::make_unique<base::AppendLog>(path);
  n.loaded = true;
  log_.info("vector namespace loaded — tenant='" + tenant + "' ns='" + ns +
            "' records=" + std::to_string(n.contents.records.size()));
}

VectorStore::Namespace& VectorStore::open_(const std::string& tenant, const std::string& ns) {
  Namespace* n = nullptr;
  {
    std::lock_guard lock(map_mu_);
    auto& slot = spaces_[{tenant, ns}];
    if (!slot) slot = std::make_unique<Namespace>();
    n = slot.get();
  }
  {
    std::shared_lock read(n->mu);
    if (n->loaded) return *n;
  }
  std::unique_lock write(n->mu);
  load_locked_(*n, tenant, ns);
  return *n;
}

bool VectorStore::append(const std::string& tenant, const std::string& ns,
                         std::span<const RecordView> records, std::string& error) {
  if (!base::safe_scope(tenant, ns, error)) return false;
  std::string lines;
  std::size_t room = 0;
  for (const auto& r : records) room += line_size_hint(r);
  lines.reserve(room);
  for (const auto& r : records) append_record_line(lines, r);
  Namespace& n = open_(tenant, ns);
  std::unique_lock lock(n.mu);
  // Journal first: the lines are in the file before the records are visible.
  std::string why;
  if (!n.log->append(lines, sync_each_, why)) {
    error = "persist_failed: " + why;
    return false;
  }
  for (const auto& r : records) n.contents.add(r);
  return true;
}

bool VectorStore::append(const std::string& tenant, const std::string& ns,
                         const std::vector<VectorRecord>& records, std::string& error) {
  std::vector<std::string> metadata(records.size());
  std::vector<RecordView> views;
  views.reserve(records.size());
  for (std::size_t i = 0; i < records.size(); ++i)
    views.push_back(view_of(records[i], metadata[i]));
  return append(tenant, ns, views, error);
}

std::vector<VectorHit> VectorStore::search(const std::string& tenant, const std::string& ns,
                                           const std::vector<float>& query, double min_score,
                                           std::size_t k) {
  std::string error;
  if (query.empty() || k == 0 || !base::safe_scope(tenant, ns, error)) return {};
  if (!exists(tenant, ns)) return {};
  Namespace& n = open_(tenant, ns);
  const std::size_t dim = query.size();
  const double qsq = dot(query.data(), query.data(), dim);
  if (!(qsq > 0)) return {};
  std::shared_lock lock(n.mu);
  auto it = n.contents.rows.find(dim);
  if (it == n.contents.rows.end()) return {};
  const Rows& rows = it->second;
  TopK<std::size_t> best(k);
  const std::size_t count = rows.sumsq.size();
  const float* values = rows.values.data();
  // The scan is bound by memory: each row's lines are requested a few rows
  // ahead, since the hardware's own prefetch stops at every page boundary.
  constexpr std::size_t kAhead = 4;
  const std::size_t row_bytes = dim * sizeof(float);
  for (std::size_t r = 0; r < count; ++r) {
    if (r + kAhead < count) {
      const char* ahead = reinterpret_cast<const char*>(values + (r + kAhead) * dim);
      for (std::size_t b = 0; b < row_bytes; b += 64) __builtin_prefetch(ahead + b);
    }
    const double rsq = rows.sumsq[r];
    if (!(rsq > 0)) continue;
    const double score = cosine(dot(query.data(), values + r * dim, dim), qsq, rsq);
    if (score < min_score) continue;
    std::size_t row = r;
    best.offer(score, std::move(row));
  }
  std::vector<VectorHit> hits;
  for (std::size_t r : best.take()) {
    const Stored& rec = n.contents.records[rows.record[r]];
    const double score = cosine(dot(query.data(), values + r * dim, dim), qsq, rows.sumsq[r]);
    Json metadata = base::parse_json(rec.metadata());
    if (!metadata.is_object()) metadata = Json::object();
    hits.push_back({std::string(rec.id()), std::string(rec.text()), std::string(rec.source()),
                    std::move(metadata), score});
  }
  return hits;
}

bool VectorStore::exists(const std::string& tenant, const std::string& ns) {
  {
    std::lock_guard lock(map_mu_);
    auto it = spaces_.find({tenant, ns});
    if (it != spaces_.end()) {
      std::shared_lock read(it->second->mu);
      if (!it->second->contents.records.empty()) return true;
    }
  }
  std::error_code ec;
  return fs::exists(journal_path(tenant, ns), ec);
}

bool VectorStore::remove(const std::string& tenant, const std::string& ns, const std::string& id,
                         std::string& error, std::string& detail) {
  if (!base::safe_scope(tenant, ns, detail)) {
    error = "namespace_not_found";
    return false;
  }
  if (!exists(tenant, ns)) {
    error = "namespace_not_found";
    return false;
  }
  Namespace& n = open_(tenant, ns);
  std::unique_lock lock(n.mu);
  auto found = n.contents.by_id.find(id);
  if (found == n.contents.by_id.end()) {
    error = "id_not_found";
    return false;
  }
  const std::size_t victim = found->second;
  // The journal without the record, written whole and renamed over the old
  // one; memory is rebuilt beside it and replaces the old contents once the
  // file is in place.
  Contents kept;
  std::string content;
  for (std::size_t i = 0; i < n.contents.records.size(); ++i) {
    if (i == victim) continue;
    const RecordView v = n.contents.view(n.contents.records[i]);
    append_record_line(content, v);
    kept.add(v);
  }
  const fs::path path = journal_path(tenant, ns);
  n.log->close();
  if (!base::write_file_atomically(path, content, detail)) {
    error = "rename_failed";
    return false;
  }
  n.contents = std::move(kept);
  return true;
}

std::vector<VectorNamespaceInfo> VectorStore::list(const std::string& tenant) {
  std::map<std::pair<std::string, std::string>, VectorNamespaceInfo> found;
  std::error_code ec;
  for (fs::directory_iterator it(root_, ec), end; !ec && it != end; it.increment(ec)) {
    const std::string name = it->path().filename().string();
    if (name.size() < 7 || name.compare(name.size() - 6, 6, ".jsonl") != 0) continue;
    if (base::is_temporary_name(name) || name[0] == '.') continue;
    const std::size_t us = name.find('_');
    if (us == std::string::npos) continue;
    VectorNamespaceInfo info;
    info.tenant = unescape_tenant(std::string_view(name).substr(0, us));
    info.name = name.substr(us + 1, name.size() - 6 - us - 1);
    if (!tenant.empty() && info.tenant != tenant) continue;
    std::error_code size_ec;
    info.size_bytes = fs::file_size(it->path(), size_ec);
    found[{info.tenant, info.name}] = info;
  }
  std::vector<VectorNamespaceInfo> out;
  for (auto& [key, info] : found) {
    Namespace& n = open_(key.first, key.second);
    std::shared_lock lock(n.mu);
    info.document_count = n.contents.records.size();
    info.embedding_dim = n.contents.records.empty() ? 0 : n.contents.records.front().dim;
    out.push_back(info);
  }
  return out;
}

void VectorStore::sync_dirty() {
  std::vector<Namespace*> spaces;
  {
    std::lock_guard lock(map_mu_);
    for (auto& [key, n] : spaces_) spaces.push_back(n.get());
  }
  for (Namespace* n : spaces) {
    std::shared_lock lock(n->mu);
    if (!n->log || !n->log->dirty()) continue;
    std::string error;
    if (!n->log->sync(error)) log_.warn("vector journal sync failed: " + error);
  }
}

}  // namespace ostrel::data
