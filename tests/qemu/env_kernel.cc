// The scenario environment over drv_vane.ko in a real kernel (the qemu
// guest): modules inserted and removed by system call, real netlink sockets
// whose senders are real processes, the real /proc and /sys, the kernel log
// from /dev/kmsg, and the switch driver's calls made by vane_drvsim.ko.
#include "qemu/env_kernel.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/netlink.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <thread>

#include "support/env.h"

namespace vane::test {
namespace {

constexpr const char* kModuleDir = "/lib/vane/";
constexpr const char* kDrvsim = "/proc/vane_drvsim/";
// Sockets of these protocols exist only while drv_vane is loaded.
constexpr int kProtocols[] = {26, 27};
// What an unloaded module must not leave behind.
constexpr const char* kResidue[] = {"/proc/bypassDebug", "/proc/wlan_lb", "/sys/class/wlan_lb"};

std::string g_target;

std::string Errno(int e) { return std::strerror(e < 0 ? -e : e); }

// Reads a file `chunk` bytes at a time until a read returns 0: its bytes,
// or nullopt (*error: -errno).
std::optional<Bytes> ReadFile(const std::string& path, size_t chunk, long* error) {
  if (error != nullptr) *error = 0;
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    if (error != nullptr) *error = -errno;
    return std::nullopt;
  }
  Bytes all;
  Bytes buf(chunk == 0 ? 1 : chunk);
  for (;;) {
    const ssize_t n = read(fd, buf.data(), buf.size());
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      if (error != nullptr) *error = -errno;
      close(fd);
      return std::nullopt;
    }
    if (n == 0) break;
    all.insert(all.end(), buf.begin(), buf.begin() + n);
  }
  close(fd);
  return all;
}

// A small text file without its final newline.
std::string ReadText(const std::string& path) {
  auto bytes = ReadFile(path, 4096, nullptr);
  std::string text = bytes ? std::string(bytes->begin(), bytes->end()) : std::string();
  if (!text.empty() && text.back() == '\n') text.pop_back();
  return text;
}

long WriteFile(const std::string& path, const void* data, size_t len) {
  const int fd = open(path.c_str(), O_WRONLY | O_CLOEXEC);
  if (fd < 0) return -errno;
  const ssize_t n = write(fd, data, len);
  const long r = n < 0 ? -errno : n;
  close(fd);
  return r;
}

bool PathExists(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0;
}

void Put16(Bytes& b, size_t off, uint16_t v) { std::memcpy(&b[off], &v, 2); }
void Put32(Bytes& b, size_t off, uint32_t v) { std::memcpy(&b[off], &v, 4); }

// ---- modules -------------------------------------------------------------

// 0 or -errno of the insertion.
int Insert(const std::string& name) {
  const std::string path = kModuleDir + name + ".ko";
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return -errno;
  const int r = static_cast<int>(syscall(SYS_finit_module, fd, "", 0));
  const int e = errno;
  close(fd);
  return r == 0 ? 0 : -e;
}

// 0 or -errno of the removal. A socket just closed may hold its reference
// on the module for a moment, so a busy module is retried for a while.
int Remove(const std::string& name) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  for (;;) {
    if (syscall(SYS_delete_module, name.c_str(), O_NONBLOCK) == 0) return 0;
    const int e = errno;
    if ((e != EAGAIN && e != EBUSY) || std::chrono::steady_clock::now() > deadline) return -e;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

bool Loaded(const std::string& name) { return PathExists("/sys/module/" + name + "/initstate"); }

// ---- the kernel log --------------------------------------------------------

// The text of a /dev/kmsg record with its \xNN escapes undone.
std::string Unescape(const char* p, const char* end) {
  std::string out;
  while (p < end) {
    unsigned v = 0;
    if (p + 4 <= end && p[0] == '\\' && p[1] == 'x' && std::sscanf(p + 2, "%2x", &v) == 1) {
      out.push_back(static_cast<char>(v));
      p += 4;
    } else {
      out.push_back(*p++);
    }
  }
  return out;
}

// The kernel log as /dev/kmsg hands it out, one record per read:
// "prefix,seq,usecs,flags;text\n", then the device's " KEY=value" lines,
// which are not part of the text. The open file remembers the sequence
// number reached, so each call takes only what was logged since the last.
class Kmsg {
 public:
  // Appends the records logged since the last call to `out`.
  void Take(std::vector<LogLine>* out) {
    if (fd_ < 0) fd_ = open("/dev/kmsg", O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd_ < 0) {
      ADD_FAILURE() << "open /dev/kmsg: " << Errno(errno);
      return;
    }
    for (;;) {
      const ssize_t n = read(fd_, buf_.data(), buf_.size());
      if (n < 0) {
        // EPIPE: records were overwritten under us; the next read goes on.
        if (errno == EPIPE || errno == EINTR) continue;
        if (errno != EAGAIN) ADD_FAILURE() << "read /dev/kmsg: " << Errno(errno);
        return;
      }
      const char* begin = buf_.data();
      const char* end = begin + n;
      const char* semi = static_cast<const char*>(std::memchr(begin, ';', n));
      unsigned prefix = 0;
      if (semi == nullptr || std::sscanf(begin, "%u,", &prefix) != 1) continue;
      const char* text_end = static_cast<const char*>(std::memchr(semi + 1, '\n', end - semi - 1));
      if (text_end == nullptr) text_end = end;
      out->push_back(LogLine{static_cast<int>(prefix & 7), Unescape(semi + 1, text_end)});
    }
  }

 private:
  int fd_ = -1;
  std::vector<char> buf_ = std::vector<char>(16384);
};

// ---- peers -----------------------------------------------------------------

class KernelPort : public Port {
 public:
  KernelPort(int fd, uint32_t pid) : fd_(fd), pid_(pid) {}
  ~KernelPort() override { close(fd_); }
  KernelPort(const KernelPort&) = delete;
  KernelPort& operator=(const KernelPort&) = delete;

  int Send(const Bytes& bytes) override {
    sockaddr_nl kernel{};
    kernel.nl_family = AF_NETLINK;
    iovec iov{const_cast<uint8_t*>(bytes.data()), bytes.size()};
    // The module records the credentials' process id as the sender; root
    // may name any live process, so the peer's child stands for it.
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(ucred))] = {};
    msghdr msg{};
    msg.msg_name = &kernel;
    msg.msg_namelen = sizeof(kernel);
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    msg.msg_control = control;
    msg.msg_controllen = sizeof(control);
    cmsghdr* c = CMSG_FIRSTHDR(&msg);
    c->cmsg_level = SOL_SOCKET;
    c->cmsg_type = SCM_CREDENTIALS;
    c->cmsg_len = CMSG_LEN(sizeof(ucred));
    const ucred cred{static_cast<pid_t>(pid_), getuid(), getgid()};
    std::memcpy(CMSG_DATA(c), &cred, sizeof(cred));
    const ssize_t n = sendmsg(fd_, &msg, 0);
    return n < 0 ? -errno : static_cast<int>(n);
  }

  std::optional<Bytes> Receive(bool* overrun) override {
    if (overrun != nullptr) *overrun = false;
    for (;;) {
      // The size first: an acknowledgement of an error echoes the whole
      // request, which may be larger than any packet message.
      const ssize_t size = recv(fd_, nullptr, 0, MSG_DONTWAIT | MSG_PEEK | MSG_TRUNC);
      if (size < 0) {
        if (errno == EINTR) continue;
        if (errno == EAGAIN) return std::nullopt;
        if (errno == ENOBUFS) {
          if (overrun != nullptr) *overrun = true;
          return Bytes{};
        }
        ADD_FAILURE() << "recv on port " << portid() << ": " << Errno(errno);
        return std::nullopt;
      }
      Bytes msg(static_cast<size_t>(size));
      const ssize_t n = recv(fd_, msg.data(), msg.size(), MSG_DONTWAIT);
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) {
        ADD_FAILURE() << "recv on port " << portid() << ": " << Errno(errno);
        return std::nullopt;
      }
      msg.resize(static_cast<size_t>(n));
      return msg;
    }
  }

  uint32_t portid() const override {
    sockaddr_nl sa{};
    socklen_t len = sizeof(sa);
    return getsockname(fd_, reinterpret_cast<sockaddr*>(&sa), &len) == 0 ? sa.nl_pid : 0;
  }

 private:
  int fd_;
  uint32_t pid_;
};

// A process id of its own: a child that only waits. This process opens the
// peer's sockets and speaks with the child's id, which root may do. The
// child stays reachable over `ctl_`, so that a peer without privileges can
// later be a child that drops them, opens its sockets itself (the kernel
// checks the opener's capabilities) and hands them back with SCM_RIGHTS.
class KernelPeer : public Peer {
 public:
  KernelPeer() {
    int sv[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, sv) != 0) {
      ADD_FAILURE() << "socketpair: " << Errno(errno);
      return;
    }
    const pid_t child = fork();
    if (child == 0) {
      // A copy of another peer's socket here would keep that socket alive
      // after its owner closed it, so the child keeps nothing but its link.
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      const int link = sv[1];
      if (link > 0) close_range(0, static_cast<unsigned>(link) - 1, 0);
      close_range(static_cast<unsigned>(link) + 1, ~0u, 0);
      char c = 1;
      if (write(link, &c, 1) != 1) _exit(1);
      while (read(link, &c, 1) > 0) {
      }
      _exit(0);
    }
    close(sv[1]);
    ctl_ = sv[0];
    if (child < 0) {
      ADD_FAILURE() << "fork: " << Errno(errno);
      return;
    }
    pid_ = child;
    char ready = 0;
    if (read(ctl_, &ready, 1) != 1) ADD_FAILURE() << "peer " << pid_ << " did not start";
  }

  ~KernelPeer() override {
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
    if (ctl_ >= 0) close(ctl_);
  }
  KernelPeer(const KernelPeer&) = delete;
  KernelPeer& operator=(const KernelPeer&) = delete;

  uint32_t pid() const override { return static_cast<uint32_t>(pid_); }

  std::unique_ptr<Port> Open(int protocol, uint32_t portid, size_t) override {
    const int fd = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, protocol);
    if (fd < 0) return nullptr;
    sockaddr_nl sa{};
    sa.nl_family = AF_NETLINK;
    sa.nl_pid = portid != 0 ? portid : pid();
    if (bind(fd, reinterpret_cast<sockaddr*>(&sa), sizeof(sa)) != 0) {
      close(fd);
      return nullptr;
    }
    return std::make_unique<KernelPort>(fd, pid());
  }

 private:
  pid_t pid_ = -1;
  int ctl_ = -1;
};

// ---- the environment --------------------------------------------------------

class KernelEnv : public Env {
 public:
  std::string Name() const override {
    if (!g_target.empty()) return g_target;
    const std::string cmdline = ReadText("/proc/cmdline");
    const std::string key = "vane.target=";
    if (const size_t at = cmdline.find(key); at != std::string::npos) {
      const size_t from = at + key.size();
      return cmdline.substr(from, cmdline.find_first_of(" \n", from) - from);
    }
    utsname u{};
    uname(&u);
    return std::strcmp(u.machine, "aarch64") == 0 ? "arm64" : u.machine;
  }
  bool Has(Power) const override { return false; }

  int Load() override {
    // An unload that failed in an earlier test was reported there; it must
    // not fail every test after it.
    if (Loaded("vane_drvsim")) Remove("vane_drvsim");
    if (Loaded("drv_vane")) Remove("drv_vane");
    ClearLog();
    const int rc = Insert("drv_vane");
    if (rc != 0) {
      ExpectNothingLeft("a failed start-up");
      return rc;
    }
    if (const int sim = Insert("vane_drvsim"); sim != 0) {
      ADD_FAILURE() << "insert vane_drvsim.ko: " << Errno(sim);
    }
    return 0;
  }

  void Unload() override {
    if (const int rc = Remove("vane_drvsim"); rc != 0 && rc != -ENOENT) {
      ADD_FAILURE() << "remove vane_drvsim: " << Errno(rc);
    }
    if (const int rc = Remove("drv_vane"); rc != 0) {
      ADD_FAILURE() << "remove drv_vane: " << Errno(rc)
                    << " (references: " << ReadText("/sys/module/drv_vane/refcnt")
                    << "; a socket of protocol 26 or 27 still open?)";
    }
    ExpectNothingLeft("unload");
  }

  std::unique_ptr<Peer> NewPeer() override { return std::make_unique<KernelPeer>(); }

  int Deliver(uint32_t type, const Bytes& buf, bool fast) override {
    // Through the stand-in's call file, which keeps each open file's
    // result: deliveries from several threads run side by side, as the
    // driver's do on several processors.
    Bytes call(8 + buf.size());
    Put32(call, 0, fast ? 1 : 0);
    Put32(call, 4, type);
    std::copy(buf.begin(), buf.end(), call.begin() + 8);
    const int fd = open((std::string(kDrvsim) + "call").c_str(), O_RDWR | O_CLOEXEC);
    if (fd < 0) {
      ADD_FAILURE() << "open the driver stand-in's call file: " << Errno(errno);
      return kStandInFailed;
    }
    const ssize_t n = write(fd, call.data(), call.size());
    const int e = errno;
    char text[16] = {};
    const bool answered =
        n == static_cast<ssize_t>(call.size()) && pread(fd, text, sizeof(text) - 1, 0) > 0;
    close(fd);
    int result = 0;
    if (!answered || std::sscanf(text, "%d", &result) != 1) {
      ADD_FAILURE() << "the driver stand-in refused the call ("
                    << (n < 0 ? Errno(e) : "result \"" + std::string(text) + "\"") << ")";
      return kStandInFailed;
    }
    return result;
  }

  uint32_t CatchPkt(const Bytes& packet, uint16_t event, uint8_t* mark,
                    uint16_t mac_offset) override {
    // The stand-in keeps one capture result for all callers: a call and
    // the read of its result must not interleave with another thread's.
    std::lock_guard lock(drvsim_mu_);
    if (mark != nullptr) *mark = 0;
    if (!Capture(0, event, mac_offset, 0, 0, packet)) return 0;
    unsigned result = 0;
    unsigned m = 0;
    const std::string text = ReadText(std::string(kDrvsim) + "capture");
    if (std::sscanf(text.c_str(), "result=%u mark=0x%x", &result, &m) != 2) {
      ADD_FAILURE() << "the driver stand-in's capture result reads \"" << text << "\"";
      return 0;
    }
    if (mark != nullptr) *mark = static_cast<uint8_t>(m);
    return result;
  }

  void TsRecvEvent(uint8_t event, const Bytes& frame, uint16_t value, uint8_t mark,
                   uint16_t slot) override {
    std::lock_guard lock(drvsim_mu_);
    Capture(1, value, slot, event, mark, frame);
  }

  HandlerCalls Handler() override {
    HandlerCalls h;
    const std::string text = ReadText(std::string(kDrvsim) + "handler");
    char hex[2 * 16 + 1] = {};
    if (std::sscanf(text.c_str(), "calls=%u len=%u data=%32[0-9a-f]", &h.calls, &h.len, hex) < 2) {
      ADD_FAILURE() << "the driver stand-in's handler reads \"" << text << "\"";
      return h;
    }
    for (size_t i = 0; hex[i] != 0 && hex[i + 1] != 0; i += 2) {
      unsigned v = 0;
      std::sscanf(hex + i, "%2x", &v);
      h.data.push_back(static_cast<uint8_t>(v));
    }
    return h;
  }

  std::optional<Bytes> Read(const std::string& path, size_t chunk, long* error) override {
    return ReadFile(path, chunk, error);
  }

  std::optional<Bytes> ReadAt(const std::string& path, int64_t pos, size_t count,
                              long* error) override {
    if (error != nullptr) *error = 0;
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
      if (error != nullptr) *error = -errno;
      return std::nullopt;
    }
    Bytes buf(count);
    const ssize_t n = pread(fd, buf.data(), count, pos);
    const int e = errno;
    close(fd);
    if (n < 0) {
      if (error != nullptr) *error = -e;
      return std::nullopt;
    }
    buf.resize(static_cast<size_t>(n));
    return buf;
  }

  long Write(const std::string& path, const Bytes& bytes) override {
    return WriteFile(path, bytes.data(), bytes.size());
  }

  bool Exists(const std::string& path) override { return PathExists(path); }

  uint32_t Mode(const std::string& path) override {
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? st.st_mode & 07777 : 0;
  }

  std::vector<LogLine> Log() override {
    std::lock_guard lock(log_mu_);
    kmsg_.Take(&log_);
    return log_;
  }

  void ClearLog() override {
    std::lock_guard lock(log_mu_);
    kmsg_.Take(&log_);
    log_.clear();
  }

  void FailNth(FaultSite, unsigned) override { NoPower(Power::kFaultInjection); }
  void FailAlways(FaultSite) override { NoPower(Power::kFaultInjection); }
  void ClearFaults() override { NoPower(Power::kFaultInjection); }
  void UseManualClock() override { NoPower(Power::kManualClock); }
  void AdvanceClock(unsigned long) override { NoPower(Power::kManualClock); }
  unsigned long Hz() const override {
    NoPower(Power::kManualClock);
    return 0;
  }

 private:
  // Not a result any of the driver's calls gives.
  static constexpr int kStandInFailed = -100000;

  static void ExpectNothingLeft(const char* after) {
    for (const char* path : kResidue) {
      EXPECT_FALSE(PathExists(path)) << path << " outlives " << after;
    }
    for (int protocol : kProtocols) {
      const int fd = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, protocol);
      const int e = errno;
      if (fd >= 0) close(fd);
      EXPECT_TRUE(fd < 0 && e == EPROTONOSUPPORT)
          << "protocol " << protocol << " still served after " << after << " ("
          << (fd >= 0 ? "socket opened" : Errno(e)) << ")";
    }
  }

  static void NoPower(Power p) {
    ADD_FAILURE() << "a real kernel has no " << PowerName(p) << "; say VANE_REQUIRE";
  }

  // One capture call through the stand-in: op 0 is bypass_IsNeedCatchPkt,
  // 1 bypass_TS_RecvPktEvent.
  bool Capture(uint32_t op, uint16_t value, uint16_t where, uint8_t event, uint8_t mark,
               const Bytes& data) {
    Bytes call(12 + data.size());
    Put32(call, 0, op);
    Put16(call, 4, value);
    Put16(call, 6, where);
    call[8] = event;
    call[9] = mark;
    std::copy(data.begin(), data.end(), call.begin() + 12);
    const long n = WriteFile(std::string(kDrvsim) + "capture", call.data(), call.size());
    if (n != static_cast<long>(call.size())) {
      ADD_FAILURE() << "the driver stand-in refused the capture call: "
                    << Errno(static_cast<int>(n));
      return false;
    }
    return true;
  }

  std::mutex drvsim_mu_;
  std::mutex log_mu_;
  Kmsg kmsg_;
  std::vector<LogLine> log_;  // since the last load or ClearLog
};

}  // namespace

void SetKernelTarget(const std::string& target) { g_target = target; }

Env& Env::Get() {
  static KernelEnv env;
  return env;
}

}  // namespace vane::test
