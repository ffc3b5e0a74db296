#include "kernel/routes/auth_cache.h"

#include <mutex>

namespace ostrel::kernel {

std::optional<AuthCache::Entry> AuthCache::find(const std::string& credential) const {
  std::shared_lock lock(mu_);
  auto it = entries_.find(credential);
  if (it == entries_.end()) return std::nullopt;
  return it->second;
}

void AuthCache::put(const std::string& credential, Entry entry) {
  std::unique_lock lock(mu_);
  if (entries_.size() >= capacity_) entries_.clear();
  entries_[credential] = std::move(entry);
}

void AuthCache::erase(const std::string& credential) {
  std::unique_lock lock(mu_);
  entries_.erase(credential);
}

void AuthCache::clear() {
  std::unique_lock lock(mu_);
  entries_.clear();
}

}  // namespace ostrel::kernel
