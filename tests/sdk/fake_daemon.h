// A stand-in for the daemon's socket side: binds nl26.sock and nl27.sock in a
// temporary run directory, records every datagram, acknowledges each message
// that asks for it with a chosen error, serves file requests from memory, and
// can send any bytes to a client. Its thread answers; tests call from theirs.
#ifndef VANE_TESTS_SDK_FAKE_DAEMON_H
#define VANE_TESTS_SDK_FAKE_DAEMON_H

#include <sys/socket.h>
#include <sys/un.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "vane/vane.h"

namespace vane::test {

using Bytes = std::vector<uint8_t>;

struct Datagram {
  int channel;  // 26 or 27: the socket it arrived on
  Bytes bytes;
  sockaddr_un from;
  socklen_t from_len;
};

class FakeDaemon {
 public:
  FakeDaemon();
  ~FakeDaemon();
  FakeDaemon(const FakeDaemon&) = delete;
  FakeDaemon& operator=(const FakeDaemon&) = delete;

  // Binds the sockets and starts answering; Stop closes and unlinks them,
  // as a daemon that exits does.
  void Start();
  void Stop();

  const std::string& dir() const { return dir_; }

  // The error every acknowledgement carries from now on (0 = success).
  void set_ack_error(int err) { ack_error_ = err; }
  // Answer nothing at all.
  void set_silent(bool silent) { silent_ = silent; }

  void SetFile(const std::string& path, const std::string& content);
  std::string File(const std::string& path);

  std::vector<Datagram> Received();
  void ClearReceived();
  // Polls pred over the received datagrams until it holds; false if it does
  // not within a generous bound (a hang guard, not a timing check).
  bool WaitFor(const std::function<bool(const std::vector<Datagram>&)>& pred);

  // Sends bytes from the channel's socket to a client address.
  void SendTo(int channel, const sockaddr_un& to, socklen_t to_len, const Bytes& bytes);

 private:
  void Loop();
  void Answer(int channel, const Datagram& d);
  void Reply(int channel, const Datagram& d, const Bytes& bytes);
  Bytes ServeFile(const uint8_t* msg, uint32_t len);

  std::string dir_;
  int fds_[2] = {-1, -1};
  int stop_pipe_[2] = {-1, -1};
  std::thread thread_;
  std::atomic<int> ack_error_{0};
  std::atomic<bool> silent_{false};
  std::mutex mu_;
  std::vector<Datagram> received_;
  std::map<std::string, std::string> files_;
};

// Little-endian byte building for expected wire images.
struct ByteWriter {
  Bytes b;
  ByteWriter& u8(uint8_t v) {
    b.push_back(v);
    return *this;
  }
  ByteWriter& u16(uint16_t v) { return u8(v & 0xFF).u8(v >> 8); }
  ByteWriter& u32(uint32_t v) { return u16(v & 0xFFFF).u16(v >> 16); }
  ByteWriter& zeros(size_t n) {
    b.insert(b.end(), n, 0);
    return *this;
  }
};

// A netlink message: header (type, flags, seq) and body, padded to 4.
Bytes NlMsg(uint16_t type, uint16_t flags, uint32_t seq, const Bytes& body);
// A packet message as the dispatcher sends it.
Bytes PacketMsg(uint32_t type, const Bytes& data);

uint32_t Le32(const uint8_t* p);

// A control handle on a stand-in daemon: the fixture of the suites that
// drive the control side.
class FakeDaemonControl : public ::testing::Test {
 protected:
  void SetUp() override {
    vane_endpoint ep{};
    ep.transport = VANE_TRANSPORT_UNIX;
    ep.run_dir = daemon_.dir().c_str();
    ep.timeout_ms = 5000;
    ASSERT_EQ(vane_ctl_open(&ep, &ctl_), 0);
  }
  void TearDown() override { vane_ctl_close(ctl_); }

  FakeDaemon daemon_;
  vane_ctl* ctl_ = nullptr;
};

}  // namespace vane::test

#endif  // VANE_TESTS_SDK_FAKE_DAEMON_H
