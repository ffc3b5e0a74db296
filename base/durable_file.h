#pragma once

#include <filesystem>
#include <string>
#include <string_view>

namespace ostrel::base {

// Writes `content` to a temporary file beside `path`, flushes it to disk and
// renames it over `path`, creating parent directories as needed. A crash at
// any point leaves either the old file or the new one, never a torn one.
// False with a reason when any step fails (the temporary file is removed).
bool write_file_atomically(const std::filesystem::path& path, std::string_view content,
                           std::string& error);

}  // namespace ostrel::base
