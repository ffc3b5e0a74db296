#pragma once

#include <atomic>
#include <filesystem>
#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <vector>

#include "identity/source_code.h"
#include "kernel/syscall_table.h"
#include "kernel/types.h"
#include "search/search_engine.h"

// The kernel's eight search sources: thin adapters that turn a query into
// one syscall or one file-system scan. A source whose syscall no module
// registers answers nothing and says so once per process.
namespace ostrel::kernel::search {

using ostrel::search::Hit;
using ostrel::search::Query;
using ostrel::search::Scope;

// Base of the kernel's sources: the syscall table it calls through, the
// identity it calls under, and its name. The table and logger are borrowed
// from the kernel, which outlives the engine and its sources.
class KernelSearchSource : public ostrel::search::SearchSource {
 public:
  KernelSearchSource(SyscallTable* syscalls, identity::SourceCode caller, std::string name,
                     const Logger* log)
      : syscalls_(syscalls), caller_(caller), name_(std::move(name)), log_(log) {}

  const std::string& name() const { return name_; }
  identity::SourceCode caller() const { return caller_; }

 protected:
  // Logs once per process that the source answers nothing without `syscall`.
  void warn_once_missing(std::atomic<bool>& flag, const std::string& syscall) const;
  // The syscall's parsed answer; nullopt when it is not registered (warned
  // once) or failed.
  std::optional<nlohmann::json> call_(const std::string& syscall, const nlohmann::json& args,
                                      std::atomic<bool>& missing_flag) const;

  SyscallTable* syscalls_;
  identity::SourceCode caller_;
  std::string name_;
  const Logger* log_;
};

// Lower-case, byte by byte, then a substring search.
bool icontains(const std::string& haystack, const std::string& needle);

// The eight sources in registration order. `data_dir` roots the artifact
// and storage trees the file-scanning sources walk.
std::vector<std::shared_ptr<ostrel::search::SearchSource>> kernel_sources(
    SyscallTable* syscalls, const Logger* log, const std::filesystem::path& data_dir);

// The identity each source calls under (kernel domain, 0x20 + its place).
identity::SourceCode source_identity(std::size_t index);

}  // namespace ostrel::kernel::search
