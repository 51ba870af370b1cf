// The worker handle: its channel sockets, receive buffers, registration
// rounds and statistics. One thread at a time per handle.
#ifndef VANE_SDK_SRC_WORKER_H
#define VANE_SDK_SRC_WORKER_H

#include <sys/socket.h>

#include <bitset>
#include <cstdint>

#include "frame.h"
#include "sock.h"
#include "vane/vane.h"

struct vane_worker {
  struct Chan {
    vane::Sock sock;
    uint64_t drops_seen = 0;  // netlink: the kernel's drop count last read
  };

  // One registration round: a message 0 per channel and slot, acknowledged
  // one by one (sequence numbers first_seq .. first_seq + total - 1).
  struct Round {
    bool active = false;
    bool failed = false;
    int first_error = 0;  // the first error acknowledged
    uint32_t first_seq = 0;
    uint32_t total = 0;
    std::bitset<2 * VANE_WORKER_MAX_VCPUS> acked;
  };

  Chan chans[2];
  unsigned n_chans = 0;
  uint8_t slots[VANE_WORKER_MAX_VCPUS + 1] = {};  // vCPU indexes, 0 = default receiver
  unsigned n_slots = 0;
  unsigned batch = 64;
  unsigned reregister_ms = 1000;
  int timeout_ms = 2000;
  vane_loss_fn on_loss = nullptr;
  void* on_loss_arg = nullptr;

  uint32_t seq = 0;
  Round round;
  int64_t next_reg_ms = 0;
  bool peer_down = false;  // the last send found no module or daemon

  // recvmmsg storage: batch buffers of the largest datagram.
  uint8_t* rx = nullptr;
  mmsghdr* msgs = nullptr;
  iovec* iovs = nullptr;

  // Packets that arrive while a registration is waited for, handed over by
  // the next poll: records of type, length, channel and padded data.
  uint8_t* stash = nullptr;
  size_t stash_len = 0;

  vane_worker_stats stats{};

  ~vane_worker();
};

namespace vane {

inline constexpr size_t kStashCap = 256 * 1024;
// While the peer is gone, registration is retried this often so that the
// worker is back as soon as the module or the daemon is.
inline constexpr int64_t kDownRetryMs = 50;

// Where a received packet goes: the user's callback, or the stash.
struct Sink {
  vane_packet_fn fn = nullptr;  // nullptr: stash
  void* arg = nullptr;
  int delivered = 0;
};

// Sends a registration round (counting an unfinished one as failed).
// 0 or the send's error.
int SendRound(vane_worker* w, bool nonblock);
// Ends the current round, counting it as a registration or a failure.
void FinishRound(vane_worker* w);
// Receives one batch on channel i and hands what it holds to sink.
// 0 or a receive error.
int ReceiveBatch(vane_worker* w, unsigned i, Sink* sink);
// Hands the stashed packets to fn; their number.
int DrainStash(vane_worker* w, vane_packet_fn fn, void* arg);
// Reports lost messages on a channel.
void ReportLoss(vane_worker* w, int channel, uint64_t lost);

}  // namespace vane

#endif  // VANE_SDK_SRC_WORKER_H
