#include "praxis/runtime_seam.h"

namespace ostrel::praxis {
namespace {
RuntimeFactory& factory() {
  static RuntimeFactory f;  // written before main() only
  return f;
}
}  // namespace

void set_runtime_factory(RuntimeFactory f) { factory() = std::move(f); }

std::unique_ptr<Runtime> make_runtime(const RuntimeOptions& options) {
  return factory() ? factory()(options) : nullptr;
}

}  // namespace ostrel::praxis
