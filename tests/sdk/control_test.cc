// Control messages: the bytes each function puts on the wire and what vaned
// answers to them, the arguments refused before sending, the replies a
// daemon could get wrong, and the choice of transport.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <functional>
#include <future>
#include <optional>
#include <string>

#include "host_support.h"
#include "vane/vane.h"

namespace vane::test {
namespace {

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

  const vane_capwap_entry cw{0x0A01000B, 0x0A000001, 12222, 5246, 9, 2};
  ByteWriter cw_bytes;
  cw_bytes.u32(0).u32(0).u32(0x0A01000B).u32(0x0A000001).u16(12222).u16(5246);
  cw_bytes.u8(9).zeros(3).u32(2).u8(2).zeros(3);
  const vane_socket_port sp{1812, 1, 1, 0xFFFFFFFFu, 1};
  const vane_cause_id_entry cids[2] = {{100, 1, 1}, {106, 7, 3}};
  const uint32_t nac[2] = {3, 4};
  const uint8_t raw[5] = {1, 2, 3, 4, 5};
  const uint32_t session[4] = {0x0A01000B, 0, 0, 1};

  return {
      {"register", [](vane_ctl* c) { return vane_ctl_register(c, 27, 5); }, 27, 0,
       ByteWriter().u32(27).u32(5).b},
      {"config", [cfg](vane_ctl* c) { return vane_ctl_set_config(c, &cfg); }, 26, 5, cfg_bytes.b},
      {"debug", [](vane_ctl* c) { return vane_ctl_debug_command(c, 3); }, 26, 6,
       ByteWriter().u8(3).zeros(3).b},
      {"steering", [st](vane_ctl* c) { return vane_ctl_set_steering(c, &st); }, 26, 11,
       ByteWriter().u32(1).u32(1).u32(7).u32(2).u16(200).u16(201).zeros(36).u16(210).u16(219).b},
      {"timng", [](vane_ctl* c) { return vane_ctl_timng_set(c, 300, 6, 1, 1); }, 26, 14,
       ByteWriter().u32(300).u32(6).u32(1).u32(1).b},
      {"timng_master", [](vane_ctl* c) { return vane_ctl_timng_master(c, 1); }, 26, 15,
       ByteWriter().u32(0).u32(0).u32(1).u32(0).b},
      {"capwap", [cw](vane_ctl* c) { return vane_ctl_lb_capwap(c, &cw, VANE_LB_OP_DELETE); }, 26,
       10, cw_bytes.b},
      {"capwap_ka",
       [session](vane_ctl* c) { return vane_ctl_lb_capwap_ka(c, session, 1, VANE_LB_OP_ADD); }, 26,
       10, ByteWriter().u32(1).u32(0).u32(0x0A01000B).u32(0).u32(0).u32(1).u32(1).u8(1).zeros(3).b},
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

// A dry-run handle that keeps what it is handed, by channel.
struct DryRun {
  std::vector<std::pair<int, Bytes>> seen;
  vane_ctl* ctl = nullptr;
  DryRun() {
    vane_endpoint ep{};
    ep.transport = VANE_TRANSPORT_DRY_RUN;
    ep.dry_run = [](void* arg, int channel, const uint8_t* msg, size_t len) {
      static_cast<DryRun*>(arg)->seen.emplace_back(channel, Bytes(msg, msg + len));
    };
    ep.dry_run_arg = this;
    EXPECT_EQ(vane_ctl_open(&ep, &ctl), 0);
  }
  ~DryRun() { vane_ctl_close(ctl); }
};

TEST(ControlTest, EachMessageHasItsWireBytesAndVanedTakesIt) {
  VanedControl live;
  for (const WireCase& tc : WireCases()) {
    SCOPED_TRACE(tc.name);
    DryRun dry;
    ASSERT_EQ(tc.call(dry.ctl), 0);
    // Request with acknowledgement, numbered from 1 in a dry run; port id 0,
    // since the dispatcher goes by the sender's credentials.
    const Bytes body = ByteWriter().u32(tc.msg_id).u32(tc.payload.size()).bytes(tc.payload).b;
    EXPECT_EQ(dry.seen, (std::vector<std::pair<int, Bytes>>{{tc.channel, NlMsg(18, 5, 1, body)}}));
    EXPECT_EQ(tc.call(live.ctl), 0) << "refused by vaned";
  }
}

uint32_t SeqOf(const Bytes& msg) { return Le32(&msg[8]); }

Bytes WithSeq(Bytes msg, uint32_t seq) {
  std::memcpy(&msg[8], &seq, 4);
  return msg;
}

// The replies to one request.
using Answer = std::function<std::vector<Bytes>(const Bytes& request)>;

// A daemon's socket with nothing behind it: the test reads each request and
// chooses the replies.
class BareDaemonTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const vane_endpoint ep = UnixEndpoint(dir_.path(), 300);
    ASSERT_EQ(vane_ctl_open(&ep, &ctl_), 0);
  }
  void TearDown() override { vane_ctl_close(ctl_); }

  // Runs `call` on a thread of its own and answers each request it sends.
  int Serve(const std::function<int()>& call, const Answer& answer) {
    auto result = std::async(std::launch::async, call);
    while (result.wait_for(std::chrono::seconds(0)) != std::future_status::ready) {
      DgramSocket::Addr from;
      const Bytes req = daemon_->Receive(&from, 10);
      if (!req.empty()) {
        for (const Bytes& r : answer(req)) daemon_->SendTo(from, r);
      }
    }
    return result.get();
  }

  TempDir dir_;
  std::optional<DgramSocket> daemon_{std::in_place, dir_ / "nl26.sock"};
  vane_ctl* ctl_ = nullptr;
};

Answer Acked(int error) {
  return [error](const Bytes& r) { return std::vector<Bytes>{AckOf(r, error)}; };
}

TEST_F(BareDaemonTest, RepliesADaemonCouldGetWrong) {
  char buf[16];
  int64_t pos = 0;
  const auto board = [this] { return vane_ctl_lb_board_type(ctl_, 3); };
  const auto read = [&] {
    return static_cast<int>(vane_file_read(ctl_, "/proc/x", buf, sizeof buf, &pos));
  };
  const auto file_reply = [](int64_t result, const Bytes& data) -> Answer {
    return
        [=](const Bytes& r) { return std::vector<Bytes>{FileReplyMsg(SeqOf(r), result, 0, data)}; };
  };
  const struct {
    const char* name;
    std::function<int()> call;
    Answer answer;
    int want;
  } cases[] = {
      {"no answer", board, [](const Bytes&) { return std::vector<Bytes>{}; }, -ETIMEDOUT},
      {"an error acknowledged", board, Acked(-EPERM), -EPERM},
      {"a late answer to an earlier request first", board,
       [](const Bytes& r) {
         return std::vector<Bytes>{AckOf(WithSeq(r, SeqOf(r) - 1), -99), AckOf(r, -5)};
       },
       -5},
      {"an acknowledgement cut short", board,
       [](const Bytes& r) {
         Bytes ack = AckOf(r, 0);
         ack.resize(18);
         ack[0] = 18;
         return std::vector<Bytes>{ack};
       },
       -EPROTO},
      {"a file reply to a control message", board, file_reply(0, {}), -EPROTO},
      {"a read claiming more than it carries", read, file_reply(4, {'a', 'b'}), -EPROTO},
      {"a read claiming more than was asked", read, file_reply(17, Bytes(17, 'a')), -EPROTO},
      {"an error no errno has", read, file_reply(-5000, {}), -EPROTO},
      {"a read refused before it was served", read, Acked(-EACCES), -EACCES},
      {"a read acknowledged as done", read, Acked(0), -EPROTO},
  };
  for (const auto& c : cases) EXPECT_EQ(Serve(c.call, c.answer), c.want) << c.name;
}

TEST_F(BareDaemonTest, ReadAllJoinsShortRepliesAndFollowsThePosition) {
  const std::string file = "0123456789abc";
  uint8_t* out = nullptr;
  size_t len = 0;
  const int rc =
      Serve([&] { return vane_file_read_all(ctl_, "/proc/f", &out, &len); },
            [&](const Bytes& r) {
              int64_t pos = 0;
              std::memcpy(&pos, &r[16], 8);
              const auto n = std::min<int64_t>(5, static_cast<int64_t>(file.size()) - pos);
              return std::vector<Bytes>{FileReplyMsg(
                  SeqOf(r), n, pos + n, Bytes(file.begin() + pos, file.begin() + pos + n))};
            });
  ASSERT_EQ(rc, 0);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(out), len), file);
  free(out);
}

TEST_F(BareDaemonTest, NobodyListeningIsConnectionRefusedUntilADaemonIsBack) {
  daemon_.reset();
  EXPECT_EQ(vane_ctl_lb_board_type(ctl_, 3), -ECONNREFUSED);
  daemon_.emplace(dir_ / "nl26.sock");
  EXPECT_EQ(Serve([this] { return vane_ctl_lb_board_type(ctl_, 3); }, Acked(0)), 0);
}

TEST_F(BareDaemonTest, OutOfRangeArgumentsAreRefusedBeforeSending) {
  vane_steering_table type_2{}, ids_21{};
  type_2.table_type = 2;
  ids_21.cause_id_count = 21;
  vane_capwap_entry cw{}, cw_64{};
  cw_64.process = 64;
  const vane_socket_port sp{};
  const vane_cause_id_entry cid{100, 1, 1}, lb_7{100, 1, 7};
  const uint32_t ids[17] = {}, id_64[2] = {1, 64}, sess[4] = {};
  const std::pair<const char*, std::function<int()>> bad[] = {
      {"vcpu 64", [&] { return vane_ctl_register(ctl_, 26, 64); }},
      {"channel 28", [&] { return vane_ctl_register(ctl_, 28, 1); }},
      {"send on channel 25", [&] { return vane_ctl_send(ctl_, 25, 5, nullptr, 0); }},
      {"no config", [&] { return vane_ctl_set_config(ctl_, nullptr); }},
      {"debug 0", [&] { return vane_ctl_debug_command(ctl_, 0); }},
      {"debug 21", [&] { return vane_ctl_debug_command(ctl_, 21); }},
      {"table type 2", [&] { return vane_ctl_set_steering(ctl_, &type_2); }},
      {"21 cause ids", [&] { return vane_ctl_set_steering(ctl_, &ids_21); }},
      {"timng node 64", [&] { return vane_ctl_timng_set(ctl_, 300, 64, 1, 0); }},
      {"timng cause 8192", [&] { return vane_ctl_timng_set(ctl_, 8192, 1, 1, 0); }},
      {"capwap op 3", [&] { return vane_ctl_lb_capwap(ctl_, &cw, 3); }},
      {"capwap vcpu 64", [&] { return vane_ctl_lb_capwap(ctl_, &cw_64, 1); }},
      {"ka op 0", [&] { return vane_ctl_lb_capwap_ka(ctl_, sess, 1, 0); }},
      {"17 nac ids", [&] { return vane_ctl_lb_nac(ctl_, 3, ids, 17); }},
      {"nac id 64", [&] { return vane_ctl_lb_nac(ctl_, 3, id_64, 2); }},
      {"portal vcpu 99", [&] { return vane_ctl_lb_portal(ctl_, 2000, 99); }},
      {"socket op 0", [&] { return vane_ctl_lb_socket_port(ctl_, &sp, 0); }},
      {"no cause ids", [&] { return vane_ctl_lb_cause_ids(ctl_, &cid, 0); }},
      {"101 cause ids", [&] { return vane_ctl_lb_cause_ids(ctl_, &cid, 101); }},
      {"lb type 7", [&] { return vane_ctl_lb_cause_ids(ctl_, &lb_7, 1); }},
      {"handler id 5", [&] { return vane_ctl_handler_msg(ctl_, 5, nullptr, 0); }},
      {"handler id 10", [&] { return vane_ctl_handler_msg(ctl_, 10, nullptr, 0); }},
      {"payload missing", [&] { return vane_ctl_handler_msg(ctl_, 1, nullptr, 4); }},
  };
  for (const auto& [name, call] : bad) EXPECT_EQ(call(), -EINVAL) << name;
  EXPECT_FALSE(daemon_->Ready());
}

TEST_F(BareDaemonTest, AutoTransportFollowsTheEnvironmentThenTheRunDirectory) {
  vane_endpoint ep{};
  ep.run_dir = dir_.path().c_str();
  unsetenv("VANE_TRANSPORT");
  EXPECT_EQ(vane_resolve_transport(&ep), VANE_TRANSPORT_UNIX);
  setenv("VANE_TRANSPORT", "netlink", 1);
  EXPECT_EQ(vane_resolve_transport(&ep), VANE_TRANSPORT_NETLINK);
  unsetenv("VANE_TRANSPORT");
  daemon_.reset();
  EXPECT_EQ(vane_resolve_transport(&ep), VANE_TRANSPORT_NETLINK);
  setenv("VANE_TRANSPORT", "unix", 1);
  EXPECT_EQ(vane_resolve_transport(&ep), VANE_TRANSPORT_UNIX);
  unsetenv("VANE_TRANSPORT");

  // A dry run sends nothing, so it has no files to read; it needs its
  // callback.
  DryRun dry;
  EXPECT_EQ(vane_ctl_transport(dry.ctl), VANE_TRANSPORT_DRY_RUN);
  EXPECT_STREQ(vane_transport_name(VANE_TRANSPORT_DRY_RUN), "dry-run");
  int64_t pos = 0;
  char buf[4];
  EXPECT_EQ(vane_file_read(dry.ctl, "/proc/bypassDebug/counts", buf, sizeof buf, &pos), -EINVAL);
  ep.transport = VANE_TRANSPORT_DRY_RUN;
  EXPECT_EQ(vane_resolve_transport(&ep), VANE_TRANSPORT_DRY_RUN);
  vane_ctl* c = nullptr;
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

}  // namespace
}  // namespace vane::test
