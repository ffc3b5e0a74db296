#include "tests/support/test_support.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <httplib.h>

#include <atomic>
#include <fstream>
#include <memory>
#include <random>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "base/log.h"
#include "kernel/boot/self_health.h"

namespace ostrel::testing {

namespace fs = std::filesystem;

LogCapture::LogCapture() {
  sink_id_ = obs::Logger::instance().add_sink([this](const obs::LogRecord& r) {
    std::lock_guard lock(mu_);
    lines_.push_back(std::string("[") + obs::level_name(r.level) + "][" + r.source + "] " +
                     r.message);
  });
}

LogCapture::~LogCapture() { obs::Logger::instance().remove_sink(sink_id_); }

std::vector<std::string> LogCapture::lines() const {
  std::lock_guard lock(mu_);
  return lines_;
}

int LogCapture::index_of(const std::string& text) const {
  auto l = lines();
  for (size_t i = 0; i < l.size(); ++i) {
    if (l[i].find(text) != std::string::npos) return static_cast<int>(i);
  }
  return -1;
}

std::string LogCapture::last(const std::string& text) const {
  auto l = lines();
  for (auto it = l.rbegin(); it != l.rend(); ++it) {
    if (it->find(text) != std::string::npos) return *it;
  }
  return "";
}

TempDir::TempDir() {
  std::random_device rd;
  for (int attempt = 0; attempt < 100; ++attempt) {
    fs::path candidate = fs::temp_directory_path() / ("ostrel-test-" + std::to_string(rd()));
    if (fs::create_directory(candidate)) {
      path_ = candidate;
      return;
    }
  }
  throw std::runtime_error("cannot create a temporary directory");
}

TempDir::~TempDir() {
  std::error_code ec;
  fs::remove_all(path_, ec);
}

void write_file(const fs::path& path, const std::string& content) {
  fs::create_directories(path.parent_path());
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << content;
}

std::string read_file(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

std::vector<std::string> file_lines(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::vector<std::string> out;
  for (std::string l; std::getline(in, l);) out.push_back(l);
  return out;
}

int free_port() {
  int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  addr.sin_port = 0;
  ::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
  socklen_t len = sizeof addr;
  ::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
  int port = ntohs(addr.sin_port);
  ::close(fd);
  return port;
}

Process::Process(const std::string& binary, const Options& options, const fs::path& logs) {
  fs::create_directories(logs);
  static int counter = 0;
  std::string stem = "proc" + std::to_string(++counter);
  out_path_ = logs / (stem + ".out");
  err_path_ = logs / (stem + ".err");

  std::vector<std::string> argv_storage;
  argv_storage.push_back(binary);
  argv_storage.insert(argv_storage.end(), options.args.begin(), options.args.end());

  pid_ = ::fork();
  if (pid_ < 0) throw std::runtime_error("fork failed");
  if (pid_ == 0) {
    int out = ::open(out_path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    int err = ::open(err_path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    ::dup2(out, 1);
    ::dup2(err, 2);
    int devnull = ::open("/dev/null", O_RDONLY);
    ::dup2(devnull, 0);
    for (const auto& name : options.unset_env) ::unsetenv(name.c_str());
    for (const auto& [k, v] : options.set_env) ::setenv(k.c_str(), v.c_str(), 1);
    if (!options.cwd.empty() && ::chdir(options.cwd.c_str()) != 0) ::_exit(126);
    std::vector<char*> argv;
    for (auto& a : argv_storage) argv.push_back(a.data());
    argv.push_back(nullptr);
    ::execv(binary.c_str(), argv.data());
    ::_exit(127);
  }
}

Process::~Process() {
  if (!reaped_ && pid_ > 0) {
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, &status_, 0);
  }
}

void Process::signal(int sig) {
  if (!reaped_) ::kill(pid_, sig);
}

std::optional<int> Process::wait_exit(std::chrono::milliseconds timeout) {
  auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!reaped_) {
    pid_t r = ::waitpid(pid_, &status_, WNOHANG);
    if (r == pid_) {
      reaped_ = true;
      break;
    }
    if (std::chrono::steady_clock::now() > deadline) return std::nullopt;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  if (WIFEXITED(status_)) return WEXITSTATUS(status_);
  if (WIFSIGNALED(status_)) return 128 + WTERMSIG(status_);
  return -1;
}

std::string Process::out() const { return read_file(out_path_); }
std::string Process::err() const { return read_file(err_path_); }

bool Process::wait_for_err(const std::string& text, std::chrono::milliseconds timeout) {
  auto deadline = std::chrono::steady_clock::now() + timeout;
  while (std::chrono::steady_clock::now() < deadline) {
    if (err().find(text) != std::string::npos) return true;
    if (!reaped_ && ::waitpid(pid_, &status_, WNOHANG) == pid_) reaped_ = true;
    if (reaped_) return err().find(text) != std::string::npos;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return false;
}

int wait_for_ready_port(Process& node, std::chrono::milliseconds timeout) {
  const std::string marker = "ready — serving on ";
  if (!node.wait_for_err(marker, timeout)) return -1;
  std::string err = node.err();
  std::size_t at = err.find(marker);
  std::size_t eol = err.find('\n', at);
  std::string line = err.substr(at, eol - at);
  return std::atoi(line.substr(line.rfind(':') + 1).c_str());
}

std::string bootstrap_token(const Process& node) {
  std::istringstream out(node.out());
  std::string line;
  bool next = false;
  while (std::getline(out, line)) {
    if (next) return line.substr(line.find_first_not_of(' '));
    next = line.find("Bootstrap admin token") != std::string::npos;
  }
  return "";
}

std::size_t resident_bytes(pid_t pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  while (std::getline(in, line)) {
    if (line.rfind("VmRSS:", 0) == 0) return std::stoull(line.substr(6)) * 1024;
  }
  return 0;
}

bool wait_for_health(int port, std::chrono::milliseconds timeout) {
  auto deadline = std::chrono::steady_clock::now() + timeout;
  while (std::chrono::steady_clock::now() < deadline) {
    if (kernel::probe_health("127.0.0.1", static_cast<std::uint16_t>(port), 500)) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return false;
}

std::vector<std::string> lines_with(const std::string& text, const std::string& needle) {
  std::vector<std::string> out;
  std::istringstream in(text);
  std::string line;
  while (std::getline(in, line)) {
    if (line.find(needle) != std::string::npos) out.push_back(line);
  }
  return out;
}

std::string mutate(std::string text, std::mt19937& rng, const std::string& alphabet) {
  const int edits = 1 + static_cast<int>(rng() % 3);
  for (int e = 0; e < edits; ++e) {
    const std::size_t at = rng() % (text.size() + 1);
    const char c = alphabet[rng() % alphabet.size()];
    switch (rng() % 3) {
      case 0:
        if (at < text.size()) text[at] = c;
        break;
      case 1:
        text.insert(text.begin() + static_cast<std::ptrdiff_t>(at), c);
        break;
      default:
        if (at < text.size()) text.erase(at, 1);
    }
  }
  return text;
}

std::thread serve_on_loopback(httplib::Server& server, int& port) {
  port = server.bind_to_any_port("127.0.0.1");
  auto done = std::make_shared<std::atomic<bool>>(false);
  std::thread serving([&server, done] {
    server.listen_after_bind();
    *done = true;
  });
  while (!server.is_running() && !*done) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  return serving;
}

}  // namespace ostrel::testing
