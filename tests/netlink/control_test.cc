// The control channel as workers and other modules use it: registration by
// message 0, acknowledgements, routing by message id, handler registration,
// and messages too short for what their id reads.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <vector>

#include "drv_vane/config.h"
#include "drv_vane/debug.h"
#include "drv_vane/netlink.h"
#include "kport/user/testing.h"
#include "support/module_env.h"

namespace vane::test {
namespace {

using kport::user::UserSocket;

class ControlTest : public ModuleTest {};

// A handler other modules would register; remembers its calls.
struct HandlerLog {
  static inline std::atomic<int> calls{0};
  static inline std::vector<uint8_t> payload;
  static inline uint32_t len = 0;
  static int Record(void* p, uint32_t l) {
    ++calls;
    len = l;
    payload.assign(static_cast<uint8_t*>(p), static_cast<uint8_t*>(p) + l);
    return 123;  // nobody reads it
  }
  static void Reset() {
    calls = 0;
    payload.clear();
    len = 0;
  }
};

TEST_F(ControlTest, RegistrationWritesOnlyTheNamedChannelAndSlot) {
  Worker w(3001);
  EXPECT_EQ(w.Register(kNormal, 0), 0);
  EXPECT_EQ(g_supp_netlink_kernel.ulPid, 3001u);
  EXPECT_EQ(g_supp_netlink_kernel.aulVcpuPid[0], 3001u);
  EXPECT_EQ(g_supp_fast_netlink_kernel.ulPid, 0u);

  // Sent on the normal socket, naming the fast channel.
  EXPECT_EQ(w.Register(kFast, 5, kNormal), 0);
  EXPECT_EQ(g_supp_fast_netlink_kernel.aulVcpuPid[5], 3001u);
  EXPECT_EQ(g_supp_fast_netlink_kernel.ulPid, 0u);
  EXPECT_EQ(g_supp_netlink_kernel.aulVcpuPid[5], 0u);

  // Slot 63 is the last; 64 and unknown selectors change nothing and still
  // succeed.
  EXPECT_EQ(w.Register(kNormal, 63, kFast), 0);
  EXPECT_EQ(g_supp_netlink_kernel.aulVcpuPid[63], 3001u);
  SUPP_NETLINK_KERNEL_S normal_before = g_supp_netlink_kernel;
  SUPP_NETLINK_KERNEL_S fast_before = g_supp_fast_netlink_kernel;
  EXPECT_EQ(w.Register(kNormal, 64), 0);
  EXPECT_EQ(w.Register(28, 1), 0);
  EXPECT_EQ(std::memcmp(&normal_before, &g_supp_netlink_kernel, sizeof(normal_before)), 0);
  EXPECT_EQ(std::memcmp(&fast_before, &g_supp_fast_netlink_kernel, sizeof(fast_before)), 0);

  // A restarted worker overwrites its slot.
  Worker restarted(3002);
  EXPECT_EQ(restarted.Register(kNormal, 0), 0);
  EXPECT_EQ(g_supp_netlink_kernel.ulPid, 3002u);
}

TEST_F(ControlTest, RegistrationRecordsTheSendersProcessIdNotItsPortId) {
  auto sock = UserSocket::Open(kNormal, /*portid=*/7000, /*pid=*/42);
  ASSERT_NE(sock, nullptr);
  auto msg = ControlMessage(NETLINK_MID_PID, PidPayload(kNormal, 0));
  std::memcpy(&msg[12], "\x11\x11\x11\x11", 4);  // nlmsg_pid is not read
  ASSERT_GT(sock->Send(msg), 0);
  EXPECT_EQ(g_supp_netlink_kernel.ulPid, 42u);
}

TEST_F(ControlTest, AcknowledgementsFollowTheRequestFlagsAndResults) {
  Worker w(3100);
  auto& s = w.port(kNormal);
  // Type 17: error -22 with the whole message echoed, and nothing else done.
  auto bad = ControlMessage(NETLINK_MID_PID, PidPayload(kNormal, 0), {.type = 17, .seq = 9});
  s.Send(bad);
  auto reply = s.Receive();
  ASSERT_TRUE(reply.has_value());
  auto ack = DecodeAck(*reply);
  ASSERT_TRUE(ack.has_value());
  EXPECT_EQ(ack->error, -22);
  EXPECT_EQ(ack->seq, 9u);
  EXPECT_EQ(ack->portid, 3100u);
  EXPECT_EQ(ack->orig_type, 17);
  EXPECT_EQ(reply->size(), 16u + 4u + bad.size());
  EXPECT_EQ(g_supp_netlink_kernel.ulPid, 0u);
  EXPECT_FALSE(s.Receive().has_value());

  // An error is acknowledged even when no acknowledgement was asked for.
  s.Send(ControlMessage(NETLINK_MID_PID, PidPayload(kNormal, 0), {.type = 17, .flags = 0x0001}));
  auto error_ack = s.Receive();
  ASSERT_TRUE(error_ack.has_value());
  EXPECT_EQ(DecodeAck(*error_ack)->error, -22);

  // Success without NLM_F_ACK: silence.
  s.Send(ControlMessage(NETLINK_MID_PID, PidPayload(kNormal, 0), {.flags = 0x0001}));
  EXPECT_FALSE(s.Receive().has_value());
  EXPECT_EQ(g_supp_netlink_kernel.ulPid, 3100u);

  // Ids above 15 are ignored and answered with 0.
  EXPECT_EQ(w.Control(16, {1, 2, 3, 4}), 0);
  EXPECT_EQ(w.Control(0xFFFFFFFF, {}), 0);

  // Without NLM_F_REQUEST the message is not processed.
  s.Send(ControlMessage(NETLINK_MID_PID, PidPayload(kNormal, 9), {.flags = 0x0004}));
  EXPECT_EQ(DecodeAck(*s.Receive())->error, 0);
  EXPECT_EQ(g_supp_netlink_kernel.aulVcpuPid[9], 0u);
}

TEST_F(ControlTest, SeveralMessagesInOneSendAreEachProcessedAndAcknowledged) {
  Worker w(3200);
  auto a = ControlMessage(NETLINK_MID_PID, PidPayload(kNormal, 1), {.seq = 1});
  auto b = ControlMessage(NETLINK_MID_PID, PidPayload(kNormal, 2), {.type = 17, .seq = 2});
  auto c = ControlMessage(NETLINK_MID_PID, PidPayload(kNormal, 3), {.seq = 3});
  std::vector<uint8_t> all;
  for (auto* m : {&a, &b, &c}) all.insert(all.end(), m->begin(), m->end());
  w.port(kNormal).Send(all);
  std::vector<int> errors;
  while (auto msg = w.port(kNormal).Receive()) errors.push_back(DecodeAck(*msg)->error);
  EXPECT_EQ(errors, (std::vector<int>{0, -22, 0}));
  EXPECT_EQ(g_supp_netlink_kernel.aulVcpuPid[1], 3200u);
  EXPECT_EQ(g_supp_netlink_kernel.aulVcpuPid[2], 0u);
  EXPECT_EQ(g_supp_netlink_kernel.aulVcpuPid[3], 3200u);
}

TEST_F(ControlTest, RegisteredHandlersServeTheirIdsOnBothSockets) {
  HandlerLog::Reset();
  Worker w(3300);
  ASSERT_EQ(netlink_connect(3, HandlerLog::Record), 0);
  EXPECT_EQ(w.Control(3, {0xDE, 0xAD, 0xBE, 0xEF}, kNormal), 0);
  EXPECT_EQ(HandlerLog::calls, 1);
  EXPECT_EQ(HandlerLog::payload, (std::vector<uint8_t>{0xDE, 0xAD, 0xBE, 0xEF}));
  EXPECT_EQ(w.Control(3, {7}, kFast), 0);
  EXPECT_EQ(HandlerLog::calls, 2);
  EXPECT_EQ(HandlerLog::len, 1u);
  // The length field goes to the handler as sent when the message holds it.
  EXPECT_EQ(w.Control(3, {1, 2, 3, 4, 5, 6}, kNormal, {.len_field = 2}), 0);
  EXPECT_EQ(HandlerLog::payload, (std::vector<uint8_t>{1, 2}));

  ASSERT_EQ(netlink_disconnect(3), 0);
  EXPECT_EQ(w.Control(3, {1}), 0);
  EXPECT_EQ(HandlerLog::calls, 3);
}

TEST_F(ControlTest, HandlerRegistrationRulesAndFixedRoutes) {
  HandlerLog::Reset();
  Worker w(3400);
  EXPECT_EQ(netlink_connect(0, HandlerLog::Record), -22);
  EXPECT_EQ(netlink_connect(16, HandlerLog::Record), -22);
  EXPECT_EQ(netlink_connect(-1, HandlerLog::Record), -22);
  EXPECT_EQ(netlink_disconnect(0), -22);
  EXPECT_EQ(netlink_disconnect(16), -22);
  EXPECT_EQ(netlink_connect_bysock(4, HandlerLog::Record, nullptr), -22);

  // Fixed ids keep their routes: a handler stored for 5 is never called.
  ASSERT_EQ(netlink_connect(5, HandlerLog::Record), 0);
  BYPASS_PKT_OFFSET_S cfg{};
  cfg.ulBoardType = 77;
  EXPECT_EQ(w.Configure(cfg), 0);
  EXPECT_EQ(bypass_get_boardType(), 77u);

  // The receiver consults only the normal record.
  ASSERT_EQ(netlink_connect_bysock(4, HandlerLog::Record, &g_supp_fast_netlink_kernel), 0);
  EXPECT_EQ(w.Control(4, {1}, kFast), 0);
  EXPECT_EQ(HandlerLog::calls, 0);
  // Without any handler the id is ignored.
  EXPECT_EQ(w.Control(9, {1}), 0);
}

// A message shorter than what its id reads is refused with -22 and nothing
// of it is read or applied.
TEST_F(ControlTest, MessagesTooShortForTheirIdAreRefused) {
  HandlerLog::Reset();
  Worker w(3500);
  EXPECT_EQ(w.Control(NETLINK_MID_PID, {26, 0, 0, 0}), -22);
  EXPECT_EQ(g_supp_netlink_kernel.ulPid, 0u);

  BYPASS_PKT_OFFSET_S cfg{};
  cfg.ulIsSupportMulticore = 1;
  std::vector<uint8_t> short_cfg = ConfigPayload(cfg);
  short_cfg.pop_back();
  EXPECT_EQ(w.Control(NETLINK_MID_OFFSET, short_cfg), -22);
  EXPECT_EQ(bypass_isSupportMulticore(), 0u);
  // The length field is not what counts: 88 real bytes with a field of 0.
  EXPECT_EQ(w.Control(NETLINK_MID_OFFSET, ConfigPayload(cfg), kNormal, {.len_field = 0}), 0);
  EXPECT_EQ(bypass_isSupportMulticore(), 1u);

  EXPECT_EQ(w.Control(NETLINK_MID_DEBUG_FLAG, {}), -22);

  ASSERT_EQ(netlink_connect(2, HandlerLog::Record), 0);
  EXPECT_EQ(w.Control(2, {1, 2, 3}, kNormal, {.len_field = 4}), -22);
  EXPECT_EQ(HandlerLog::calls, 0);

  // No room even for the id and length fields.
  std::vector<uint8_t> bare = ControlMessage(NETLINK_MID_PID, {});
  bare.resize(20);
  uint32_t len = 20;
  std::memcpy(bare.data(), &len, 4);
  w.port(kNormal).Send(bare);
  auto reply = w.port(kNormal).Receive();
  ASSERT_TRUE(reply.has_value());
  EXPECT_EQ(DecodeAck(*reply)->error, -22);
}

TEST_F(ControlTest, ConfigurationAndTableMessagesLeaveTheirTraceLines) {
  Worker w(3600);
  SetDebugLevel(BYPASS_DEBUG_LEVEL_ERR);
  EXPECT_EQ(w.Configure(BYPASS_PKT_OFFSET_S{}), 0);
  EXPECT_EQ(w.Debug(9), 0);
  EXPECT_EQ(w.Control(NETLINK_MID_WLAN_LB, {9, 0, 0, 0, 0, 0, 0, 0}), 0);
  EXPECT_EQ(w.Control(NETLINK_MID_TIMNG, std::vector<uint8_t>(16, 0)), 0);
  EXPECT_EQ(w.Control(NETLINK_MID_TIMNG_MASTER, std::vector<uint8_t>(16, 0)), 0);
  EXPECT_EQ(w.Control(NETLINK_MID_IVO_LB, std::vector<uint8_t>(60, 0)), 0);
  EXPECT_EQ(w.Register(kNormal, 1), 0);
  EXPECT_EQ(DebugText(),
            "\r\nNETLINK_MID_OFFSET.\r\nNETLINK_MID_OFFSET.\r\nNETLINK_MID_WLAN_LB."
            "\r\n NETLINK_MID_TIMNG.\r\n NETLINK_MID_TIMNG.");
}

}  // namespace
}  // namespace vane::test
