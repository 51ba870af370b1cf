// The sample worker as a process served by vaned: it registers, counts what
// it is sent, and reports on SIGTERM.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>

#include "host_support.h"

namespace vane::test {
namespace {

// Delivery prefix, HiGig2 header with the packet type in byte 2, 8 bytes of
// chip metadata, then Ethernet and IPv4 as the sample configuration lays
// them out. frag_flags is the IPv4 flags/offset word.
Bytes Buffer(uint8_t pkt_type, uint16_t frag_flags, uint16_t ip_id) {
  ByteWriter w;
  w.u32(1).zeros(8);
  w.zeros(2).u8(pkt_type).zeros(13);
  w.zeros(8);
  w.zeros(12).u8(0x08).u8(0x00);  // MACs, IPv4
  w.u8(0x45).u8(0).u8(0).u8(28).u8(ip_id >> 8).u8(ip_id & 0xFF);
  w.u8(frag_flags >> 8).u8(frag_flags & 0xFF).u8(64).u8(17).zeros(2);
  w.u8(10).u8(1).u8(0).u8(11).u8(10).u8(0).u8(0).u8(1);  // 10.1.0.11 -> 10.0.0.1
  w.zeros(8);                                            // UDP
  return w.b;
}

TEST(SampleWorkerTest, CountsAndReportsOnSigterm) {
  InProcessDaemon d;
  TempDir dir;
  const pid_t pid = Start({.argv = {VANE_SAMPLE_WORKER, "--name", "capwap", "--default", "--report",
                                    dir / "report.json", "--ready", dir / "ready"},
                           .env = {"VANE_TRANSPORT=unix", "VANE_RUNDIR=" + d.run_dir()},
                           .stderr_path = dir / "stderr"});
  ASSERT_GT(pid, 0);
  // A hang guard only: the worker says when it is registered.
  for (int i = 0; i < 1000 && !std::filesystem::exists(dir / "ready"); ++i) usleep(10000);
  EXPECT_GT(d.Deliver(2, Buffer(5, 0x2000, 0x1234)), 0);  // first fragment
  EXPECT_GT(d.Deliver(2, Buffer(5, 0x0003, 0x1234)), 0);  // last
  EXPECT_GT(d.Deliver(1, Buffer(7, 0x4000, 0x9999)), 0);  // DF only
  kill(pid, SIGTERM);
  ASSERT_EQ(Wait(pid), 0) << ReadText(dir / "stderr");

  const auto j = nlohmann::json::parse(ReadText(dir / "report.json"), nullptr, false);
  ASSERT_FALSE(j.is_discarded());
  EXPECT_EQ(j["name"], "capwap");
  EXPECT_EQ(j["packets"], 3);
  EXPECT_EQ(j["per_type"], (nlohmann::json{{"1", 1}, {"2", 2}}));
  EXPECT_EQ(j["per_pkt_type"], (nlohmann::json{{"5", 2}, {"7", 1}}));
  EXPECT_EQ(j["per_channel"]["normal"], 3);
  EXPECT_EQ(j["lost"], 0);
  ASSERT_EQ(j["fragment_keys"].size(), 1u);
  EXPECT_EQ(j["fragment_keys"][0],
            (nlohmann::json{{"src", "10.1.0.11"}, {"dst", "10.0.0.1"}, {"id", 0x1234}}));
}

}  // namespace
}  // namespace vane::test
