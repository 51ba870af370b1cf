// Worker handles: opening the channels, registration rounds, and the waits
// for their acknowledgements.
#include "worker.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <new>

#include "proc_netlink.h"
#include "vane/wire.h"

namespace vane {
namespace {

constexpr size_t kRegMsgLen = kCtlHdrLen + 8;

// Waits for the current round's acknowledgements, stashing any packet that
// arrives meanwhile. 0 once every acknowledgement is in (the round records
// their errors), -ETIMEDOUT, or a receive error.
int AwaitRound(vane_worker* w) {
  const int64_t deadline = NowMs() + w->timeout_ms;
  pollfd pfds[2];
  for (unsigned i = 0; i < w->n_chans; ++i) pfds[i] = {w->chans[i].sock.fd(), POLLIN, 0};
  while (w->round.active) {
    const int64_t left = deadline - NowMs();
    if (left <= 0) {
      w->round.failed = true;
      FinishRound(w);
      return -ETIMEDOUT;
    }
    const int r = poll(pfds, w->n_chans, static_cast<int>(left));
    if (r < 0 && errno != EINTR) return -errno;
    Sink stash;
    for (unsigned i = 0; r > 0 && i < w->n_chans; ++i) {
      if (pfds[i].revents == 0) continue;
      const int err = ReceiveBatch(w, i, &stash);
      if (err != 0) return err;
    }
  }
  return 0;
}

}  // namespace

void FinishRound(vane_worker* w) {
  if (!w->round.active) return;
  w->round.active = false;
  if (w->round.failed) {
    ++w->stats.registration_failures;
  } else {
    ++w->stats.registrations;
  }
}

int SendRound(vane_worker* w, bool nonblock) {
  if (w->round.active) {
    // The previous round never heard back from everyone.
    w->round.failed = true;
    FinishRound(w);
  }
  w->round = vane_worker::Round{};
  w->round.first_seq = w->seq;
  w->round.total = w->n_chans * w->n_slots;
  w->seq += w->round.total;
  w->round.active = true;

  uint8_t dgram[(VANE_WORKER_MAX_VCPUS + 1) * kRegMsgLen];
  uint32_t seq = w->round.first_seq;
  int rc = 0;
  for (unsigned c = 0; c < w->n_chans && rc == 0; ++c) {
    const Sock& s = w->chans[c].sock;
    // All slots of a channel in one datagram, sent on that channel's socket:
    // the daemon binds the sending address to the channel it arrives on.
    size_t len = 0;
    for (unsigned k = 0; k < w->n_slots; ++k) {
      const uint32_t payload[2] = {static_cast<uint32_t>(s.channel()), w->slots[k]};
      len +=
          vane_build_control(dgram + len, sizeof dgram - len, 0, payload, sizeof payload, seq++, 1);
    }
    s.Attach();
    rc = s.Send(std::span<const uint8_t>(dgram, len), nonblock);
  }
  w->peer_down = rc == -ECONNREFUSED;
  if (rc != 0) {
    w->round.failed = true;
    FinishRound(w);
  }
  const int64_t period =
      w->peer_down ? std::min<int64_t>(kDownRetryMs, w->reregister_ms) : int64_t{w->reregister_ms};
  w->next_reg_ms = NowMs() + period;
  return rc;
}

void ReportLoss(vane_worker* w, int channel, uint64_t lost) {
  ++w->stats.loss_events;
  w->stats.lost += lost;
  if (w->on_loss != nullptr) w->on_loss(w->on_loss_arg, channel, lost);
}

}  // namespace vane

vane_worker::~vane_worker() {
  free(rx);
  free(msgs);
  free(iovs);
  free(stash);
}

extern "C" int vane_worker_open(const vane_worker_opts* opts, vane_worker** out) {
  using namespace vane;  // NOLINT(google-build-using-namespace)
  if (out == nullptr) return -EINVAL;
  *out = nullptr;
  if (opts == nullptr || (!opts->open_normal && !opts->open_fast)) return -EINVAL;
  if (opts->n_vcpus > VANE_WORKER_MAX_VCPUS - 1 || (opts->vcpus == nullptr && opts->n_vcpus != 0)) {
    return -EINVAL;
  }
  const vane_transport t = vane_resolve_transport(&opts->ep);
  if (t != VANE_TRANSPORT_NETLINK && t != VANE_TRANSPORT_UNIX) return -EINVAL;

  auto* w = new (std::nothrow) vane_worker;
  if (w == nullptr) return -ENOMEM;
  if (opts->default_receiver) w->slots[w->n_slots++] = 0;
  for (size_t i = 0; i < opts->n_vcpus; ++i) {
    const uint8_t v = opts->vcpus[i];
    if (v < 1 || v >= VANE_WORKER_MAX_VCPUS) {
      delete w;
      return -EINVAL;
    }
    w->slots[w->n_slots++] = v;
  }
  if (w->n_slots == 0) {  // nothing would ever arrive
    delete w;
    return -EINVAL;
  }
  if (opts->batch != 0) w->batch = opts->batch;
  if (opts->reregister_ms != 0) w->reregister_ms = opts->reregister_ms;
  if (opts->ep.timeout_ms > 0) w->timeout_ms = opts->ep.timeout_ms;
  w->on_loss = opts->on_loss;
  w->on_loss_arg = opts->on_loss_arg;
  w->seq = FirstSeq();

  w->rx = static_cast<uint8_t*>(malloc(size_t{w->batch} * VANE_WIRE_DGRAM_MAX));
  w->msgs = static_cast<mmsghdr*>(calloc(w->batch, sizeof(mmsghdr)));
  w->iovs = static_cast<iovec*>(calloc(w->batch, sizeof(iovec)));
  w->stash = static_cast<uint8_t*>(malloc(kStashCap));
  if (w->rx == nullptr || w->msgs == nullptr || w->iovs == nullptr || w->stash == nullptr) {
    delete w;
    return -ENOMEM;
  }

  const std::string run_dir = RunDir(&opts->ep);
  const int channels[2] = {opts->open_normal ? VANE_CHANNEL_NORMAL : 0,
                           opts->open_fast ? VANE_CHANNEL_FAST : 0};
  for (int ch : channels) {
    if (ch == 0) continue;
    vane_worker::Chan& c = w->chans[w->n_chans];
    int rc = c.sock.Open(t, ch, Role::kWorker, run_dir);
    if (rc == 0 && opts->rcvbuf != 0) rc = c.sock.SetRcvbuf(opts->rcvbuf);
    if (rc != 0) {
      delete w;
      return rc;
    }
    if (t == VANE_TRANSPORT_NETLINK) c.drops_seen = NetlinkDrops(c.sock.fd()).value_or(0);
    ++w->n_chans;
  }

  const int rc = vane_worker_register(w);
  if (rc != 0) {
    delete w;
    return rc;
  }
  *out = w;
  return 0;
}

extern "C" int vane_worker_register(vane_worker* w) {
  if (w == nullptr) return -EINVAL;
  const int rc = vane::SendRound(w, false);
  if (rc != 0) return rc;
  const int wait = vane::AwaitRound(w);
  return wait != 0 ? wait : w->round.first_error;
}

extern "C" void vane_worker_stats_get(const vane_worker* w, vane_worker_stats* out) {
  if (w != nullptr && out != nullptr) *out = w->stats;
}

extern "C" int vane_worker_fd(const vane_worker* w, int channel) {
  if (w == nullptr) return -1;
  for (unsigned i = 0; i < w->n_chans; ++i) {
    if (w->chans[i].sock.channel() == channel) return w->chans[i].sock.fd();
  }
  return -1;
}

extern "C" void vane_worker_close(vane_worker* w) { delete w; }
