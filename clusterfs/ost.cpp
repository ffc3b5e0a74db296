#include "clusterfs/ost.h"

namespace ostrel::clusterfs {

bool LocalOst::put(const std::string& chunk_id, const std::string& bytes, std::string& error) {
  std::string stored;
  if (!store_->put(bytes.data(), bytes.size(), stored, error)) return false;
  if (!chunk_id.empty() && stored != chunk_id) {
    error = "chunk id mismatch: content hashes to " + stored;
    return false;
  }
  return true;
}

}  // namespace ostrel::clusterfs
