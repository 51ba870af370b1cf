// One client address of a channel: the netlink port id it holds in the
// module and the sends to it.
//
// Thread context: Deliver runs on whichever thread the module unicasts from
// (packet sources, timers, the channel thread for acknowledgements), several
// at once; everything else runs on the channel's thread.
#ifndef VANE_HOST_CLIENT_H
#define VANE_HOST_CLIENT_H

#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/un.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "kport/user/external.h"

namespace vane::host {

// Maps a failed send(2)'s errno to what netlink_unicast would have said:
// -EAGAIN for a full queue (EAGAIN, ENOBUFS), -ECONNREFUSED for a peer that
// is gone (ECONNREFUSED, ENOENT), else -errno.
int SendErrno(int err);

// sendto(2) without blocking; the byte count or SendErrno's result.
int SendTo(int fd, const sockaddr_un& addr, socklen_t addr_len, const void* data, size_t len);

class SendBatch;

class Client : public std::enable_shared_from_this<Client> {
 public:
  Client(int fd, int protocol, const sockaddr_un& addr, socklen_t addr_len);
  ~Client();  // unbinds the port id first: no Deliver runs after it
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  // Binds the port id in the module; false when it is taken.
  bool Bind(uint32_t portid, uint32_t pid);
  // Gives the port id up now, though a batch may still hold the client.
  void Unbind() { socket_.reset(); }

  // The sink of the port id: sends `data` to the client after any pending
  // overrun notice. Returns the length, -EAGAIN (counted as a drop),
  // -ECONNREFUSED (the client is gone; it is forgotten at the next
  // housekeeping), or another -errno.
  int Deliver(const uint8_t* data, size_t len);
  // Sends `n` messages with sendmmsg(2), after any pending overrun notice,
  // with Deliver's accounting for each.
  void DeliverMany(const iovec* msgs, size_t n);
  // The same for a burst that mixes clients: message i goes to clients[i].
  // The messages that share a socket leave in one sendmmsg(2) call, each
  // with its client's address; a client whose overrun notice cannot go first
  // loses its messages of the burst (counted), as DeliverMany would.
  static void DeliverBurst(Client* const* clients, const iovec* msgs, size_t n);
  // Sends vaned's own answer (a file reply); the same results, not counted.
  int Reply(const void* data, size_t len);
  // Sends the overrun notice if messages were dropped since the last one.
  void FlushOverrun();

  // sendmsg() into the module as this client.
  int SendToModule(const void* data, size_t len) { return socket_->Send(data, len); }

  uint32_t portid() const { return portid_; }
  uint32_t pid() const { return pid_; }
  bool gone() const { return gone_.load(std::memory_order_relaxed); }
  uint64_t sent() const { return sent_.load(std::memory_order_relaxed); }
  uint64_t dropped() const { return dropped_.load(std::memory_order_relaxed); }
  uint64_t notices() const { return notices_.load(std::memory_order_relaxed); }

 private:
  int Raw(const void* data, size_t len);
  // Sends the notice for the drops pending; false when it could not go.
  bool SendNotice();

  const int fd_;
  const int protocol_;
  sockaddr_un addr_;
  const socklen_t addr_len_;
  uint32_t portid_ = 0;
  uint32_t pid_ = 0;
  std::atomic<uint32_t> lost_{0};  // drops since the last notice
  std::atomic<uint64_t> sent_{0};
  std::atomic<uint64_t> dropped_{0};
  std::atomic<uint64_t> notices_{0};
  std::atomic<bool> gone_{false};
  std::unique_ptr<kport::user::ExternalSocket> socket_;
};

// Groups the deliveries made on the calling thread while it is alive: the
// messages are queued per client and go out with one sendmmsg(2) per client
// when the batch ends (or fills up), instead of one send each. A source
// opens one around each burst of packets it hands in.
//
// Deliveries inside a batch report success when queued; a message that
// finds its client's queue full at the flush is counted as a drop and told
// in an overrun notice, as an immediate send would have been. Batches nest:
// an inner one queues into the outer one.
class SendBatch {
 public:
  SendBatch();
  ~SendBatch();  // flushes
  SendBatch(const SendBatch&) = delete;
  SendBatch& operator=(const SendBatch&) = delete;

  void Flush();
  // The batch open on this thread, if any.
  static SendBatch* Current();
  // Queues a copy of `data` for `client`.
  void Queue(Client* client, const uint8_t* data, size_t len);

 private:
  static constexpr size_t kMaxBytes = 1 << 20;
  static constexpr size_t kMaxItems = 512;
  struct Item {
    size_t client;  // index into clients_
    size_t off;
    size_t len;
  };
  SendBatch* outer_;
  // Held so that a client forgotten meanwhile outlives its queued messages.
  std::vector<std::shared_ptr<Client>> clients_;
  std::vector<Item> items_;
  std::vector<uint8_t> bytes_;
  std::vector<iovec> iov_;  // Flush's, kept for their capacity
  std::vector<Client*> targets_;
};

}  // namespace vane::host

#endif  // VANE_HOST_CLIENT_H
