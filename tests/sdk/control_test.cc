// Control messages over the unix transport: the exact bytes each function
// sends, the acknowledgement's error, timeouts, argument checks, and the dry
// run.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <string>

#include "fake_daemon.h"
#include "vane/vane.h"

namespace vane::test {
namespace {

class ControlTest : public FakeDaemonControl {};

struct WireCase {
  const char* name;
  std::function<int(vane_ctl*)> call;
  int channel;
  uint32_t msg_id;
  Bytes payload;
};

std::vector<WireCase> WireCases() {
  vane_dispatch_config cfg{};
  uint32_t slots[22];
  for (uint32_t i = 0; i < 22; ++i) slots[i] = 0x01010101u * (i + 1);
  std::memcpy(&cfg, slots, sizeof cfg);
  ByteWriter cfg_bytes;
  for (uint32_t s : slots) cfg_bytes.u32(s);

  vane_steering_table st{};
  st.enable = 1;
  st.table_type = VANE_STEERING_DETEPTION;
  st.vcpu = 7;
  st.cause_id_count = 2;
  st.cause_ids[0] = 200;
  st.cause_ids[1] = 201;
  st.cause_id_min = 210;
  st.cause_id_max = 219;
  ByteWriter st_bytes;
  st_bytes.u32(1).u32(1).u32(7).u32(2).u16(200).u16(201).zeros(36).u16(210).u16(219);

  const vane_capwap_entry cw{0x0A01000B, 0x0A000001, 12222, 5246, 9, 2};
  const vane_socket_port sp{1812, 1, 1, 0xFFFFFFFFu, 1};
  const vane_cause_id_entry cids[2] = {{100, 1, 1}, {106, 7, 3}};
  const uint32_t nac[2] = {3, 4};
  const uint8_t raw[5] = {1, 2, 3, 4, 5};

  return {
      {"register", [](vane_ctl* c) { return vane_ctl_register(c, 27, 5); }, 27, 0,
       ByteWriter().u32(27).u32(5).b},
      {"config", [cfg](vane_ctl* c) { return vane_ctl_set_config(c, &cfg); }, 26, 5, cfg_bytes.b},
      {"debug", [](vane_ctl* c) { return vane_ctl_debug_command(c, 3); }, 26, 6,
       ByteWriter().u8(3).zeros(3).b},
      {"steering", [st](vane_ctl* c) { return vane_ctl_set_steering(c, &st); }, 26, 11, st_bytes.b},
      {"timng", [](vane_ctl* c) { return vane_ctl_timng_set(c, 300, 6, 1, 1); }, 26, 14,
       ByteWriter().u32(300).u32(6).u32(1).u32(1).b},
      {"timng_master", [](vane_ctl* c) { return vane_ctl_timng_master(c, 1); }, 26, 15,
       ByteWriter().u32(0).u32(0).u32(1).u32(0).b},
      {"capwap", [cw](vane_ctl* c) { return vane_ctl_lb_capwap(c, &cw, VANE_LB_OP_DELETE); }, 26,
       10,
       ByteWriter()
           .u32(0)
           .u32(0)
           .u32(0x0A01000B)
           .u32(0x0A000001)
           .u16(12222)
           .u16(5246)
           .u8(9)
           .zeros(3)
           .u32(2)
           .u8(2)
           .zeros(3)
           .b},
      {"capwap_ka",
       [](vane_ctl* c) {
         const uint32_t s[4] = {0x0A01000B, 0, 0, 1};
         return vane_ctl_lb_capwap_ka(c, s, 1, VANE_LB_OP_ADD);
       },
       26, 10,
       ByteWriter().u32(1).u32(0).u32(0x0A01000B).u32(0).u32(0).u32(1).u32(1).u8(1).zeros(3).b},
      {"nac", [nac](vane_ctl* c) { return vane_ctl_lb_nac(c, 3, nac, 2); }, 26, 10,
       ByteWriter().u32(2).u32(3).u16(2).zeros(2).u32(3).u32(4).zeros(56).b},
      {"portal", [](vane_ctl* c) { return vane_ctl_lb_portal(c, 2000, 5); }, 26, 10,
       ByteWriter().u32(3).u32(0).u16(2000).zeros(2).u32(5).zeros(4).b},
      {"socket_port", [sp](vane_ctl* c) { return vane_ctl_lb_socket_port(c, &sp, 1); }, 26, 10,
       ByteWriter().u32(4).u32(0).u16(1).zeros(2).u16(1812).u8(1).u8(1).u32(0xFFFFFFFFu).u32(1).b},
      {"board_type", [](vane_ctl* c) { return vane_ctl_lb_board_type(c, 3); }, 26, 10,
       ByteWriter().u32(5).u32(3).b},
      {"cause_ids", [cids](vane_ctl* c) { return vane_ctl_lb_cause_ids(c, cids, 2); }, 26, 10,
       ByteWriter().u32(6).u32(2).u32(100).u32(1).u32(1).u32(106).u32(7).u32(3).b},
      {"handler", [raw](vane_ctl* c) { return vane_ctl_handler_msg(c, 13, raw, 5); }, 26, 13,
       Bytes(raw, raw + 5)},
  };
}

TEST_F(ControlTest, EachMessageHasItsExactWireBytes) {
  for (const WireCase& tc : WireCases()) {
    SCOPED_TRACE(tc.name);
    daemon_.ClearReceived();
    ASSERT_EQ(tc.call(ctl_), 0);
    const auto got = daemon_.Received();
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].channel, tc.channel);
    const Bytes& b = got[0].bytes;
    const size_t len = 24 + tc.payload.size();
    ASSERT_EQ(b.size(), (len + 3) & ~size_t{3});
    EXPECT_EQ(Le32(&b[0]), len);
    EXPECT_EQ(b[4] | b[5] << 8, 18);      // type
    EXPECT_EQ(b[6] | b[7] << 8, 0x0005);  // request | ack
    EXPECT_EQ(Le32(&b[12]), 0u);          // port id: the dispatcher goes by credentials
    EXPECT_EQ(Le32(&b[16]), tc.msg_id);
    EXPECT_EQ(Le32(&b[20]), tc.payload.size());
    EXPECT_EQ(Bytes(b.begin() + 24, b.begin() + static_cast<long>(len)), tc.payload);
    EXPECT_EQ(Bytes(b.begin() + static_cast<long>(len), b.end()), Bytes(b.size() - len, 0));
  }
}

TEST_F(ControlTest, AcknowledgedErrorIsTheResult) {
  daemon_.set_ack_error(-22);
  const vane_dispatch_config cfg{};
  EXPECT_EQ(vane_ctl_set_config(ctl_, &cfg), -22);
  daemon_.set_ack_error(-EPERM);
  EXPECT_EQ(vane_ctl_timng_master(ctl_, 0), -EPERM);
  daemon_.set_ack_error(0);
  EXPECT_EQ(vane_ctl_timng_master(ctl_, 0), 0);
}

TEST_F(ControlTest, NoAcknowledgementTimesOut) {
  vane_ctl_close(ctl_);
  vane_endpoint ep{};
  ep.transport = VANE_TRANSPORT_UNIX;
  ep.run_dir = daemon_.dir().c_str();
  ep.timeout_ms = 50;
  ASSERT_EQ(vane_ctl_open(&ep, &ctl_), 0);
  daemon_.set_silent(true);
  EXPECT_EQ(vane_ctl_lb_board_type(ctl_, 3), -ETIMEDOUT);
  // A late answer to the timed-out request is not taken for the next one's.
  const auto got = daemon_.Received();
  ASSERT_EQ(got.size(), 1u);
  const Datagram& d = got[0];
  daemon_.SendTo(26, d.from, d.from_len,
                 NlMsg(2, 0, Le32(&d.bytes[8]), ByteWriter().u32(uint32_t(-99)).zeros(16).b));
  daemon_.set_silent(false);
  daemon_.set_ack_error(-5);
  EXPECT_EQ(vane_ctl_lb_board_type(ctl_, 3), -5);
}

TEST_F(ControlTest, NobodyListeningIsConnectionRefused) {
  daemon_.Stop();
  EXPECT_EQ(vane_ctl_lb_board_type(ctl_, 3), -ECONNREFUSED);
  daemon_.Start();
  EXPECT_EQ(vane_ctl_lb_board_type(ctl_, 3), 0);
}

TEST_F(ControlTest, OutOfRangeArgumentsAreRefusedBeforeSending) {
  vane_steering_table st{};
  vane_capwap_entry cw{};
  vane_socket_port sp{};
  vane_cause_id_entry cid{100, 1, 1};
  uint32_t ids[17] = {};
  const uint32_t sess[4] = {};
  const std::vector<std::pair<const char*, std::function<int()>>> bad = {
      {"vcpu 64", [&] { return vane_ctl_register(ctl_, 26, 64); }},
      {"channel 28", [&] { return vane_ctl_register(ctl_, 28, 1); }},
      {"send on channel 25", [&] { return vane_ctl_send(ctl_, 25, 5, nullptr, 0); }},
      {"no config", [&] { return vane_ctl_set_config(ctl_, nullptr); }},
      {"debug 0", [&] { return vane_ctl_debug_command(ctl_, 0); }},
      {"debug 21", [&] { return vane_ctl_debug_command(ctl_, 21); }},
      {"table type 2",
       [&] {
         st = {};
         st.table_type = 2;
         return vane_ctl_set_steering(ctl_, &st);
       }},
      {"21 cause ids",
       [&] {
         st = {};
         st.cause_id_count = 21;
         return vane_ctl_set_steering(ctl_, &st);
       }},
      {"timng node 64", [&] { return vane_ctl_timng_set(ctl_, 300, 64, 1, 0); }},
      {"timng cause 8192", [&] { return vane_ctl_timng_set(ctl_, 8192, 1, 1, 0); }},
      {"capwap op 3", [&] { return vane_ctl_lb_capwap(ctl_, &cw, 3); }},
      {"capwap vcpu 64",
       [&] {
         cw.process = 64;
         return vane_ctl_lb_capwap(ctl_, &cw, 1);
       }},
      {"ka op 0", [&] { return vane_ctl_lb_capwap_ka(ctl_, sess, 1, 0); }},
      {"17 nac ids", [&] { return vane_ctl_lb_nac(ctl_, 3, ids, 17); }},
      {"nac id 64",
       [&] {
         ids[1] = 64;
         return vane_ctl_lb_nac(ctl_, 3, ids, 2);
       }},
      {"portal vcpu 99", [&] { return vane_ctl_lb_portal(ctl_, 2000, 99); }},
      {"socket op 0", [&] { return vane_ctl_lb_socket_port(ctl_, &sp, 0); }},
      {"no cause ids", [&] { return vane_ctl_lb_cause_ids(ctl_, &cid, 0); }},
      {"101 cause ids", [&] { return vane_ctl_lb_cause_ids(ctl_, &cid, 101); }},
      {"lb type 7",
       [&] {
         cid.lb_type = 7;
         return vane_ctl_lb_cause_ids(ctl_, &cid, 1);
       }},
      {"handler id 5", [&] { return vane_ctl_handler_msg(ctl_, 5, nullptr, 0); }},
      {"handler id 10", [&] { return vane_ctl_handler_msg(ctl_, 10, nullptr, 0); }},
      {"payload missing", [&] { return vane_ctl_handler_msg(ctl_, 1, nullptr, 4); }},
  };
  for (const auto& [name, call] : bad) EXPECT_EQ(call(), -EINVAL) << name;
  EXPECT_TRUE(daemon_.Received().empty());
}

TEST(DryRunTest, HandsOverTheBytesAndSendsNothing) {
  struct Seen {
    int channel = 0;
    Bytes bytes;
  } seen;
  vane_endpoint ep{};
  ep.transport = VANE_TRANSPORT_DRY_RUN;
  ep.dry_run = [](void* arg, int channel, const uint8_t* msg, size_t len) {
    auto* s = static_cast<Seen*>(arg);
    s->channel = channel;
    s->bytes.assign(msg, msg + len);
  };
  ep.dry_run_arg = &seen;
  vane_ctl* c = nullptr;
  ASSERT_EQ(vane_ctl_open(&ep, &c), 0);
  EXPECT_EQ(vane_ctl_transport(c), VANE_TRANSPORT_DRY_RUN);
  ASSERT_EQ(vane_ctl_register(c, 27, 9), 0);
  EXPECT_EQ(seen.channel, 27);
  ASSERT_EQ(seen.bytes.size(), 32u);
  uint8_t expect[32];
  const uint32_t payload[2] = {27, 9};
  ASSERT_EQ(vane_build_control(expect, sizeof expect, 0, payload, 8, Le32(&seen.bytes[8]), 1), 32u);
  EXPECT_EQ(seen.bytes, Bytes(expect, expect + 32));
  // Files need a dispatcher.
  int64_t pos = 0;
  char buf[4];
  EXPECT_EQ(vane_file_read(c, "/proc/bypassDebug/counts", buf, sizeof buf, &pos), -EINVAL);
  vane_ctl_close(c);

  ep.dry_run = nullptr;
  EXPECT_EQ(vane_ctl_open(&ep, &c), -EINVAL);
}

TEST(BuildControlTest, RefusesWhatDoesNotFit) {
  uint8_t out[32];
  const uint8_t payload[9] = {};
  EXPECT_EQ(vane_build_control(out, 32, 1, payload, 8, 1, 0), 32u);
  EXPECT_EQ(vane_build_control(out, 32, 1, payload, 9, 1, 0), 0u);  // 36 with padding
  EXPECT_EQ(vane_build_control(out, 32, 1, nullptr, 4, 1, 0), 0u);
  EXPECT_EQ(out[6], 0x01);  // no ack asked for
}

TEST(TransportTest, AutoFollowsTheEnvironmentThenTheRunDirectory) {
  FakeDaemon daemon;
  vane_endpoint ep{};
  ep.run_dir = daemon.dir().c_str();
  unsetenv("VANE_TRANSPORT");
  EXPECT_EQ(vane_resolve_transport(&ep), VANE_TRANSPORT_UNIX);
  setenv("VANE_TRANSPORT", "netlink", 1);
  EXPECT_EQ(vane_resolve_transport(&ep), VANE_TRANSPORT_NETLINK);
  unsetenv("VANE_TRANSPORT");
  daemon.Stop();
  EXPECT_EQ(vane_resolve_transport(&ep), VANE_TRANSPORT_NETLINK);
  setenv("VANE_TRANSPORT", "unix", 1);
  EXPECT_EQ(vane_resolve_transport(&ep), VANE_TRANSPORT_UNIX);
  unsetenv("VANE_TRANSPORT");
  ep.transport = VANE_TRANSPORT_DRY_RUN;
  EXPECT_EQ(vane_resolve_transport(&ep), VANE_TRANSPORT_DRY_RUN);
  EXPECT_STREQ(vane_transport_name(VANE_TRANSPORT_DRY_RUN), "dry-run");
}

}  // namespace
}  // namespace vane::test
