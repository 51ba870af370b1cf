// The worker's receive path: batched receipt with recvmmsg, the walk over
// every message of each datagram, loss accounting, and the periodic
// re-registration. Nothing here allocates.
#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "proc_netlink.h"
#include "vane/wire.h"
#include "worker.h"

namespace vane {
namespace {

constexpr size_t kStashRecHdr = 12;  // type, length, channel

void OnAck(vane_worker* w, const NlMessage& m, int err) {
  vane_worker::Round& r = w->round;
  const uint32_t k = m.hdr.seq - r.first_seq;  // wraps for strangers
  if (!r.active || k >= r.total || r.acked.test(k)) return;
  r.acked.set(k);
  if (err != 0) {
    r.failed = true;
    if (r.first_error == 0) r.first_error = err;
  }
  if (r.acked.count() == r.total) FinishRound(w);
}

void Deliver(vane_worker* w, Sink* sink, const vane_packet& pkt) {
  if (sink->fn != nullptr) {
    ++w->stats.packets;
    w->stats.bytes += pkt.len;
    ++sink->delivered;
    sink->fn(sink->arg, &pkt);
    return;
  }
  const size_t need = kStashRecHdr + NlAlign(pkt.len);
  if (kStashCap - w->stash_len < need) {
    ReportLoss(w, pkt.channel, 1);  // counted, never silently dropped
    return;
  }
  uint8_t* p = w->stash + w->stash_len;
  Store(p, pkt.type);
  Store(p + 4, pkt.len);
  Store(p + 8, static_cast<uint32_t>(pkt.channel));
  std::memcpy(p + kStashRecHdr, pkt.data, pkt.len);
  w->stash_len += need;
}

void OnMessage(vane_worker* w, int channel, Sink* sink, const NlMessage& m) {
  int err = 0;
  if (AckError(m, &err)) {
    OnAck(w, m, err);
    return;
  }
  if (m.hdr.type == kVaneMsgType && m.body.size() >= 8) {
    const auto type = Load<uint32_t>(m.body.data());
    const auto len = Load<uint32_t>(m.body.data() + 4);
    if (len <= m.body.size() - 8) {
      Deliver(w, sink, vane_packet{type, len, m.body.data() + 8, channel});
      return;
    }
  } else if (m.hdr.type == VANE_WIRE_OVERRUN && m.body.size() >= sizeof(vane_wire_overrun)) {
    ReportLoss(w, channel, Load<uint32_t>(m.body.data()));
    return;
  }
  ++w->stats.malformed;
}

// ENOBUFS on a netlink socket: the kernel dropped messages for us. How many
// is in its per-socket drop count.
void OnNoBufs(vane_worker* w, vane_worker::Chan& c) {
  uint64_t lost = 0;
  if (c.sock.transport() == VANE_TRANSPORT_NETLINK) {
    if (auto drops = NetlinkDrops(c.sock.fd()); drops && *drops >= c.drops_seen) {
      lost = *drops - c.drops_seen;
      c.drops_seen = *drops;
    }
  }
  ReportLoss(w, c.sock.channel(), lost);
}

}  // namespace

int ReceiveBatch(vane_worker* w, unsigned i, Sink* sink) {
  vane_worker::Chan& c = w->chans[i];
  for (unsigned k = 0; k < w->batch; ++k) {
    w->iovs[k] = {w->rx + size_t{k} * VANE_WIRE_DGRAM_MAX, VANE_WIRE_DGRAM_MAX};
    w->msgs[k].msg_hdr = msghdr{};
    w->msgs[k].msg_hdr.msg_iov = &w->iovs[k];
    w->msgs[k].msg_hdr.msg_iovlen = 1;
    w->msgs[k].msg_len = 0;
  }
  const int n = recvmmsg(c.sock.fd(), w->msgs, w->batch, MSG_DONTWAIT, nullptr);
  if (n < 0) {
    if (errno == EAGAIN || errno == EINTR) return 0;
    if (errno == ENOBUFS) {
      OnNoBufs(w, c);
      return 0;
    }
    return -errno;
  }
  const int channel = c.sock.channel();
  for (int k = 0; k < n; ++k) {
    const mmsghdr& mm = w->msgs[k];
    if ((mm.msg_hdr.msg_flags & MSG_TRUNC) != 0) {
      ++w->stats.malformed;
      continue;
    }
    const std::span<const uint8_t> dgram(w->rx + size_t(k) * VANE_WIRE_DGRAM_MAX, mm.msg_len);
    if (!WalkDatagram(dgram, [&](const NlMessage& m) { OnMessage(w, channel, sink, m); })) {
      ++w->stats.malformed;
    }
  }
  return 0;
}

int DrainStash(vane_worker* w, vane_packet_fn fn, void* arg) {
  int n = 0;
  for (size_t off = 0; off < w->stash_len;) {
    const uint8_t* p = w->stash + off;
    const vane_packet pkt{Load<uint32_t>(p), Load<uint32_t>(p + 4), p + kStashRecHdr,
                          static_cast<int>(Load<uint32_t>(p + 8))};
    ++w->stats.packets;
    w->stats.bytes += pkt.len;
    fn(arg, &pkt);
    ++n;
    off += kStashRecHdr + NlAlign(pkt.len);
  }
  w->stash_len = 0;
  return n;
}

}  // namespace vane

extern "C" int vane_worker_poll(vane_worker* w, int timeout_ms, vane_packet_fn fn, void* arg) {
  using namespace vane;  // NOLINT(google-build-using-namespace)
  if (w == nullptr || fn == nullptr) return -EINVAL;
  if (w->stash_len != 0) return DrainStash(w, fn, arg);

  const int64_t start = NowMs();
  Sink sink{fn, arg, 0};
  pollfd pfds[2];
  for (unsigned i = 0; i < w->n_chans; ++i) pfds[i] = {w->chans[i].sock.fd(), POLLIN, 0};
  for (;;) {
    int64_t now = NowMs();
    if (now >= w->next_reg_ms) {
      // Not waited for: the acknowledgements come back through this loop.
      (void)SendRound(w, true);
    }
    int64_t wait = w->next_reg_ms - now;
    if (timeout_ms >= 0) wait = std::min<int64_t>(wait, start + timeout_ms - now);
    wait = std::clamp<int64_t>(wait, 0, INT32_MAX);
    const int r = poll(pfds, w->n_chans, static_cast<int>(wait));
    if (r < 0) return errno == EINTR ? 0 : -errno;
    for (unsigned i = 0; r > 0 && i < w->n_chans; ++i) {
      if (pfds[i].revents == 0) continue;
      const int err = ReceiveBatch(w, i, &sink);
      if (err != 0) return sink.delivered > 0 ? sink.delivered : err;
    }
    if (sink.delivered > 0) return sink.delivered;
    now = NowMs();
    if (timeout_ms >= 0 && now - start >= timeout_ms) return 0;
  }
}
