// The control handle and its request/acknowledge exchange, shared by the
// control messages and the file requests. One thread at a time per handle.
#ifndef VANE_SDK_SRC_CTL_H
#define VANE_SDK_SRC_CTL_H

#include <array>
#include <cstdint>
#include <span>
#include <string>

#include "frame.h"
#include "sock.h"
#include "vane/vane.h"
#include "vane/wire.h"

struct vane_ctl {
  vane_transport transport = VANE_TRANSPORT_NETLINK;
  std::string run_dir;
  void (*dry_run)(void*, int, const uint8_t*, size_t) = nullptr;
  void* dry_run_arg = nullptr;
  int timeout_ms = 2000;
  uint32_t seq = 0;
  vane::Sock socks[2];  // normal, fast (opened on first use)
  std::array<uint8_t, VANE_WIRE_DGRAM_MAX> tx{};
  std::array<uint8_t, VANE_WIRE_DGRAM_MAX> rx{};
};

namespace vane {

// The socket of a channel, opened on first use. nullptr with *err set.
Sock* CtlSock(vane_ctl* c, int channel, int* err);

// Sends c->tx[0, len) (a request whose sequence number is seq) on channel
// and waits up to the handle's timeout for the reply carrying seq; other
// datagrams are discarded. on_reply(const NlMessage&) gives the result.
// Transport errors and -ETIMEDOUT otherwise.
template <typename OnReply>
int CtlExchange(vane_ctl* c, int channel, size_t len, uint32_t seq, OnReply&& on_reply) {
  int err = 0;
  Sock* s = CtlSock(c, channel, &err);
  if (s == nullptr) return err;
  if ((err = s->Send(std::span<const uint8_t>(c->tx.data(), len))) != 0) return err;
  const int64_t deadline = NowMs() + c->timeout_ms;
  for (;;) {
    const int64_t left = deadline - NowMs();
    if (left < 0) return -ETIMEDOUT;
    const ssize_t n = s->Recv(c->rx, static_cast<int>(left));
    if (n == -ETIMEDOUT) return -ETIMEDOUT;
    // A lost or oversized datagram cannot be ours to wait for any more than
    // the rest; keep listening until the deadline.
    if (n == -ENOBUFS || n == -EMSGSIZE) continue;
    if (n < 0) return static_cast<int>(n);
    bool done = false;
    int result = 0;
    WalkDatagram(std::span<const uint8_t>(c->rx.data(), static_cast<size_t>(n)),
                 [&](const NlMessage& m) {
                   if (done || m.hdr.seq != seq) return;
                   done = true;
                   result = on_reply(m);
                 });
    if (done) return result;
  }
}

inline uint32_t NextSeq(vane_ctl* c) {
  if (++c->seq == 0) ++c->seq;
  return c->seq;
}

}  // namespace vane

#endif  // VANE_SDK_SRC_CTL_H
