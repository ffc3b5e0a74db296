#pragma once

#include <nlohmann/json_fwd.hpp>
#include <set>
#include <string>

// The cross-node source header "X-Ostrel-Source": who a request comes from
// (EIS id, node, module, domain, tenant), and the policy by which the gateway
// admits callers that are not on loopback.
namespace ostrel::source_header {

// What the admission policy decided for one request.
struct SourceDecision {
  std::string action = "allowed";  // "allowed", "loopback", "denied_shape", …
  bool eis_known = false;
  std::string eis_id;
  std::string module;
  std::string domain;
  int status = 0;    // non-zero: refuse with this status …
  std::string body;  // … and this JSON body
};

struct ParsedSource {
  bool ok = false;
  std::string eis;
  std::string node;
  std::string module;
  std::string domain;
  std::string tenant;
};

enum class PolicyMode { advisory = 0, enforce = 1 };

struct Policy {
  PolicyMode mode = PolicyMode::advisory;
  std::set<std::string> allowed_eis_ids;
  std::set<std::string> allowed_domains;
  std::set<std::string> allowed_modules;
  bool deny_unknown_eis = false;

  nlohmann::json toJson() const;
  static Policy fromJson(const nlohmann::json& j);
};

// "eis=<id>;node=<node>[;module=…][;domain=…][;tenant=…]".
std::string make_header(const std::string& module, const std::string& tenant,
                        const std::string& domain);
ParsedSource parse(const std::string& header);

// The node's persistent EIS id (32 hex digits in "<config dir>/eis_id",
// created on first use) and its node id (OSTREL_NODE_ID, else the host name).
// Each is computed once per process.
std::string current_eis_id();
std::string current_node_id();

// The process policy, loaded once from "<config dir>/eis_policy.json"
// (defaults when missing or unreadable). Thread-safe.
Policy current_policy();
void set_policy(Policy policy);

// The gateway's admission verdict for one request.
SourceDecision admit(const std::string& client_addr, const std::string& header);

}  // namespace ostrel::source_header
