// The host suites' shared support; see host_support.h.
#include "host_support.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "gtest/gtest.h"
#include "vane/wire.h"

extern char** environ;

namespace vane::test {

TempDir::TempDir() {
  char tmpl[] = "/tmp/vane-test-XXXXXX";
  if (mkdtemp(tmpl) == nullptr) throw std::runtime_error("mkdtemp failed");
  path_ = tmpl;
}

TempDir::~TempDir() {
  std::error_code ec;
  std::filesystem::remove_all(path_, ec);
}

std::string ReadText(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

pid_t Start(const Command& cmd) {
  std::vector<char*> argv;
  for (const std::string& a : cmd.argv) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  std::vector<char*> envp;
  for (const std::string& e : cmd.env) envp.push_back(const_cast<char*>(e.c_str()));
  for (char** e = environ; *e != nullptr; ++e) envp.push_back(*e);
  envp.push_back(nullptr);
  posix_spawn_file_actions_t fa;
  posix_spawn_file_actions_init(&fa);
  constexpr int kFlags = O_WRONLY | O_CREAT | O_TRUNC;
  posix_spawn_file_actions_addopen(&fa, STDOUT_FILENO, cmd.stdout_path.c_str(), kFlags, 0600);
  posix_spawn_file_actions_addopen(&fa, STDERR_FILENO, cmd.stderr_path.c_str(), kFlags, 0600);
  pid_t pid = -1;
  const int rc = posix_spawnp(&pid, argv[0], &fa, nullptr, argv.data(), envp.data());
  posix_spawn_file_actions_destroy(&fa);
  return rc == 0 ? pid : -1;
}

int Wait(pid_t pid) {
  int status = 0;
  if (pid <= 0 || waitpid(pid, &status, 0) != pid) return -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

ForkedResult RunForked(const std::function<int(int report_fd)>& body) {
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
  const pid_t pid = fork();
  if (pid == 0) {
    close(fds[0]);
    _exit(body(fds[1]));
  }
  close(fds[1]);
  ForkedResult r;
  uint32_t n = 0;
  while (read(fds[0], &n, sizeof(n)) == sizeof(n)) {
    Bytes b(n);
    if (read(fds[0], b.data(), n) != static_cast<ssize_t>(n)) break;
    r.reports.push_back(std::move(b));
  }
  close(fds[0]);
  r.status = Wait(pid);
  return r;
}

bool Report(int fd, const Bytes& bytes) {
  // One write per report, below the pipe's atomic size, so that a report
  // arrives whole.
  ByteWriter w;
  w.u32(static_cast<uint32_t>(bytes.size())).bytes(bytes);
  return w.b.size() <= PIPE_BUF && write(fd, w.b.data(), w.b.size()) == ssize_t(w.b.size());
}

namespace {

DgramSocket::Addr PathAddr(const std::string& path) {
  DgramSocket::Addr a;
  a.sa.sun_family = AF_UNIX;
  std::strncpy(a.sa.sun_path, path.c_str(), sizeof(a.sa.sun_path) - 1);
  return a;
}

}  // namespace

DgramSocket::DgramSocket(const std::string& path)
    : fd_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)), path_(path) {
  // An address of just the family asks the kernel for an abstract one.
  const Addr a = path.empty() ? Addr{{AF_UNIX, {}}, sizeof(sa_family_t)} : PathAddr(path);
  if (fd_ < 0 || bind(fd_, reinterpret_cast<const sockaddr*>(&a.sa), a.len) != 0) {
    throw std::runtime_error("cannot bind " + path + ": " + std::strerror(errno));
  }
}

DgramSocket::~DgramSocket() {
  close(fd_);
  if (!path_.empty()) unlink(path_.c_str());
}

int DgramSocket::SendTo(const std::string& path, const Bytes& b) {
  return SendTo(PathAddr(path), b);
}

int DgramSocket::SendTo(const Addr& to, const Bytes& b) {
  const ssize_t n =
      sendto(fd_, b.data(), b.size(), 0, reinterpret_cast<const sockaddr*>(&to.sa), to.len);
  return n < 0 ? -errno : static_cast<int>(n);
}

Bytes DgramSocket::Receive(Addr* from, int guard_ms) {
  pollfd p{fd_, POLLIN, 0};
  if (poll(&p, 1, guard_ms) != 1) return {};
  Addr ignored;
  Addr* a = from != nullptr ? from : &ignored;
  a->len = sizeof(a->sa);
  Bytes buf(VANE_WIRE_DGRAM_MAX * 2);
  const ssize_t n =
      recvfrom(fd_, buf.data(), buf.size(), 0, reinterpret_cast<sockaddr*>(&a->sa), &a->len);
  buf.resize(n < 0 ? 0 : static_cast<size_t>(n));
  return buf;
}

bool DgramSocket::Ready() {
  pollfd p{fd_, POLLIN, 0};
  return poll(&p, 1, 0) == 1;
}

void LeaveStaleSocket(const std::string& path) {
  const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  const DgramSocket::Addr a = PathAddr(path);
  if (fd < 0 || bind(fd, reinterpret_cast<const sockaddr*>(&a.sa), a.len) != 0) {
    throw std::runtime_error("cannot bind " + path);
  }
  close(fd);  // the file stays behind, as after a crash
}

Bytes NlMsg(uint16_t type, uint16_t flags, uint32_t seq, const Bytes& body) {
  ByteWriter w;
  w.u32(static_cast<uint32_t>(16 + body.size())).u16(type).u16(flags).u32(seq).u32(0).bytes(body);
  return w.zeros((4 - w.b.size() % 4) % 4).b;
}

std::vector<Bytes> Messages(const Bytes& dgram) {
  std::vector<Bytes> out;
  for (size_t off = 0; off + 16 <= dgram.size();) {
    const uint32_t len = Le32(&dgram[off]);
    if (len < 16 || len > dgram.size() - off) break;
    out.emplace_back(dgram.begin() + static_cast<long>(off),
                     dgram.begin() + static_cast<long>(off + len));
    off += (len + 3) & ~size_t{3};
  }
  return out;
}

Bytes AckOf(const Bytes& request, int error) {
  const Bytes head(request.begin(), request.begin() + 16);
  return NlMsg(2, 0, Le32(&request[8]), ByteWriter().u32(uint32_t(error)).bytes(head).b);
}

Bytes PacketMsg(uint32_t type, const Bytes& data) {
  return NlMsg(18, 0, 0, ByteWriter().u32(type).u32(uint32_t(data.size())).bytes(data).b);
}

Bytes DefaultPacket(uint32_t n, size_t len) {
  Bytes b(len);
  for (size_t i = 0; i < len; ++i) b[i] = static_cast<uint8_t>(n * 31 + i);
  b[0] = 1;  // a prefix word 0 other than 0 keeps it off the ICMP path
  std::memcpy(b.data() + 4, &n, sizeof(n));
  return b;
}

Bytes FileRead(const std::string& path, int64_t pos, uint32_t count, uint32_t seq) {
  ByteWriter w;
  w.u32(uint32_t(16 + sizeof(vane_wire_file_req) + path.size())).u16(VANE_WIRE_FILE_READ).u16(1);
  w.u32(seq).u32(0).u64(uint64_t(pos)).u32(count).u32(uint32_t(path.size()));
  return w.bytes(Bytes(path.begin(), path.end())).b;
}

Bytes FileReplyMsg(uint32_t seq, int64_t result, int64_t pos, const Bytes& data) {
  const Bytes body = ByteWriter().u64(uint64_t(result)).u64(uint64_t(pos)).bytes(data).b;
  return NlMsg(VANE_WIRE_FILE_REPLY, 0, seq, body);
}

FileReply DecodeFileReply(const Bytes& msg) {
  constexpr size_t kHead = 16 + sizeof(vane_wire_file_reply);
  if (msg.size() < kHead || Le32(msg.data()) != msg.size() ||
      (msg[4] | msg[5] << 8) != VANE_WIRE_FILE_REPLY) {
    return {};
  }
  vane_wire_file_reply body{};
  std::memcpy(&body, msg.data() + 16, sizeof(body));
  return {Le32(&msg[8]), body.result, body.pos, Bytes(msg.begin() + kHead, msg.end())};
}

vane_endpoint UnixEndpoint(const std::string& run_dir, int timeout_ms) {
  vane_endpoint ep{};
  ep.transport = VANE_TRANSPORT_UNIX;
  ep.run_dir = run_dir.c_str();
  ep.timeout_ms = timeout_ms;
  return ep;
}

InProcessDaemon::InProcessDaemon(const std::string& run_dir)
    : run_dir_(run_dir.empty() ? dir_ / "run" : run_dir) {
  host::DaemonOptions opt;
  opt.run_dir = run_dir_;
  opt.stats_path = dir_ / "stats.json";
  opt.handle_signals = false;
  daemon_ = std::make_unique<host::Daemon>(opt);
  if (daemon_->Start() != 0) throw std::runtime_error("vaned did not start");
  loop_ = std::thread([this] { result_ = daemon_->Run(); });
}

InProcessDaemon::~InProcessDaemon() { Stop(); }

std::string InProcessDaemon::sock(int protocol) const {
  return run_dir_ + "/" + (protocol == 27 ? VANE_WIRE_SOCK_FAST : VANE_WIRE_SOCK_NORMAL);
}

int InProcessDaemon::Deliver(uint32_t type, const Bytes& buf) {
  Bytes copy = buf;
  return daemon_->packet_out().Deliver(type, copy.data(), static_cast<uint32_t>(copy.size()));
}

int InProcessDaemon::Stop() {
  if (!stopped_) {
    stopped_ = true;
    daemon_->RequestStop();
    loop_.join();
  }
  return result_;
}

nlohmann::json InProcessDaemon::FinalStats() {
  EXPECT_EQ(Stop(), 0) << "the module's unload left allocations behind";
  return nlohmann::json::parse(ReadText(dir_ / "stats.json"), nullptr, false);
}

VanedControl::VanedControl() {
  const vane_endpoint ep = UnixEndpoint(d.run_dir());
  if (vane_ctl_open(&ep, &ctl) != 0) throw std::runtime_error("no control handle on vaned");
}

VanedControl::~VanedControl() {
  vane_ctl_close(ctl);
  EXPECT_EQ(d.Stop(), 0) << "the module's unload left allocations behind";
}

std::string VanedControl::Read(const std::string& path, const std::string& select) {
  if (!select.empty()) {
    EXPECT_EQ(vane_file_write(ctl, path.c_str(), select.data(), select.size(), nullptr),
              ssize_t(select.size()))
        << path;
  }
  uint8_t* out = nullptr;
  size_t len = 0;
  EXPECT_EQ(vane_file_read_all(ctl, path.c_str(), &out, &len), 0) << path;
  std::string text(reinterpret_cast<char*>(out), len);
  free(out);
  return text;
}

}  // namespace vane::test
