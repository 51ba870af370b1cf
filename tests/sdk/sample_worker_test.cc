// The sample worker as a process: it registers, counts what it is sent, and
// reports on SIGTERM.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "fake_daemon.h"

namespace vane::test {
namespace {

// Delivery prefix, HiGig2 header with the packet type in byte 2, 8 bytes of
// chip metadata, then Ethernet and IPv4 as the sample configuration lays
// them out. frag_flags is the IPv4 flags/offset word.
Bytes Buffer(uint8_t pkt_type, uint16_t frag_flags, uint16_t ip_id) {
  ByteWriter w;
  w.zeros(12);
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
  FakeDaemon daemon;
  const std::string report = daemon.dir() + "/report.json";
  const std::string env_dir = "VANE_RUNDIR=" + daemon.dir();
  std::vector<const char*> argv = {VANE_SAMPLE_WORKER, "--name",       "capwap", "--vcpus", "1,2",
                                   "--report",         report.c_str(), nullptr};
  std::vector<const char*> envp = {"VANE_TRANSPORT=unix", env_dir.c_str(), nullptr};
  const pid_t pid = fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    execve(argv[0], const_cast<char**>(argv.data()), const_cast<char**>(envp.data()));
    _exit(127);
  }
  const bool registered =
      daemon.WaitFor([](const std::vector<Datagram>& ds) { return !ds.empty(); });
  if (registered) {
    const Datagram d = daemon.Received()[0];
    daemon.SendTo(26, d.from, d.from_len, PacketMsg(2, Buffer(5, 0x2000, 0x1234)));  // first
    daemon.SendTo(26, d.from, d.from_len, PacketMsg(2, Buffer(5, 0x0003, 0x1234)));  // last
    daemon.SendTo(26, d.from, d.from_len, PacketMsg(1, Buffer(7, 0x4000, 0x9999)));  // DF only
  }
  kill(pid, SIGTERM);
  int status = 0;
  ASSERT_EQ(waitpid(pid, &status, 0), pid);
  ASSERT_TRUE(registered);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);

  std::ifstream in(report);
  const auto j = nlohmann::json::parse(in, nullptr, /*allow_exceptions=*/false);
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
