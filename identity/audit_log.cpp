#include "identity/audit_log.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <fstream>

#include "base/clock.h"
#include "base/json.h"
#include "base/text.h"

namespace ostrel::identity {

namespace {

using Json = nlohmann::json;

void append_number(std::string& out, std::uint64_t v) {
  char buf[24];
  auto r = std::to_chars(buf, buf + sizeof buf, v);
  out.append(buf, r.ptr);
}

void append_signed(std::string& out, std::int64_t v) {
  char buf[24];
  auto r = std::to_chars(buf, buf + sizeof buf, v);
  out.append(buf, r.ptr);
}

std::string source_text(SourceCode s) {
  char buf[8];
  std::snprintf(buf, sizeof buf, "0x%02x%02x", s.domain, s.subdomain);
  return buf;
}

bool parse_source(const std::string& text, SourceCode& out) {
  unsigned v = 0;
  if (text.size() != 6 || text.rfind("0x", 0) != 0 ||
      std::sscanf(text.c_str() + 2, "%4x", &v) != 1) {
    return false;
  }
  out = SourceCode{static_cast<std::uint8_t>(v >> 8), static_cast<std::uint8_t>(v & 0xff)};
  return true;
}

bool parse_hash(const Json& j, const char* key, Hash& out) {
  auto it = j.find(key);
  return it != j.end() && it->is_string() && base::HashChain::from_hex(it->get<std::string>(), out);
}

// The event a journal line describes; false when the line is not a record.
bool event_from_line(const std::string& line, AuditEvent& e) {
  Json j = base::parse_json(line);
  if (!j.is_object()) return false;
  try {
    if (!j.contains("seq") || !j["seq"].is_number_unsigned()) return false;
    e.seq = j["seq"];
    e.ts_ms = base::int_value(j, "ts_ms", 0);
    if (!parse_source(j.value("source", "0x0000"), e.source)) return false;
    e.actor = j.value("actor", "");
    e.action = j.value("action", "");
    e.resource = j.value("resource", "");
    e.outcome = j.value("outcome", "");
    e.tenant = j.value("tenant", "");
    const Json& m = j.contains("metadata") ? j["metadata"] : Json("{}");
    e.metadata = m.is_string() ? m.get<std::string>() : base::dump_json(m);
    return parse_hash(j, "prev_hash", e.prev_hash) && parse_hash(j, "hash", e.hash);
  } catch (const std::exception&) {
    return false;  // a member of the wrong type
  }
}

}  // namespace

AuditLog::AuditLog(std::filesystem::path journal) : journal_(journal), log_(std::move(journal)) {}

AuditLog::~AuditLog() = default;

std::string AuditLog::to_hex(const Hash& h) { return base::HashChain::hex(h); }

namespace {

// The canonical body of an event in pieces: the numbers in decimal, then the
// text fields, joined by "|" (":" between domain and subdomain).
struct Canonical {
  char seq[24], ts[24], dom[4], sub[4];
  std::size_t seq_n, ts_n, dom_n, sub_n;
  std::array<std::string_view, 6> fields;

  explicit Canonical(const AuditEvent& e)
      : fields{e.actor, e.action, e.resource, e.outcome, e.tenant, e.metadata} {
    seq_n = static_cast<std::size_t>(std::to_chars(seq, seq + sizeof seq, e.seq).ptr - seq);
    ts_n = static_cast<std::size_t>(std::to_chars(ts, ts + sizeof ts, e.ts_ms).ptr - ts);
    dom_n =
        static_cast<std::size_t>(std::to_chars(dom, dom + sizeof dom, e.source.domain).ptr - dom);
    sub_n = static_cast<std::size_t>(std::to_chars(sub, sub + sizeof sub, e.source.subdomain).ptr -
                                     sub);
  }

  std::size_t size() const {
    std::size_t n = seq_n + ts_n + dom_n + sub_n + 3 + fields.size();
    for (std::string_view f : fields) n += f.size();
    return n;
  }

  // Writes size() bytes at `out` and where each text field starts.
  void write(char* out, std::array<std::uint32_t, 6>& starts) const {
    char* p = out;
    auto put = [&p](const char* b, std::size_t n) {
      std::memcpy(p, b, n);
      p += n;
    };
    put(seq, seq_n);
    *p++ = '|';
    put(ts, ts_n);
    *p++ = '|';
    put(dom, dom_n);
    *p++ = ':';
    put(sub, sub_n);
    for (std::size_t i = 0; i < fields.size(); ++i) {
      *p++ = '|';
      starts[i] = static_cast<std::uint32_t>(p - out);
      put(fields[i].data(), fields[i].size());
    }
  }
};

}  // namespace

std::string AuditLog::canonical_body(const AuditEvent& e) {
  const Canonical c(e);
  std::string out(c.size(), '\0');
  std::array<std::uint32_t, 6> starts;
  c.write(out.data(), starts);
  return out;
}

std::string_view AuditLog::Record::field(std::size_t i) const {
  if (damaged) return {};
  // Each field but the last is followed by "|".
  const std::size_t end = i + 1 < starts.size() ? starts[i + 1] - 1 : size;
  return {body + starts[i], end - starts[i]};
}

AuditEvent AuditLog::Record::event() const {
  AuditEvent e;
  e.seq = seq;
  e.ts_ms = ts_ms;
  e.source = source;
  e.damaged = damaged;
  e.prev_hash = prev_hash;
  e.hash = hash;
  if (damaged) return e;
  e.actor = field(0);
  e.action = field(1);
  e.resource = field(2);
  e.outcome = field(3);
  e.tenant = field(4);
  e.metadata = field(5);
  return e;
}

Hash AuditLog::chain_hash_(const Hash& prev, const Record& r) const {
  return chain_.link(prev, std::string_view(r.body, r.size));
}

AuditLog::Record AuditLog::store_(const AuditEvent& e) {
  Record r;
  r.seq = e.seq;
  r.ts_ms = e.ts_ms;
  r.source = e.source;
  r.damaged = e.damaged;
  r.prev_hash = e.prev_hash;
  r.hash = e.hash;
  if (e.damaged) return r;
  const Canonical c(e);
  r.size = static_cast<std::uint32_t>(c.size());
  char* body = bodies_.allocate(r.size);
  c.write(body, r.starts);
  r.body = body;
  return r;
}

std::string AuditLog::journal_line(const AuditEvent& e) {
  std::string out;
  out.reserve(256 + e.metadata.size());
  out += "{\"seq\":";
  append_number(out, e.seq);
  out += ",\"ts_ms\":";
  append_signed(out, e.ts_ms);
  out += ",\"source\":\"" + source_text(e.source) + "\"";
  for (auto [key, value] : {std::pair{",\"actor\":", &e.actor},
                            {",\"action\":", &e.action},
                            {",\"resource\":", &e.resource},
                            {",\"outcome\":", &e.outcome},
                            {",\"tenant\":", &e.tenant},
                            {",\"metadata\":", &e.metadata}}) {
    out += key;
    text::append_json_string(out, *value);
  }
  out += ",\"prev_hash\":\"" + to_hex(e.prev_hash) + "\",\"hash\":\"" + to_hex(e.hash) + "\"}";
  return out;
}

Json AuditLog::to_json(const AuditEvent& e) {
  Json metadata = base::parse_json(e.metadata);
  if (metadata.is_discarded()) metadata = e.metadata;
  Json out = {{"seq", e.seq},
              {"ts_unix_ms", e.ts_ms},
              {"source", source_text(e.source)},
              {"actor", e.actor},
              {"action", e.action},
              {"resource", e.resource},
              {"outcome", e.outcome},
              {"tenant", e.tenant},
              {"metadata", metadata},
              {"prev_hash", to_hex(e.prev_hash)},
              {"hash", to_hex(e.hash)}};
  if (e.damaged) out["damaged"] = true;
  return out;
}

std::size_t AuditLog::replay_journal() {
  std::lock_guard lock(mu_);
  events_.clear();
  bodies_.clear();
  next_seq_ = 1;
  chain_.reset();
  std::ifstream in(journal_, std::ios::binary);
  std::string line;
  std::size_t n = 0;
  bool ends_with_newline = true;
  while (std::getline(in, line)) {
    ends_with_newline = !in.eof();
    if (line.empty()) continue;
    ++n;
    AuditEvent e;
    if (event_from_line(line, e)) {
      chain_.advance(e.hash);
    } else {
      e = AuditEvent{};
      e.seq = next_seq_;
      e.damaged = true;
    }
    next_seq_ = std::max(next_seq_, e.seq + 1);
    events_.push_back(store_(e));
  }
  in.close();
  // A line torn by a crash has no newline: the next record starts on a line
  // of its own, and the torn one stays for verify to report.
  std::string error;
  if (!ends_with_newline) log_.append("\n", false, error);
  return n;
}

AuditEvent AuditLog::append(SourceCode source, std::string actor, std::string action,
                            std::string resource, std::string outcome, std::string tenant,
                            std::string metadata) {
  AuditEvent e;
  e.source = source;
  e.actor = std::move(actor);
  e.action = std::move(action);
  e.resource = std::move(resource);
  e.outcome = std::move(outcome);
  e.tenant = std::move(tenant);
  e.metadata = metadata.empty() ? "{}" : std::move(metadata);
  std::unique_lock lock(mu_);
  e.seq = next_seq_++;
  e.ts_ms = base::unix_ms();
  e.prev_hash = chain_.head();
  Record r = store_(e);
  e.hash = chain_hash_(e.prev_hash, r);
  r.hash = e.hash;
  chain_.advance(e.hash);
  std::string line = journal_line(e);
  line += '\n';
  std::string error;
  // A failed write is not the caller's failure: the event stays in memory.
  log_.append(line, false, error);
  events_.push_back(r);
  lock.unlock();
  if (on_append_) on_append_();
  return e;
}

std::pair<std::uint64_t, std::string> AuditLog::head() const {
  std::lock_guard lock(mu_);
  return {events_.size(), to_hex(events_.empty() ? Hash{} : events_.back().hash)};
}

std::map<std::uint64_t, std::string> AuditLog::heads_after(
    const std::vector<std::uint64_t>& counts) const {
  std::lock_guard lock(mu_);
  std::map<std::uint64_t, std::string> out;
  for (std::uint64_t n : counts) {
    if (n > events_.size()) continue;
    out[n] = to_hex(n == 0 ? Hash{} : events_[n - 1].hash);
  }
  return out;
}

AuditLog::Verification AuditLog::verify() const {
  std::lock_guard lock(mu_);
  Verification v;
  v.total = events_.size();
  Hash expected{};
  for (const Record& e : events_) {
    if (e.damaged || e.prev_hash != expected || chain_hash_(expected, e) != e.hash) {
      v.ok = false;
      v.first_bad_seq = e.seq;
      return v;
    }
    expected = e.hash;
    ++v.checked;
  }
  return v;
}

std::vector<AuditEvent> AuditLog::query(const Filter& f, std::size_t& total) const {
  std::lock_guard lock(mu_);
  total = events_.size();
  std::vector<AuditEvent> out;
  // Newest first while collecting, so the limit keeps the newest.
  for (auto it = events_.rbegin(); it != events_.rend() && out.size() < f.limit; ++it) {
    const Record& e = *it;
    if (f.actor && e.field(0) != *f.actor) continue;
    if (f.action && e.field(1) != *f.action) continue;
    if (f.tenant && e.field(4) != *f.tenant) continue;
    if (f.since_ms && e.ts_ms < f.since_ms) continue;
    if (f.until_ms && e.ts_ms > f.until_ms) continue;
    out.push_back(e.event());
  }
  std::reverse(out.begin(), out.end());
  return out;
}

std::size_t AuditLog::size() const {
  std::lock_guard lock(mu_);
  return events_.size();
}

}  // namespace ostrel::identity
