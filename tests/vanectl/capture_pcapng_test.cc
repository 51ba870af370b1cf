// A pcapng file made from a known capture store, read back by tshark: the
// frames, their lengths, their capture times to the nanosecond and the
// event comments. tshark is one of the project's dependencies; without it
// the test is skipped, not passed.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "capture_file.h"
#include "vanectl/images.h"

namespace vane::test {
namespace {

class TempFile {
 public:
  TempFile() {
    std::array<char, 64> name{};
    std::snprintf(name.data(), name.size(), "/tmp/vanectl-capture-XXXXXX");
    const int fd = mkstemp(name.data());
    EXPECT_GE(fd, 0);
    if (fd >= 0) close(fd);
    path_ = name.data();
  }
  ~TempFile() { std::remove(path_.c_str()); }
  TempFile(const TempFile&) = delete;
  TempFile& operator=(const TempFile&) = delete;
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

// stdout of a program run without a shell, and its exit status (-1 when it
// could not run); stderr is dropped (tshark warns when run as root).
std::string Exec(const std::vector<std::string>& argv, int* status) {
  int fds[2];
  *status = -1;
  if (pipe(fds) != 0) return "";
  // Built before the fork: the child only calls what is safe after one.
  std::vector<char*> args;
  args.reserve(argv.size() + 1);
  for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  const pid_t pid = fork();
  if (pid == 0) {
    dup2(fds[1], STDOUT_FILENO);
    const int null = open("/dev/null", O_WRONLY);
    dup2(null, STDERR_FILENO);
    close(fds[0]);
    execvp(args[0], args.data());
    _exit(127);
  }
  close(fds[1]);
  std::string out;
  std::array<char, 4096> buf{};
  ssize_t n = 0;
  while (pid > 0 && (n = read(fds[0], buf.data(), buf.size())) > 0) {
    out.append(buf.data(), static_cast<size_t>(n));
  }
  close(fds[0]);
  int ws = 0;
  if (pid > 0 && waitpid(pid, &ws, 0) == pid && WIFEXITED(ws)) *status = WEXITSTATUS(ws);
  return out;
}

std::vector<std::string> Split(const std::string& s, char sep) {
  std::vector<std::string> out;
  std::stringstream in(s);
  std::string part;
  while (std::getline(in, part, sep)) out.push_back(part);
  return out;
}

TEST(CapturePcapng, TsharkReadsFramesTimesAndEvents) {
  int status = 0;
  Exec({"tshark", "-v"}, &status);
  if (status != 0) GTEST_SKIP() << "tshark cannot be run";

  std::vector<uint8_t> store(VANE_CAPTURE_STORE_SIZE, 0);
  PutCaptureEntry(&store, 0, 0, UdpFrame(100, 1), 1700000000, 5, 9, 250000);
  PutCaptureEntry(&store, 7, 1, UdpFrame(60, 2), 1700000001, 999999999);
  vane_capture_store s{};
  ASSERT_EQ(vane_decode_capture_store(store.data(), store.size(), &s), 0);
  const std::string file =
      vanectl::CapturePcapng(std::vector<vane_capture_entry>(s.entries, s.entries + s.count));

  TempFile tmp;
  std::ofstream(tmp.path(), std::ios::binary) << file;
  const std::string out = Exec({"tshark", "-n",
                                "-r",     tmp.path(),
                                "-T",     "fields",
                                "-E",     "separator=|",
                                "-E",     "occurrence=a",
                                "-E",     "aggregator=+",
                                "-e",     "frame.time_epoch",
                                "-e",     "frame.len",
                                "-e",     "frame.cap_len",
                                "-e",     "ip.src",
                                "-e",     "udp.dstport",
                                "-e",     "frame.comment"},
                               &status);
  ASSERT_EQ(status, 0) << out;
  const auto lines = Split(out, '\n');
  ASSERT_EQ(lines.size(), 2u) << out;

  const auto a = Split(lines[0], '|');
  ASSERT_EQ(a.size(), 6u) << lines[0];
  EXPECT_EQ(a[0], "1700000000.000000005");
  EXPECT_EQ(a[1], "100") << "the frame's own length";
  EXPECT_EQ(a[2], "64") << "the bytes the store kept";
  EXPECT_EQ(a[3], "10.0.0.1");
  EXPECT_EQ(a[4], "2000");
  EXPECT_EQ(a[5],
            "capture 0 on slot 2, store entry 0+event 1 at 1700000000.000000005+"
            "event 9 at 1700000000.000250000 (+249995 ns)");

  const auto b = Split(lines[1], '|');
  ASSERT_EQ(b.size(), 6u) << lines[1];
  EXPECT_EQ(b[0], "1700000001.999999999");
  EXPECT_EQ(b[1], "60");
  EXPECT_EQ(b[2], "60");
  EXPECT_EQ(b[3], "10.0.0.2");
  EXPECT_EQ(b[5], "capture 1 on slot 2, store entry 7+event 1 at 1700000001.999999999");
}

TEST(CapturePcapng, FilterOptionsSetValueAndBit) {
  vane_capture_arm a{};
  vanectl::ApplyCaptureFilter("ethertype=0x0800", &a);
  vanectl::ApplyCaptureFilter("sip=10.0.0.1", &a);
  vanectl::ApplyCaptureFilter("dip6=2001:db8::2", &a);
  vanectl::ApplyCaptureFilter("smac=00:11:22:33:44:55", &a);
  vanectl::ApplyCaptureFilter("udf=12:0x0800", &a);
  vanectl::ApplyCaptureFilter("udf=23:17", &a);
  EXPECT_EQ(a.filters, VANE_CAPTURE_F_ETHTYPE | VANE_CAPTURE_F_SIP | VANE_CAPTURE_F_DIP6 |
                           VANE_CAPTURE_F_SMAC | VANE_CAPTURE_F_UDF1 | VANE_CAPTURE_F_UDF2);
  EXPECT_EQ(a.ethertype, 0x0800u);
  EXPECT_EQ(a.sip, 0x0A000001u) << "host order, as the module compares it";
  EXPECT_EQ(a.dip6[0], 0x20u);
  EXPECT_EQ(a.dip6[15], 2u);
  EXPECT_EQ(a.smac[5], 0x55u);
  EXPECT_EQ(a.udf1_offset, 12u);
  EXPECT_EQ(a.udf1_value, 0x0800u);
  EXPECT_EQ(a.udf2_offset, 23u);
  EXPECT_EQ(a.udf2_value, 17u);
  for (const char* bad : {"udf=1:2", "ethertype=0x10000", "sip=10.0.0", "smac=00:11:22:33:44",
                          "smac=00:11:22:33:44:55:66", "len=", "vlan=3", "sip"}) {
    EXPECT_THROW(vanectl::ApplyCaptureFilter(bad, &a), std::invalid_argument) << bad;
  }
}

}  // namespace
}  // namespace vane::test
