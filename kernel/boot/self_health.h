#pragma once

#include <cstdint>
#include <string>

namespace ostrel::kernel {

// The address the node probes itself on: loopback for a wildcard bind.
std::string probe_host_for(const std::string& bind);

// One GET /health over a fresh connection; true on a 200 answer within the
// timeout.
bool probe_health(const std::string& host, std::uint16_t port, int timeout_ms);

}  // namespace ostrel::kernel
