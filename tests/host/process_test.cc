// vaned as a real process: its run directory checks, serving a client, and
// the shutdown on SIGTERM that must unload the module without a leak.
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>

#include "channel.h"
#include "gtest/gtest.h"
#include "host_support.h"
#include "kport/user/testing.h"
#include "run_dir.h"
#include "support/module_env.h"

namespace vane::test {
namespace {

Command Vaned(std::vector<std::string> args, const std::string& log) {
  args.insert(args.begin(), VANED_BINARY);
  return {.argv = args, .stderr_path = log};
}

TEST(VanedProcessTest, ServesAClientAndShutsDownCleanlyOnSigterm) {
  TempDir dir;
  const std::string run = dir / "run";
  const pid_t vaned =
      Start(Vaned({"--run-dir", run, "--stats", dir / "stats.json", "--foreground"}, dir / "log"));
  ASSERT_GT(vaned, 0);

  // Waits until the daemon is up: only a guard against one that never
  // starts, not a verdict.
  DgramSocket worker;
  const Bytes reg = ControlMessage(0, PidPayload(26, 0), {.seq = 3});
  bool up = false;
  for (int i = 0; i < 1000 && !up; ++i) {
    up = worker.SendTo(run + "/nl26.sock", reg) > 0;
    if (!up) usleep(10000);
  }
  ASSERT_TRUE(up) << ReadText(dir / "log");
  const auto ack = DecodeAck(worker.Receive());
  ASSERT_TRUE(ack.has_value());
  EXPECT_EQ(ack->error, 0);
  EXPECT_EQ(ack->portid, static_cast<uint32_t>(getpid())) << "the registrant's pid";
  ASSERT_GT(worker.SendTo(run + "/nl26.sock", FileRead("/proc/bypassDebug/counts", 0, 4096)), 0);
  EXPECT_EQ(DecodeFileReply(worker.Receive()).result, 3840);

  ASSERT_EQ(kill(vaned, SIGTERM), 0);
  EXPECT_EQ(Wait(vaned), 0) << ReadText(dir / "log");
  EXPECT_NE(ReadText(dir / "log").find("<6>vaned: module unloaded; allocations back to"),
            std::string::npos)
      << ReadText(dir / "log");
  EXPECT_FALSE(std::filesystem::exists(run + "/nl26.sock")) << "sockets removed at exit";
  const auto j = nlohmann::json::parse(ReadText(dir / "stats.json"), nullptr, false);
  EXPECT_EQ(j["allocations_left"], 0);
  EXPECT_EQ(j["channels"][0]["clients"][0]["pid"], getpid());
}

TEST(VanedProcessTest, RefusesASymlinkedRunDirectoryAndBadOptions) {
  TempDir dir;
  const std::string real = dir / "real";
  const std::string link = dir / "link";
  ASSERT_EQ(mkdir(real.c_str(), 0700), 0);
  ASSERT_EQ(symlink(real.c_str(), link.c_str()), 0);
  EXPECT_EQ(Wait(Start(Vaned({"--run-dir", link}, dir / "log"))), 3);
  EXPECT_NE(ReadText(dir / "log").find("<3>vaned: run directory " + link + " is a symbolic link"),
            std::string::npos)
      << ReadText(dir / "log");
  EXPECT_EQ(Wait(Start(Vaned({"--run-dir", real, "--bogus"}, dir / "log"))), 2);
  std::ofstream(dir / "bad.yaml") << "vaned: [unclosed\n";
  EXPECT_EQ(Wait(Start(Vaned({"--run-dir", real, "--config", dir / "bad.yaml"}, dir / "log"))), 2);
}

TEST(RunDirTest, CreatesPrivateDirectoriesAndRefusesForeignOnes) {
  TempDir dir;
  uid_t owner = 12345;
  std::string err;
  ASSERT_EQ(host::PrepareRunDir(dir / "fresh", &owner, &err), 0) << err;
  EXPECT_EQ(owner, geteuid());
  struct stat st {};
  ASSERT_EQ(stat((dir / "fresh").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0700u);

  std::ofstream(dir / "file") << "x";
  EXPECT_EQ(host::PrepareRunDir(dir / "file", &owner, &err), -ENOTDIR);
  EXPECT_EQ(host::PrepareRunDir(dir / "no/such/parent", &owner, &err), -ENOENT);
  if (geteuid() == 0) {
    const std::string foreign = dir / "foreign";
    ASSERT_EQ(mkdir(foreign.c_str(), 0700), 0);
    ASSERT_EQ(chown(foreign.c_str(), 65534, 65534), 0);
    EXPECT_EQ(host::PrepareRunDir(foreign, &owner, &err), -EPERM);
    EXPECT_NE(err.find("owned by uid 65534"), std::string::npos) << err;
  }
}

TEST(RunDirTest, ASecondDaemonCannotTakeALiveSocketButAStaleOneIsReplaced) {
  TempDir dir;
  const std::string path = dir / "nl26.sock";
  std::string err;
  const size_t live_before = kport::user::LiveAllocations();
  {
    auto first = host::Channel::Open(path, 26, geteuid(), &err);
    ASSERT_NE(first, nullptr) << err;
    EXPECT_EQ(host::Channel::Open(path, 26, geteuid(), &err), nullptr);
    EXPECT_NE(err.find("in use"), std::string::npos) << err;
  }
  LeaveStaleSocket(path);
  EXPECT_NE(host::Channel::Open(path, 26, geteuid(), &err), nullptr) << err;
  std::ofstream(dir / "plain") << "x";
  EXPECT_EQ(host::Channel::Open(dir / "plain", 26, geteuid(), &err), nullptr);
  EXPECT_EQ(kport::user::LiveAllocations(), live_before);
}

}  // namespace
}  // namespace vane::test
