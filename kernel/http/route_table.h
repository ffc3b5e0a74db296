#pragma once

#include <deque>
#include <functional>
#include <shared_mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "kernel/types.h"

namespace ostrel::kernel {

using RouteHandler = std::function<void(const Request&, Response&)>;

struct RouteInfo {
  std::string method;
  std::string path;  // the pattern as registered
};

// The gateway's route table. Patterns: no "*" is an exact route; a single
// trailing "*" a prefix route; a single inner "*" a mid-wildcard route standing
// for exactly one non-empty path segment; more than one "*" is exact (literal).
// Lookup: exact first, else the wildcard route with the longest literal text
// (mid-wildcards considered before prefixes, each in registration order; ties
// keep the first considered). Routes are never removed, so the handler and
// pattern pointers a lookup returns stay valid for the table's life.
// Thread-safe: mu_ guards all tables; lookups share it.
class RouteTable {
 public:
  struct Match {
    const RouteHandler* handler = nullptr;
    const std::string* pattern = nullptr;
    const RouteOptions* options = nullptr;
    explicit operator bool() const { return handler != nullptr; }
  };

  // False (first handler kept) when the method and pattern are taken.
  bool add(const std::string& method, const std::string& pattern, RouteHandler handler,
           RouteOptions options = {});
  Match find(std::string_view method, std::string_view path) const;
  // Methods under which some route matches `path` (for 405 answers).
  std::vector<std::string> methods_matching(std::string_view path) const;
  std::vector<RouteInfo> routes() const;

 private:
  struct Key {
    std::string method;
    std::string path;
  };
  struct KeyView {
    std::string_view method;
    std::string_view path;
  };
  struct KeyHash {
    using is_transparent = void;
    std::size_t operator()(const Key& k) const { return hash(k.method, k.path); }
    std::size_t operator()(const KeyView& k) const { return hash(k.method, k.path); }
    static std::size_t hash(std::string_view m, std::string_view p);
  };
  struct KeyEqual {
    using is_transparent = void;
    template <typename A, typename B>
    bool operator()(const A& a, const B& b) const {
      return std::string_view(a.method) == std::string_view(b.method) &&
             std::string_view(a.path) == std::string_view(b.path);
    }
  };
  struct Exact {
    std::string pattern;
    RouteHandler handler;
    RouteOptions options;
  };
  struct Wildcard {
    std::string method;
    std::string prefix;
    std::string suffix;  // empty for prefix routes
    std::string pattern;
    RouteHandler handler;
    RouteOptions options;
    bool matches(std::string_view path) const;
    bool is_mid() const { return !suffix.empty(); }
  };

  Match find_locked_(std::string_view method, std::string_view path) const;

  mutable std::shared_mutex mu_;  // guards exact_, mids_, prefixes_ and info_
  std::unordered_map<Key, Exact, KeyHash, KeyEqual> exact_;
  std::deque<Wildcard> mids_;  // deque: element addresses never move
  std::deque<Wildcard> prefixes_;
  std::vector<RouteInfo> info_;
};

}  // namespace ostrel::kernel
