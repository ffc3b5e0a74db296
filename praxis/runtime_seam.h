#pragma once

#include <functional>
#include <memory>

// Where the agent process runtime plugs into the agent module. The agent
// module asks for a runtime at initialisation when "praxis.enabled" is on;
// until a runtime is linked into the binary (it registers its factory from a
// static object), there is none and the module runs without it.
namespace ostrel::praxis {

class Runtime {
 public:
  virtual ~Runtime() = default;
  virtual void start() = 0;
  virtual void stop() = 0;  // joins every thread the runtime owns
};

struct RuntimeOptions {
  int worker_threads = 8;
  int tick_interval_ms = 50;
};

using RuntimeFactory = std::function<std::unique_ptr<Runtime>(const RuntimeOptions&)>;

// Set once, before main(), by the runtime's own translation unit.
void set_runtime_factory(RuntimeFactory factory);
// A new runtime, or nullptr when none is linked in.
std::unique_ptr<Runtime> make_runtime(const RuntimeOptions& options);

}  // namespace ostrel::praxis
