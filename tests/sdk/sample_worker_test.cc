// The sample worker as a process served by vaned: it registers, counts what
// it is sent, and reports on SIGTERM.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>

#include "host_support.h"
#include "support/packet_builder.h"

namespace vane::test {
namespace {

// The sample's layout: the HiGig2 header with the packet type in byte 2 and
// 8 bytes of chip metadata before Ethernet; a UDP datagram 10.1.0.11 ->
// 10.0.0.1, whole or a fragment.
Bytes Buffer(uint8_t pkt_type, bool df, bool mf, uint16_t frag_offset, uint16_t ip_id) {
  return PacketBuilder()
      .prefix(1, 0, 21)
      .bytes(ByteWriter().zeros(2).u8(pkt_type).zeros(21).b)
      .ethernet(Mac("00:16:3e:00:00:01"), Mac("00:1a:1e:00:00:0b"))
      .ipv4({.src = Ipv4Addr("10.1.0.11"),
             .dst = Ipv4Addr("10.0.0.1"),
             .id = ip_id,
             .df = df,
             .mf = mf,
             .frag_offset = frag_offset})
      .udp(12223, 5247)
      .build();
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
  EXPECT_GT(d.Deliver(2, Buffer(5, false, true, 0, 0x1234)), 0);   // first fragment
  EXPECT_GT(d.Deliver(2, Buffer(5, false, false, 3, 0x1234)), 0);  // last
  EXPECT_GT(d.Deliver(1, Buffer(7, true, false, 0, 0x9999)), 0);   // not a fragment
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
