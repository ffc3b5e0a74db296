#pragma once

#include <cstddef>
#include <filesystem>
#include <functional>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>
#include <vector>

namespace ostrel::kernel {

// Append-only JSON-lines journals: one compact JSON object per line.

// Appends `line` and a newline in one write and flushes it to disk before
// returning. False with a reason when the file cannot be written.
bool append_journal_line(const std::filesystem::path& path, std::string_view line,
                         std::string& error);

// Calls `apply` for every complete line that parses as JSON, in order; lines
// that do not parse are skipped. A torn last line (no trailing newline, as a
// crash mid-append leaves it) is skipped and cut off the file so that the next
// append starts on a clean line. Returns how many records `apply` accepted.
std::size_t replay_journal(const std::filesystem::path& path,
                           const std::function<bool(const nlohmann::json&)>& apply);

// Replaces the journal with `lines` (each without its newline) through a
// temporary file "<path>.tmp" and a rename.
bool rewrite_journal(const std::filesystem::path& path, const std::vector<std::string>& lines,
                     std::string& error);

}  // namespace ostrel::kernel
