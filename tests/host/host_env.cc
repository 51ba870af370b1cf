// Test support for vaned; see host_env.h.
#include "host_env.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "gtest/gtest.h"
#include "kport/netlink.h"
#include "support/module_env.h"
#include "vane/wire.h"

namespace vane::test {

TempDir::TempDir() {
  char tmpl[] = "/tmp/vaned-test-XXXXXX";
  const char* made = mkdtemp(tmpl);
  if (made == nullptr) std::abort();
  path_ = made;
}

TempDir::~TempDir() {
  std::error_code ec;
  std::filesystem::remove_all(path_, ec);
}

WireClient::WireClient() : fd_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  // An address length of just the family asks for an autobound address.
  if (fd_ < 0 || bind(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof(sa_family_t)) != 0) {
    std::abort();
  }
}

WireClient::~WireClient() { close(fd_); }

int WireClient::SendTo(const char* path, const void* data, size_t len) {
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::strncpy(addr.sun_path, path, sizeof(addr.sun_path) - 1);
  const ssize_t n = sendto(fd_, data, len, 0, reinterpret_cast<sockaddr*>(&addr), sizeof(addr));
  return n < 0 ? -errno : static_cast<int>(n);
}

long WireClient::Receive(uint8_t* buf, size_t cap, int guard_ms) {
  pollfd p{fd_, POLLIN, 0};
  if (poll(&p, 1, guard_ms) != 1) return -1;
  return recv(fd_, buf, cap, 0);
}

std::optional<Bytes> WireClient::Receive(int guard_ms) {
  Bytes buf(VANE_WIRE_DGRAM_MAX);
  const long n = Receive(buf.data(), buf.size(), guard_ms);
  if (n < 0) return std::nullopt;
  buf.resize(static_cast<size_t>(n));
  return buf;
}

bool WireClient::Ready() {
  pollfd p{fd_, POLLIN, 0};
  return poll(&p, 1, 0) == 1;
}

InProcessDaemon::InProcessDaemon() {
  host::DaemonOptions opt;
  opt.run_dir = dir_.path() + "/run";
  opt.stats_path = stats_path();
  opt.handle_signals = false;
  daemon_ = std::make_unique<host::Daemon>(opt);
  if (daemon_->Start() != 0) {
    ADD_FAILURE() << "the daemon did not start";
    return;
  }
  loop_ = std::thread([this] { result_ = daemon_->Run(); });
}

InProcessDaemon::~InProcessDaemon() { Stop(); }

std::string InProcessDaemon::sock(int protocol) const {
  return dir_.path() + "/run/" + (protocol == 27 ? VANE_WIRE_SOCK_FAST : VANE_WIRE_SOCK_NORMAL);
}

int InProcessDaemon::Stop() {
  if (!stopped_) {
    stopped_ = true;
    daemon_->RequestStop();
    if (loop_.joinable()) loop_.join();
  }
  return result_;
}

Bytes Control(uint32_t id, const Bytes& payload, uint32_t seq) {
  CtrlOptions opt;
  opt.seq = seq;
  return ControlMessage(id, payload, opt);
}

namespace {

Bytes FileRequest(uint16_t type, const std::string& path, int64_t pos, uint32_t count,
                  const Bytes& data, uint32_t seq) {
  const vane_wire_file_req req{pos, count, static_cast<uint32_t>(path.size())};
  const auto len = static_cast<uint32_t>(16 + sizeof(req) + path.size() + data.size());
  const kport_nlmsghdr hdr{len, type, KPORT_NLM_F_REQUEST, seq, 0};
  Bytes b(len);
  std::memcpy(b.data(), &hdr, sizeof(hdr));
  std::memcpy(b.data() + 16, &req, sizeof(req));
  std::memcpy(b.data() + 16 + sizeof(req), path.data(), path.size());
  if (!data.empty())
    std::memcpy(b.data() + 16 + sizeof(req) + path.size(), data.data(), data.size());
  return b;
}

}  // namespace

Bytes FileRead(const std::string& path, int64_t pos, uint32_t count, uint32_t seq) {
  return FileRequest(VANE_WIRE_FILE_READ, path, pos, count, {}, seq);
}

Bytes FileWrite(const std::string& path, int64_t pos, const Bytes& data, uint32_t seq) {
  return FileRequest(VANE_WIRE_FILE_WRITE, path, pos, static_cast<uint32_t>(data.size()), data,
                     seq);
}

std::optional<FileReply> DecodeFileReply(const Bytes& msg) {
  constexpr size_t kHead = 16 + sizeof(vane_wire_file_reply);
  if (msg.size() < kHead) return std::nullopt;
  kport_nlmsghdr hdr{};
  vane_wire_file_reply body{};
  std::memcpy(&hdr, msg.data(), sizeof(hdr));
  std::memcpy(&body, msg.data() + 16, sizeof(body));
  if (hdr.nlmsg_type != VANE_WIRE_FILE_REPLY || hdr.nlmsg_len != msg.size()) return std::nullopt;
  return FileReply{hdr.nlmsg_seq, hdr.nlmsg_pid, body.result, body.pos,
                   Bytes(msg.begin() + kHead, msg.end())};
}

}  // namespace vane::test
