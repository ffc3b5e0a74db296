#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string_view>

#include "kernel/types.h"

namespace ostrel::kernel {

// Who may run a syscall or publish an event from outside, through the
// kernel's generic routes (POST /api/v1/kernel/syscall and
// /api/v1/kernel/events/publish). Modules calling each other in process are
// not checked: the syscall table itself keeps no policy.
//
// One table decides for every syscall name (syscall_access.cpp), with the
// same rules as the routes the syscalls mirror:
//   admin  — an "admin.*" or "kernel.*" scope (the default for any name the
//            table does not list);
//   scoped — the named scope ("inference.chat");
//   tenant — the caller's own tenant only: a tenant-bound caller's "tenant"
//            argument is filled in or must match;
//   open   — any caller the gateway admitted.
enum class SyscallAccess { admin, scoped, tenant, scoped_tenant, open };

struct SyscallRule {
  std::string_view pattern;  // exact name, or a prefix ending in '*'
  SyscallAccess access;
  std::string_view scope;  // for scoped and scoped_tenant
};

// The rule for `name`: the exact entry, else the longest matching prefix,
// else the admin default.
SyscallRule syscall_rule(std::string_view name);

// True when the caller may run `name` with `args` (which may be rewritten to
// carry the caller's tenant); otherwise answers 403 and returns false.
bool authorize_syscall(const Request& req, std::string_view name, nlohmann::json& args,
                       Response& res);

// True when the caller may publish `topic`: administrators any topic, holders
// of the "events.publish" scope any topic outside the node's own namespaces
// ("module.", "kernel.", "cluster.", …). Otherwise answers 403.
bool authorize_publish(const Request& req, std::string_view topic, Response& res);

}  // namespace ostrel::kernel
