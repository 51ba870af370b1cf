// Netlink inside the user-space backend: the kernel's socket and buffer
// types, and the in-memory "wire" between kernel sockets and user sockets.
#ifndef KPORT_USER_NETLINK_INTERNAL_H
#define KPORT_USER_NETLINK_INTERNAL_H

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "kport/netlink.h"

// A kernel socket: one per protocol.
struct sock {
  int protocol = 0;
  kport_netlink_input_t input = nullptr;
  // Input callbacks running now; guarded by the socket registry's mutex.
  int running_inputs = 0;
};

// A socket buffer. `data` moves forward as messages are pulled off the
// front; `head` is what was allocated, exactly `size` bytes so that writing
// past the end is caught by AddressSanitizer.
struct sk_buff {
  unsigned char* head = nullptr;
  unsigned char* data = nullptr;
  unsigned int len = 0;
  unsigned int size = 0;
  int protocol = 0;     // of the socket that sent it
  uint32_t portid = 0;  // the sender's port id (0: the kernel)
  uint32_t creds_pid = 0;
};

namespace kport::user::internal {

// The receiving side of a user socket: an in-memory queue, or, for an
// external socket, a sink that takes the bytes away.
struct Endpoint {
  using Sink = std::function<int(const uint8_t*, size_t, bool)>;

  Endpoint(int proto, uint32_t port, uint32_t process, size_t queue_limit)
      : protocol(proto), portid(port), pid(process), limit(queue_limit) {}

  const int protocol;
  const uint32_t portid;
  const uint32_t pid;
  const size_t limit;

  // Set before the endpoint is bound, never changed after.
  Sink sink;
  // Sink calls under way, and whether the owner has closed it; an external
  // socket's close waits for the count to fall to zero.
  std::atomic<int> sink_calls{0};
  std::atomic<bool> sink_closed{false};

  std::mutex mu;
  std::condition_variable space;  // signalled when a message leaves the queue
  std::deque<std::vector<uint8_t>> queue;
  bool closed = false;
};

// Binds an endpoint to (protocol, portid); nullptr when that is taken, or
// when `require_kernel` and the protocol has no kernel socket.
std::shared_ptr<Endpoint> Bind(int protocol, uint32_t portid, uint32_t pid, size_t limit,
                               bool require_kernel, Endpoint::Sink sink = nullptr);
// Unbinds the endpoint and wakes senders blocked on its full queue.
void Unbind(const std::shared_ptr<Endpoint>& ep);

// Runs the protocol's kernel input callback on a copy of the bytes, as sent
// by `from`. The byte count, or -ECONNREFUSED without a kernel socket.
int SendToKernel(const Endpoint& from, const void* data, size_t len);

// Queues the buffer's bytes on the user socket (protocol, portid), or hands
// them to its sink, and consumes the buffer; netlink_unicast's results.
int Deliver(int protocol, sk_buff* skb, uint32_t portid, bool nonblock);

// A socket buffer of `size` bytes; `injectable` makes it a fault site.
// Buffers made on behalf of the user side and of the netlink core (what a
// user socket sends, acknowledgements) are not the module's allocations, so
// they do not consume a failure armed for the module.
sk_buff* NewSkb(unsigned int size, bool injectable);

}  // namespace kport::user::internal

#endif  // KPORT_USER_NETLINK_INTERNAL_H
