#include "identity/chain_checkpoints.h"

#include <nlohmann/json.hpp>

#include "base/clock.h"
#include "base/encoding.h"
#include "base/journal.h"
#include "base/json.h"

namespace ostrel::identity {

using Json = nlohmann::json;

ChainCheckpoints::ChainCheckpoints(std::filesystem::path file, std::string chain,
                                   std::string public_key, Signer sign)
    : file_(std::move(file)),
      chain_(std::move(chain)),
      public_key_(std::move(public_key)),
      sign_(std::move(sign)) {}

std::string ChainCheckpoints::message(std::string_view chain, std::uint64_t count,
                                      std::string_view head, std::int64_t ts_ms) {
  // A prefix of its own, so that no other signed message of the node reads
  // as a checkpoint, nor a checkpoint as one of them.
  std::string m = "ostrel-audit-checkpoint-1|";
  m += chain;
  m += '|';
  m += std::to_string(count);
  m += '|';
  m += head;
  m += '|';
  m += std::to_string(ts_ms);
  return m;
}

std::size_t ChainCheckpoints::load() {
  std::lock_guard lock(mu_);
  checkpoints_.clear();
  forged_ = 0;
  first_forged_line_ = 0;
  std::error_code ec;
  existed_ = std::filesystem::exists(file_, ec);
  std::size_t line = 0;
  base::replay_journal(file_, [&](const Json& j) {
    ++line;
    if (!j.is_object() || base::string_field(j, "chain") != chain_ || !j.contains("count") ||
        !j["count"].is_number_unsigned() || !j.contains("ts_ms") ||
        !j["ts_ms"].is_number_integer()) {
      return false;
    }
    Checkpoint c{j["count"].get<std::uint64_t>(), base::string_field(j, "head"),
                 j["ts_ms"].get<std::int64_t>()};
    std::string key, sig;
    const bool signed_here =
        base::from_hex(base::string_field(j, "key"), key) && key == public_key_ &&
        base::base64url_decode(base::string_field(j, "sig"), sig) &&
        base::ed25519_verify(public_key_, message(chain_, c.count, c.head, c.ts_ms), sig);
    if (!signed_here) {
      if (forged_++ == 0) first_forged_line_ = line;
      return false;
    }
    checkpoints_.push_back(std::move(c));
    return true;
  });
  return checkpoints_.size();
}

bool ChainCheckpoints::existed() const {
  std::lock_guard lock(mu_);
  return existed_;
}

bool ChainCheckpoints::record(std::uint64_t count, const std::string& head, std::string& error) {
  const std::int64_t ts = base::unix_ms();
  {
    std::lock_guard lock(mu_);
    if (!checkpoints_.empty() && checkpoints_.back().count == count &&
        checkpoints_.back().head == head) {
      return true;  // nothing new to sign
    }
  }
  const std::string sig = sign_ ? sign_(message(chain_, count, head, ts)) : std::string();
  if (sig.size() != 64) {
    error = "the checkpoint could not be signed";
    return false;
  }
  const Json line = {{"chain", chain_},
                     {"count", count},
                     {"head", head},
                     {"ts_ms", ts},
                     {"key", base::to_hex(public_key_)},
                     {"sig", base::base64url_encode(sig)}};
  std::lock_guard lock(mu_);
  if (!base::append_journal_line(file_, line.dump(), error)) return false;
  checkpoints_.push_back({count, head, ts});
  return true;
}

std::map<std::uint64_t, std::string> ChainCheckpoints::signed_heads() const {
  std::lock_guard lock(mu_);
  std::map<std::uint64_t, std::string> out;
  for (const auto& c : checkpoints_) out[c.count] = c.head;
  return out;
}

ChainCheckpoints::Verdict ChainCheckpoints::judge(
    std::uint64_t count, const std::map<std::uint64_t, std::string>& heads) const {
  std::lock_guard lock(mu_);
  Verdict v;
  v.checkpoints = checkpoints_.size();
  if (forged_ > 0) {
    v.ok = false;
    v.problem = "checkpoint line " + std::to_string(first_forged_line_) +
                " is not signed by this node's key";
  }
  std::uint64_t newest = 0;
  for (const auto& c : checkpoints_) {
    newest = std::max(newest, c.count);
    if (!v.ok) continue;
    if (c.count > count) {
      v.ok = false;
      v.first_bad = c.count;
      v.problem = "the log holds " + std::to_string(count) + " records, fewer than the " +
                  std::to_string(c.count) + " a signed checkpoint counted: records were removed";
      continue;
    }
    auto it = heads.find(c.count);
    if (it == heads.end() || it->second != c.head) {
      v.ok = false;
      v.first_bad = c.count;
      v.problem = "the head after record " + std::to_string(c.count) +
                  " is not the one the checkpoint signed: records were rewritten";
    }
  }
  v.signed_records = std::min(newest, count);
  v.unsigned_records = count > newest ? count - newest : 0;
  return v;
}

Json ChainCheckpoints::to_json(const Verdict& v) {
  Json out = {{"ok", v.ok},
              {"count", v.checkpoints},
              {"signed_records", v.signed_records},
              {"unsigned_records", v.unsigned_records}};
  if (!v.ok) {
    out["problem"] = v.problem;
    if (v.first_bad) out["first_bad_count"] = v.first_bad;
  }
  return out;
}

}  // namespace ostrel::identity
