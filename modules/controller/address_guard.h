#pragma once

#include <string>
#include <vector>

#include "base/http_client.h"

// Where the controller's outbound calls (web pages, webhook deliveries) may
// connect: public addresses always; private, loopback, link-local (the cloud
// metadata service at 169.254.169.254 among them) and other inside addresses
// only when allowed — all of them, or the calls to hosts named in a list.
// The check runs at every connect of a transfer, so a public name that
// resolves to an inside address is refused too.
namespace ostrel::controller {

// True for an address a caller outside the node must not make it reach.
bool inside_address(const sockaddr* address);

class AddressGuard {
 public:
  // `allow_all`: no address is refused. `hosts`: host names or literals
  // ("127.0.0.1", "hooks.internal", "10.0.0.5:9000") whose calls may reach
  // inside addresses.
  void configure(bool allow_all, std::vector<std::string> hosts);
  // Whether calls to `url` may reach inside addresses (its host is named).
  bool named(const std::string& url) const;

  // The check of every connect a transfer to `url` makes (for
  // HttpRequest::check_connect; HttpReply::blocked tells a refusal).
  base::ConnectCheck check_for(const std::string& url) const;

 private:
  bool allow_all_ = false;
  std::vector<std::string> hosts_;  // lower case
};

// "host" or "host:port" of an http(s) URL, lower case; "" when it has none.
std::string url_authority(const std::string& url);

}  // namespace ostrel::controller
