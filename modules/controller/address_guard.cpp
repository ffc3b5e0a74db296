#include "modules/controller/address_guard.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cctype>
#include <cstring>

namespace ostrel::controller {

bool inside_address(const sockaddr* sa) {
  if (sa->sa_family == AF_INET) {
    const auto* in = reinterpret_cast<const sockaddr_in*>(sa);
    const std::uint32_t a = ntohl(in->sin_addr.s_addr);
    return (a >> 24) == 10 || (a >> 24) == 127 || (a >> 24) == 0 || (a >> 16) == 0xA9FE ||
           (a >> 20) == 0xAC1 || (a >> 16) == 0xC0A8 || (a >> 22) == (100u << 2 | 1) ||
           (a >> 28) >= 14;
  }
  if (sa->sa_family == AF_INET6) {
    const auto* in6 = reinterpret_cast<const sockaddr_in6*>(sa);
    const unsigned char* b = in6->sin6_addr.s6_addr;
    if (IN6_IS_ADDR_LOOPBACK(&in6->sin6_addr) || IN6_IS_ADDR_UNSPECIFIED(&in6->sin6_addr) ||
        IN6_IS_ADDR_LINKLOCAL(&in6->sin6_addr) || (b[0] & 0xfe) == 0xfc) {
      return true;
    }
    if (IN6_IS_ADDR_V4MAPPED(&in6->sin6_addr)) {
      sockaddr_in v4{};
      v4.sin_family = AF_INET;
      std::memcpy(&v4.sin_addr, b + 12, 4);
      return inside_address(reinterpret_cast<const sockaddr*>(&v4));
    }
  }
  return false;
}

std::string url_authority(const std::string& url) {
  const auto scheme = url.find("://");
  if (scheme == std::string::npos) return "";
  std::size_t start = scheme + 3;
  std::size_t end = url.find_first_of("/?#", start);
  std::string authority = url.substr(start, end == std::string::npos ? end : end - start);
  if (const auto at = authority.rfind('@'); at != std::string::npos) {
    authority = authority.substr(at + 1);  // user information is no part of the host
  }
  for (char& c : authority) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return authority;
}

void AddressGuard::configure(bool allow_all, std::vector<std::string> hosts) {
  allow_all_ = allow_all;
  hosts_.clear();
  for (auto& h : hosts) {
    for (char& c : h) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    if (!h.empty()) hosts_.push_back(std::move(h));
  }
}

bool AddressGuard::named(const std::string& url) const {
  if (allow_all_) return true;
  const std::string authority = url_authority(url);
  if (authority.empty()) return false;
  const auto colon = authority.rfind(':');
  const bool bracketed = !authority.empty() && authority.back() == ']';
  const std::string host =
      colon == std::string::npos || bracketed ? authority : authority.substr(0, colon);
  return std::any_of(hosts_.begin(), hosts_.end(),
                     [&](const std::string& h) { return h == authority || h == host; });
}

base::ConnectCheck AddressGuard::check_for(const std::string& url) const {
  if (named(url)) return {};
  return [](const sockaddr* address) { return !inside_address(address); };
}

}  // namespace ostrel::controller
