// One channel socket of either transport, as the worker and control code see
// it: a file descriptor, where its datagrams go, and the request/acknowledge
// exchange they share. Used by one thread at a time (that of its handle).
#ifndef VANE_SDK_SRC_SOCK_H
#define VANE_SDK_SRC_SOCK_H

#include <sys/socket.h>
#include <sys/un.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "vane/vane.h"

struct mnl_socket;

namespace vane {

enum class Role {
  kWorker,   // netlink: port id = pid, where registered packets arrive
  kControl,  // netlink: any other port id, so a process can be both
};

class Sock {
 public:
  Sock() = default;
  Sock(const Sock&) = delete;
  Sock& operator=(const Sock&) = delete;
  ~Sock() { Close(); }

  // Opens the socket of `channel` (26 or 27). run_dir is used by the unix
  // transport only. 0 or -errno (-ECONNREFUSED when the module is absent).
  int Open(vane_transport t, int channel, Role role, const std::string& run_dir);
  void Close();

  int fd() const { return fd_; }
  int channel() const { return channel_; }
  vane_transport transport() const { return transport_; }

  // Sends one datagram. 0 or -errno; a peer that is gone (no module, no
  // daemon, no socket file) is -ECONNREFUSED. Non-blocking when asked.
  int Send(std::span<const uint8_t> dgram, bool nonblock = false) const;
  // Unix: connects the socket to the daemon's socket now at the path (a
  // restarted daemon has a new one). A datagram socket connected to its
  // sender is exempt from the system's short limit of queued datagrams
  // (net.unix.max_dgram_qlen), which would otherwise drop bursts that its
  // receive buffer could hold. Workers attach before each registration
  // round; control handles do not, since a connected socket would refuse
  // the replies of a restarted daemon until it attached again. Nothing to do
  // on netlink; failures are left to the next send to report.
  void Attach() const;
  // Receives one datagram into buf, waiting up to timeout_ms (-1 forever).
  // Its length, or -ETIMEDOUT, -EMSGSIZE for a truncated one, or -errno.
  ssize_t Recv(std::span<uint8_t> buf, int timeout_ms) const;
  // Sets SO_RCVBUF (forced where permitted). 0 or -errno.
  int SetRcvbuf(unsigned bytes) const;

  // The daemon's socket for this channel (unix transport).
  const sockaddr_un& peer() const { return peer_; }

 private:
  int OpenNetlink(Role role);
  int OpenUnix(const std::string& run_dir);
  void CloseNetlink();

  vane_transport transport_ = VANE_TRANSPORT_NETLINK;
  int channel_ = 0;
  int fd_ = -1;
  mnl_socket* nl_ = nullptr;
  sockaddr_un peer_{};
  socklen_t peer_len_ = 0;
};

// The run directory an endpoint names: run_dir, else $VANE_RUNDIR, else the
// default.
std::string RunDir(const vane_endpoint* ep);
// Milliseconds on the monotonic clock.
int64_t NowMs();
// A sequence number to start a handle's requests with, distinct between
// handles so that a stray late acknowledgement of one is never taken for
// another's.
uint32_t FirstSeq();

}  // namespace vane

#endif  // VANE_SDK_SRC_SOCK_H
