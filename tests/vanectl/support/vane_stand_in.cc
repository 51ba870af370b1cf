// A stand-in for libvane's control side while it is built elsewhere: the
// dry-run transport alone, building each control message byte for byte as
// the dispatcher reads it. The suites and the apply benchmark link it only
// when the real library is not part of the build.
#include <cerrno>
#include <cstring>
#include <new>
#include <vector>

#include "vane/vane.h"

struct vane_ctl {
  vane_endpoint ep;
  uint32_t seq;
};

namespace {

constexpr uint16_t kType = 18;
constexpr uint16_t kRequest = 0x0001;
constexpr uint16_t kAck = 0x0004;
constexpr uint32_t kLbMsg = 10;

template <typename T>
void Put(std::vector<uint8_t>& b, size_t off, T v) {
  std::memcpy(b.data() + off, &v, sizeof(v));
}

int Lb(vane_ctl* c, uint32_t set_type, uint32_t head, const std::vector<uint8_t>& body) {
  std::vector<uint8_t> p(8 + body.size());
  Put(p, 0, set_type);
  Put(p, 4, head);
  if (!body.empty()) std::memcpy(p.data() + 8, body.data(), body.size());
  return vane_ctl_send(c, VANE_CHANNEL_NORMAL, kLbMsg, p.data(), static_cast<uint32_t>(p.size()));
}

}  // namespace

extern "C" {

enum vane_transport vane_resolve_transport(const vane_endpoint* ep) {
  return ep != nullptr && ep->transport != VANE_TRANSPORT_AUTO ? ep->transport
                                                               : VANE_TRANSPORT_NETLINK;
}

const char* vane_transport_name(enum vane_transport t) {
  switch (t) {
    case VANE_TRANSPORT_UNIX:
      return "unix";
    case VANE_TRANSPORT_DRY_RUN:
      return "dry-run";
    default:
      return "netlink";
  }
}

int vane_ctl_open(const vane_endpoint* ep, vane_ctl** out) {
  if (ep == nullptr || out == nullptr) return -EINVAL;
  if (ep->transport != VANE_TRANSPORT_DRY_RUN) return -ECONNREFUSED;
  *out = new (std::nothrow) vane_ctl{*ep, 0};
  return *out == nullptr ? -ENOMEM : 0;
}

void vane_ctl_close(vane_ctl* c) { delete c; }

enum vane_transport vane_ctl_transport(const vane_ctl* c) { return c->ep.transport; }

size_t vane_build_control(uint8_t* out, size_t cap, uint32_t msg_id, const void* payload,
                          uint32_t len, uint32_t seq, int want_ack) {
  const size_t total = 24 + size_t{len};
  if (out == nullptr || cap < total) return 0;
  const uint32_t nlmsg_len = static_cast<uint32_t>(total);
  const uint16_t flags = kRequest | (want_ack != 0 ? kAck : 0);
  const uint32_t pid = 0;
  std::memcpy(out, &nlmsg_len, 4);
  std::memcpy(out + 4, &kType, 2);
  std::memcpy(out + 6, &flags, 2);
  std::memcpy(out + 8, &seq, 4);
  std::memcpy(out + 12, &pid, 4);
  std::memcpy(out + 16, &msg_id, 4);
  std::memcpy(out + 20, &len, 4);
  if (len != 0) std::memcpy(out + 24, payload, len);
  return total;
}

int vane_ctl_send(vane_ctl* c, int channel, uint32_t msg_id, const void* payload, uint32_t len) {
  if (c == nullptr || (len != 0 && payload == nullptr)) return -EINVAL;
  std::vector<uint8_t> msg(24 + size_t{len});
  vane_build_control(msg.data(), msg.size(), msg_id, payload, len, ++c->seq, 1);
  if (c->ep.dry_run != nullptr) c->ep.dry_run(c->ep.dry_run_arg, channel, msg.data(), msg.size());
  return 0;
}

int vane_ctl_set_config(vane_ctl* c, const vane_dispatch_config* cfg) {
  return vane_ctl_send(c, VANE_CHANNEL_NORMAL, 5, cfg, sizeof(*cfg));
}

int vane_ctl_set_steering(vane_ctl* c, const vane_steering_table* t) {
  if (t->cause_id_count > VANE_STEERING_CAUSEIDS) return -EINVAL;
  return vane_ctl_send(c, VANE_CHANNEL_NORMAL, 11, t, sizeof(*t));
}

int vane_ctl_timng_set(vane_ctl* c, uint32_t cause_id, uint32_t node_id, uint32_t is_master,
                       uint32_t is_frag_scan) {
  const uint32_t p[4] = {cause_id, node_id, is_master, is_frag_scan};
  return vane_ctl_send(c, VANE_CHANNEL_NORMAL, 14, p, sizeof(p));
}

int vane_ctl_timng_master(vane_ctl* c, uint32_t is_master) {
  const uint32_t p[4] = {0, 0, is_master, 0};
  return vane_ctl_send(c, VANE_CHANNEL_NORMAL, 15, p, sizeof(p));
}

int vane_ctl_lb_capwap(vane_ctl* c, const vane_capwap_entry* e, uint8_t op) {
  std::vector<uint8_t> b(24);
  Put(b, 0, e->sip);
  Put(b, 4, e->dip);
  Put(b, 8, e->sport);
  Put(b, 10, e->dport);
  Put(b, 12, e->vpn);
  Put(b, 16, e->process);
  Put(b, 20, op);
  return Lb(c, 0, 0, b);
}

int vane_ctl_lb_capwap_ka(vane_ctl* c, const uint32_t session[4], uint32_t process, uint8_t op) {
  std::vector<uint8_t> b(24);
  std::memcpy(b.data(), session, 16);
  Put(b, 16, process);
  Put(b, 20, op);
  return Lb(c, 1, 0, b);
}

int vane_ctl_lb_nac(vane_ctl* c, uint32_t board_type, const uint32_t* ids, uint16_t count) {
  if (count > VANE_NAC_MAX || (count != 0 && ids == nullptr)) return -EINVAL;
  std::vector<uint8_t> b(68);
  Put(b, 0, count);
  if (count != 0) std::memcpy(b.data() + 4, ids, 4 * size_t{count});
  return Lb(c, 2, board_type, b);
}

int vane_ctl_lb_portal(vane_ctl* c, uint16_t port, uint32_t process) {
  std::vector<uint8_t> b(12);
  Put(b, 0, port);
  Put(b, 4, process);
  return Lb(c, 3, 0, b);
}

int vane_ctl_lb_socket_port(vane_ctl* c, const vane_socket_port* p, uint16_t op) {
  std::vector<uint8_t> b(16);
  Put(b, 0, op);
  Put(b, 4, p->port);
  Put(b, 6, p->tcp);
  Put(b, 7, p->src_port);
  Put(b, 8, p->process);
  Put(b, 12, p->ipv6);
  return Lb(c, 4, 0, b);
}

int vane_ctl_lb_board_type(vane_ctl* c, uint32_t board_type) { return Lb(c, 5, board_type, {}); }

int vane_ctl_lb_cause_ids(vane_ctl* c, const vane_cause_id_entry* entries, uint32_t count) {
  if (count > VANE_CAUSEID_MAX || (count != 0 && entries == nullptr)) return -EINVAL;
  std::vector<uint8_t> b(12 * size_t{count});
  for (uint32_t i = 0; i < count; ++i) {
    Put(b, 12 * i, entries[i].cause_id);
    Put(b, 12 * i + 4, entries[i].pkt_type);
    Put(b, 12 * i + 8, entries[i].lb_type);
  }
  return Lb(c, 6, count, b);
}

}  // extern "C"
