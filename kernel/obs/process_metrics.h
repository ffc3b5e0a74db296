#pragma once

#include <string>

namespace ostrel::obs {

// The standard process series in Prometheus text form, read from /proc at
// call time: process_cpu_seconds_total, process_resident_memory_bytes,
// process_virtual_memory_bytes, process_open_fds, process_max_fds,
// process_start_time_seconds and process_threads.
std::string process_metrics_text();

}  // namespace ostrel::obs
