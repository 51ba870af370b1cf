// External netlink user sockets: a (protocol, port id, pid) whose messages go
// to a callback instead of an in-memory queue, so that a host process can
// carry them to a real peer (a Unix socket, a pipe) without an extra copy.
//
// Thread context: the sink runs on the thread that called netlink_unicast
// (a packet source, a timer, the sender of a control message whose
// acknowledgement it is), possibly on several threads at once.
#ifndef KPORT_USER_EXTERNAL_H
#define KPORT_USER_EXTERNAL_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>

namespace kport::user {

namespace internal {
struct Endpoint;
}  // namespace internal

class ExternalSocket {
 public:
  // Gets one netlink message's bytes, valid only during the call, and
  // whether the caller asked not to block. Returns what netlink_unicast
  // returns: the length on success, -EAGAIN (-11) when the peer's queue is
  // full, -ECONNREFUSED (-111) when the peer is gone, or another -errno.
  using Sink = std::function<int(const uint8_t* data, size_t len, bool nonblock)>;

  // Binds the socket. nullptr when (protocol, portid) is taken, or when no
  // kernel socket of the protocol exists and `require_kernel` is true.
  static std::unique_ptr<ExternalSocket> Open(int protocol, uint32_t portid, uint32_t pid,
                                              Sink sink, bool require_kernel = true);
  // Unbinds, then waits for sink calls already under way to return: once
  // the destructor returns the sink is never called again. Must not run
  // inside the sink itself.
  ~ExternalSocket();
  ExternalSocket(const ExternalSocket&) = delete;
  ExternalSocket& operator=(const ExternalSocket&) = delete;

  // sendmsg() to the protocol's kernel socket with this socket's port id and
  // pid (see UserSocket::Send): the byte count, or -ECONNREFUSED.
  int Send(const void* data, size_t len);

  int protocol() const;
  uint32_t portid() const;
  uint32_t pid() const;

 private:
  explicit ExternalSocket(std::shared_ptr<internal::Endpoint> ep);
  std::shared_ptr<internal::Endpoint> ep_;
};

}  // namespace kport::user

#endif  // KPORT_USER_EXTERNAL_H
