// vaned served over its sockets, with the daemon in this process: the
// port-id rules, acknowledgements, the file service's refusals, lost-message
// accounting with and without batches, other users, and malformed
// datagrams. (How it ends with its packet sources is in sources_test.cc.)
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <nlohmann/json.hpp>
#include <optional>

#include "client.h"
#include "gtest/gtest.h"
#include "host_support.h"
#include "support/module_env.h"

namespace vane::test {
namespace {

// Sends `msg` to vaned's normal channel from `c`: the acknowledgement.
Ack AckFor(DgramSocket& c, InProcessDaemon& d, const Bytes& msg) {
  EXPECT_GT(c.SendTo(d.sock(26), msg), 0);
  return DecodeAck(c.Receive()).value_or(Ack{.error = -9999});
}

Bytes Registration(uint32_t seq = 1) { return ControlMessage(0, PidPayload(26, 0), {.seq = seq}); }
Bytes Ping(uint32_t seq = 1) { return ControlMessage(6, {2}, {.seq = seq}); }

TEST(VanedTest, PortIdsFollowRegistrationAndTheLatestRegistrantWins) {
  InProcessDaemon d;
  const auto me = static_cast<uint32_t>(getpid());
  DgramSocket ctl, worker, successor;

  const uint32_t ctl_port = AckFor(ctl, d, Ping(1)).portid;
  EXPECT_NE(ctl_port & 0x80000000u, 0u) << "a plain sender gets one of vaned's ids";
  EXPECT_EQ(AckFor(worker, d, Registration(2)).portid, me);
  ASSERT_GT(d.Deliver(7, DefaultPacket(1)), 0);
  EXPECT_EQ(DecodeDelivered(worker.Receive())->data, DefaultPacket(1));
  EXPECT_FALSE(ctl.Ready()) << "packets go to the registrant only";
  EXPECT_EQ(AckFor(ctl, d, Ping(3)).portid, ctl_port) << "a sender keeps its id";

  // A later registration of the same pid takes the port id over; the
  // replaced address is a stranger again.
  EXPECT_EQ(AckFor(successor, d, Registration(4)).portid, me);
  ASSERT_GT(d.Deliver(7, DefaultPacket(2)), 0);
  EXPECT_EQ(DecodeDelivered(successor.Receive())->data, DefaultPacket(2));
  EXPECT_FALSE(worker.Ready());
  const uint32_t stranger = AckFor(worker, d, Ping(5)).portid;
  EXPECT_NE(stranger & 0x80000000u, 0u);
  EXPECT_NE(stranger, ctl_port);
  EXPECT_EQ(d.Stop(), 0);
}

TEST(VanedTest, ErrorsAreAcknowledgedPerMessageWithTheRequestEchoed) {
  InProcessDaemon d;
  DgramSocket c;
  // Two messages in one datagram: a registration too short to read, then a
  // good debug command.
  Bytes batch = ControlMessage(0, {1, 2, 3, 4}, {.seq = 7});
  const Bytes good = Ping(8);
  batch.insert(batch.end(), good.begin(), good.end());
  const Ack first = AckFor(c, d, batch);
  const auto second = DecodeAck(c.Receive());
  EXPECT_EQ(first.seq, 7u);
  EXPECT_EQ(first.error, -EINVAL);
  EXPECT_EQ(first.orig_type, 18);
  EXPECT_EQ(first.orig_len, 28u);
  ASSERT_TRUE(second.has_value());
  EXPECT_EQ(second->seq, 8u);
  EXPECT_EQ(second->error, 0);
  EXPECT_EQ(d.Stop(), 0);
}

TEST(VanedTest, FileServiceAnswersEachRequestAndRefusesBadOnes) {
  InProcessDaemon d;
  DgramSocket c;
  const std::string counts = "/proc/bypassDebug/counts";
  auto ask = [&](const Bytes& req) {
    EXPECT_GT(c.SendTo(d.sock(26), req), 0);
    return DecodeFileReply(c.Receive());
  };
  const FileReply r = ask(FileRead(counts, 3000, 1000, 41));
  EXPECT_EQ(r.seq, 41u);
  EXPECT_EQ(r.result, 840);
  EXPECT_EQ(r.pos, 3840);
  EXPECT_EQ(r.data, Bytes(840, 0));

  Bytes lying = FileRead(counts, 0, 10);
  lying[0] = static_cast<uint8_t>(lying.size() + 1);  // nlmsg_len beyond the datagram
  Bytes short_path = FileRead(counts, 0, 10);
  short_path[28] = 0xFF;  // path_len 255, more than is there
  const struct {
    const char* name;
    Bytes req;
    int64_t result;
  } bad[] = {
      {"unknown proc file", FileRead("/proc/bypassDebug/nothing", 0, 10), -ENOENT},
      {"outside /proc and /sys", FileRead("/etc/passwd", 0, 10), -ENOENT},
      {"negative position", FileRead(counts, -1, 10), -EINVAL},
      {"more than a chunk", FileRead(counts, 0, 65537), -EINVAL},
      {"no path", FileRead("", 0, 10), -EINVAL},
      {"path of 256", FileRead(std::string(256, 'a'), 0, 10), -EINVAL},
      {"length past the datagram", lying, -EINVAL},
      {"path past the message", short_path, -EINVAL},
      {"header only", NlMsg(0x7F01, 0, 10, {}), -EINVAL},
  };
  for (const auto& b : bad) EXPECT_EQ(ask(b.req).result, b.result) << b.name;
  EXPECT_EQ(d.Stop(), 0);
}

// What a worker reads back after a stall: packets, and the losses its
// overrun notices report. With a marker: delivers it once the queue is
// empty and reads up to it, so every notice due before it has come. Without:
// reads until `expect_lost` losses are told and nothing is left.
struct Tally {
  uint32_t packets = 0;
  uint32_t lost = 0;
  bool ok = false;
};

Tally ReadBack(InProcessDaemon& d, DgramSocket& worker, const Bytes* marker, uint32_t expect_lost) {
  Tally t;
  bool marker_sent = false;
  while (true) {
    if (marker != nullptr && !marker_sent && !worker.Ready()) {
      if (d.Deliver(7, *marker) <= 0) return t;
      marker_sent = true;
    }
    if (marker == nullptr && t.lost == expect_lost && !worker.Ready()) break;
    const Bytes msg = worker.Receive();
    if (msg.size() < 16) return t;
    if (msg[4] == 4) {  // the overrun notice: lost, channel
      if (msg.size() != 24 || Le32(&msg[20]) != 26) return t;
      t.lost += Le32(&msg[16]);
      continue;
    }
    auto pkt = DecodeDelivered(msg);
    if (!pkt) return t;
    if (marker_sent && pkt->data == *marker) break;
    ++t.packets;
  }
  t.ok = true;
  return t;
}

TEST(VanedTest, BatchesGoOutAtTheFlushAndEveryDropIsToldInAnOverrunNotice) {
  InProcessDaemon d;
  DgramSocket worker;
  ASSERT_EQ(AckFor(worker, d, Registration()).error, 0);
  {
    host::SendBatch batch;
    // Fewer than the smallest datagram backlog of an unconnected socket.
    for (uint32_t i = 0; i < 8; ++i) ASSERT_GT(d.Deliver(7, DefaultPacket(i)), 0);
    EXPECT_FALSE(worker.Ready()) << "queued until the batch ends";
  }
  for (uint32_t i = 0; i < 8; ++i) {
    EXPECT_EQ(DecodeDelivered(worker.Receive())->data, DefaultPacket(i));
  }

  // Bursts into a worker that does not read. One by one, the sender sees
  // each drop, and the worker is told by the next delivery that gets
  // through, or else by the tick; in batches the drops are found at the
  // flushes and told before the next packet.
  enum Mode { kByDelivery, kByTick, kBatched };
  uint32_t told = 0;
  uint32_t refused = 0;
  for (const Mode mode : {kByDelivery, kByTick, kBatched}) {
    SCOPED_TRACE(mode);
    constexpr uint32_t kSent = 320;
    const uint32_t base = 1000 * (mode + 1);
    uint32_t drops = 0;
    for (uint32_t b = 0; b < kSent / 32; ++b) {
      std::optional<host::SendBatch> batch;
      if (mode == kBatched) batch.emplace();
      for (uint32_t i = 0; i < 32; ++i) {
        const int rc = d.Deliver(7, DefaultPacket(base + b * 32 + i, 1400));
        EXPECT_TRUE(rc == -EAGAIN || rc > 0) << rc;
        drops += rc == -EAGAIN ? 1 : 0;
      }
    }
    EXPECT_EQ(drops > 0, mode != kBatched) << "the worker's queue cannot hold them all";
    const Bytes marker = DefaultPacket(base + kSent);
    const Tally t = ReadBack(d, worker, mode == kByTick ? nullptr : &marker, drops);
    ASSERT_TRUE(t.ok) << "lost " << t.lost << " of " << drops;
    EXPECT_GT(t.lost, 0u);
    EXPECT_EQ(t.lost, mode == kBatched ? t.lost : drops);
    EXPECT_EQ(t.packets + t.lost, kSent);
    told += t.lost;
    refused += drops;
  }
  const nlohmann::json stats = d.FinalStats();
  const auto& clients = stats["channels"][0]["clients"];
  ASSERT_EQ(clients.size(), 1u);
  EXPECT_EQ(clients[0]["dropped"], told);
  EXPECT_EQ(stats["delivery"]["-11"], refused);
}

TEST(VanedTest, MalformedDatagramsAreDroppedOrAnsweredAndServiceGoesOn) {
  InProcessDaemon d;
  DgramSocket c;
  // Junk, and a header that lies about its length: dropped or answered by
  // the module's walk, never read beyond.
  const Bytes junk[] = {{},
                        {1, 2, 3},
                        Bytes(15, 0xff),
                        Bytes(65536 + 64 + 1024, 0x41),
                        ByteWriter().u32(0xFFFFFFFFu).u16(18).u16(5).u32(9).u32(0).b};
  for (const Bytes& j : junk) ASSERT_EQ(c.SendTo(d.sock(26), j), static_cast<int>(j.size()));
  // A socket without an address cannot be answered: dropped.
  const int unbound = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::strncpy(addr.sun_path, d.sock(26).c_str(), sizeof(addr.sun_path) - 1);
  const Bytes ping = Ping();
  sendto(unbound, ping.data(), ping.size(), 0, reinterpret_cast<sockaddr*>(&addr), sizeof(addr));
  close(unbound);

  const Ack ack = AckFor(c, d, Ping(11));
  EXPECT_EQ(ack.seq, 11u);
  EXPECT_EQ(ack.error, 0);
  EXPECT_FALSE(c.Ready()) << "nothing answered the junk";
  const nlohmann::json stats = d.FinalStats();
  EXPECT_GE(stats["channels"][0]["malformed"].get<uint64_t>(), 4u);
}

TEST(VanedTest, ControlFromAnotherUserIsRefusedWithEperm) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to send as another user";
  InProcessDaemon d;
  // Open the way through the file system so that the daemon's own check is
  // what stops the sender.
  const std::string top = d.run_dir().substr(0, d.run_dir().rfind('/'));
  ASSERT_EQ(chmod(top.c_str(), 0755), 0);
  ASSERT_EQ(chmod(d.run_dir().c_str(), 0755), 0);
  ASSERT_EQ(chmod(d.sock(26).c_str(), 0777), 0);
  const std::string sock = d.sock(26);
  const Bytes reg = Registration(5);
  const Bytes read = FileRead("/proc/bypassDebug/counts", 0, 100, 6);
  const ForkedResult nobody = RunForked([&](int report_fd) {
    if (setgid(65534) != 0 || setuid(65534) != 0) return 1;
    DgramSocket w;
    for (const Bytes* req : {&reg, &read}) {
      if (w.SendTo(sock, *req) < 0 || !Report(report_fd, w.Receive())) return 2;
    }
    return 0;
  });
  ASSERT_EQ(nobody.status, 0);
  ASSERT_EQ(nobody.reports.size(), 2u);
  const auto ack = DecodeAck(nobody.reports[0]);
  ASSERT_TRUE(ack.has_value());
  EXPECT_EQ(ack->error, -EPERM);
  EXPECT_EQ(ack->seq, 5u);
  const FileReply reply = DecodeFileReply(nobody.reports[1]);
  EXPECT_EQ(reply.result, -EPERM);
  EXPECT_TRUE(reply.data.empty());

  // Nothing else happened: no port id, nothing registered.
  EXPECT_EQ(d.Deliver(7, DefaultPacket(1)), -77) << "no receiver registered";
  const nlohmann::json stats = d.FinalStats();
  EXPECT_EQ(stats["channels"][0]["refused"], 2);
  EXPECT_TRUE(stats["channels"][0]["clients"].empty());
}

}  // namespace
}  // namespace vane::test
