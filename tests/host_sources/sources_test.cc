// The packet sources: a capture file played once at a rate, looped, and
// stopped in a recorded gap, and vaned ending with them; the injection
// socket with well-formed and malformed datagrams; live capture; and what
// the factory makes of configuration entries and arguments, and refuses.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <pcap/pcap.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>
#include <yaml-cpp/yaml.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fstream>
#include <functional>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

#include "daemon.h"
#include "host/sources/factory.h"
#include "host_support.h"
#include "support/packet_builder.h"
#include "vane/inject.h"

namespace vane::test {
namespace {

using host::MakeSource;
using host::MakeSourceFromArg;
using host::Source;
using host::SourceContext;
using host::SourceStats;

// Records what a source hands in; answers `result`; runs `after` (outside
// the lock) after each delivery, which is how tests stop a source at a
// known point instead of after a delay.
class Recorder : public host::PacketOut {
 public:
  int Deliver(uint32_t type, uint8_t* buf, uint32_t len) override {
    size_t n = 0;
    {
      std::lock_guard<std::mutex> lock(mu_);
      got_.push_back({type, Bytes(buf, buf + len)});
      n = got_.size();
    }
    if (after) after(n);
    return type >= 1 && type <= 15 ? static_cast<int>(len) : -22;
  }
  struct Packet {
    uint32_t type;
    Bytes data;
  };
  std::vector<Packet> Got() {
    std::lock_guard<std::mutex> lock(mu_);
    return got_;
  }
  std::function<void(size_t)> after;

 private:
  std::mutex mu_;
  std::vector<Packet> got_;
};

Bytes Frame(uint8_t tag, size_t payload = 30) {
  return PacketBuilder()
      .ethernet(Mac("00:00:00:00:00:01"), Mac("00:00:00:00:00:02"))
      .ipv4({.src = Ipv4Addr("10.0.0.1"), .dst = Ipv4Addr("10.0.0.2")})
      .udp(1000, tag)
      .payload(payload)
      .build();
}

// Writes frames with time stamps `gap_s` seconds apart.
void WritePcap(const std::string& path, const std::vector<Bytes>& frames, int link = DLT_EN10MB,
               long gap_s = 0) {
  pcap_t* dead = pcap_open_dead(link, 65535);
  pcap_dumper_t* d = pcap_dump_open(dead, path.c_str());
  ASSERT_NE(d, nullptr) << pcap_geterr(dead);
  long t = 1700000000;
  for (const Bytes& f : frames) {
    pcap_pkthdr h{};
    h.ts.tv_sec = t;
    h.caplen = h.len = static_cast<bpf_u_int32>(f.size());
    pcap_dump(reinterpret_cast<u_char*>(d), &h, f.data());
    t += gap_s;
  }
  pcap_dump_close(d);
  pcap_close(dead);
}

SourceContext Context(const TempDir& dir) {
  SourceContext ctx;
  ctx.run_dir = dir.path();
  ctx.config_dir = dir.path();
  ctx.vaned_section = YAML::Load(R"(
    chip_header:
      mac_offset: 24
      default: {cause_id: 7, eth_num: 21}
  )");
  return ctx;
}

std::unique_ptr<Source> FromArg(const std::string& arg, const SourceContext& ctx) {
  std::string err;
  auto s = MakeSourceFromArg(arg, ctx, &err);
  EXPECT_NE(s, nullptr) << arg << ": " << err;
  return s;
}

class PcapSourceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    // Four frames that fit and one too long for a delivery buffer.
    WritePcap(dir_ / "small.pcap", {Frame(1), Frame(2), Frame(3, 9990), Frame(4), Frame(5)});
  }
  TempDir dir_;
};

TEST_F(PcapSourceTest, OncePlaysEveryFrameThroughTheStageAndSkipsOversizedOnes) {
  auto src = FromArg("pcap:" + (dir_ / "small.pcap") + ",eth=23,rate=2000", Context(dir_));
  EXPECT_EQ(src->Describe(), "pcap " + (dir_ / "small.pcap") + " (eth 23, 2000 pps, once)");
  Recorder out;
  ASSERT_EQ(src->Run(out), 0);
  const SourceStats st = src->Stats();
  EXPECT_EQ(st.read, 5u);
  EXPECT_EQ(st.delivered, 4u);
  EXPECT_EQ(st.skipped, 1u);
  EXPECT_EQ(st.loops, 1u);
  const auto got = out.Got();
  ASSERT_EQ(got.size(), 4u);
  const Bytes f = Frame(4);
  EXPECT_EQ(got[2].data.size(), 12 + 24 + f.size());
  EXPECT_TRUE(std::equal(f.begin(), f.end(), got[2].data.begin() + 36));
  EXPECT_EQ(got[2].data[8], 23);  // the ethNum word
  EXPECT_EQ(st.bytes, 4 * got[0].data.size());
}

TEST_F(PcapSourceTest, LoopedPlaysAgainUntilStopped) {
  auto src = FromArg("pcap:" + (dir_ / "small.pcap") + ",loop", Context(dir_));
  Recorder out;
  out.after = [&](size_t n) {
    if (n == 10) src->Stop();
  };
  ASSERT_EQ(src->Run(out), 0);
  const SourceStats st = src->Stats();
  EXPECT_EQ(st.delivered, 10u);
  EXPECT_EQ(st.loops, 2u);
  EXPECT_EQ(st.skipped, 2u);
}

TEST_F(PcapSourceTest, StopCutsARecordedGapShort) {
  WritePcap(dir_ / "slow.pcap", {Frame(1), Frame(2)}, DLT_EN10MB, 3600);
  auto src = FromArg("pcap:" + (dir_ / "slow.pcap") + ",timing=recorded", Context(dir_));
  Recorder out;
  std::thread stopper;
  out.after = [&](size_t) { stopper = std::thread([&] { src->Stop(); }); };
  EXPECT_EQ(src->Run(out), 0);  // would sleep an hour if Stop were not seen
  stopper.join();
  EXPECT_EQ(src->Stats().delivered, 1u);
}

TEST_F(PcapSourceTest, VanedEndsWhenEverySourceIsDoneAndStopsOnesThatLoop) {
  host::DaemonOptions opt;
  opt.run_dir = dir_ / "run";
  opt.stats_path = dir_ / "stats.json";
  opt.handle_signals = false;
  opt.exit_when_done = true;
  {
    host::Daemon d(opt);
    ASSERT_EQ(d.Start(), 0);
    d.AddSource(FromArg("pcap:" + (dir_ / "small.pcap"), Context(dir_)));
    d.AddSource(FromArg("pcap:" + (dir_ / "small.pcap"), Context(dir_)));
    EXPECT_EQ(d.Run(), 0) << "returns by itself once both have played";
  }
  const auto stats = nlohmann::json::parse(ReadText(opt.stats_path), nullptr, false);
  ASSERT_EQ(stats["sources"].size(), 2u);
  EXPECT_EQ(stats["sources"][0]["refused"], 4) << "no worker registered";
  EXPECT_EQ(stats["sources"][0]["finished"], true);
  EXPECT_EQ(stats["delivery"]["-77"], 8);

  opt.exit_when_done = false;
  host::Daemon d(opt);
  ASSERT_EQ(d.Start(), 0);
  d.AddSource(FromArg("pcap:" + (dir_ / "small.pcap") + ",loop", Context(dir_)));
  std::thread stopper([&] { d.RequestStop(); });
  EXPECT_EQ(d.Run(), 0) << "a looped source is stopped by the shutdown";
  stopper.join();
}

class InjectSourceTest : public ::testing::Test {
 protected:
  // One datagram to the socket at `path`.
  static void SendTo(const std::string& path, const Bytes& dgram) {
    EXPECT_EQ(DgramSocket().SendTo(path, dgram), static_cast<int>(dgram.size()));
  }
  static Bytes Dgram(uint32_t type, uint32_t len_field, size_t data_len, uint8_t fill = 0xAB) {
    Bytes d(sizeof(vane_wire_inject) + data_len, fill);
    vane_wire_inject h{type, len_field};
    std::memcpy(d.data(), &h, sizeof(h));
    return d;
  }
  TempDir dir_;
};

TEST_F(InjectSourceTest, WellFormedBuffersPassUnchangedAndMalformedOnesAreSkipped) {
  const std::string path = dir_ / "inject.sock";
  LeaveStaleSocket(path);  // a crash's leftover is replaced
  auto src = FromArg("inject", Context(dir_));
  struct stat st {};
  ASSERT_EQ(stat(path.c_str(), &st), 0);
  EXPECT_TRUE(S_ISSOCK(st.st_mode));
  EXPECT_EQ(st.st_mode & 0777, 0600u);

  Recorder out;
  out.after = [&](size_t n) {
    if (n == 3) src->Stop();
  };
  std::thread run([&] { EXPECT_EQ(src->Run(out), 0); });
  SendTo(path, Dgram(2, 60, 60));                                    // delivered
  SendTo(path, Bytes{1, 0, 0});                                      // shorter than the header
  SendTo(path, Dgram(2, 61, 60));                                    // length disagrees
  SendTo(path, Dgram(2, 0, 0));                                      // empty
  SendTo(path, Dgram(2, VANE_INJECT_MAX + 1, VANE_INJECT_MAX + 1));  // too long
  SendTo(path, Dgram(16, 12, 12));                                   // refused by the dispatcher
  SendTo(path, Dgram(1, VANE_INJECT_MAX, VANE_INJECT_MAX, 0x5C));    // the largest
  run.join();

  const auto got = out.Got();
  ASSERT_EQ(got.size(), 3u);
  EXPECT_EQ(got[0].type, 2u);
  EXPECT_EQ(got[0].data, Bytes(60, 0xAB));
  EXPECT_EQ(got[2].data, Bytes(VANE_INJECT_MAX, 0x5C));
  const SourceStats s = src->Stats();
  EXPECT_EQ(s.read, 7u);
  EXPECT_EQ(s.skipped, 4u);
  EXPECT_EQ(s.refused, 1u);
  EXPECT_EQ(s.delivered, 2u);
  EXPECT_EQ(s.bytes, 60u + VANE_INJECT_MAX);
  EXPECT_NE(stat(path.c_str(), &st), 0);  // removed at stop
}

// Capturing needs privileges the test may not have; without them the error
// is the point, with them the frames are.
TEST(IfaceSource, CapturesLoopbackUntilStopped) {
  TempDir dir;
  std::string err;
  auto src = MakeSourceFromArg("iface:lo,eth=22", Context(dir), &err);
  if (src == nullptr) {
    EXPECT_NE(err.find("lo"), std::string::npos) << err;
    GTEST_SKIP() << err;
  }
  const std::string marker = "vane-iface-test-marker";
  std::atomic<bool> seen{false};
  Recorder out;
  out.after = [&](size_t) {
    const auto got = out.Got();
    const Bytes& d = got.back().data;
    if (std::search(d.begin(), d.end(), marker.begin(), marker.end()) != d.end()) seen = true;
  };
  std::thread run([&] { EXPECT_EQ(src->Run(out), 0) << src->Error(); });
  const int s = socket(AF_INET, SOCK_DGRAM, 0);
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_port = htons(9);  // discard
  to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  while (!seen) {
    sendto(s, marker.data(), marker.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof(to));
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  close(s);
  src->Stop();
  run.join();
  EXPECT_EQ(out.Got().front().data[8], 22) << "the ethNum word";
  EXPECT_GE(src->Stats().delivered, 1u);
}

TEST(SourceFactory, ConfigurationEntriesAndSpecsSayTheSame) {
  TempDir dir;
  WritePcap(dir / "sample.pcapng", {Frame(1)});
  SourceContext ctx = Context(dir);
  std::string err;
  // A relative file resolves against the configuration's directory.
  auto a = MakeSource(
      YAML::Load("{pcap: sample.pcapng, eth_num: 21, timing: recorded, loop: false}"), ctx, &err);
  ASSERT_NE(a, nullptr) << err;
  EXPECT_EQ(a->Describe(), "pcap " + (dir / "sample.pcapng") + " (eth 21, recorded timing, once)");
  auto b = FromArg("pcap:" + (dir / "sample.pcapng") + ",eth=0x15,timing=rate,rate=100,loop", ctx);
  EXPECT_EQ(b->Describe(), "pcap " + (dir / "sample.pcapng") + " (eth 21, 100 pps, looped)");
  auto c = MakeSource(YAML::Load("{inject: ~}"), ctx, &err);
  ASSERT_NE(c, nullptr) << err;
  EXPECT_EQ(c->Describe(), "inject " + (dir / "inject.sock"));
}

TEST(SourceFactory, MistakesAreNamed) {
  TempDir dir;
  WritePcap(dir / "s.pcap", {Frame(1)});
  WritePcap(dir / "raw.pcap", {Frame(1)}, DLT_RAW);
  std::ofstream(dir / "plain") << "not a socket";
  SourceContext ctx = Context(dir);
  const auto live = FromArg("inject:" + (dir / "in.sock"), ctx);
  const std::string p = "pcap:" + (dir / "s.pcap");
  const struct {
    std::string arg;
    const char* says;
  } args[] = {
      {"tap:eth0", "expected pcap:FILE"},
      {"pcap:", "needs a file name"},
      {p + ",speed=3", "unknown option 'speed=3'"},
      {p + ",timing=slow", "timing 'slow'"},
      {p + ",timing=rate", "needs a rate above 0"},
      {p + ",timing=fast,rate=10", "a rate needs rate timing"},
      {p + ",eth=x", "eth: 'x' is not a number"},
      {"iface:lo,loop", "apply to pcap files only"},
      {"iface:vane-no-such0", "vane-no-such0"},
      {"pcap:" + (dir / "raw.pcap"), "only Ethernet"},
      {"pcap:" + (dir / "none.pcap"), "none.pcap"},
      {"inject:" + (dir / "in.sock"), "in use"},
      {"inject:" + (dir / "plain"), "not a socket"},
  };
  for (const auto& c : args) {
    std::string err;
    EXPECT_EQ(MakeSourceFromArg(c.arg, ctx, &err), nullptr) << c.arg;
    EXPECT_NE(err.find(c.says), std::string::npos) << c.arg << " said: " << err;
  }
  const struct {
    const char* yaml;
    const char* says;
  } entries[] = {
      {"{pcap: s.pcap, iface: lo}", "exactly one of"},
      {"{pcap: s.pcap, ethnum: 3}", "unknown key 'ethnum'"},
      {"{pcap: s.pcap, loop: often}", "loop must be true or false"},
      {"{pcap: [s.pcap]}", "expected a name"},
      {"[pcap]", "expected a mapping"},
  };
  for (const auto& c : entries) {
    std::string err;
    EXPECT_EQ(MakeSource(YAML::Load(c.yaml), ctx, &err), nullptr) << c.yaml;
    EXPECT_NE(err.find(c.says), std::string::npos) << c.yaml << " said: " << err;
  }
  // The stage's own mistakes surface through the factory.
  ctx.vaned_section = YAML::Load("chip_header: {mac_offset: 4}");
  std::string err;
  EXPECT_EQ(MakeSourceFromArg(p, ctx, &err), nullptr);
  EXPECT_NE(err.find("runs into the frame"), std::string::npos) << err;
}

}  // namespace
}  // namespace vane::test
