#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <utility>
#include <vector>

namespace ostrel::data {

// Cuts a text into chunks of `size` bytes, consecutive chunks sharing
// `overlap` bytes: [s, min(s + size, n)) for s = 0, then s = previous end −
// overlap, until a chunk reaches the end. A size of 0, or a text no longer
// than it, is one chunk; an overlap of at least the size becomes size / 4.
// No attempt is made to cut at word boundaries. Returns (offset, length).
std::vector<std::pair<std::size_t, std::size_t>> chunk_text(std::string_view text,
                                                            std::size_t size,
                                                            std::size_t overlap);

// How many chunks chunk_text makes of a text of `length` bytes, without
// making them.
std::size_t chunk_count(std::size_t length, std::size_t size, std::size_t overlap);

// The smallest chunk size a request may ask for (0 still means one chunk).
inline constexpr std::int64_t kMinChunkSize = 16;

}  // namespace ostrel::data
