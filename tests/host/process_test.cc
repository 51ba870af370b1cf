// vaned as a real process: its run directory checks, serving a worker, and
// the shutdown on SIGTERM that must unload the module without a leak.
#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "channel.h"
#include "drv_vane/netlink.h"
#include "gtest/gtest.h"
#include "host_env.h"
#include "kport/user/testing.h"
#include "run_dir.h"
#include "support/module_env.h"

namespace vane::test {
namespace {

namespace fs = std::filesystem;
using kport::user::DecodeAck;

// Starts vaned with `args`, its stderr into `log`.
pid_t Spawn(const std::vector<std::string>& args, const std::string& log) {
  std::vector<const char*> argv{VANED_BINARY};
  for (const std::string& a : args) argv.push_back(a.c_str());
  argv.push_back(nullptr);
  const pid_t pid = fork();
  if (pid == 0) {
    const int fd = open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    if (fd < 0 || dup2(fd, STDERR_FILENO) < 0) _exit(126);
    execv(VANED_BINARY, const_cast<char* const*>(argv.data()));
    _exit(127);
  }
  return pid;
}

int Wait(pid_t pid) {
  int status = 0;
  if (waitpid(pid, &status, 0) != pid) return -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

std::string Slurp(const std::string& path) {
  std::ifstream f(path);
  std::stringstream s;
  s << f.rdbuf();
  return s.str();
}

TEST(VanedProcessTest, ServesAWorkerAndShutsDownCleanlyOnSigterm) {
  TempDir dir;
  const std::string run = dir.path() + "/run";
  const std::string log = dir.path() + "/vaned.log";
  const std::string stats = dir.path() + "/stats.json";
  const pid_t vaned = Spawn({"--run-dir", run, "--stats", stats, "--foreground"}, log);
  ASSERT_GT(vaned, 0);

  // Wait until the daemon is up: only a guard against a daemon that never
  // starts, not a verdict.
  WireClient worker;
  const std::string sock = run + "/nl26.sock";
  const Bytes reg = Control(NETLINK_MID_PID, PidPayload(26, 0), 3);
  bool up = false;
  for (int i = 0; i < 1000 && !up; ++i) {
    up = worker.SendTo(sock, reg) > 0;
    if (!up) usleep(10000);
  }
  ASSERT_TRUE(up) << Slurp(log);
  auto ack = DecodeAck(worker.Receive().value_or(Bytes{}));
  ASSERT_TRUE(ack.has_value());
  EXPECT_EQ(ack->error, 0);
  EXPECT_EQ(ack->portid, static_cast<uint32_t>(getpid()));
  struct stat st {};
  ASSERT_EQ(stat(run.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0700u);

  ASSERT_GT(worker.SendTo(sock, FileRead("/proc/bypassDebug/counts", 0, 4096, 4)), 0);
  auto reply = DecodeFileReply(worker.Receive().value_or(Bytes{}));
  ASSERT_TRUE(reply.has_value());
  EXPECT_GT(reply->result, 0);

  ASSERT_EQ(kill(vaned, SIGTERM), 0);
  EXPECT_EQ(Wait(vaned), 0) << Slurp(log);
  const std::string text = Slurp(log);
  EXPECT_NE(text.find("<6>vaned: module unloaded; allocations back to"), std::string::npos) << text;
  EXPECT_FALSE(fs::exists(sock)) << "sockets removed at exit";
  const auto j = nlohmann::json::parse(Slurp(stats), nullptr, false);
  ASSERT_FALSE(j.is_discarded());
  EXPECT_EQ(j["allocations_left"], 0);
  EXPECT_EQ(j["channels"][0]["clients"][0]["pid"], getpid());
}

TEST(VanedProcessTest, RefusesARunDirectoryThatIsASymlinkAndBadOptions) {
  TempDir dir;
  const std::string real = dir.path() + "/real";
  const std::string link = dir.path() + "/link";
  ASSERT_EQ(mkdir(real.c_str(), 0700), 0);
  ASSERT_EQ(symlink(real.c_str(), link.c_str()), 0);
  const std::string log = dir.path() + "/vaned.log";
  EXPECT_EQ(Wait(Spawn({"--run-dir", link}, log)), 3);
  EXPECT_NE(Slurp(log).find("<3>vaned: run directory " + link + " is a symbolic link"),
            std::string::npos)
      << Slurp(log);
  EXPECT_EQ(Wait(Spawn({"--run-dir", real, "--bogus"}, log)), 2);
  const std::string bad_yaml = dir.path() + "/bad.yaml";
  std::ofstream(bad_yaml) << "vaned: [unclosed\n";
  EXPECT_EQ(Wait(Spawn({"--run-dir", real, "--config", bad_yaml}, log)), 2);
}

TEST(RunDirTest, CreatesPrivateDirectoriesAndRefusesForeignOnes) {
  TempDir dir;
  uid_t owner = 12345;
  std::string err;
  const std::string fresh = dir.path() + "/fresh";
  ASSERT_EQ(host::PrepareRunDir(fresh, &owner, &err), 0) << err;
  EXPECT_EQ(owner, geteuid());
  struct stat st {};
  ASSERT_EQ(stat(fresh.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0700u);

  const std::string file = dir.path() + "/file";
  std::ofstream(file) << "x";
  EXPECT_EQ(host::PrepareRunDir(file, &owner, &err), -ENOTDIR);
  EXPECT_EQ(host::PrepareRunDir(dir.path() + "/no/such/parent", &owner, &err), -ENOENT);

  if (geteuid() == 0) {
    const std::string foreign = dir.path() + "/foreign";
    ASSERT_EQ(mkdir(foreign.c_str(), 0700), 0);
    ASSERT_EQ(chown(foreign.c_str(), 65534, 65534), 0);
    EXPECT_EQ(host::PrepareRunDir(foreign, &owner, &err), -EPERM);
    EXPECT_NE(err.find("owned by uid 65534"), std::string::npos) << err;
  }
}

TEST(RunDirTest, ASecondDaemonCannotTakeALiveSocketButAStaleOneIsReplaced) {
  TempDir dir;
  const std::string path = dir.path() + "/nl26.sock";
  std::string err;
  const size_t live_before = kport::user::LiveAllocations();
  {
    auto first = host::Channel::Open(path, 26, geteuid(), &err);
    ASSERT_NE(first, nullptr) << err;
    EXPECT_EQ(host::Channel::Open(path, 26, geteuid(), &err), nullptr);
    EXPECT_NE(err.find("in use"), std::string::npos) << err;
  }
  // A socket file left behind by a process that died.
  {
    const int fd = socket(AF_UNIX, SOCK_DGRAM, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, path.c_str(), sizeof(addr.sun_path) - 1);
    ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)), 0);
    close(fd);
  }
  EXPECT_NE(host::Channel::Open(path, 26, geteuid(), &err), nullptr) << err;
  std::ofstream(dir.path() + "/plain") << "x";
  EXPECT_EQ(host::Channel::Open(dir.path() + "/plain", 26, geteuid(), &err), nullptr);
  EXPECT_EQ(kport::user::LiveAllocations(), live_before);
}

}  // namespace
}  // namespace vane::test
