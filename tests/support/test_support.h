#pragma once

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <map>
#include <mutex>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "base/no_copy.h"

namespace httplib {
class Server;
}

namespace ostrel::testing {

// A fresh directory under the system temp dir, removed with its contents.
class TempDir : private base::NoCopy {
 public:
  TempDir();
  ~TempDir();
  const std::filesystem::path& path() const { return path_; }
  std::filesystem::path operator/(const std::string& name) const { return path_ / name; }

 private:
  std::filesystem::path path_;
};

void write_file(const std::filesystem::path& path, const std::string& content);
std::string read_file(const std::filesystem::path& path);
// The file's lines without their newlines (a last line without one included).
std::vector<std::string> file_lines(const std::filesystem::path& path);

// A loopback TCP port that was free a moment ago.
int free_port();

// Binds `server` to a free loopback port (returned in `port`) and serves it on
// the returned thread, returning once it serves: the library's stop() does
// not reach a listener that has not begun, which would then never end.
std::thread serve_on_loopback(httplib::Server& server, int& port);

// A child process with stdout and stderr captured to files.
class Process {
 public:
  struct Options {
    std::vector<std::string> args;               // without argv[0]
    std::map<std::string, std::string> set_env;  // added to the current environment
    std::vector<std::string> unset_env;
    std::filesystem::path cwd;
  };

  Process(const std::string& binary, const Options& options, const std::filesystem::path& logs);
  ~Process();  // kills the child if it still runs

  pid_t pid() const { return pid_; }
  void signal(int sig);
  // The exit status, or nullopt when the child did not exit in time. A child
  // ended by a signal reports 128 + signal.
  std::optional<int> wait_exit(std::chrono::milliseconds timeout);
  std::string out() const;
  std::string err() const;
  // Waits until stderr contains `text`; false on timeout or early exit.
  bool wait_for_err(const std::string& text, std::chrono::milliseconds timeout);

 private:
  pid_t pid_ = -1;
  bool reaped_ = false;
  int status_ = 0;
  std::filesystem::path out_path_;
  std::filesystem::path err_path_;
};

// The port a node started with --port=0 listens on, read from its
// "ready — serving on <bind>:<port>" line; -1 when it does not get there.
int wait_for_ready_port(Process& node, std::chrono::milliseconds timeout);

// The bootstrap administrator token a node in enforce mode printed on stdout.
std::string bootstrap_token(const Process& node);

// Captures every log line of the process ("[LEVEL][tag] message") while it
// lives.
class LogCapture : private base::NoCopy {
 public:
  LogCapture();
  ~LogCapture();

  std::vector<std::string> lines() const;
  bool has(const std::string& text) const { return index_of(text) >= 0; }
  // The first line holding `text`, or -1.
  int index_of(const std::string& text) const;
  // The newest line holding `text`, or "".
  std::string last(const std::string& text) const;

 private:
  std::uint64_t sink_id_ = 0;
  mutable std::mutex mu_;  // guards lines_
  std::vector<std::string> lines_;
};

// The node's resident memory in bytes, from /proc.
std::size_t resident_bytes(pid_t pid);

// Sanitizer builds pad every block and keep freed memory in quarantine, so
// bounds on resident memory say nothing there and are not checked.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool kMemoryBoundsHold = false;
#else
inline constexpr bool kMemoryBoundsHold = true;
#endif

// Polls GET /health on 127.0.0.1:port until it answers 200.
bool wait_for_health(int port, std::chrono::milliseconds timeout);

// `text` after 1 to 3 random one-byte edits (replace, insert or erase, new
// bytes drawn from `alphabet`): inputs for checking a parser against another.
std::string mutate(std::string text, std::mt19937& rng, const std::string& alphabet);

// Polls `condition` every millisecond until it holds (true) or `timeout`
// passes (false): for waiting on another thread's progress with a deadline.
template <typename Condition>
bool eventually(Condition condition,
                std::chrono::milliseconds timeout = std::chrono::milliseconds(5000)) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

// Lines of `text` that contain `needle`, in order.
std::vector<std::string> lines_with(const std::string& text, const std::string& needle);

}  // namespace ostrel::testing
