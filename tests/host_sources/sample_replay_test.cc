// The sample capture through the sample's own source entry, the chip-header
// stage and the real cascade: every frame goes in, none is refused, every
// worker of the sample gets its share, and the access points' tunnel traffic
// (fragments and keep-alives included) reaches the worker of its access
// point, never the default receiver.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
#include <yaml-cpp/yaml.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "drv_vane/netlink.h"
#include "host/sources/factory.h"
#include "sample_module.h"

namespace vane::test {
namespace {

constexpr int kFrames = 800;

// Hands buffers to the module as the switch driver does and notes who got
// each one.
class ModuleOut : public host::PacketOut {
 public:
  explicit ModuleOut(std::function<std::vector<uint32_t>()> drain) : drain_(std::move(drain)) {}
  int Deliver(uint32_t type, uint8_t* buf, uint32_t len) override {
    const int rc = netlink_send_msg(type, buf, len);
    got.push_back({Bytes(buf, buf + len), drain_()});
    return rc;
  }
  struct Outcome {
    Bytes buf;
    std::vector<uint32_t> receivers;
  };
  std::vector<Outcome> got;

 private:
  std::function<std::vector<uint32_t>()> drain_;
};

// Runs a program with its standard output discarded; its exit status.
int RunQuiet(std::vector<std::string> argv) {
  posix_spawn_file_actions_t fa;
  posix_spawn_file_actions_init(&fa);
  posix_spawn_file_actions_addopen(&fa, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  std::vector<char*> args;
  args.reserve(argv.size() + 1);
  for (std::string& a : argv) args.push_back(a.data());
  args.push_back(nullptr);
  pid_t pid = 0;
  const int rc = posix_spawn(&pid, args[0], &fa, nullptr, args.data(), environ);
  posix_spawn_file_actions_destroy(&fa);
  int status = 0;
  if (rc != 0 || waitpid(pid, &status, 0) != pid) return -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// The access point (11..14) of a UDP datagram or fragment it sent to the
// controller, or 0. `f` is the Ethernet frame.
uint32_t FromAccessPoint(const Bytes& f) {
  if (f.size() < 34 || f[12] != 0x08 || f[13] != 0x00 || f[23] != 17) return 0;
  const bool to_wlc = f[30] == 10 && f[31] == 0 && f[32] == 0 && f[33] == 1;
  const bool from_ap = f[26] == 10 && f[27] == 1 && f[28] == 0 && f[29] >= 11 && f[29] <= 14;
  return to_wlc && from_ap ? f[29] : 0;
}

class SampleReplayTest : public SampleModuleTest {
 protected:
  void SetUp() override {
    SampleModuleTest::SetUp();
    char tmpl[] = "/tmp/vane-replay-XXXXXX";
    dir_ = mkdtemp(tmpl);
  }
  void TearDown() override {
    std::filesystem::remove_all(dir_);
    SampleModuleTest::TearDown();
  }
  std::string dir_;
};

TEST_F(SampleReplayTest, EveryFrameReachesTheWorkerTheSampleNames) {
  ASSERT_EQ(RunQuiet({VANE_SYSTEM_PYTHON, VANE_MAKE_CAPTURE, "--count", std::to_string(kFrames),
                      "--out", dir_ + "/sample.pcapng"}),
            0)
      << "cannot generate the sample capture (python3 with scapy)";
  const YAML::Node cfg = YAML::LoadFile(VANE_SAMPLE_CONFIG);
  host::SourceContext ctx{dir_, cfg["vaned"], dir_};
  std::string err;
  auto src = host::MakeSource(cfg["vaned"]["sources"][0], ctx, &err);
  ASSERT_NE(src, nullptr) << err;

  ModuleOut out([this] { return Drain(); });
  ASSERT_EQ(src->Run(out), 0) << src->Error();
  const host::SourceStats st = src->Stats();
  EXPECT_EQ(st.read, static_cast<uint64_t>(kFrames));
  EXPECT_EQ(st.delivered, static_cast<uint64_t>(kFrames));
  EXPECT_EQ(st.refused, 0u);

  std::map<uint32_t, int> per_receiver;
  int tunnel = 0;
  for (const auto& o : out.got) {
    for (uint32_t r : o.receivers) ++per_receiver[r];
    // Wrapped frames start after the prefix and the chip's 24 bytes.
    const Bytes frame(o.buf.begin() + std::min<size_t>(o.buf.size(), 36), o.buf.end());
    if (const uint32_t ap = FromAccessPoint(frame); ap != 0) {
      ++tunnel;
      EXPECT_EQ(o.receivers, std::vector<uint32_t>{ap % 2 == 1 ? 1u : 2u}) << "from AP " << ap;
    }
  }
  EXPECT_GT(tunnel, kFrames / 4);
  for (uint32_t who : {kNormalDefault, kFastDefault, 1u, 2u, 3u, 4u, 5u, 6u, 7u}) {
    EXPECT_GT(per_receiver[who], 0) << "receiver " << who;
  }
}

}  // namespace
}  // namespace vane::test
