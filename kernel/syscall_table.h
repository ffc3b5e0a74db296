#pragma once

#include <functional>
#include <shared_mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "identity/source_code.h"
#include "kernel/types.h"

namespace ostrel::kernel {

using SyscallHandler = std::function<SyscallResult(std::string_view args_json)>;
using SyscallEmit = std::function<bool(std::string_view chunk)>;
using StreamingSyscallHandler = std::function<int(std::string_view args_json, SyscallEmit emit)>;

// Named calls between modules. A module registers a dotted name with a handler;
// any module holding the table calls it by name with a JSON argument text.
// Registrations are never removed. The table holds no policy; a handler that
// needs to know who called (the audit log records it) asks current_caller().
// Thread-safe: mu_ guards both maps; handlers run on the caller's thread after
// the lock is released, so a handler may call or register syscalls itself.
class SyscallTable {
 public:
  struct Registration {
    identity::SourceCode owner;
    SyscallHandler handler;
    SyscallAccess access;
  };
  struct StreamRegistration {
    identity::SourceCode owner;
    StreamingSyscallHandler handler;
    SyscallAccess access;
  };
  struct Entry {
    std::string name;
    identity::SourceCode owner;
    bool streaming = false;
  };

  // False (and the first registration kept) when the name is taken.
  // `access` says who may run it from outside the modules (administrators
  // only, unless declared otherwise).
  bool register_syscall(identity::SourceCode owner, std::string name, SyscallHandler handler,
                        SyscallAccess access = SyscallAccess::admin());
  bool register_streaming_syscall(identity::SourceCode owner, std::string name,
                                  StreamingSyscallHandler handler,
                                  SyscallAccess access = SyscallAccess::admin());
  // The declared access of `name` (plain, else streaming); administrators
  // only for a name nobody registered.
  SyscallAccess access(std::string_view name) const;

  // Unknown name: status -1, body {"error":"not_found"}. A handler's exception
  // passes through to the caller.
  SyscallResult call(identity::SourceCode caller, std::string_view name,
                     std::string_view args_json) const;
  // Unknown name: -1 without calling on_chunk.
  int call_streaming(identity::SourceCode caller, std::string_view name, std::string_view args_json,
                     SyscallEmit on_chunk) const;

  bool has(std::string_view name) const;
  // The caller of the syscall this thread is running (zero outside one).
  static identity::SourceCode current_caller();
  bool has_streaming(std::string_view name) const;

  // Every registration, plain and streaming, sorted by name.
  std::vector<Entry> list() const;

 private:
  struct NameHash {
    using is_transparent = void;
    std::size_t operator()(std::string_view s) const { return std::hash<std::string_view>{}(s); }
  };
  mutable std::shared_mutex mu_;  // guards registrations_ and stream_registrations_
  std::unordered_map<std::string, Registration, NameHash, std::equal_to<>> registrations_;
  std::unordered_map<std::string, StreamRegistration, NameHash, std::equal_to<>>
      stream_registrations_;
};

}  // namespace ostrel::kernel
