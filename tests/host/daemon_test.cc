// vaned served over its sockets, with the daemon in this process: workers
// in other processes, the port-id rules, acknowledgements, the file service,
// lost-message accounting, other users and malformed datagrams.
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <nlohmann/json.hpp>

#include "drv_vane/netlink.h"
#include "gtest/gtest.h"
#include "host_env.h"
#include "kport/netlink.h"
#include "kport/user/testing.h"
#include "support/module_env.h"
#include "vane/wire.h"

namespace vane::test {
namespace {

using kport::user::DecodeAck;

constexpr int kNobody = 65534;

bool ReadFull(int fd, void* buf, size_t n) {
  auto* p = static_cast<uint8_t*>(buf);
  while (n > 0) {
    const ssize_t got = read(fd, p, n);
    if (got <= 0) return false;
    p += got;
    n -= static_cast<size_t>(got);
  }
  return true;
}

// Writes one length-prefixed datagram down a pipe (async-signal-safe).
void Forward(int fd, const uint8_t* buf, long n) {
  if (write(fd, &n, sizeof(n)) != sizeof(n) || write(fd, buf, static_cast<size_t>(n)) != n) {
    _exit(3);
  }
}

std::optional<Bytes> ReadForwarded(int fd) {
  long n = 0;
  if (!ReadFull(fd, &n, sizeof(n)) || n < 0) return std::nullopt;
  Bytes b(static_cast<size_t>(n));
  if (!ReadFull(fd, b.data(), b.size())) return std::nullopt;
  return b;
}

int ExitCode(pid_t pid) {
  int status = 0;
  if (waitpid(pid, &status, 0) != pid || !WIFEXITED(status)) return -1;
  return WEXITSTATUS(status);
}

// A packet the unconfigured module hands to the default receiver.
Bytes Packet(uint32_t n, size_t len = 60) {
  Bytes b(len);
  for (size_t i = 0; i < len; ++i) b[i] = static_cast<uint8_t>(n * 31 + i);
  b[0] = 1;  // keeps it off the ICMP path
  std::memcpy(b.data() + 4, &n, sizeof(n));
  return b;
}

int Deliver(InProcessDaemon& d, const Bytes& pkt) {
  Bytes copy = pkt;
  return d.daemon().packet_out().Deliver(7, copy.data(), static_cast<uint32_t>(copy.size()));
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

Tally ReadBack(InProcessDaemon& d, WireClient& worker, const Bytes* marker, uint32_t expect_lost) {
  Tally t;
  bool marker_sent = false;
  while (true) {
    if (marker != nullptr && !marker_sent && !worker.Ready()) {
      if (Deliver(d, *marker) <= 0) return t;
      marker_sent = true;
    }
    if (marker == nullptr && t.lost == expect_lost && !worker.Ready()) break;
    auto msg = worker.Receive();
    if (!msg || msg->size() < 16) return t;
    kport_nlmsghdr hdr{};
    std::memcpy(&hdr, msg->data(), sizeof(hdr));
    if (hdr.nlmsg_type == VANE_WIRE_OVERRUN) {
      vane_wire_overrun o{};
      if (msg->size() != 16 + sizeof(o)) return t;
      std::memcpy(&o, msg->data() + 16, sizeof(o));
      EXPECT_EQ(o.channel, 26u);
      t.lost += o.lost;
      continue;
    }
    auto pkt = DecodeDelivered(*msg);
    if (!pkt) return t;
    if (marker_sent && pkt->data == *marker) break;
    ++t.packets;
  }
  t.ok = true;
  return t;
}

nlohmann::json FinalStats(InProcessDaemon& d) {
  EXPECT_EQ(d.Stop(), 0) << "the module's unload left allocations behind";
  std::ifstream f(d.stats_path());
  return nlohmann::json::parse(f, nullptr, /*allow_exceptions=*/false);
}

TEST(VanedTest, WorkerProcessRegistersAndReceivesWhatIsDelivered) {
  InProcessDaemon d;
  const std::string sock = d.sock(26);
  const Bytes reg = Control(NETLINK_MID_PID, PidPayload(26, 0), 41);
  constexpr int kPackets = 20;
  int pipefd[2];
  ASSERT_EQ(pipe(pipefd), 0);
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    close(pipefd[0]);
    WireClient w;
    if (w.SendTo(sock.c_str(), reg.data(), reg.size()) < 0) _exit(1);
    static uint8_t buf[16384];
    for (int i = 0; i < 1 + kPackets; ++i) {
      const long n = w.Receive(buf, sizeof(buf));
      if (n < 0) _exit(2);
      Forward(pipefd[1], buf, n);
    }
    _exit(0);
  }
  close(pipefd[1]);
  auto ack_bytes = ReadForwarded(pipefd[0]);
  ASSERT_TRUE(ack_bytes.has_value());
  auto ack = DecodeAck(*ack_bytes);
  ASSERT_TRUE(ack.has_value());
  EXPECT_EQ(ack->error, 0);
  EXPECT_EQ(ack->seq, 41u);
  EXPECT_EQ(ack->portid, static_cast<uint32_t>(child)) << "the port id of a registrant is its pid";

  for (uint32_t i = 0; i < kPackets; ++i) {
    const Bytes pkt = Packet(i, 60 + i * 97);
    ASSERT_GT(Deliver(d, pkt), 0);
    auto got = ReadForwarded(pipefd[0]);
    ASSERT_TRUE(got.has_value());
    auto msg = DecodeDelivered(*got);
    ASSERT_TRUE(msg.has_value());
    EXPECT_EQ(msg->nlmsg_pid, static_cast<uint32_t>(child));
    EXPECT_EQ(msg->type, 7u);
    EXPECT_EQ(msg->data, pkt);
  }
  close(pipefd[0]);
  EXPECT_EQ(ExitCode(child), 0);
  EXPECT_EQ(d.Stop(), 0);
}

TEST(VanedTest, PortIdsFollowRegistrationAndTheLatestRegistrantWins) {
  InProcessDaemon d;
  const std::string sock = d.sock(26);
  const auto me = static_cast<uint32_t>(getpid());
  WireClient ctl;
  WireClient worker;
  WireClient successor;

  ASSERT_GT(ctl.SendTo(sock, Control(NETLINK_MID_DEBUG_FLAG, {2}, 1)), 0);
  auto ack = DecodeAck(ctl.Receive().value_or(Bytes{}));
  ASSERT_TRUE(ack.has_value());
  EXPECT_EQ(ack->error, 0);
  EXPECT_NE(ack->portid & VANE_WIRE_PORTID_AUTO, 0u) << "a plain sender gets one of vaned's ids";
  const uint32_t ctl_port = ack->portid;

  ASSERT_GT(worker.SendTo(sock, Control(NETLINK_MID_PID, PidPayload(26, 0), 2)), 0);
  ack = DecodeAck(worker.Receive().value_or(Bytes{}));
  ASSERT_TRUE(ack.has_value());
  EXPECT_EQ(ack->portid, me);

  ASSERT_GT(Deliver(d, Packet(1)), 0);
  auto got = DecodeDelivered(worker.Receive().value_or(Bytes{}));
  ASSERT_TRUE(got.has_value());
  EXPECT_EQ(got->data, Packet(1));
  EXPECT_FALSE(ctl.Ready()) << "packets go to the registrant only";

  // The control socket keeps its id across messages.
  ASSERT_GT(ctl.SendTo(sock, Control(NETLINK_MID_DEBUG_FLAG, {2}, 3)), 0);
  ack = DecodeAck(ctl.Receive().value_or(Bytes{}));
  ASSERT_TRUE(ack.has_value());
  EXPECT_EQ(ack->portid, ctl_port);

  // A later registration of the same pid takes the port id over.
  ASSERT_GT(successor.SendTo(sock, Control(NETLINK_MID_PID, PidPayload(26, 0), 4)), 0);
  ack = DecodeAck(successor.Receive().value_or(Bytes{}));
  ASSERT_TRUE(ack.has_value());
  EXPECT_EQ(ack->portid, me);
  ASSERT_GT(Deliver(d, Packet(2)), 0);
  got = DecodeDelivered(successor.Receive().value_or(Bytes{}));
  ASSERT_TRUE(got.has_value());
  EXPECT_EQ(got->data, Packet(2));
  EXPECT_FALSE(worker.Ready());

  // The replaced address is a stranger again.
  ASSERT_GT(worker.SendTo(sock, Control(NETLINK_MID_DEBUG_FLAG, {2}, 5)), 0);
  ack = DecodeAck(worker.Receive().value_or(Bytes{}));
  ASSERT_TRUE(ack.has_value());
  EXPECT_NE(ack->portid & VANE_WIRE_PORTID_AUTO, 0u);
  EXPECT_NE(ack->portid, ctl_port);
  EXPECT_EQ(d.Stop(), 0);
}

TEST(VanedTest, ErrorsAreAcknowledgedPerMessageWithTheRequestEchoed) {
  InProcessDaemon d;
  WireClient c;
  // Two messages in one datagram: a registration too short to read, then a
  // good debug command.
  CtrlOptions opt;
  opt.seq = 7;
  Bytes batch = ControlMessage(NETLINK_MID_PID, {1, 2, 3, 4}, opt);
  batch.resize(KPORT_NLMSG_ALIGN(batch.size()));
  opt.seq = 8;
  const Bytes good = ControlMessage(NETLINK_MID_DEBUG_FLAG, {2}, opt);
  batch.insert(batch.end(), good.begin(), good.end());
  ASSERT_GT(c.SendTo(d.sock(26), batch), 0);

  auto first = DecodeAck(c.Receive().value_or(Bytes{}));
  auto second = DecodeAck(c.Receive().value_or(Bytes{}));
  ASSERT_TRUE(first.has_value());
  ASSERT_TRUE(second.has_value());
  EXPECT_EQ(first->seq, 7u);
  EXPECT_EQ(first->error, -EINVAL);
  EXPECT_EQ(first->orig_type, NETLINK_VANE_MSG_TYPE);
  EXPECT_EQ(first->orig_len, 28u);
  EXPECT_EQ(second->seq, 8u);
  EXPECT_EQ(second->error, 0);
  EXPECT_EQ(d.Stop(), 0);
}

TEST(VanedTest, FileServiceReadsInChunksWritesAttributesAndRejectsBadRequests) {
  InProcessDaemon d;
  WireClient c;
  const std::string sock = d.sock(26);
  auto ask = [&](const Bytes& req) {
    EXPECT_GT(c.SendTo(sock, req), 0);
    return DecodeFileReply(c.Receive().value_or(Bytes{})).value_or(FileReply{0, 0, -9999, 0, {}});
  };

  const std::string counts = "/proc/bypassDebug/counts";
  const Bytes whole = kport::user::vfs::ProcReadAll(counts);
  ASSERT_GT(whole.size(), 1000u);
  Bytes assembled;
  int64_t pos = 0;
  for (uint32_t seq = 1;; ++seq) {
    const FileReply r = ask(FileRead(counts, pos, 1000, seq));
    EXPECT_EQ(r.seq, seq);
    ASSERT_GE(r.result, 0);
    ASSERT_EQ(r.data.size(), static_cast<size_t>(r.result));
    EXPECT_EQ(r.pos, pos + r.result);
    if (r.result == 0) break;
    assembled.insert(assembled.end(), r.data.begin(), r.data.end());
    pos = r.pos;
  }
  EXPECT_EQ(assembled, whole);

  const std::string attr = "/sys/class/wlan_lb/wlan_lb/wlan_lb";
  FileReply w = ask(FileWrite(attr, 0, {'2'}));
  EXPECT_EQ(w.result, 1);
  const FileReply shown = ask(FileRead(attr, 0, VANE_WIRE_FILE_CHUNK));
  const auto expected = kport::user::vfs::SysfsShow(attr);
  ASSERT_TRUE(expected.has_value());
  EXPECT_EQ(std::string(shown.data.begin(), shown.data.end()), *expected);

  EXPECT_EQ(ask(FileRead("/proc/bypassDebug/nothing", 0, 10)).result, -ENOENT);
  EXPECT_EQ(ask(FileRead("/etc/passwd", 0, 10)).result, -ENOENT);
  EXPECT_EQ(ask(FileWrite("/sys/class/none", 0, {'1'})).result, -ENOENT);
  EXPECT_EQ(ask(FileRead(counts, -1, 10)).result, -EINVAL);
  EXPECT_EQ(ask(FileRead(counts, 0, VANE_WIRE_FILE_CHUNK + 1)).result, -EINVAL);
  EXPECT_EQ(ask(FileRead("", 0, 10)).result, -EINVAL);
  EXPECT_EQ(ask(FileRead(std::string(256, 'a'), 0, 10)).result, -EINVAL);
  Bytes lying = FileRead(counts, 0, 10);
  lying[0] = static_cast<uint8_t>(lying.size() + 1);  // nlmsg_len beyond the datagram
  EXPECT_EQ(ask(lying).result, -EINVAL);
  Bytes short_path = FileRead(counts, 0, 10);
  std::memcpy(short_path.data() + 28, "\xff\x00\x00\x00", 4);  // path_len 255 > what is there
  EXPECT_EQ(ask(short_path).result, -EINVAL);
  EXPECT_EQ(d.Stop(), 0);
}

TEST(VanedTest, DropsToAStalledWorkerAreReportedInOverrunNotices) {
  InProcessDaemon d;
  WireClient worker;
  ASSERT_GT(worker.SendTo(d.sock(26), Control(NETLINK_MID_PID, PidPayload(26, 0))), 0);
  ASSERT_TRUE(DecodeAck(worker.Receive().value_or(Bytes{})).has_value());

  auto round = [&](uint32_t base, bool by_delivery) {
    constexpr uint32_t kSent = 300;
    uint32_t drops = 0;
    for (uint32_t i = 0; i < kSent; ++i) {
      const int rc = Deliver(d, Packet(base + i, 1400));
      if (rc == -EAGAIN) ++drops;
      EXPECT_TRUE(rc == -EAGAIN || rc > 0) << rc;
    }
    EXPECT_GT(drops, 0u) << "the worker's queue cannot hold them all";
    // Told by the next delivery that gets through, or else by the tick.
    const Bytes marker = Packet(base + kSent);
    const Tally t = ReadBack(d, worker, by_delivery ? &marker : nullptr, drops);
    ASSERT_TRUE(t.ok) << "lost " << t.lost << " of " << drops;
    EXPECT_EQ(t.lost, drops);
    EXPECT_EQ(t.packets + drops, kSent);
  };
  round(0, /*by_delivery=*/true);
  round(1000, /*by_delivery=*/false);
  const nlohmann::json stats = FinalStats(d);
  ASSERT_FALSE(stats.is_discarded());
  const auto& clients = stats["channels"][0]["clients"];
  ASSERT_EQ(clients.size(), 1u);
  EXPECT_GT(clients[0]["dropped"].get<uint64_t>(), 0u);
  EXPECT_EQ(stats["delivery"]["-11"], clients[0]["dropped"]);
}

TEST(VanedTest, MalformedDatagramsAreDroppedOrAnsweredAndServiceGoesOn) {
  InProcessDaemon d;
  WireClient c;
  const std::string sock = d.sock(26);
  const Bytes junk[] = {
      {},
      {1, 2, 3},
      Bytes(15, 0xff),
      Bytes(VANE_WIRE_DGRAM_MAX + 1024, 0x41),  // longer than any request
  };
  for (const Bytes& j : junk) ASSERT_EQ(c.SendTo(sock, j), static_cast<int>(j.size()));
  // Headers that lie: answered by the module's walk or ignored, never read
  // beyond.
  kport_nlmsghdr huge{0xFFFFFFFFu, 18, KPORT_NLM_F_REQUEST | KPORT_NLM_F_ACK, 9, 0};
  Bytes b(sizeof(huge));
  std::memcpy(b.data(), &huge, sizeof(huge));
  ASSERT_GT(c.SendTo(sock, b), 0);
  Bytes file_head(16, 0);
  const kport_nlmsghdr fh{16, VANE_WIRE_FILE_READ, 0, 10, 0};
  std::memcpy(file_head.data(), &fh, sizeof(fh));
  ASSERT_GT(c.SendTo(sock, file_head), 0);
  auto r = DecodeFileReply(c.Receive().value_or(Bytes{}));
  ASSERT_TRUE(r.has_value());
  EXPECT_EQ(r->seq, 10u);
  EXPECT_EQ(r->result, -EINVAL);

  // A socket without an address cannot be answered: dropped.
  const int unbound = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::strncpy(addr.sun_path, sock.c_str(), sizeof(addr.sun_path) - 1);
  const Bytes ping = Control(NETLINK_MID_DEBUG_FLAG, {2});
  sendto(unbound, ping.data(), ping.size(), 0, reinterpret_cast<sockaddr*>(&addr), sizeof(addr));
  close(unbound);

  ASSERT_GT(c.SendTo(sock, Control(NETLINK_MID_DEBUG_FLAG, {2}, 11)), 0);
  auto ack = DecodeAck(c.Receive().value_or(Bytes{}));
  ASSERT_TRUE(ack.has_value());
  EXPECT_EQ(ack->seq, 11u);
  EXPECT_EQ(ack->error, 0);
  EXPECT_FALSE(c.Ready()) << "nothing answered the junk";

  const nlohmann::json stats = FinalStats(d);
  ASSERT_FALSE(stats.is_discarded());
  EXPECT_GE(stats["channels"][0]["malformed"].get<uint64_t>(), 4u);
}

TEST(VanedTest, ControlFromAnotherUserIsRefusedWithEperm) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to send as another user";
  InProcessDaemon d;
  // Open the way through the file system so that the daemon's own check is
  // what stops the sender.
  ASSERT_EQ(chmod(d.run_dir().c_str(), 0755), 0);
  ASSERT_EQ(chmod((d.run_dir() + "/run").c_str(), 0755), 0);
  ASSERT_EQ(chmod(d.sock(26).c_str(), 0777), 0);
  const std::string sock = d.sock(26);
  const Bytes reg = Control(NETLINK_MID_PID, PidPayload(26, 0), 5);
  const Bytes read = FileRead("/proc/bypassDebug/counts", 0, 100, 6);
  int pipefd[2];
  ASSERT_EQ(pipe(pipefd), 0);
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    close(pipefd[0]);
    if (setgid(kNobody) != 0 || setuid(kNobody) != 0) _exit(1);
    WireClient w;
    static uint8_t buf[4096];
    for (const Bytes* req : {&reg, &read}) {
      if (w.SendTo(sock.c_str(), req->data(), req->size()) < 0) _exit(2);
      const long n = w.Receive(buf, sizeof(buf));
      if (n < 0) _exit(3);
      Forward(pipefd[1], buf, n);
    }
    _exit(0);
  }
  close(pipefd[1]);
  auto ack = DecodeAck(ReadForwarded(pipefd[0]).value_or(Bytes{}));
  auto reply = DecodeFileReply(ReadForwarded(pipefd[0]).value_or(Bytes{}));
  close(pipefd[0]);
  EXPECT_EQ(ExitCode(child), 0);
  ASSERT_TRUE(ack.has_value());
  EXPECT_EQ(ack->error, -EPERM);
  EXPECT_EQ(ack->seq, 5u);
  ASSERT_TRUE(reply.has_value());
  EXPECT_EQ(reply->result, -EPERM);
  EXPECT_TRUE(reply->data.empty());

  // Nothing else happened: no port id, nothing registered.
  ASSERT_EQ(Deliver(d, Packet(1)), -77) << "no receiver registered";
  const nlohmann::json stats = FinalStats(d);
  ASSERT_FALSE(stats.is_discarded());
  EXPECT_EQ(stats["channels"][0]["refused"], 2);
  EXPECT_TRUE(stats["channels"][0]["clients"].empty());
}

}  // namespace
}  // namespace vane::test

namespace vane::test {
namespace {

// Plays `count` packets once, or (count 0) until stopped.
class StubSource : public host::Source {
 public:
  explicit StubSource(uint32_t count) : count_(count) {}
  std::string Describe() const override { return "stub"; }
  int Run(host::PacketOut& out) override {
    for (uint32_t i = 0; !stop_ && (count_ == 0 || i < count_); ++i) {
      Bytes pkt = Packet(i);
      const int rc = out.Deliver(7, pkt.data(), static_cast<uint32_t>(pkt.size()));
      (rc >= 0 ? delivered_ : refused_).fetch_add(1);
    }
    return 0;
  }
  void Stop() override { stop_ = true; }
  host::SourceStats Stats() const override {
    host::SourceStats s;
    s.delivered = delivered_;
    s.refused = refused_;
    return s;
  }
  std::string Error() const override { return {}; }

 private:
  const uint32_t count_;
  std::atomic<bool> stop_{false};
  std::atomic<uint64_t> delivered_{0};
  std::atomic<uint64_t> refused_{0};
};

TEST(VanedTest, ExitsWhenEverySourceIsDoneAndStopsSourcesThatLoop) {
  TempDir dir;
  host::DaemonOptions opt;
  opt.run_dir = dir.path() + "/run";
  opt.stats_path = dir.path() + "/stats.json";
  opt.handle_signals = false;
  opt.exit_when_done = true;
  {
    host::Daemon d(opt);
    ASSERT_EQ(d.Start(), 0);
    d.AddSource(std::make_unique<StubSource>(500));
    d.AddSource(std::make_unique<StubSource>(20));
    EXPECT_EQ(d.Run(), 0) << "returns by itself once both have played";
  }
  std::ifstream f(opt.stats_path);
  const auto stats = nlohmann::json::parse(f, nullptr, false);
  ASSERT_FALSE(stats.is_discarded());
  ASSERT_EQ(stats["sources"].size(), 2u);
  EXPECT_EQ(stats["sources"][0]["refused"], 500) << "no worker registered";
  EXPECT_EQ(stats["sources"][0]["finished"], true);
  EXPECT_EQ(stats["delivery"]["-77"], 520);

  // A source that never ends is stopped by the shutdown.
  opt.exit_when_done = false;
  host::Daemon d(opt);
  ASSERT_EQ(d.Start(), 0);
  d.AddSource(std::make_unique<StubSource>(0));
  std::thread stopper([&] { d.RequestStop(); });
  EXPECT_EQ(d.Run(), 0);
  stopper.join();
}

}  // namespace
}  // namespace vane::test

namespace vane::test {
namespace {

TEST(VanedTest, BatchedDeliveriesGoOutAtTheFlushInOrderAndDropsAreStillTold) {
  InProcessDaemon d;
  WireClient worker;
  ASSERT_GT(worker.SendTo(d.sock(26), Control(NETLINK_MID_PID, PidPayload(26, 0))), 0);
  ASSERT_TRUE(DecodeAck(worker.Receive().value_or(Bytes{})).has_value());
  {
    host::SendBatch batch;
    // Fewer than the smallest datagram backlog of an unconnected socket.
    for (uint32_t i = 0; i < 8; ++i) ASSERT_GT(Deliver(d, Packet(i)), 0);
    EXPECT_FALSE(worker.Ready()) << "queued until the batch ends";
  }
  for (uint32_t i = 0; i < 8; ++i) {
    auto got = DecodeDelivered(worker.Receive().value_or(Bytes{}));
    ASSERT_TRUE(got.has_value());
    EXPECT_EQ(got->data, Packet(i));
  }

  // Bursts into a worker that does not read: the drops are found at the
  // flushes and told before the next packet that gets through.
  constexpr uint32_t kSent = 320;
  for (uint32_t b = 0; b < kSent / 32; ++b) {
    host::SendBatch batch;
    for (uint32_t i = 0; i < 32; ++i) ASSERT_GT(Deliver(d, Packet(100 + b * 32 + i, 1400)), 0);
  }
  const Bytes marker = Packet(9999);
  const Tally t = ReadBack(d, worker, &marker, 0);
  ASSERT_TRUE(t.ok);
  EXPECT_GT(t.lost, 0u);
  EXPECT_EQ(t.packets + t.lost, kSent);
  EXPECT_EQ(d.Stop(), 0);
}

}  // namespace
}  // namespace vane::test
