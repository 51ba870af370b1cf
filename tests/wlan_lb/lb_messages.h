// LB configuration messages (control message 10) as user space builds them,
// and a worker that sends them, for the WLAN message and view tests.
#ifndef VANE_TESTS_WLAN_LB_LB_MESSAGES_H
#define VANE_TESTS_WLAN_LB_LB_MESSAGES_H

#include <cstdint>
#include <cstring>
#include <optional>
#include <vector>

#include "drv_vane/netlink.h"
#include "drv_vane/wlan_lb.h"
#include "support/module_env.h"

namespace vane::test {

template <typename T>
void AppendBytes(std::vector<uint8_t>* out, const T& value) {
  const auto* p = reinterpret_cast<const uint8_t*>(&value);
  out->insert(out->end(), p, p + sizeof(T));
}

// The 8-byte head and a body.
inline std::vector<uint8_t> LbMessage(uint32_t set_type, uint32_t head_word,
                                      const std::vector<uint8_t>& body = {}) {
  std::vector<uint8_t> m;
  AppendBytes(&m, set_type);
  AppendBytes(&m, head_word);
  m.insert(m.end(), body.begin(), body.end());
  return m;
}

template <typename T>
std::vector<uint8_t> Body(const T& value) {
  std::vector<uint8_t> b;
  AppendBytes(&b, value);
  return b;
}

inline std::vector<uint8_t> CapwapMsg(uint32_t sip, uint32_t dip, uint16_t sport, uint16_t dport,
                                      uint8_t vpn, uint32_t process, uint8_t op = 1) {
  WLAN_LB_CAPWAP_MSG_S m{};
  m.sip = sip;
  m.dip = dip;
  m.sport = sport;
  m.dport = dport;
  m.vpn = vpn;
  m.process = process;
  m.op = op;
  return LbMessage(WLAN_LB_KERNEL_LB_SET_CAPWAP, 0, Body(m));
}

inline std::vector<uint8_t> CapwapKaMsg(const uint32_t (&session)[4], uint32_t process,
                                        uint8_t op = 1) {
  WLAN_LB_CAPWAP_KA_MSG_S m{};
  std::memcpy(m.ulSessionID, session, sizeof(m.ulSessionID));
  m.process = process;
  m.op = op;
  return LbMessage(WLAN_LB_KERNEL_LB_SET_CAPWAP_KA, 0, Body(m));
}

inline std::vector<uint8_t> NacMsg(uint32_t board_type, const std::vector<uint32_t>& ids,
                                   std::optional<uint16_t> count = std::nullopt) {
  WLAN_LB_NAC_MSG_S m{};
  m.count = count.value_or(static_cast<uint16_t>(ids.size()));
  for (size_t i = 0; i < ids.size() && i < WLAN_LB_NAC_MAX; ++i) m.ids[i] = ids[i];
  return LbMessage(WLAN_LB_KERNEL_LB_SET_NAC_NODELIST, board_type, Body(m));
}

inline std::vector<uint8_t> PortalMsg(uint16_t port, uint32_t process) {
  WLAN_LB_PORTAL_MSG_S m{};
  m.port = port;
  m.process = process;
  return LbMessage(WLAN_LB_KERNEL_LB_SET_PORTAL_NODE, 0, Body(m));
}

inline std::vector<uint8_t> SocketPortMsg(uint16_t port, bool tcp, uint8_t src_flag,
                                          uint32_t process, uint32_t ipv6 = 0, uint16_t op = 1) {
  WLAN_LB_SOCKET_PORT_MSG_S m{};
  m.op = op;
  m.port = port;
  m.TcpFlag = tcp ? 1 : 0;
  m.SrcPortFlag = src_flag;
  m.process = process;
  m.isIpv6 = ipv6;
  return LbMessage(WLAN_LB_KERNEL_LB_SET_SOCKET_PORT, 0, Body(m));
}

inline std::vector<uint8_t> CauseIdMsg(const std::vector<WLAN_LB_CAUSEID_NODE_S>& entries,
                                       std::optional<uint32_t> count = std::nullopt) {
  std::vector<uint8_t> body;
  for (const auto& e : entries) AppendBytes(&body, e);
  return LbMessage(WLAN_LB_KERNEL_LB_SET_CAUSEIID,
                   count.value_or(static_cast<uint32_t>(entries.size())), body);
}

// Resized to `len` bytes: cut, or padded with zeros.
inline std::vector<uint8_t> Resized(std::vector<uint8_t> m, size_t len) {
  m.resize(len, 0);
  return m;
}

// A registered worker sending LB messages; each send returns the ack's code.
class LbSender {
 public:
  explicit LbSender(uint32_t pid = 4242) : worker_(pid) { worker_.Register(kNormal, 0); }
  int Send(const std::vector<uint8_t>& payload, const CtrlOptions& opt = {}) {
    return worker_.Control(NETLINK_MID_WLAN_LB, payload, kNormal, opt).value_or(-999);
  }

 private:
  Worker worker_;
};

// The module loaded around each test, with a registered sender.
class LbModuleTest : public ModuleTest {
 protected:
  void SetUp() override {
    ModuleTest::SetUp();
    sender_.emplace();
  }
  void TearDown() override {
    sender_.reset();
    ModuleTest::TearDown();
  }
  int Send(const std::vector<uint8_t>& payload, const CtrlOptions& opt = {}) {
    return sender_->Send(payload, opt);
  }

 private:
  std::optional<LbSender> sender_;
};

}  // namespace vane::test

#endif  // VANE_TESTS_WLAN_LB_LB_MESSAGES_H
