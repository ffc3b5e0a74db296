// Process entry: command line and environment → KernelConfig → Kernel.
#include <malloc.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include "base/env.h"
#include "kernel/boot/cli.h"
#include "kernel/kernel.h"
#include "kernel/module.h"

namespace {

// Written once before the signal handlers are installed.
ostrel::kernel::Kernel* g_kernel = nullptr;
std::atomic<bool> g_log_dispatcher_installed{false};

void signal_handler(int) {
  if (g_kernel) g_kernel->request_stop();
}

void install_log_dispatcher() {
  if (g_log_dispatcher_installed.exchange(true)) return;
  auto& facility = ostrel::obs::Logger::instance();
  facility.clear_sinks();
  facility.add_sink(ostrel::obs::stamping_dispatcher);
  facility.set_threshold(ostrel::obs::LogLevel::info);
}

}  // namespace

// Large buffers (request bodies, long messages) are mapped and returned to
// the system when freed. Left to itself, glibc raises its mapping threshold
// after every such free, and the buffers then stay in the per-thread heaps:
// a burst of large requests would keep its memory for good.
void bound_heap_growth() { ::mallopt(M_MMAP_THRESHOLD, 512 * 1024); }

int main(int argc, char** argv) {
  using namespace ostrel::kernel;
  bound_heap_growth();
  install_log_dispatcher();

  cli::ParseOutcome parsed = cli::parse(
      argc, argv, [](const char* name) { return ostrel::base::env::value(name); }, stderr);
  if (parsed.action == cli::Action::exit) return parsed.exit_status;
  if (parsed.action == cli::Action::version) {
    std::printf("ostrel-ulvo 5.0.0\n");
    return 0;
  }
  if (parsed.action == cli::Action::list_modules) {
    std::vector<std::string> names = registered_module_names();
    std::printf("Registered module factories (%zu):\n", names.size());
    for (const auto& n : names) std::printf("  %s\n", n.c_str());
    return 0;
  }

  // The HTTP server writes to sockets whose peers may be gone.
  std::signal(SIGPIPE, SIG_IGN);

  auto kernel = std::make_unique<Kernel>(parsed.config);
  g_kernel = kernel.get();
  std::signal(SIGINT, signal_handler);
  std::signal(SIGTERM, signal_handler);

  if (!kernel->boot()) {
    std::fprintf(stderr, "boot failed\n");
    g_kernel = nullptr;
    // Destruction stops and joins whatever the boot had started.
    kernel.reset();
    return 1;
  }
  kernel->set_running();
  const KernelConfig& cfg = kernel->config();
  // With --port=0 the system chose the port: the line names the real one.
  kernel->logger().info("ready — serving on " + cfg.bind + ":" +
                        std::to_string(kernel->gateway().port()));

  while (kernel->running() && !kernel->stop_requested()) {
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
  }
  kernel->drain_and_stop();
  g_kernel = nullptr;
  kernel.reset();
  return 0;
}
