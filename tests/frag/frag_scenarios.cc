// The IPv4 fragment table as the packet path fills it and an operator reads
// it: first fragments of internal VP frames enter it, later ones find and
// remove their entry, the table holds 1,000 datagrams, entries age out at
// the seventh sweep, and the dump files show it byte for byte.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "support/env.h"
#include "support/frames.h"
#include "support/module_env.h"

namespace vane::test {
namespace {

const std::string kV4 = "/proc/bypassDebug/hashInfoIpv4";

// An internal VP frame on a multi-core interface carrying an IPv4 UDP
// fragment: for vCPU `vcpu` and marked first (0xAB), or with vCPU byte 61,
// which leaves the later fragments to the table.
Bytes Vp(uint8_t vcpu, bool first, bool mf, uint16_t off, uint32_t src = 0x0A090901,
         uint16_t id = 0x5151) {
  return PacketBuilder()
      .prefix(1, 0, 21)
      .bytes(CauseHead(1))
      .ethernet({0x0A, 0x0B, 0x0B, vcpu, 0, 0}, Mac("00:00:5e:00:01:09"))
      .ether_type(kCascadeVpType)
      .bytes({static_cast<uint8_t>(first ? 0xAB : 0), 0})
      .ethernet(Mac("00:11:22:33:44:55"), Mac("00:00:5e:00:01:02"))
      .ipv4({.src = src,
             .dst = Ipv4Addr("10.9.9.2"),
             .protocol = 17,
             .id = id,
             .mf = mf,
             .frag_offset = off})
      .payload(24)
      .build();
}

// The 1,000 record slots of the IPv4 dump, read `chunk` bytes at a time:
// 16 bytes each, src, dst, id, 0, vCPU, age, 0.
std::vector<Bytes> Records(size_t chunk = 4096) {
  const Bytes img = env().Read(kV4, chunk).value_or(Bytes(16004, 0xEE));
  EXPECT_EQ(img.size(), 16004u);
  std::vector<Bytes> r;
  for (size_t i = 4; i + 16 <= img.size(); i += 16) r.emplace_back(&img[i], &img[i + 16]);
  return r;
}
// A record as the dump shows it; the destination is always 10.9.9.2.
Bytes Record(uint32_t src, uint16_t id, uint8_t vcpu, uint8_t age) {
  Bytes r = RecordBytes(src, 16);
  const Bytes rest = {2, 9, 9,    10, static_cast<uint8_t>(id), static_cast<uint8_t>(id >> 8),
                      0, 0, vcpu, age};
  std::copy(rest.begin(), rest.end(), r.begin() + 4);
  return r;
}

class FragTest : public ModuleTest {
 protected:
  void SetUp() override {
    ModuleTest::SetUp();
    ctl_.emplace();
    ASSERT_EQ(ctl_->Register(kNormal, 0), 0);
    ASSERT_EQ(ctl_->Configure(CascadeConfig()), 0);
    SetDebugLevel(1);
  }
  void TearDown() override {
    ctl_.reset();
    ModuleTest::TearDown();
  }
  std::optional<Worker> ctl_;  // the default receiver
};

// A full table refuses new datagrams (their first fragment is still
// dispatched) and keeps serving the ones it holds; the dump shows it record
// by record; a reload empties it.
TEST_F(FragTest, TheTableHoldsAThousandDatagrams) {
  EXPECT_EQ(env().Read("/proc/bypassDebug/hashInfoIpv6"), Bytes(40004, 0));
  EXPECT_EQ(env().Write(kV4, {1}), -5);
  for (uint16_t id = 0; id < 1001; ++id) env().Deliver(1, Vp(12, true, true, 0, 0x0A090901, id));
  EXPECT_EQ(Occurrences(DebugText(), "\r\nThe hashCout is over(cnt=1000)."), 1u);
  const std::vector<Bytes> d = Records(333);
  EXPECT_EQ(Ipv4FragmentRecords(), 1000);
  std::set<Bytes> want;
  for (uint16_t id = 0; id < 1000; ++id) want.insert(Record(0x0A090901, id, 12, 0));
  EXPECT_EQ(std::set<Bytes>(d.begin(), d.end()), want);
  // A held datagram goes on; the refused one's later fragments find nothing.
  SetDebugLevel(1);
  env().Deliver(1, Vp(61, false, false, 3, 0x0A090901, 999));
  env().Deliver(1, Vp(61, false, false, 3, 0x0A090901, 1000));
  EXPECT_EQ(DebugText(), "\r\ndel ipv4 fail in hash.");
  EXPECT_EQ(Ipv4FragmentRecords(), 999);
  EXPECT_EQ(Records()[999], d[999]);  // a slot past the count keeps what it held

  ctl_.reset();
  env().Unload();
  ASSERT_EQ(env().Load(), 0);
  EXPECT_EQ(env().Read(kV4), Bytes(16004, 0));
}

TEST_F(FragTest, EntriesAgeOutAtTheSeventhSweepUnlessFound) {
  VANE_REQUIRE(Power::kManualClock);
  env().UseManualClock();
  const uint32_t src = 0x0A090901;
  for (uint16_t id : {1, 2, 3}) env().Deliver(1, Vp(5, true, true, 0, src, id));
  for (int sweep = 1; sweep <= 2; ++sweep) env().AdvanceClock(500);
  // A repeated first fragment leaves the age; a middle one resets it.
  env().Deliver(1, Vp(6, true, true, 0, src, 1));
  env().Deliver(1, Vp(61, false, true, 3, src, 2));
  std::vector<Bytes> d = Records();
  EXPECT_EQ(std::set<Bytes>(d.begin(), d.begin() + 3),
            (std::set<Bytes>{Record(src, 1, 5, 10), Record(src, 2, 5, 0), Record(src, 3, 5, 10)}));
  for (int sweep = 3; sweep <= 7; ++sweep) env().AdvanceClock(500);
  d = Records();
  EXPECT_EQ(Ipv4FragmentRecords(), 1);
  EXPECT_EQ(d[0], Record(src, 2, 5, 25));
  env().AdvanceClock(2 * 500);
  EXPECT_EQ(Ipv4FragmentRecords(), 0);
  // The last fragment of an aged-out datagram finds nothing.
  env().Deliver(1, Vp(61, false, false, 9, src, 2));
  EXPECT_EQ(Occurrences(DebugText(), "\r\ndel ipv4 fail in hash."), 1u);
  // An empty table goes on sweeping.
  env().Deliver(1, Vp(5, true, true, 0, src, 4));
  env().AdvanceClock(6 * 500);
  EXPECT_EQ(Ipv4FragmentRecords(), 1);
  env().AdvanceClock(500);
  EXPECT_EQ(Ipv4FragmentRecords(), 0);
}

// Fragment traffic from several driver threads while dump readers copy the
// tables and, where the test moves the clock, sweeps run between them: no
// later fragment loses its entry or finds another's, and what is left
// behind ages out.
TEST_F(FragTest, TrafficSweepsAndDumpsTogether) {
  constexpr uint16_t kDatagrams = 200;
  const bool sweeps = env().Has(Power::kManualClock);
  if (sweeps) env().UseManualClock();
  std::atomic<bool> stop{false};
  std::vector<std::thread> threads;
  for (uint8_t s = 0; s < 4; ++s) {
    threads.emplace_back([s] {
      // vCPUs 20-23 have no worker: each fragment is decided and counted.
      for (uint16_t id = 0; id < kDatagrams; ++id) {
        env().Deliver(1, Vp(20 + s, true, true, 0, 0x0A000000u + s, id));
        env().Deliver(1, Vp(61, false, true, 3, 0x0A000000u + s, id));
        // Every third datagram is left to the sweeps.
        if (id % 3 != 0) env().Deliver(1, Vp(61, false, false, 6, 0x0A000000u + s, id));
      }
    });
  }
  for (const char* file : {"/proc/bypassDebug/hashInfoIpv4", "/proc/bypassDebug/hashInfoIpv6"}) {
    threads.emplace_back([&stop, file] {
      while (!stop) EXPECT_GT(env().Read(file).value_or(Bytes{}).size(), 16000u);
    });
  }
  if (sweeps) {
    // Fewer than seven: nothing ages out while the traffic runs.
    threads.emplace_back([] {
      for (int i = 0; i < 6; ++i) env().AdvanceClock(500);
    });
  }
  for (size_t t = 0; t < 4; ++t) threads[t].join();
  stop = true;
  for (size_t t = 4; t < threads.size(); ++t) threads[t].join();
  const std::vector<uint32_t> c = Counters();
  for (uint32_t v = 20; v < 24; ++v) EXPECT_EQ(c[64 + v], 200u + 200u + 133u) << v;
  EXPECT_EQ(Ipv4FragmentRecords(), 4 * 67);
  if (sweeps) {
    env().AdvanceClock(7 * 500);
    EXPECT_EQ(Ipv4FragmentRecords(), 0);
  }
}

TEST_F(FragTest, FailedAllocationsLoseNothing) {
  VANE_REQUIRE(Power::kFaultInjection);
  // The dumps' shared image, after the reader's own copy: an empty read
  // and an alert; without the reader's copy, -12.
  env().ClearLog();
  env().FailNth(FaultSite::kAlloc, 2);
  EXPECT_EQ(env().ReadAt(kV4, 0, 64), Bytes{});
  env().FailNth(FaultSite::kAlloc, 2);
  EXPECT_EQ(env().ReadAt("/proc/bypassDebug/hashInfoIpv6", 0, 64), Bytes{});
  EXPECT_EQ(LogTexts(), (std::vector<std::string>{"\r\n***bypass_proc_readHashInfoIpv4  ***\r",
                                                  "\r\n***bypass_proc_readHashInfoIpv6  1***\r"}));
  long error = 0;
  env().FailNth(FaultSite::kAlloc, 1);
  EXPECT_FALSE(env().ReadAt(kV4, 0, 64, &error).has_value());
  EXPECT_EQ(error, -12);
  // A first fragment whose record or node cannot be allocated is still
  // dispatched and leaves nothing in the table.
  Worker w5;
  ASSERT_EQ(w5.Register(kNormal, 5), 0);
  for (unsigned n : {1, 2}) {
    env().FailNth(FaultSite::kAlloc, n);
    EXPECT_GT(env().Deliver(1, Vp(5, true, true, 0)), 0);
    env().ClearFaults();
    EXPECT_EQ(Ipv4FragmentRecords(), 0);
  }
  EXPECT_EQ(
      Occurrences(DebugText(), "\r\nMalloc hash fail.\r\nAdd ip fail(usProtocolType=0x0800)."), 1u);
  EXPECT_EQ(w5.Pending(), 2u);
  EXPECT_GT(env().Deliver(1, Vp(5, true, true, 0)), 0);
  EXPECT_EQ(Ipv4FragmentRecords(), 1);
}

}  // namespace
}  // namespace vane::test
