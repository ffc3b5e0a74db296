#pragma once

#include <httplib.h>
#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

namespace ostrel::kernel {

// One accepted client connection as the HTTP library's byte stream, kept for
// the connection's whole life so that bytes a client sent ahead (pipelined
// requests) survive from one request to the next.
//
// It costs as few system calls as it can: reads go straight to the socket and
// wait only when nothing is there; the first write of each response (the status
// line and headers) is held back and leaves in one send with the body; the
// peer's address is looked up once. Held bytes never wait on the client: they
// go out before the stream blocks reading, on flush() (which the server calls
// before a streamed body starts) and at the end of every request.
//
// Used by one thread at a time; not thread-safe.
class HttpConnection final : public httplib::Stream {
 public:
  struct Timeouts {
    std::chrono::microseconds read{std::chrono::seconds(5)};   // for each wait
    std::chrono::microseconds write{std::chrono::seconds(5)};  // for each wait
    // For the whole request head, from its first byte: a client that drips
    // it cannot hold the connection's thread for longer.
    std::chrono::microseconds request_head{std::chrono::seconds(30)};
    // A body must keep coming: after `body_grace` from the end of its head,
    // at least `body_min_rate` bytes a second on average, so a body of n
    // bytes has at most grace + n / rate to arrive. 0 turns the rule off.
    std::chrono::microseconds body_grace{std::chrono::seconds(10)};
    std::size_t body_min_rate = 16 * 1024;
  };

  // `buffered`: bytes already read from the socket (the request head the
  // acceptor collected), served before anything new is read.
  HttpConnection(int fd, Timeouts timeouts, std::string buffered = {});

  enum class Wait {
    request,   // bytes of a request are buffered or have arrived
    ended,     // the peer closed, the socket failed or the time passed
    woken,     // `wake_fd` became readable
    yield_fd,  // `yield_fd` became readable
  };

  // Waits until `deadline` for the first bytes of the next request, or for
  // one of the two fds (each may be -1) to become readable.
  Wait wait_for_request(std::chrono::steady_clock::time_point deadline, int wake_fd, int yield_fd);

  // Waits until `deadline` for the socket or one of the fds (each may be -1)
  // to become readable, whatever is already buffered.
  Wait wait_readable(std::chrono::steady_clock::time_point deadline, int wake_fd, int yield_fd);

  // Reads what the socket has now, without waiting; false when the peer
  // closed or the socket failed.
  bool fill_available();

  // A whole request head (up to its blank line) is buffered.
  bool head_buffered() const;

  // Bytes read from the socket and not yet consumed (taken out).
  std::string take_unread();
  // How many bytes are buffered and not yet consumed.
  size_t buffered_bytes() const { return (preread_.size() - preread_pos_) + (in_end_ - in_begin_); }
  // The last body read failed because the body came slower than the
  // minimum rate (see Timeouts).
  bool body_too_slow() const { return body_too_slow_; }

  // The most bytes a request head (request line and headers) may take; a
  // longer one (or one slower than Timeouts::request_head) fails to read,
  // which the server answers 400 and closes. The HTTP library bounds each
  // line but not their number.
  static constexpr size_t kMaxRequestHead = 64 * 1024;

  // Marks the start of a request: the next write is the response head, the
  // next bytes read are the request head.
  void begin_request() {
    hold_next_write_ = true;
    next_write_is_head_ = true;
    closing_ = false;
    in_request_head_ = true;
    in_body_ = false;
    head_bytes_ = 0;
    head_tail_ = 0;
  }

  // The next write is held back to leave with the one after it (or at the
  // end of the request, or before the stream blocks reading).
  void hold_next_write() { hold_next_write_ = true; }

  // The last response head said "Connection: close".
  bool closing() const { return closing_; }

  // Sends whatever is held back; false when the peer is gone.
  bool flush() const;

  bool is_readable() const override;
  bool is_writable() const override;
  ssize_t read(char* ptr, size_t size) override;
  ssize_t write(const char* ptr, size_t size) override;
  void get_remote_ip_and_port(std::string& ip, int& port) const override;
  void get_local_ip_and_port(std::string& ip, int& port) const override;
  socket_t socket() const override { return fd_; }

 private:
  static constexpr size_t kReadBuffer = 16 * 1024;

  bool send_all_(const char* a, size_t a_len, const char* b, size_t b_len) const;
  ssize_t recv_(char* ptr, size_t size);
  ssize_t read_bytes_(char* ptr, size_t size);
  bool count_head_(const char* ptr, size_t n);
  bool wait_(short events, std::chrono::microseconds timeout) const;
  bool peer_closed_() const;
  void resolve_addresses_() const;

  int fd_;
  Timeouts timeouts_;
  std::unique_ptr<char[]> in_;  // bytes read from the socket: [in_begin_, in_end_) unconsumed
  std::string preread_;         // bytes handed over at construction, served first
  size_t preread_pos_ = 0;
  size_t in_begin_ = 0;
  size_t in_end_ = 0;
  bool in_request_head_ = false;  // reading the request head: counted and bounded
  size_t head_bytes_ = 0;
  std::chrono::steady_clock::time_point head_deadline_;  // set by the head's first byte
  std::uint32_t head_tail_ = 0;  // the last four bytes of the head, to see its end
  bool in_body_ = false;         // past the head: reads are the body's, paced
  std::chrono::steady_clock::time_point body_start_;
  std::uint64_t body_bytes_ = 0;
  bool body_too_slow_ = false;
  bool hold_next_write_ = false;
  bool next_write_is_head_ = false;
  bool closing_ = false;
  // Write state changes in is_writable() too, which the interface declares const.
  mutable std::string pending_;  // response head held back for the next write
  mutable bool failed_ = false;  // a send failed: the connection is finished

  // Addresses looked up on first use (const accessors, hence mutable).
  mutable bool addresses_known_ = false;
  mutable std::string remote_ip_, local_ip_;
  mutable int remote_port_ = 0, local_port_ = 0;
};

}  // namespace ostrel::kernel
