#include "kernel/syscall_table.h"

#include <algorithm>
#include <mutex>

#include "base/reply.h"

namespace ostrel::kernel {

bool SyscallTable::register_syscall(identity::SourceCode owner, std::string name,
                                    SyscallHandler handler, SyscallAccess access) {
  std::unique_lock lock(mu_);
  return registrations_
      .try_emplace(std::move(name), Registration{owner, std::move(handler), std::move(access)})
      .second;
}

bool SyscallTable::register_streaming_syscall(identity::SourceCode owner, std::string name,
                                              StreamingSyscallHandler handler,
                                              SyscallAccess access) {
  std::unique_lock lock(mu_);
  return stream_registrations_
      .try_emplace(std::move(name),
                   StreamRegistration{owner, std::move(handler), std::move(access)})
      .second;
}

SyscallAccess SyscallTable::access(std::string_view name) const {
  std::shared_lock lock(mu_);
  if (auto it = registrations_.find(name); it != registrations_.end()) return it->second.access;
  if (auto it = stream_registrations_.find(name); it != stream_registrations_.end()) {
    return it->second.access;
  }
  return SyscallAccess::admin();
}

namespace {
// The caller of the syscall running on this thread (nested calls restore the
// outer caller when they return).
thread_local identity::SourceCode tl_caller{};

struct CallerScope {
  identity::SourceCode saved;
  explicit CallerScope(identity::SourceCode caller) : saved(tl_caller) { tl_caller = caller; }
  ~CallerScope() { tl_caller = saved; }
};
}  // namespace

identity::SourceCode SyscallTable::current_caller() { return tl_caller; }

SyscallResult SyscallTable::call(identity::SourceCode caller, std::string_view name,
                                 std::string_view args_json) const {
  SyscallHandler handler;
  {
    std::shared_lock lock(mu_);
    auto it = registrations_.find(name);
    if (it == registrations_.end()) return base::syscall_error("not_found");
    handler = it->second.handler;
  }
  CallerScope scope(caller);
  return handler(args_json);
}

int SyscallTable::call_streaming(identity::SourceCode caller, std::string_view name,
                                 std::string_view args_json, SyscallEmit on_chunk) const {
  StreamingSyscallHandler handler;
  {
    std::shared_lock lock(mu_);
    auto it = stream_registrations_.find(name);
    if (it == stream_registrations_.end()) return -1;
    handler = it->second.handler;
  }
  CallerScope scope(caller);
  return handler(args_json, std::move(on_chunk));
}

bool SyscallTable::has(std::string_view name) const {
  std::shared_lock lock(mu_);
  return registrations_.find(name) != registrations_.end();
}

bool SyscallTable::has_streaming(std::string_view name) const {
  std::shared_lock lock(mu_);
  return stream_registrations_.find(name) != stream_registrations_.end();
}

std::vector<SyscallTable::Entry> SyscallTable::list() const {
  std::vector<Entry> out;
  {
    std::shared_lock lock(mu_);
    for (const auto& [name, r] : registrations_) out.push_back({name, r.owner, false});
    for (const auto& [name, r] : stream_registrations_) out.push_back({name, r.owner, true});
  }
  std::sort(out.begin(), out.end(), [](const Entry& a, const Entry& b) {
    return a.name != b.name ? a.name < b.name : a.streaming < b.streaming;
  });
  return out;
}

}  // namespace ostrel::kernel
