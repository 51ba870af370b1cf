// What the vaned tests share: a scratch run directory, a client socket that
// speaks the datagram protocol, and a daemon running inside the test
// process on a thread of its own.
#ifndef VANE_TESTS_HOST_HOST_ENV_H
#define VANE_TESTS_HOST_HOST_ENV_H

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "daemon.h"

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

 private:
  std::string path_;
};

// A client's datagram socket, autobound to an abstract address. Safe to use
// in a forked child: no allocation after Open.
class WireClient {
 public:
  WireClient();
  ~WireClient();
  WireClient(const WireClient&) = delete;
  WireClient& operator=(const WireClient&) = delete;

  int fd() const { return fd_; }
  // Sends to the socket file at `path`; the byte count or -errno.
  int SendTo(const char* path, const void* data, size_t len);
  int SendTo(const std::string& path, const Bytes& b) {
    return SendTo(path.c_str(), b.data(), b.size());
  }
  // The next datagram into `buf`; its length, or -1 when none came within
  // the guard time (a failure, not a verdict on speed).
  long Receive(uint8_t* buf, size_t cap, int guard_ms = 10000);
  std::optional<Bytes> Receive(int guard_ms = 10000);
  // Whether a datagram is waiting right now.
  bool Ready();

 private:
  int fd_;
};

// A daemon in this process: Start in a fresh run directory, then Run on a
// thread. Stop() returns Run's result (1 when the module leaked).
class InProcessDaemon {
 public:
  InProcessDaemon();
  ~InProcessDaemon();
  host::Daemon& daemon() { return *daemon_; }
  std::string sock(int protocol) const;
  const std::string& run_dir() const { return dir_.path(); }
  // The stats file's contents after Stop (the final snapshot).
  std::string stats_path() const { return dir_.path() + "/stats.json"; }
  int Stop();

 private:
  TempDir dir_;
  std::unique_ptr<host::Daemon> daemon_;
  std::thread loop_;
  int result_ = -1;
  bool stopped_ = false;
};

// Netlink helpers over the wire.
Bytes Control(uint32_t id, const Bytes& payload, uint32_t seq = 1);
Bytes FileRead(const std::string& path, int64_t pos, uint32_t count, uint32_t seq = 1);
Bytes FileWrite(const std::string& path, int64_t pos, const Bytes& data, uint32_t seq = 1);

struct FileReply {
  uint32_t seq;
  uint32_t portid;
  int64_t result;
  int64_t pos;
  Bytes data;
};
std::optional<FileReply> DecodeFileReply(const Bytes& msg);

}  // namespace vane::test

#endif  // VANE_TESTS_HOST_HOST_ENV_H
