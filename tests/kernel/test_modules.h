#pragma once

#include <string>
#include <vector>

// Modules compiled only into the tests: "alpha", "beta" and "gamma" (lab
// domain, subdomains 0x11, 0x12, 0x13). They record every contract call in a
// process-wide log so that tests can check the order the kernel imposes.
namespace ostrel::testing {

std::vector<std::string> contract_log();
void clear_contract_log();

}  // namespace ostrel::testing
