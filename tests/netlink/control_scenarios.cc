// The control channel as workers use it: registration by message 0, what is
// acknowledged and how, routing by message id, the driver's handler for
// id 3, messages too short for what their id reads; and control messages
// from several workers while packets flow.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "support/env.h"
#include "support/frames.h"
#include "support/module_env.h"

namespace vane::test {
namespace {

using ControlTest = ModuleTest;

// An ECM frame on interface 3 for `vcpu`; with TestRanges() it goes to
// that vCPU's worker, with dispatch off to the default receiver.
Bytes Ecm(uint8_t vcpu) { return EcmFrame(3, vcpu, {.word0 = 1}); }

std::string Slots(uint32_t a, uint32_t b, uint32_t c, uint32_t d) {
  return "[" + std::to_string(a) + "," + std::to_string(b) + "," + std::to_string(c) + "," +
         std::to_string(d) + "]";
}

TEST_F(ControlTest, RegistrationFillsTheNamedChannelAndSlotOnly) {
  Worker w;
  Worker ops;
  const uint32_t p = w.pid();
  // Either socket registers for either channel.
  EXPECT_EQ(w.Register(kFast, 2, kNormal), 0);
  EXPECT_EQ(w.Register(kNormal, 4, kFast), 0);
  // Past the last slot, or a selector that names no channel: accepted, and
  // nothing changes.
  EXPECT_EQ(w.Register(kNormal, 64), 0);
  EXPECT_EQ(w.Register(28, 1), 0);
  // vCPU receivers alone do not make a channel ready.
  EXPECT_EQ(env().Deliver(2, Bytes(40, 1)), -77);
  EXPECT_EQ(env().Deliver(2, Bytes(40, 1), /*fast=*/true), -77);
  env().ClearLog();
  ASSERT_EQ(ops.Debug(18), 0);
  std::vector<std::string> texts;
  for (const LogLine& l : env().Log()) {
    EXPECT_EQ(l.level, 1) << l.text;
    texts.push_back(l.text);
  }
  EXPECT_EQ(texts, (std::vector<std::string>{
                       "\r\n**bypass_debug_pidInfo****\r",
                       "\r\n**bypass_debug_pidInfo1-4:" + Slots(0, 0, 0, p) + "****\r",
                       "\r\n**bypass_debug_pidInfo1-4:" + Slots(0, p, 0, 0) + "**fast**\r"}));

  // Slot 63 is the last one; a later default receiver replaces the first.
  ASSERT_EQ(ops.Register(kNormal, 0), 0);
  ASSERT_EQ(ops.Configure(TestRanges()), 0);
  ASSERT_EQ(w.Register(kNormal, 63, kFast), 0);
  EXPECT_GT(env().Deliver(1, Ecm(63)), 0);
  EXPECT_EQ(w.Pending(), 1u);
  Worker restarted;
  ASSERT_EQ(restarted.Register(kNormal, 0), 0);
  EXPECT_GT(env().Deliver(2, Bytes(20, 1)), 0);
  EXPECT_EQ(restarted.Pending(), 1u);
  EXPECT_EQ(ops.Pending(), 0u);
}

// The module records the sender's process id, not its port id and not
// nlmsg_pid: a worker is reachable only on a socket whose port id is its pid.
TEST_F(ControlTest, RegistrationRecordsTheSendersProcessId) {
  auto peer = env().NewPeer();
  auto odd = peer->Open(kNormal, peer->pid() ^ 0x40000000u);
  ASSERT_NE(odd, nullptr);
  Bytes msg = ControlMessage(0, PidPayload(26, 0));
  std::memcpy(&msg[12], "\x11\x11\x11\x11", 4);
  ASSERT_GT(odd->Send(msg), 0);
  ASSERT_TRUE(odd->Receive().has_value());  // the acknowledgement
  EXPECT_EQ(env().Deliver(2, Bytes(20, 1)), -111);
  auto own = peer->Open(kNormal);
  ASSERT_NE(own, nullptr);
  EXPECT_GT(env().Deliver(2, Bytes(20, 1)), 0);
  EXPECT_TRUE(own->Receive().has_value());
  EXPECT_FALSE(odd->Receive().has_value());
}

TEST_F(ControlTest, AcknowledgementsFollowTheRequestFlagsAndResults) {
  Worker w;
  Port& s = w.port(kNormal);
  // The one answer to `m`, empty when none came.
  auto reply = [&s](const Bytes& m) {
    s.Send(m);
    const Bytes r = s.Receive().value_or(Bytes{});
    EXPECT_FALSE(s.Receive().has_value());
    return r;
  };
  // Type 17: -22 echoing the whole request, and nothing else done.
  const Bytes bad = ControlMessage(0, PidPayload(26, 0), {.type = 17, .seq = 9});
  Bytes r = reply(bad);
  ASSERT_EQ(r.size(), 20u + bad.size());
  EXPECT_EQ(Bytes(r.begin() + 20, r.end()), bad);
  EXPECT_EQ(DecodeAck(r)->error, -22);
  EXPECT_EQ(DecodeAck(r)->seq, 9u);
  EXPECT_EQ(DecodeAck(r)->portid, w.pid());
  // An error is answered even unasked; without the request flag nothing is
  // processed, but the answer asked for still comes.
  EXPECT_EQ(DecodeAck(reply(ControlMessage(0, PidPayload(26, 0), {.type = 17, .flags = 1})))->error,
            -22);
  EXPECT_EQ(DecodeAck(reply(ControlMessage(0, PidPayload(26, 0), {.flags = 4})))->error, 0);
  EXPECT_EQ(env().Deliver(2, Bytes(20, 1)), -77);
  // A success is answered only when asked for, with the request's header
  // alone; ids above 15 are ignored.
  EXPECT_EQ(reply(ControlMessage(0, PidPayload(26, 0), {.flags = 1})), Bytes{});
  EXPECT_GT(env().Deliver(2, Bytes(20, 1)), 0);
  EXPECT_TRUE(w.Next().has_value());
  r = reply(ControlMessage(16, {'a', 'b', 'c', 'd'}, {.seq = 4}));
  ASSERT_EQ(r.size(), 36u);
  EXPECT_EQ(DecodeAck(r)->error, 0);
  EXPECT_EQ(DecodeAck(r)->seq, 4u);
  EXPECT_EQ(DecodeAck(r)->flags, 0x100);
  EXPECT_EQ(w.Control(0xFFFFFFFF, {}), 0);
}

TEST_F(ControlTest, SeveralMessagesInOneSendAreEachProcessedAndAcknowledged) {
  Worker w;
  Worker ops;
  Bytes all;
  for (const Bytes& m : {ControlMessage(0, PidPayload(26, 1), {.seq = 1}),
                         ControlMessage(0, PidPayload(26, 2), {.type = 17, .seq = 2}),
                         ControlMessage(0, PidPayload(26, 3), {.seq = 3})}) {
    all.insert(all.end(), m.begin(), m.end());
  }
  w.port(kNormal).Send(all);
  std::vector<int> errors;
  while (auto msg = w.port(kNormal).Receive()) errors.push_back(DecodeAck(*msg)->error);
  EXPECT_EQ(errors, (std::vector<int>{0, -22, 0}));
  env().ClearLog();
  ASSERT_EQ(ops.Debug(18), 0);
  const auto log = env().Log();
  ASSERT_EQ(log.size(), 3u);
  EXPECT_NE(log[1].text.find(Slots(w.pid(), 0, w.pid(), 0)), std::string::npos) << log[1].text;
}

TEST_F(ControlTest, TheDriversHandlerServesIdThreeOnBothSockets) {
  Worker w;
  EXPECT_EQ(w.Control(3, {0xDE, 0xAD, 0xBE, 0xEF}, kNormal), 0);
  EXPECT_EQ(env().Handler().data, (Bytes{0xDE, 0xAD, 0xBE, 0xEF}));
  EXPECT_EQ(w.Control(3, {7}, kFast), 0);
  EXPECT_EQ(env().Handler().data, Bytes{7});
  // The length field goes to the handler as sent while the message holds it.
  EXPECT_EQ(w.Control(3, {1, 2, 3, 4, 5, 6}, kNormal, {.len_field = 2}), 0);
  const HandlerCalls h = env().Handler();
  EXPECT_EQ(h.calls, 3u);
  EXPECT_EQ(h.len, 2u);
  EXPECT_EQ(h.data, (Bytes{1, 2}));
  // Ids without a handler are ignored.
  EXPECT_EQ(w.Control(9, {1}), 0);
}

// A message shorter than what its id reads is refused with -22 and nothing
// of it is applied.
TEST_F(ControlTest, MessagesTooShortForTheirIdAreRefused) {
  Worker w;
  Bytes on = ConfigPayload(TestRanges());
  struct Case {
    uint32_t id;
    Bytes payload;
    std::optional<uint32_t> len_field;
  } const cases[] = {
      {0, {26, 0, 0, 0}, {}},
      {5, Bytes(on.begin(), on.end() - 1), {}},
      {6, {}, {}},
      {3, {1, 2, 3}, 4},  // a length field past the bytes carried
      {11, Bytes(59, 1), {}},
      {14, Bytes(15, 1), {}},
      {15, Bytes(8, 1), {}},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(w.Control(c.id, c.payload, kNormal, {.len_field = c.len_field}), -22) << c.id;
  }
  // No room even for the id and length fields.
  Bytes bare = ControlMessage(0, {}, {.nlmsg_len = 20});
  bare.resize(20);
  w.port(kNormal).Send(bare);
  EXPECT_EQ(DecodeAck(w.port(kNormal).Receive().value_or(Bytes{}))->error, -22);

  EXPECT_EQ(env().Deliver(1, Ecm(5)), -77);  // nobody registered
  EXPECT_EQ(env().Handler().calls, 0u);
  ASSERT_EQ(w.Register(kNormal, 0), 0);
  EXPECT_GT(env().Deliver(1, Ecm(5)), 0);  // dispatch still off
  EXPECT_EQ(w.Pending(), 1u);
  // Real bytes count, not the length field: 88 bytes with a field of 0.
  EXPECT_EQ(w.Control(5, on, kNormal, {.len_field = 0}), 0);
  EXPECT_EQ(env().Deliver(1, Ecm(5)), -77);  // dispatch on, vCPU 5 absent
  EXPECT_EQ(env().Read("/proc/bypassDebug/ivo"), Bytes(296, 0));
}

// A whole steering table is taken, shown by the ivo view (which takes
// 4-byte writes only) and printed by debug command 20.
TEST_F(ControlTest, SteeringTablesAreShownAndPrinted) {
  Worker w;
  Bytes table(60, 0);
  table[0] = 1;    // enabled
  table[8] = 5;    // vCPU
  table[12] = 2;   // two cause IDs: 40, 41
  table[16] = 40;  // and the range 200..210
  table[18] = 41;
  table[56] = 200;
  table[58] = 210;
  ASSERT_EQ(w.Control(11, table), 0);
  const Bytes view = env().Read("/proc/bypassDebug/ivo").value_or(Bytes{});
  ASSERT_EQ(view.size(), 296u);
  EXPECT_EQ(Bytes(view.begin(), view.begin() + 60), table);
  EXPECT_EQ(env().Write("/proc/bypassDebug/ivo", {0}), -22);
  EXPECT_EQ(env().Write("/proc/bypassDebug/ivo", {0, 0, 0, 0}), 4);
  env().ClearLog();
  ASSERT_EQ(w.Debug(20), 0);
  const std::vector<std::string> log = LogTexts();
  ASSERT_FALSE(log.empty());
  EXPECT_EQ(Occurrences(log[0], "********ivo lb table***********"), 1u) << log[0];
  size_t deteption = 0;
  for (const std::string& t : log)
    deteption += Occurrences(t, "********deteption lb table***********");
  EXPECT_EQ(deteption, 1u);
}

constexpr uint32_t kRounds = 60;  // per sender: each receiver's share fits its queue
constexpr int kControlRounds = 150;

TEST_F(ControlTest, PacketsControlMessagesAndReadersTogether) {
  Worker def;
  Worker vcpu5;
  Worker ctl[2];
  ASSERT_EQ(def.Register(kNormal, 0), 0);
  ASSERT_EQ(vcpu5.Register(kNormal, 5), 0);
  const BYPASS_PKT_OFFSET_S cfg = TestRanges();
  ASSERT_EQ(def.Configure(cfg), 0);
  SetDebugLevel(1);

  std::atomic<bool> stop{false};
  std::vector<std::thread> threads;
  for (uint8_t s = 0; s < 3; ++s) {
    threads.emplace_back([s] {
      // Per round: one for vCPU 5's worker, one for a vCPU nobody serves
      // (refused, but counted), one the dispatch leaves undecided.
      const Bytes packets[] = {EcmFrame(3, 5, {.word0 = 1}), EcmFrame(3, 10 + s, {.word0 = 1}),
                               EcmFrame(25, 5, {.word0 = 1})};
      for (uint32_t i = 0; i < kRounds; ++i) {
        for (const Bytes& p : packets) env().Deliver(1, p);
      }
    });
  }
  for (Worker& w : ctl) {
    threads.emplace_back([&w, &cfg] {
      for (int i = 0; i < kControlRounds; ++i) {
        EXPECT_EQ(w.Configure(cfg), 0);
        EXPECT_EQ(w.Register(kNormal, 7), 0);
        EXPECT_EQ(w.Debug(11), 0);
        EXPECT_EQ(w.Debug(2), 0);
        EXPECT_EQ(w.Control(3, {1, 2, 3}), 0);
      }
    });
  }
  std::thread reader([&stop] {
    while (!stop) {
      const std::vector<uint32_t> c = Counters();
      ASSERT_EQ(c.size(), 960u);
      EXPECT_LE(c[0], 3 * kRounds);
      EXPECT_LE(c[5], 3 * kRounds);
      for (int s = 0; s < 3; ++s) EXPECT_LE(c[138 + s], kRounds);
    }
  });
  for (auto& th : threads) th.join();
  stop = true;
  reader.join();

  const std::vector<uint32_t> c = Counters();
  EXPECT_EQ(c[0], 3 * kRounds);
  EXPECT_EQ(c[5], 3 * kRounds);
  EXPECT_EQ(c[133], 3 * kRounds);
  for (int s = 0; s < 3; ++s) {
    EXPECT_EQ(c[10 + s], kRounds);
    EXPECT_EQ(c[138 + s], kRounds);
  }
  EXPECT_EQ(vcpu5.Pending(), size_t{3 * kRounds});
  EXPECT_EQ(def.Pending(), size_t{3 * kRounds});
  EXPECT_EQ(env().Handler().calls, 2u * kControlRounds);
  // Three trace lines per control round, none broken.
  const std::string line = "\r\nNETLINK_MID_OFFSET.";
  std::string whole;
  for (int i = 0; i < 2 * 3 * kControlRounds; ++i) whole += line;
  EXPECT_EQ(DebugText(), whole);
}

}  // namespace
}  // namespace vane::test
