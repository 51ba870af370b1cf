// The parts of a channel socket that do not depend on the transport: sending
// a datagram to wherever the socket points, and receiving one with a wait.
#include "sock.h"

#include <linux/netlink.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <ctime>

#include "vane/wire.h"

namespace vane {

void Sock::Close() {
  if (nl_ != nullptr) {
    CloseNetlink();
  } else if (fd_ >= 0) {
    close(fd_);
  }
  fd_ = -1;
}

int Sock::Open(vane_transport t, int channel, Role role, const std::string& run_dir) {
  Close();
  if (channel != VANE_CHANNEL_NORMAL && channel != VANE_CHANNEL_FAST) return -EINVAL;
  transport_ = t;
  channel_ = channel;
  switch (t) {
    case VANE_TRANSPORT_NETLINK:
      return OpenNetlink(role);
    case VANE_TRANSPORT_UNIX:
      return OpenUnix(run_dir);
    default:
      return -EINVAL;
  }
}

int Sock::Send(std::span<const uint8_t> dgram, bool nonblock) const {
  const int flags = MSG_NOSIGNAL | (nonblock ? MSG_DONTWAIT : 0);
  ssize_t n;
  if (transport_ == VANE_TRANSPORT_NETLINK) {
    sockaddr_nl kernel{};
    kernel.nl_family = AF_NETLINK;
    n = sendto(fd_, dgram.data(), dgram.size(), flags, reinterpret_cast<sockaddr*>(&kernel),
               sizeof kernel);
  } else {
    n = sendto(fd_, dgram.data(), dgram.size(), flags, reinterpret_cast<const sockaddr*>(&peer_),
               peer_len_);
  }
  if (n < 0) {
    // A socket file without a daemon behind it, or none at all: both mean
    // nothing listens.
    if (errno == ENOENT || errno == ECONNREFUSED) return -ECONNREFUSED;
    return -errno;
  }
  return static_cast<size_t>(n) == dgram.size() ? 0 : -EMSGSIZE;
}

ssize_t Sock::Recv(std::span<uint8_t> buf, int timeout_ms) const {
  pollfd p{fd_, POLLIN, 0};
  for (;;) {
    int r = poll(&p, 1, timeout_ms);
    if (r < 0 && errno == EINTR) continue;
    if (r < 0) return -errno;
    if (r == 0) return -ETIMEDOUT;
    ssize_t n = recv(fd_, buf.data(), buf.size(), MSG_DONTWAIT | MSG_TRUNC);
    if (n < 0 && (errno == EAGAIN || errno == EINTR)) continue;
    if (n < 0) return -errno;
    if (static_cast<size_t>(n) > buf.size()) return -EMSGSIZE;
    return n;
  }
}

int Sock::SetRcvbuf(unsigned bytes) const {
  const int v = static_cast<int>(bytes);
  if (setsockopt(fd_, SOL_SOCKET, SO_RCVBUFFORCE, &v, sizeof v) == 0) return 0;
  return setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &v, sizeof v) == 0 ? 0 : -errno;
}

std::string RunDir(const vane_endpoint* ep) {
  if (ep != nullptr && ep->run_dir != nullptr && ep->run_dir[0] != '\0') return ep->run_dir;
  const char* env = getenv("VANE_RUNDIR");  // NOLINT(concurrency-mt-unsafe)
  if (env != nullptr && env[0] != '\0') return env;
  return VANE_WIRE_RUN_DIR_DEFAULT;
}

int64_t NowMs() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

uint32_t FirstSeq() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  // Any odd-looking start will do; 0 is avoided because some peers treat a
  // zero sequence as "not a request".
  const auto s = static_cast<uint32_t>(ts.tv_nsec ^ (ts.tv_sec << 20) ^ getpid());
  return s == 0 ? 1 : s;
}

}  // namespace vane
