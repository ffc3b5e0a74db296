#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <mutex>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>
#include <vector>

namespace ostrel::identity {

// Signed checkpoints of a hash-chained log, kept in a file of their own beside
// it: "this chain held `count` records, the last one hashing to `head`", signed
// with the node's identity key. A chain alone shows edits between its links;
// it cannot show that its tail was cut off, or that it was rewritten and its
// hashes recomputed. Against a checkpoint both show: a log shorter than a
// checkpoint's count, or a head after `count` records that is not the one the
// checkpoint signed.
//
// One line per checkpoint: {"chain", "count", "head", "ts_ms", "key", "sig"},
// "sig" the base64url Ed25519 signature of message() and "key" the signer's
// public key in hex. The file is appended to (one write per line), never
// rewritten; a line torn by a crash is ignored.
//
// Thread-safe: mu_ guards the loaded checkpoints and appends to the file.
class ChainCheckpoints {
 public:
  // Signs a checkpoint message; "" when signing failed.
  using Signer = std::function<std::string(std::string_view message)>;

  // `public_key`: the 32 raw bytes that verify `sign`'s signatures.
  ChainCheckpoints(std::filesystem::path file, std::string chain, std::string public_key,
                   Signer sign);

  // The bytes a checkpoint's signature covers.
  static std::string message(std::string_view chain, std::uint64_t count, std::string_view head,
                             std::int64_t ts_ms);

  // Reads the file (absent is no checkpoint yet); returns the number of
  // checkpoints read. Lines whose signature does not verify are kept aside
  // and reported by judge().
  std::size_t load();
  // True when the file existed at load().
  bool existed() const;

  // Signs and appends a checkpoint unless the newest one already says the
  // same; false with the reason when it could not be signed or written.
  bool record(std::uint64_t count, const std::string& head, std::string& error);

  // The head each checkpoint signed, by record count.
  std::map<std::uint64_t, std::string> signed_heads() const;

  struct Verdict {
    bool ok = true;
    std::string problem;          // what is wrong, when !ok
    std::uint64_t first_bad = 0;  // the record count of the first checkpoint the log fails
    std::size_t checkpoints = 0;
    std::uint64_t signed_records = 0;    // records covered by the newest checkpoint
    std::uint64_t unsigned_records = 0;  // records after it, which no checkpoint signs yet
  };
  // The log as it stands (`count` records, and its actual head after each
  // count of signed_heads() that it reaches) against the checkpoints.
  Verdict judge(std::uint64_t count, const std::map<std::uint64_t, std::string>& heads) const;

  // The verdict as the verify routes answer it ("checkpoints": {…}).
  static nlohmann::json to_json(const Verdict& v);

  const std::filesystem::path& file() const { return file_; }

 private:
  struct Checkpoint {
    std::uint64_t count = 0;
    std::string head;
    std::int64_t ts_ms = 0;
  };

  const std::filesystem::path file_;
  const std::string chain_;
  const std::string public_key_;
  const Signer sign_;

  mutable std::mutex mu_;  // guards everything below and appends to file_
  std::vector<Checkpoint> checkpoints_;  // in file order
  std::size_t forged_ = 0;               // lines whose signature did not verify
  std::size_t first_forged_line_ = 0;
  bool existed_ = false;
};

}  // namespace ostrel::identity
