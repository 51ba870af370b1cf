#include "fake_daemon.h"

#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <stdexcept>

#include "vane/wire.h"

namespace vane::test {

uint32_t Le32(const uint8_t* p) {
  uint32_t v;
  std::memcpy(&v, p, 4);
  return v;
}

Bytes NlMsg(uint16_t type, uint16_t flags, uint32_t seq, const Bytes& body) {
  ByteWriter w;
  w.u32(static_cast<uint32_t>(16 + body.size())).u16(type).u16(flags).u32(seq).u32(0);
  w.b.insert(w.b.end(), body.begin(), body.end());
  w.zeros((4 - w.b.size() % 4) % 4);
  return w.b;
}

Bytes PacketMsg(uint32_t type, const Bytes& data) {
  ByteWriter w;
  w.u32(type).u32(static_cast<uint32_t>(data.size()));
  w.b.insert(w.b.end(), data.begin(), data.end());
  return NlMsg(18, 0, 0, w.b);
}

FakeDaemon::FakeDaemon() {
  char tmpl[] = "/tmp/vane-sdk-test-XXXXXX";
  if (mkdtemp(tmpl) == nullptr) throw std::runtime_error("mkdtemp");
  dir_ = tmpl;
  Start();
}

FakeDaemon::~FakeDaemon() {
  Stop();
  std::filesystem::remove_all(dir_);
}

void FakeDaemon::Start() {
  const char* names[2] = {VANE_WIRE_SOCK_NORMAL, VANE_WIRE_SOCK_FAST};
  for (int i = 0; i < 2; ++i) {
    fds_[i] = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un a{};
    a.sun_family = AF_UNIX;
    const std::string path = dir_ + "/" + names[i];
    std::snprintf(a.sun_path, sizeof a.sun_path, "%s", path.c_str());
    if (fds_[i] < 0 || bind(fds_[i], reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) {
      throw std::runtime_error("bind " + path);
    }
  }
  if (pipe2(stop_pipe_, O_CLOEXEC) != 0) throw std::runtime_error("pipe");
  thread_ = std::thread([this] { Loop(); });
}

void FakeDaemon::Stop() {
  if (!thread_.joinable()) return;
  (void)!write(stop_pipe_[1], "x", 1);
  thread_.join();
  for (int& fd : fds_) {
    close(fd);
    fd = -1;
  }
  close(stop_pipe_[0]);
  close(stop_pipe_[1]);
  unlink((dir_ + "/" VANE_WIRE_SOCK_NORMAL).c_str());
  unlink((dir_ + "/" VANE_WIRE_SOCK_FAST).c_str());
}

void FakeDaemon::Loop() {
  std::vector<uint8_t> buf(VANE_WIRE_DGRAM_MAX * 2);
  for (;;) {
    pollfd p[3] = {{fds_[0], POLLIN, 0}, {fds_[1], POLLIN, 0}, {stop_pipe_[0], POLLIN, 0}};
    if (poll(p, 3, -1) < 0) continue;
    if (p[2].revents != 0) return;
    for (int i = 0; i < 2; ++i) {
      if (p[i].revents == 0) continue;
      Datagram d{i == 0 ? 26 : 27, {}, {}, sizeof(sockaddr_un)};
      const ssize_t n = recvfrom(fds_[i], buf.data(), buf.size(), MSG_DONTWAIT,
                                 reinterpret_cast<sockaddr*>(&d.from), &d.from_len);
      if (n < 0) continue;
      d.bytes.assign(buf.begin(), buf.begin() + n);
      {
        std::lock_guard lock(mu_);
        received_.push_back(d);
      }
      if (!silent_) Answer(d.channel, d);
    }
  }
}

void FakeDaemon::Answer(int channel, const Datagram& d) {
  const Bytes& b = d.bytes;
  for (size_t off = 0; off + 16 <= b.size();) {
    const uint32_t len = Le32(&b[off]);
    if (len < 16 || len > b.size() - off) return;
    uint16_t type, flags;
    std::memcpy(&type, &b[off + 4], 2);
    std::memcpy(&flags, &b[off + 6], 2);
    const uint32_t seq = Le32(&b[off + 8]);
    if (type == VANE_WIRE_FILE_READ || type == VANE_WIRE_FILE_WRITE) {
      Reply(channel, d, NlMsg(VANE_WIRE_FILE_REPLY, 0, seq, ServeFile(&b[off], len)));
    } else if ((flags & 0x4) != 0) {
      ByteWriter err;
      err.u32(static_cast<uint32_t>(ack_error_.load()));
      err.b.insert(err.b.end(), b.begin() + off, b.begin() + off + 16);
      Reply(channel, d, NlMsg(2, 0, seq, err.b));
    }
    off += (len + 3) & ~3u;
  }
}

void FakeDaemon::Reply(int channel, const Datagram& d, const Bytes& bytes) {
  SendTo(channel, d.from, d.from_len, bytes);
}

Bytes FakeDaemon::ServeFile(const uint8_t* msg, uint32_t len) {
  vane_wire_file_req req;
  std::memcpy(&req, msg + 16, sizeof req);
  const std::string path(reinterpret_cast<const char*>(msg + 32), req.path_len);
  const uint8_t* data = msg + 32 + req.path_len;
  uint16_t type;
  std::memcpy(&type, msg + 4, 2);
  std::lock_guard lock(mu_);
  vane_wire_file_reply r{-ENOENT, req.pos};
  std::string out;
  auto it = files_.find(path);
  if (it != files_.end()) {
    std::string& f = it->second;
    const auto pos = static_cast<size_t>(req.pos);
    if (type == VANE_WIRE_FILE_READ) {
      out = pos < f.size() ? f.substr(pos, req.count) : std::string();
      r.result = static_cast<int64_t>(out.size());
    } else {
      const size_t n = std::min<size_t>(req.count, len - 32 - req.path_len);
      if (f.size() < pos + n) f.resize(pos + n);
      f.replace(pos, n, reinterpret_cast<const char*>(data), n);
      r.result = static_cast<int64_t>(n);
    }
    r.pos = req.pos + r.result;
  }
  Bytes body(sizeof r + out.size());
  std::memcpy(body.data(), &r, sizeof r);
  if (!out.empty()) std::memcpy(body.data() + sizeof r, out.data(), out.size());
  return body;
}

void FakeDaemon::SetFile(const std::string& path, const std::string& content) {
  std::lock_guard lock(mu_);
  files_[path] = content;
}

std::string FakeDaemon::File(const std::string& path) {
  std::lock_guard lock(mu_);
  return files_[path];
}

std::vector<Datagram> FakeDaemon::Received() {
  std::lock_guard lock(mu_);
  return received_;
}

void FakeDaemon::ClearReceived() {
  std::lock_guard lock(mu_);
  received_.clear();
}

bool FakeDaemon::WaitFor(const std::function<bool(const std::vector<Datagram>&)>& pred) {
  for (int i = 0; i < 1000; ++i) {
    if (pred(Received())) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return false;
}

void FakeDaemon::SendTo(int channel, const sockaddr_un& to, socklen_t to_len, const Bytes& bytes) {
  (void)sendto(fds_[channel == 27 ? 1 : 0], bytes.data(), bytes.size(), MSG_NOSIGNAL,
               reinterpret_cast<const sockaddr*>(&to), to_len);
}

}  // namespace vane::test
