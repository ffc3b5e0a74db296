#include "identity/identity_registry.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <unordered_map>

namespace ostrel::identity {

std::string SourceCode::hex() const {
  char buf[8];
  std::snprintf(buf, sizeof buf, "0x%02x%02x", domain, subdomain);
  return buf;
}

}  // namespace ostrel::identity

namespace ostrel::identity_registry {
namespace {

struct DomainRow {
  std::uint8_t byte;
  const char* name;
};

constexpr DomainRow kDomains[] = {
    {1, "science"},
    {2, "media"},
    {3, "comm"},
    {4, "data"},
    {5, "inference"},
    {6, "agent"},
    {7, "training"},
    {8, "iot"},
    {9, "router"},
    {10, "controller"},
    {11, "edge"},
    {12, "dream"},
    {13, "nova"},
    {14, "kernel"},
    {16, "robot"},
    {17, "vehicle"},
    {18, "drone"},
    {19, "aerospace"},
    {20, "printer3d"},
    {21, "home"},
    {22, "medical"},
    {23, "energy"},
    {24, "sensor"},
    {25, "actuator"},
    {26, "wearable"},
    {27, "display"},
    {28, "audio"},
    {29, "security"},
    {30, "farm"},
    {31, "transport"},
    {32, "infrastructure"},
    {33, "sci-device"},
    {34, "warehouse"},
    {35, "mining"},
    {36, "marine"},
    {37, "lab"},
    {38, "power"},
    {39, "finance"},
    {40, "telecom"},
    {41, "network"},
    {42, "mobile"},
    {43, "multimedia"},
    {44, "camera"},
    {45, "engine"},
    {46, "weather"},
    {47, "waste"},
    {48, "water"},
    {49, "building"},
    {50, "compute"},
    {51, "carsys"},
    {52, "radio"},
    {53, "pipeline"},
    {54, "oilgas"},
    {55, "navigation"},
    {254, "user"},
    {255, "system"},
};

constexpr std::uint8_t kExtFirst = 0x80;
constexpr std::uint8_t kExtSecond = 0xC0;
constexpr std::uint8_t kExtLast = 0xDF;

struct Tables {
  std::mutex mu;  // guards every member below
  bool seeded = false;
  std::unordered_map<std::uint8_t, std::string> domain_names;
  std::unordered_map<std::string, std::uint8_t> domain_bytes;
  std::unordered_map<std::uint16_t, std::string> paths;
  std::unordered_map<std::uint8_t, std::unordered_map<std::string, std::uint8_t>> names;
  // Allocation bitmaps of the extension range: [0] covers 0x80..0xBF, [1] 0xC0..0xDF.
  std::unordered_map<std::uint8_t, std::array<std::uint64_t, 2>> bitmaps;
};

Tables& tables() {
  static Tables t;
  return t;
}

void seed_domains_locked(Tables& t) {
  if (t.seeded) return;
  for (const auto& row : kDomains) {
    t.domain_names[row.byte] = row.name;
    t.domain_bytes[row.name] = row.byte;
  }
  t.seeded = true;
}

bool valid_name(const std::string& name) {
  if (name.empty() || name.size() > 64) return false;
  if (name[0] < 'a' || name[0] > 'z') return false;
  for (char c : name) {
    bool ok = (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == '_';
    if (!ok) return false;
  }
  return true;
}

std::uint16_t key(std::uint8_t domain, std::uint8_t sub) {
  return static_cast<std::uint16_t>((domain << 8) | sub);
}

void mark_allocated_locked(Tables& t, std::uint8_t domain, std::uint8_t sub) {
  if (sub < kExtFirst || sub > kExtLast) return;
  auto& words = t.bitmaps[domain];
  words[sub < kExtSecond ? 0 : 1] |= std::uint64_t{1} << (sub & 63);
}

SubdomainResult register_subdomain_locked(Tables& t, std::uint8_t domain, std::uint8_t sub,
                                          const std::string& name) {
  if (sub == 0x00 || sub == 0xFF) {
    return {false, "subdomain must be in [0x01, 0xFE] (0x00 and 0xFF reserved)"};
  }
  if (!t.domain_names.count(domain)) {
    return {false, "unknown domain byte (must be one of the canonical 32)"};
  }
  if (!valid_name(name)) {
    return {false,
            "name must be non-empty lowercase ASCII (letters/digits/dashes/underscores), "
            "starting with a letter, \xe2\x89\xa4"
            "64 chars"};
  }
  auto existing = t.paths.find(key(domain, sub));
  if (existing != t.paths.end()) {
    if (existing->second == name) return {true, ""};
    return {false, "subdomain already registered with a different name: " + existing->second};
  }
  auto& by_name = t.names[domain];
  if (by_name.count(name)) {
    return {false, "name already registered in this domain for a different subdomain"};
  }
  t.paths[key(domain, sub)] = name;
  by_name[name] = sub;
  mark_allocated_locked(t, domain, sub);
  return {true, ""};
}

std::string path_name_locked(Tables& t, std::uint8_t domain, std::uint8_t sub) {
  char buf[16];
  auto d = t.domain_names.find(domain);
  if (d == t.domain_names.end()) {
    std::snprintf(buf, sizeof buf, "0x%02x%02x", domain, sub);
    return buf;
  }
  auto p = t.paths.find(key(domain, sub));
  if (p != t.paths.end()) return d->second + "/" + p->second;
  std::snprintf(buf, sizeof buf, "0x%02x", sub);
  return d->second + "/" + buf;
}

// Accepts "6", "0x06" and "006"; false for anything that is not one byte.
bool parse_byte(const std::string& text, std::uint8_t& out) {
  if (text.empty()) return false;
  char* end = nullptr;
  unsigned long v = std::strtoul(text.c_str(), &end, 0);
  if (end == text.c_str() || *end != '\0' || v > 0xFF || text[0] == '-') return false;
  out = static_cast<std::uint8_t>(v);
  return true;
}

}  // namespace

SubdomainResult register_subdomain(std::uint8_t domain, std::uint8_t sub, const std::string& name) {
  Tables& t = tables();
  std::lock_guard lock(t.mu);
  seed_domains_locked(t);
  return register_subdomain_locked(t, domain, sub, name);
}

std::string path_name(std::uint8_t domain, std::uint8_t sub) {
  Tables& t = tables();
  std::lock_guard lock(t.mu);
  seed_domains_locked(t);
  return path_name_locked(t, domain, sub);
}

bool domain_byte(const std::string& name, std::uint8_t& out) {
  Tables& t = tables();
  std::lock_guard lock(t.mu);
  seed_domains_locked(t);
  auto it = t.domain_bytes.find(name);
  if (it == t.domain_bytes.end()) return false;
  out = it->second;
  return true;
}

IdentityResult register_source_code(const SourceCodeDecl& decl) {
  IdentityResult r;
  if (decl.domain.empty()) {
    r.status = IdentityStatus::warning;
    r.message = "module '" + decl.module + "' did not declare source_code.domain";
    return r;
  }

  Tables& t = tables();
  std::unique_lock lock(t.mu);
  seed_domains_locked(t);
  auto d = t.domain_bytes.find(decl.domain);
  if (d == t.domain_bytes.end()) {
    r.status = IdentityStatus::error;
    r.message = "unknown domain '" + decl.domain + "' (not in canonical 32)";
    return r;
  }
  r.domain = d->second;

  if (!decl.subdomain.empty()) {
    std::uint8_t sub = 0;
    if (!parse_byte(decl.subdomain, sub)) {
      r.status = IdentityStatus::error;
      r.message =
          "subdomain registration failed: subdomain '" + decl.subdomain + "' is not a byte value";
      return r;
    }
    const std::string& name = decl.subdomain_name.empty() ? decl.module : decl.subdomain_name;
    SubdomainResult sr = register_subdomain_locked(t, r.domain, sub, name);
    if (!sr.ok) {
      r.status = IdentityStatus::error;
      r.message = "subdomain registration failed: " + sr.error;
      return r;
    }
    r.subdomain = sub;
    std::string path = path_name_locked(t, r.domain, sub);
    r.info_line = "registered " + decl.module + " as " + path;
    return r;
  }

  if (decl.subdomain_name.empty()) {
    r.status = IdentityStatus::warning;
    r.message = "module '" + decl.module +
                "' pinned neither subdomain byte nor subdomain_name — no identity";
    return r;
  }

  // Auto-allocation from the extension range.
  auto fail = [&] {
    r.status = IdentityStatus::error;
    r.message = "auto-allocation failed in extension range (exhausted or name taken)";
    return r;
  };
  if (!valid_name(decl.subdomain_name) || t.names[r.domain].count(decl.subdomain_name)) {
    return fail();
  }
  auto& words = t.bitmaps[r.domain];
  int sub = -1;
  for (int bit = 0; bit < 64 && sub < 0; ++bit) {
    if (!(words[0] & (std::uint64_t{1} << bit))) sub = kExtFirst + bit;
  }
  for (int bit = 0; bit < 32 && sub < 0; ++bit) {
    if (!(words[1] & (std::uint64_t{1} << bit))) sub = kExtSecond + bit;
  }
  if (sub < 0) return fail();
  SubdomainResult sr =
      register_subdomain_locked(t, r.domain, static_cast<std::uint8_t>(sub), decl.subdomain_name);
  if (!sr.ok) return fail();
  lock.unlock();
  char hex[4];
  std::snprintf(hex, sizeof hex, "%02x", sub);
  r.warn_line = "module '" + decl.module + "' pinned no subdomain byte — auto-allocated 0x" + hex;
  r.status = IdentityStatus::warning;
  r.message = "auto-allocated extension-range byte (prefer pinning in manifest)";
  r.subdomain = static_cast<std::uint8_t>(sub);
  return r;
}

}  // namespace ostrel::identity_registry
