#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string_view>

#include "kernel/syscall_table.h"
#include "kernel/types.h"

namespace ostrel::kernel {

// Whether a caller from outside may run a syscall or publish an event,
// through the kernel's generic routes (POST /api/v1/kernel/syscall and
// /api/v1/kernel/events/publish) or as a tool. Each syscall's rule is the one
// its module declared when registering it (SyscallAccess); modules calling
// each other in process are not checked.

// True when the caller may run `name` with `args` (which may be rewritten to
// carry the caller's tenant); otherwise answers 403 and returns false.
bool authorize_syscall(const SyscallTable& table, const Request& req, std::string_view name,
                       nlohmann::json& args, Response& res);

// True when the caller may publish `topic`: administrators any topic, holders
// of the "events.publish" scope any topic outside the node's own namespaces
// ("module.", "kernel.", "cluster.", …). Otherwise answers 403.
bool authorize_publish(const Request& req, std::string_view topic, Response& res);

}  // namespace ostrel::kernel
