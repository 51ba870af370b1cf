#include "support/wlan_msgs.h"

#include <cstring>

namespace vane::test {
namespace {

template <typename T>
Bytes Body(const T& record) {
  Bytes b(sizeof(T));
  std::memcpy(b.data(), &record, sizeof(T));
  return b;
}

}  // namespace

Bytes LbMessage(uint32_t set_type, uint32_t head_word, const Bytes& body) {
  Bytes b(WLAN_LB_MSG_HEAD_LEN + body.size());
  std::memcpy(b.data(), &set_type, 4);
  std::memcpy(b.data() + 4, &head_word, 4);
  if (!body.empty()) std::memcpy(b.data() + WLAN_LB_MSG_HEAD_LEN, body.data(), body.size());
  return b;
}

Bytes CapwapMsg(const CapwapEntry& e, uint8_t op) {
  WLAN_LB_CAPWAP_MSG_S m{};
  m.sip = e.sip;
  m.dip = e.dip;
  m.sport = e.sport;
  m.dport = e.dport;
  m.vpn = e.vpn;
  m.process = e.process;
  m.op = op;
  return LbMessage(WLAN_LB_KERNEL_LB_SET_CAPWAP, 0, Body(m));
}

Bytes CapwapKaMsg(const uint32_t (&session)[4], uint32_t process, uint8_t op) {
  WLAN_LB_CAPWAP_KA_MSG_S m{};
  std::memcpy(m.ulSessionID, session, sizeof(m.ulSessionID));
  m.process = process;
  m.op = op;
  return LbMessage(WLAN_LB_KERNEL_LB_SET_CAPWAP_KA, 0, Body(m));
}

Bytes NacMsg(uint32_t board_type, const std::vector<uint32_t>& ids, uint16_t count) {
  WLAN_LB_NAC_MSG_S m{};
  m.count = count;
  for (size_t i = 0; i < ids.size() && i < WLAN_LB_NAC_MAX; ++i) m.ids[i] = ids[i];
  return LbMessage(WLAN_LB_KERNEL_LB_SET_NAC_NODELIST, board_type, Body(m));
}

Bytes NacMsg(uint32_t board_type, const std::vector<uint32_t>& ids) {
  return NacMsg(board_type, ids, static_cast<uint16_t>(ids.size()));
}

Bytes PortalMsg(uint16_t port, uint32_t process) {
  WLAN_LB_PORTAL_MSG_S m{};
  m.port = port;
  m.process = process;
  return LbMessage(WLAN_LB_KERNEL_LB_SET_PORTAL_NODE, 0, Body(m));
}

Bytes SocketPortMsg(uint16_t port, bool tcp, uint8_t src_flag, uint32_t process, uint32_t ipv6,
                    uint16_t op) {
  WLAN_LB_SOCKET_PORT_MSG_S m{};
  m.op = op;
  m.port = port;
  m.TcpFlag = tcp ? 1 : 0;
  m.SrcPortFlag = src_flag;
  m.process = process;
  m.isIpv6 = ipv6;
  return LbMessage(WLAN_LB_KERNEL_LB_SET_SOCKET_PORT, 0, Body(m));
}

Bytes BoardTypeMsg(uint32_t board_type) {
  return LbMessage(WLAN_LB_KERNEL_LB_SET_BOARD_TYPE, board_type);
}

Bytes CauseIdMsg(const std::vector<WLAN_LB_CAUSEID_NODE_S>& nodes, std::optional<uint32_t> count) {
  Bytes body(nodes.size() * sizeof(WLAN_LB_CAUSEID_NODE_S));
  if (!nodes.empty()) std::memcpy(body.data(), nodes.data(), body.size());
  return LbMessage(WLAN_LB_KERNEL_LB_SET_CAUSEIID,
                   count.value_or(static_cast<uint32_t>(nodes.size())), body);
}

}  // namespace vane::test
