#include "kernel/obs/process_metrics.h"

#include <sys/resource.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <vector>

#include "kernel/obs/metrics.h"

namespace ostrel::obs {
namespace {

void add(std::string& out, const char* name, const char* type, const char* help, double value) {
  out += std::string("# HELP ") + name + " " + help + "\n# TYPE " + name + " " + type + "\n" +
         name + " " + format_metric_value(value) + "\n";
}

// The system's boot time in Unix seconds.
double boot_time() {
  std::ifstream in("/proc/stat");
  std::string key;
  double v = 0;
  while (in >> key) {
    if (key == "btime") {
      in >> v;
      return v;
    }
    in.ignore(1 << 16, '\n');
  }
  return 0;
}

}  // namespace

std::string process_metrics_text() {
  std::string out;
  std::ifstream stat("/proc/self/stat");
  std::string line;
  std::getline(stat, line);
  // Fields after the command name, which may hold spaces: start after ')'.
  const auto close = line.rfind(')');
  std::vector<std::string> f;
  if (close != std::string::npos) {
    std::istringstream rest(line.substr(close + 2));
    for (std::string x; rest >> x;) f.push_back(x);
  }
  const double ticks = static_cast<double>(sysconf(_SC_CLK_TCK));
  const double page = static_cast<double>(sysconf(_SC_PAGESIZE));
  // Indexes into `f` are the stat field numbers minus 3.
  if (f.size() > 21) {
    add(out, "process_cpu_seconds_total", "counter",
        "Total user and system CPU time spent in seconds.",
        (std::stod(f[11]) + std::stod(f[12])) / ticks);
    add(out, "process_virtual_memory_bytes", "gauge", "Virtual memory size in bytes.",
        std::stod(f[20]));
    add(out, "process_resident_memory_bytes", "gauge", "Resident memory size in bytes.",
        std::stod(f[21]) * page);
    add(out, "process_start_time_seconds", "gauge",
        "Start time of the process since unix epoch in seconds.",
        boot_time() + std::stod(f[19]) / ticks);
    add(out, "process_threads", "gauge", "Number of OS threads in the process.", std::stod(f[17]));
  }
  std::error_code ec;
  double fds = 0;
  for (std::filesystem::directory_iterator it("/proc/self/fd", ec), end; !ec && it != end;
       it.increment(ec))
    ++fds;
  add(out, "process_open_fds", "gauge", "Number of open file descriptors.", fds);
  rlimit r{};
  if (getrlimit(RLIMIT_NOFILE, &r) == 0) {
    add(out, "process_max_fds", "gauge", "Maximum number of open file descriptors.",
        r.rlim_cur == RLIM_INFINITY ? -1 : static_cast<double>(r.rlim_cur));
  }
  return out;
}

}  // namespace ostrel::obs
