// What the host-side suites (libvane, vaned and its sources, vanectl) share:
// a scratch directory, programs run as processes, forked children that
// report back over a pipe, datagram sockets on the daemon's wire and the
// messages it carries, vaned itself inside the test process, and records
// laid into file images.
#ifndef VANE_TESTS_HOST_SUPPORT_HOST_SUPPORT_H
#define VANE_TESTS_HOST_SUPPORT_HOST_SUPPORT_H

#include <sys/socket.h>
#include <sys/types.h>
#include <sys/un.h>

#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "daemon.h"
#include "vane/vane.h"

namespace vane::test {

using Bytes = std::vector<uint8_t>;

// A fresh directory under /tmp, removed with everything in it.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return path_; }
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// The whole contents of a file ("" when it cannot be read).
std::string ReadText(const std::string& path);

// A program to run: argv[0] is a path or a name looked up in PATH; `env`
// entries (NAME=value) go before this process's environment.
struct Command {
  std::vector<std::string> argv;
  std::vector<std::string> env;
  std::string stdout_path = "/dev/null";
  std::string stderr_path = "/dev/null";
};
// Starts it: its pid, or -1 when it cannot be started.
pid_t Start(const Command& cmd);
// Its exit status, 128 + the signal that ended it, or -1.
int Wait(pid_t pid);

// Runs `body` in a forked child, which hands the parent what it has to say
// with Report(fd, ...); its result is the child's exit status. The parent
// may have threads (an in-process daemon has), so the body keeps to what is
// safe after fork.
struct ForkedResult {
  std::vector<Bytes> reports;
  int status = -1;
};
ForkedResult RunForked(const std::function<int(int report_fd)>& body);
bool Report(int fd, const Bytes& bytes);

// A unix datagram socket: bound to a file, as the daemon's channels and the
// injection socket are, or (no path) autobound to an abstract address, as
// clients are.
class DgramSocket {
 public:
  struct Addr {
    sockaddr_un sa{};
    socklen_t len = sizeof(sockaddr_un);
  };
  explicit DgramSocket(const std::string& path = {});
  ~DgramSocket();
  DgramSocket(const DgramSocket&) = delete;
  DgramSocket& operator=(const DgramSocket&) = delete;

  // The byte count sent, or -errno.
  int SendTo(const std::string& path, const Bytes& b);
  int SendTo(const Addr& to, const Bytes& b);
  // The next datagram (and its sender); empty when none came within the
  // guard time: a hang guard, not a verdict on speed.
  Bytes Receive(Addr* from = nullptr, int guard_ms = 10000);
  // Whether a datagram is waiting now.
  bool Ready();

 private:
  int fd_;
  std::string path_;
};

// A socket file as a process that died leaves it: bound, nobody behind it.
void LeaveStaleSocket(const std::string& path);

// Little-endian fields, for expected wire images and crafted replies.
struct ByteWriter {
  Bytes b;
  ByteWriter& u8(uint8_t v) {
    b.push_back(v);
    return *this;
  }
  ByteWriter& u16(uint16_t v) { return u8(v & 0xFF).u8(v >> 8); }
  ByteWriter& u32(uint32_t v) { return u16(v & 0xFFFF).u16(v >> 16); }
  ByteWriter& u64(uint64_t v) { return u32(v & 0xFFFFFFFF).u32(v >> 32); }
  ByteWriter& zeros(size_t n) { return bytes(Bytes(n, 0)); }
  ByteWriter& bytes(const Bytes& more) {
    b.insert(b.end(), more.begin(), more.end());
    return *this;
  }
};

inline uint32_t Le32(const uint8_t* p) {
  return p[0] | p[1] << 8 | p[2] << 16 | uint32_t(p[3]) << 24;
}
// A netlink message: header (port id 0) and body, padded to 4 bytes.
Bytes NlMsg(uint16_t type, uint16_t flags, uint32_t seq, const Bytes& body);
// The messages of a datagram, as far as their lengths hold.
std::vector<Bytes> Messages(const Bytes& dgram);
// The acknowledgement of `request` (one message) carrying `error`.
Bytes AckOf(const Bytes& request, int error);
// A packet message of `type` as workers receive it.
Bytes PacketMsg(uint32_t type, const Bytes& data);
// A buffer the unconfigured module hands to the normal channel's default
// receiver: `len` bytes that differ with `n`.
Bytes DefaultPacket(uint32_t n, size_t len = 60);

// The daemon's file service: a read request, and replies as the daemon
// sends them.
Bytes FileRead(const std::string& path, int64_t pos, uint32_t count, uint32_t seq = 1);
Bytes FileReplyMsg(uint32_t seq, int64_t result, int64_t pos, const Bytes& data = {});
struct FileReply {
  uint32_t seq = 0;
  int64_t result = -9999;  // when no reply came
  int64_t pos = 0;
  Bytes data;
};
FileReply DecodeFileReply(const Bytes& msg);

// libvane's endpoint for the daemon whose run directory is `run_dir` (which
// must outlive it).
vane_endpoint UnixEndpoint(const std::string& run_dir, int timeout_ms = 5000);

// vaned in this process, on a thread of its own, in a scratch directory
// (its run directory `run` there unless one is given).
class InProcessDaemon {
 public:
  explicit InProcessDaemon(const std::string& run_dir = {});
  ~InProcessDaemon();
  const std::string& run_dir() const { return run_dir_; }
  std::string sock(int protocol) const;
  // A buffer handed in as the switch driver does: netlink_send_msg's result.
  int Deliver(uint32_t type, const Bytes& buf);
  // Run's result: 1 when the module's unload left allocations behind.
  int Stop();
  // Stops the daemon, which must unload cleanly, and reads the stats file
  // it wrote last.
  nlohmann::json FinalStats();

 private:
  TempDir dir_;
  std::string run_dir_;
  std::unique_ptr<host::Daemon> daemon_;
  std::thread loop_;
  int result_ = -1;
  bool stopped_ = false;
};

// A libvane control handle on vaned in this process. The daemon must unload
// cleanly when it goes.
struct VanedControl {
  VanedControl();
  ~VanedControl();
  // Writes `select` to the file when given, then reads the file whole.
  std::string Read(const std::string& path, const std::string& select = {});
  InProcessDaemon d;
  vane_ctl* ctl = nullptr;
};

// `record`'s bytes laid into `image` at `offset`, growing it if need be.
template <typename T>
void PutRecord(Bytes* image, size_t offset, const T& record) {
  if (image->size() < offset + sizeof(T)) image->resize(offset + sizeof(T));
  std::memcpy(image->data() + offset, &record, sizeof(T));
}

}  // namespace vane::test

#endif  // VANE_TESTS_HOST_SUPPORT_HOST_SUPPORT_H
