#include "base/hash_chain.h"

#include <algorithm>

namespace ostrel::base {

HashChain::Hash HashChain::digest(std::string_view a, std::string_view b) {
  Hash out{};
  if (!sha_.digest(a, b, out.data())) out.fill(0);
  return out;
}

bool HashChain::from_hex(std::string_view text, Hash& out) {
  std::string raw;
  if (text.size() != 64 || !base::from_hex(text, raw) || raw.size() != 32) return false;
  std::copy(raw.begin(), raw.end(), out.begin());
  return true;
}

}  // namespace ostrel::base
