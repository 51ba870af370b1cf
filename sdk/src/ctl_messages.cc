// One function per control message. Each payload is laid out in the
// module's own record type, so the bytes on the wire are the ones the
// dispatcher reads; the public structs that mirror those records are checked
// field by field at compile time.
#include <cerrno>
#include <cstring>

#include "drv_vane/config.h"
#include "drv_vane/netlink.h"
#include "drv_vane/steering.h"
#include "drv_vane/timng.h"
#include "drv_vane/wlan_lb.h"
#include "vane/vane.h"

namespace {

#define VANE_SAME_FIELD(pub, mod, pf, mf)                                                     \
  static_assert(offsetof(pub, pf) == offsetof(mod, mf) && sizeof(pub::pf) == sizeof(mod::mf), \
                #pub "." #pf " must lie where the dispatcher reads " #mf)

static_assert(sizeof(vane_dispatch_config) == sizeof(BYPASS_PKT_OFFSET_S));
VANE_SAME_FIELD(vane_dispatch_config, BYPASS_PKT_OFFSET_S, hg_hdr_offset, ulHgHdrOffset);
VANE_SAME_FIELD(vane_dispatch_config, BYPASS_PKT_OFFSET_S, mac_offset, ulMacOffset);
VANE_SAME_FIELD(vane_dispatch_config, BYPASS_PKT_OFFSET_S, reserved2, ulReserved2);
VANE_SAME_FIELD(vane_dispatch_config, BYPASS_PKT_OFFSET_S, reserved3, ulReserved3);
VANE_SAME_FIELD(vane_dispatch_config, BYPASS_PKT_OFFSET_S, ipc_eth_type, ulIpcEthType);
VANE_SAME_FIELD(vane_dispatch_config, BYPASS_PKT_OFFSET_S, vp_eth_type, ulVpEthType);
VANE_SAME_FIELD(vane_dispatch_config, BYPASS_PKT_OFFSET_S, ecm_vcpu_eth_type, ulEcmVcpuEthType);
VANE_SAME_FIELD(vane_dispatch_config, BYPASS_PKT_OFFSET_S, multicore_eth_num_min,
                ulMultiCoreEthNumMin);
VANE_SAME_FIELD(vane_dispatch_config, BYPASS_PKT_OFFSET_S, ecm_eth_num, ulEcmEthNum);
VANE_SAME_FIELD(vane_dispatch_config, BYPASS_PKT_OFFSET_S, vp_eth_num_min, ulVpEthNumMin);
VANE_SAME_FIELD(vane_dispatch_config, BYPASS_PKT_OFFSET_S, multicore_on, ulIsSupportMulticore);
VANE_SAME_FIELD(vane_dispatch_config, BYPASS_PKT_OFFSET_S, board_type, ulBoardType);
VANE_SAME_FIELD(vane_dispatch_config, BYPASS_PKT_OFFSET_S, vp_frag_inner_offset,
                ulVpFragInnerOffset);
VANE_SAME_FIELD(vane_dispatch_config, BYPASS_PKT_OFFSET_S, reserved13, ulReserved13);
VANE_SAME_FIELD(vane_dispatch_config, BYPASS_PKT_OFFSET_S, cause_id_offset, ulCauseIdOffset);
VANE_SAME_FIELD(vane_dispatch_config, BYPASS_PKT_OFFSET_S, multicore_eth_num_max,
                ulMultiCoreEthNumMax);
VANE_SAME_FIELD(vane_dispatch_config, BYPASS_PKT_OFFSET_S, first_frag_flag_offset,
                ulFirstFragFlagOffset);
VANE_SAME_FIELD(vane_dispatch_config, BYPASS_PKT_OFFSET_S, vp_inner_offset, ulVpInnerOffset);
VANE_SAME_FIELD(vane_dispatch_config, BYPASS_PKT_OFFSET_S, vp_eth_num_max, ulVpEthNumMax);
VANE_SAME_FIELD(vane_dispatch_config, BYPASS_PKT_OFFSET_S, ecm_vp_only, ulIsEcmVpOnly);
VANE_SAME_FIELD(vane_dispatch_config, BYPASS_PKT_OFFSET_S, no_hg_hdr, ulIsNoHgHdr);
VANE_SAME_FIELD(vane_dispatch_config, BYPASS_PKT_OFFSET_S, inner_mac_offset, ulInnerMacOffset);

static_assert(sizeof(vane_steering_table) == sizeof(BYPASS_LB_TABLE_S));
VANE_SAME_FIELD(vane_steering_table, BYPASS_LB_TABLE_S, enable, ulEnable);
VANE_SAME_FIELD(vane_steering_table, BYPASS_LB_TABLE_S, table_type, ulTableType);
VANE_SAME_FIELD(vane_steering_table, BYPASS_LB_TABLE_S, vcpu, ulVcpuId);
VANE_SAME_FIELD(vane_steering_table, BYPASS_LB_TABLE_S, cause_id_count, ulCauseIdNum);
VANE_SAME_FIELD(vane_steering_table, BYPASS_LB_TABLE_S, cause_ids, ausCauseId);
VANE_SAME_FIELD(vane_steering_table, BYPASS_LB_TABLE_S, cause_id_min, usCauseIdMin);
VANE_SAME_FIELD(vane_steering_table, BYPASS_LB_TABLE_S, cause_id_max, usCauseIdMax);

static_assert(VANE_STEERING_CAUSEIDS == BYPASS_LB_CAUSEID_MAX);
static_assert(VANE_NAC_MAX == WLAN_LB_NAC_MAX);
static_assert(VANE_CAUSEID_MAX == WLAN_LB_CAUSEID_MAX);
static_assert(VANE_VCPU_MAX == NETLINK_VCPU_SLOT_NUM - 1);
static_assert(VANE_TIMNG_ENTRIES == TIMNG_KERNEL_INFO_MAX);
static_assert(VANE_PROCESS_NAC == WLAN_LB_PROCESS_NAC);
static_assert(VANE_PKT_TYPE_MIN == WLAN_LB_PKT_TYPE_MIN &&
              VANE_PKT_TYPE_MAX == WLAN_LB_PKT_TYPE_MAX);
static_assert(VANE_LB_CAPWAP == LB_CAPWAP && VANE_LB_CAPWAP_KA == LB_CAPWAP_KA &&
              VANE_LB_AAA_MAC == LB_AAA_MAC && VANE_LB_AAA_PORT == LB_AAA_PORT);
static_assert(VANE_LB_OP_DELETE == WLAN_LB_OP_DELETE);
static_assert(sizeof(vane_cause_id_entry) == sizeof(WLAN_LB_CAUSEID_NODE_S));
VANE_SAME_FIELD(vane_cause_id_entry, WLAN_LB_CAUSEID_NODE_S, cause_id, causeid);
VANE_SAME_FIELD(vane_cause_id_entry, WLAN_LB_CAUSEID_NODE_S, pkt_type, pkttype);
VANE_SAME_FIELD(vane_cause_id_entry, WLAN_LB_CAUSEID_NODE_S, lb_type, lbtype);

bool ValidVcpu(uint32_t v) { return v <= VANE_VCPU_MAX; }
bool ValidOp(uint32_t op) { return op == VANE_LB_OP_ADD || op == VANE_LB_OP_DELETE; }

// An LB message: the 8-byte head, then the body.
template <typename Body>
struct LbMsg {
  WLAN_LB_MSG_HEAD_S head;
  Body body;
};

template <typename Body>
int SendLb(vane_ctl* c, uint32_t set_type, uint32_t head_word, const Body& body) {
  LbMsg<Body> m{};
  m.head.SetType = set_type;
  m.head.ulHeadWord = head_word;
  m.body = body;
  return vane_ctl_send(c, VANE_CHANNEL_NORMAL, NETLINK_MID_WLAN_LB, &m, sizeof m);
}

static_assert(sizeof(LbMsg<WLAN_LB_CAPWAP_MSG_S>) == WLAN_LB_CAPWAP_MSG_LEN);
static_assert(sizeof(LbMsg<WLAN_LB_CAPWAP_KA_MSG_S>) == WLAN_LB_CAPWAP_KA_MSG_LEN);
static_assert(sizeof(LbMsg<WLAN_LB_NAC_MSG_S>) == WLAN_LB_NAC_MSG_LEN);
static_assert(sizeof(LbMsg<WLAN_LB_PORTAL_MSG_S>) == WLAN_LB_PORTAL_MSG_LEN);
static_assert(sizeof(LbMsg<WLAN_LB_SOCKET_PORT_MSG_S>) == WLAN_LB_SOCKET_PORT_MSG_LEN);

}  // namespace

extern "C" {

int vane_ctl_register(vane_ctl* c, int channel, uint32_t vcpu) {
  if (channel != VANE_CHANNEL_NORMAL && channel != VANE_CHANNEL_FAST) return -EINVAL;
  if (!ValidVcpu(vcpu)) return -EINVAL;
  const NETLINK_PID_MSG_S m{static_cast<u32>(channel), vcpu};
  // Sent on the channel it names: the daemon binds the sending address to
  // the channel it arrived on.
  return vane_ctl_send(c, channel, NETLINK_MID_PID, &m, sizeof m);
}

int vane_ctl_set_config(vane_ctl* c, const vane_dispatch_config* cfg) {
  if (cfg == nullptr) return -EINVAL;
  BYPASS_PKT_OFFSET_S m;
  std::memcpy(&m, cfg, sizeof m);
  return vane_ctl_send(c, VANE_CHANNEL_NORMAL, NETLINK_MID_OFFSET, &m, sizeof m);
}

int vane_ctl_debug_command(vane_ctl* c, uint8_t code) {
  if (code < 1 || code > 20) return -EINVAL;
  // One byte is read; a whole word keeps the message aligned.
  const uint8_t m[4] = {code, 0, 0, 0};
  return vane_ctl_send(c, VANE_CHANNEL_NORMAL, NETLINK_MID_DEBUG_FLAG, m, sizeof m);
}

int vane_ctl_set_steering(vane_ctl* c, const vane_steering_table* t) {
  if (t == nullptr || t->table_type > VANE_STEERING_DETEPTION ||
      t->cause_id_count > VANE_STEERING_CAUSEIDS || !ValidVcpu(t->vcpu)) {
    return -EINVAL;
  }
  BYPASS_LB_TABLE_S m;
  std::memcpy(&m, t, sizeof m);
  return vane_ctl_send(c, VANE_CHANNEL_NORMAL, NETLINK_MID_IVO_LB, &m, sizeof m);
}

int vane_ctl_timng_set(vane_ctl* c, uint32_t cause_id, uint32_t node_id, uint32_t is_master,
                       uint32_t is_frag_scan) {
  if (cause_id > VANE_CAUSE_ID_VALUE_MAX || !ValidVcpu(node_id)) return -EINVAL;
  const TIMNG_KERNEL_MSG_S m{cause_id, node_id, is_master, is_frag_scan};
  return vane_ctl_send(c, VANE_CHANNEL_NORMAL, NETLINK_MID_TIMNG, &m, sizeof m);
}

int vane_ctl_timng_master(vane_ctl* c, uint32_t is_master) {
  const TIMNG_KERNEL_MSG_S m{0, 0, is_master, 0};
  return vane_ctl_send(c, VANE_CHANNEL_NORMAL, NETLINK_MID_TIMNG_MASTER, &m, sizeof m);
}

int vane_ctl_lb_capwap(vane_ctl* c, const vane_capwap_entry* e, uint8_t op) {
  if (e == nullptr || !ValidOp(op) || !ValidVcpu(e->process)) return -EINVAL;
  WLAN_LB_CAPWAP_MSG_S m{};
  m.sip = e->sip;
  m.dip = e->dip;
  m.sport = e->sport;
  m.dport = e->dport;
  m.vpn = e->vpn;
  m.process = e->process;
  m.op = op;
  return SendLb(c, WLAN_LB_KERNEL_LB_SET_CAPWAP, 0, m);
}

int vane_ctl_lb_capwap_ka(vane_ctl* c, const uint32_t session[4], uint32_t process, uint8_t op) {
  if (session == nullptr || !ValidOp(op) || !ValidVcpu(process)) return -EINVAL;
  WLAN_LB_CAPWAP_KA_MSG_S m{};
  std::memcpy(m.ulSessionID, session, sizeof m.ulSessionID);
  m.process = process;
  m.op = op;
  return SendLb(c, WLAN_LB_KERNEL_LB_SET_CAPWAP_KA, 0, m);
}

int vane_ctl_lb_nac(vane_ctl* c, uint32_t board_type, const uint32_t* ids, uint16_t count) {
  if (count > VANE_NAC_MAX || (ids == nullptr && count != 0)) return -EINVAL;
  WLAN_LB_NAC_MSG_S m{};
  m.count = count;
  for (uint16_t i = 0; i < count; ++i) {
    if (!ValidVcpu(ids[i])) return -EINVAL;
    m.ids[i] = ids[i];
  }
  return SendLb(c, WLAN_LB_KERNEL_LB_SET_NAC_NODELIST, board_type, m);
}

int vane_ctl_lb_portal(vane_ctl* c, uint16_t port, uint32_t process) {
  if (!ValidVcpu(process)) return -EINVAL;
  WLAN_LB_PORTAL_MSG_S m{};
  m.port = port;
  m.process = process;
  return SendLb(c, WLAN_LB_KERNEL_LB_SET_PORTAL_NODE, 0, m);
}

int vane_ctl_lb_socket_port(vane_ctl* c, const vane_socket_port* p, uint16_t op) {
  // The lists also take the NAC marker: such a port is spread over the NAC
  // vCPUs.
  if (p == nullptr || !ValidOp(op) || p->tcp > 1 || p->src_port > 1 || p->ipv6 > 1 ||
      !(ValidVcpu(p->process) || p->process == WLAN_LB_PROCESS_NAC)) {
    return -EINVAL;
  }
  WLAN_LB_SOCKET_PORT_MSG_S m{};
  m.op = op;
  m.port = p->port;
  m.TcpFlag = p->tcp;
  m.SrcPortFlag = p->src_port;
  m.process = p->process;
  m.isIpv6 = p->ipv6;
  return SendLb(c, WLAN_LB_KERNEL_LB_SET_SOCKET_PORT, 0, m);
}

int vane_ctl_lb_board_type(vane_ctl* c, uint32_t board_type) {
  const WLAN_LB_MSG_HEAD_S m{WLAN_LB_KERNEL_LB_SET_BOARD_TYPE, board_type};
  return vane_ctl_send(c, VANE_CHANNEL_NORMAL, NETLINK_MID_WLAN_LB, &m, sizeof m);
}

int vane_ctl_lb_cause_ids(vane_ctl* c, const vane_cause_id_entry* entries, uint32_t count) {
  if (entries == nullptr || count == 0 || count > VANE_CAUSEID_MAX) return -EINVAL;
  struct {
    WLAN_LB_MSG_HEAD_S head;
    WLAN_LB_CAUSEID_NODE_S e[VANE_CAUSEID_MAX];
  } m{};
  static_assert(offsetof(decltype(m), e) == WLAN_LB_MSG_HEAD_LEN);
  m.head.SetType = WLAN_LB_KERNEL_LB_SET_CAUSEIID;
  m.head.ulHeadWord = count;
  for (uint32_t i = 0; i < count; ++i) {
    const vane_cause_id_entry& in = entries[i];
    if (in.cause_id > VANE_CAUSE_ID_VALUE_MAX || in.pkt_type < WLAN_LB_PKT_TYPE_MIN ||
        in.pkt_type > WLAN_LB_PKT_TYPE_MAX || in.lb_type < LB_CAPWAP || in.lb_type > LB_AAA_PORT) {
      return -EINVAL;
    }
    std::memcpy(&m.e[i], &in, sizeof m.e[i]);
  }
  const auto len = static_cast<uint32_t>(WLAN_LB_MSG_HEAD_LEN + count * sizeof(m.e[0]));
  return vane_ctl_send(c, VANE_CHANNEL_NORMAL, NETLINK_MID_WLAN_LB, &m, len);
}

int vane_ctl_handler_msg(vane_ctl* c, uint32_t msg_id, const void* payload, uint32_t len) {
  switch (msg_id) {
    case 1:
    case 2:
    case 3:
    case 4:
    case 7:
    case 8:
    case 9:
    case 12:
    case 13:  // NOLINT
      return vane_ctl_send(c, VANE_CHANNEL_NORMAL, msg_id, payload, len);
    default:
      return -EINVAL;
  }
}

}  // extern "C"
