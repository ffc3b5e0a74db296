#include "kernel/http/route_table.h"

#include <algorithm>
#include <mutex>

namespace ostrel::kernel {

std::size_t RouteTable::KeyHash::hash(std::string_view m, std::string_view p) {
  std::hash<std::string_view> h;
  return h(m) * 31 + h(p);
}

bool RouteTable::Wildcard::matches(std::string_view path) const {
  if (path.size() < prefix.size() + suffix.size()) return false;
  if (path.substr(0, prefix.size()) != prefix) return false;
  if (!is_mid()) return true;
  if (path.size() < prefix.size() + suffix.size() + 1) return false;
  if (path.substr(path.size() - suffix.size()) != suffix) return false;
  std::string_view middle = path.substr(prefix.size(), path.size() - prefix.size() - suffix.size());
  return middle.find('/') == std::string_view::npos;
}

bool RouteTable::add(const std::string& method, const std::string& pattern, RouteHandler handler,
                     RouteOptions options) {
  size_t stars = std::count(pattern.begin(), pattern.end(), '*');
  size_t star = pattern.find('*');
  std::unique_lock lock(mu_);
  if (stars == 1 && star == pattern.size() - 1) {
    for (const auto& w : prefixes_) {
      if (w.method == method && w.pattern == pattern) return false;
    }
    prefixes_.push_back(
        {method, pattern.substr(0, star), "", pattern, std::move(handler), options});
  } else if (stars == 1 && star > 0) {
    for (const auto& w : mids_) {
      if (w.method == method && w.pattern == pattern) return false;
    }
    mids_.push_back({method, pattern.substr(0, star), pattern.substr(star + 1), pattern,
                     std::move(handler), options});
  } else {
    // No "*", a leading lone "*", or several: matched literally.
    if (!exact_.try_emplace(Key{method, pattern}, Exact{pattern, std::move(handler), options}).second) {
      return false;
    }
  }
  info_.push_back({method, pattern});
  return true;
}

RouteTable::Match RouteTable::find_locked_(std::string_view method, std::string_view path) const {
  auto it = exact_.find(KeyView{method, path});
  if (it != exact_.end()) return {&it->second.handler, &it->second.pattern, &it->second.options};

  const Wildcard* best = nullptr;
  size_t best_len = 0;
  auto consider = [&](const Wildcard& w) {
    if (w.method != method || !w.matches(path)) return;
    size_t len = w.prefix.size() + w.suffix.size();
    if (!best || len > best_len) {
      best = &w;
      best_len = len;
    }
  };
  for (const auto& w : mids_) consider(w);
  for (const auto& w : prefixes_) consider(w);
  if (!best) return {};
  return {&best->handler, &best->pattern, &best->options};
}

RouteTable::Match RouteTable::find(std::string_view method, std::string_view path) const {
  std::shared_lock lock(mu_);
  return find_locked_(method, path);
}

std::vector<std::string> RouteTable::methods_matching(std::string_view path) const {
  static const char* kMethods[] = {"GET", "POST", "PUT", "DELETE", "PATCH", "OPTIONS"};
  std::vector<std::string> out;
  std::shared_lock lock(mu_);
  for (const char* m : kMethods) {
    if (find_locked_(m, path)) out.emplace_back(m);
  }
  return out;
}

std::vector<RouteInfo> RouteTable::routes() const {
  std::shared_lock lock(mu_);
  return info_;
}

}  // namespace ostrel::kernel
