// Control handles: opening, the raw control message, and its acknowledgement.
#include "ctl.h"

#include <cerrno>
#include <new>

namespace vane {

Sock* CtlSock(vane_ctl* c, int channel, int* err) {
  if (channel != VANE_CHANNEL_NORMAL && channel != VANE_CHANNEL_FAST) {
    *err = -EINVAL;
    return nullptr;
  }
  Sock& s = c->socks[channel == VANE_CHANNEL_FAST ? 1 : 0];
  if (s.fd() < 0) {
    *err = s.Open(c->transport, channel, Role::kControl, c->run_dir);
    if (*err != 0) return nullptr;
  }
  return &s;
}

}  // namespace vane

extern "C" int vane_ctl_open(const vane_endpoint* ep, vane_ctl** out) {
  if (out == nullptr) return -EINVAL;
  *out = nullptr;
  const vane_transport t = vane_resolve_transport(ep);
  if (t == VANE_TRANSPORT_DRY_RUN && (ep == nullptr || ep->dry_run == nullptr)) return -EINVAL;
  if (t != VANE_TRANSPORT_NETLINK && t != VANE_TRANSPORT_UNIX && t != VANE_TRANSPORT_DRY_RUN) {
    return -EINVAL;
  }
  auto* c = new (std::nothrow) vane_ctl;
  if (c == nullptr) return -ENOMEM;
  c->transport = t;
  c->run_dir = vane::RunDir(ep);
  if (ep != nullptr) {
    c->dry_run = ep->dry_run;
    c->dry_run_arg = ep->dry_run_arg;
    if (ep->timeout_ms > 0) c->timeout_ms = ep->timeout_ms;
  }
  // A dry run numbers its messages from 1, so the same file prints the same
  // bytes every time; a live handle starts at a time-derived number so that
  // a late acknowledgement of an earlier process is never taken for ours.
  c->seq = t == VANE_TRANSPORT_DRY_RUN ? 0 : vane::FirstSeq();
  if (t != VANE_TRANSPORT_DRY_RUN) {
    // Open the normal channel now so that a missing module or a bad run
    // directory shows at open time, not at the first message.
    int err = 0;
    if (vane::CtlSock(c, VANE_CHANNEL_NORMAL, &err) == nullptr) {
      delete c;
      return err;
    }
  }
  *out = c;
  return 0;
}

extern "C" void vane_ctl_close(vane_ctl* c) { delete c; }

extern "C" enum vane_transport vane_ctl_transport(const vane_ctl* c) {
  return c != nullptr ? c->transport : VANE_TRANSPORT_AUTO;
}

extern "C" int vane_ctl_send(vane_ctl* c, int channel, uint32_t msg_id, const void* payload,
                             uint32_t len) {
  using namespace vane;  // NOLINT(google-build-using-namespace)
  if (c == nullptr) return -EINVAL;
  if (channel != VANE_CHANNEL_NORMAL && channel != VANE_CHANNEL_FAST) return -EINVAL;
  const uint32_t seq = NextSeq(c);
  const size_t n = vane_build_control(c->tx.data(), c->tx.size(), msg_id, payload, len, seq, 1);
  if (n == 0) return -EINVAL;
  if (c->transport == VANE_TRANSPORT_DRY_RUN) {
    c->dry_run(c->dry_run_arg, channel, c->tx.data(), n);
    return 0;
  }
  return CtlExchange(c, channel, n, seq, [](const NlMessage& m) {
    int err = 0;
    return AckError(m, &err) ? err : -EPROTO;
  });
}
