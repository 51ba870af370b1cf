// The channel socket and its clients; see channel.h.
#include "channel.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>

#include "drv_vane/netlink.h"
#include "file_service.h"
#include "kport/netlink.h"
#include "log.h"
#include "vane/wire.h"

namespace vane::host {
namespace {

constexpr size_t kPathOffset = offsetof(sockaddr_un, sun_path);

// Room for the largest request: a write of a whole chunk after its path.
constexpr size_t kRecvBytes = VANE_WIRE_DGRAM_MAX + 512;

void SetBuffers(int fd) {
  const int bytes = Channel::kBufferBytes;
  // The FORCE variants pass the system's limit when vaned may; else the
  // plain ones get what the limit allows.
  if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &bytes, sizeof(bytes)) != 0) {
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof(bytes));
  }
  if (setsockopt(fd, SOL_SOCKET, SO_SNDBUFFORCE, &bytes, sizeof(bytes)) != 0) {
    setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &bytes, sizeof(bytes));
  }
}

// Whether some process still receives on the socket file at `path`.
bool SocketIsLive(const sockaddr_un& addr, socklen_t len) {
  const int probe = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (probe < 0) return false;
  const bool live = connect(probe, reinterpret_cast<const sockaddr*>(&addr), len) == 0;
  close(probe);
  return live;
}

}  // namespace

bool HoldsRegistration(const uint8_t* data, size_t len) {
  size_t off = 0;
  while (len - off >= sizeof(NETLINK_CTRL_MSG_S)) {
    NETLINK_CTRL_MSG_S msg{};
    std::memcpy(&msg, data + off, sizeof(msg));
    if (msg.stHdr.nlmsg_len < KPORT_NLMSG_HDRLEN || msg.stHdr.nlmsg_len > len - off) break;
    if (msg.stHdr.nlmsg_type == NETLINK_VANE_MSG_TYPE && msg.ulMsgId == NETLINK_MID_PID &&
        msg.stHdr.nlmsg_len >= sizeof(msg)) {
      return true;
    }
    const size_t step = KPORT_NLMSG_ALIGN(msg.stHdr.nlmsg_len);
    if (step > len - off) break;
    off += step;
  }
  return false;
}

std::unique_ptr<Channel> Channel::Open(const std::string& path, int protocol, uid_t owner,
                                       std::string* err) {
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  if (path.size() >= sizeof(addr.sun_path)) {
    *err = "socket path too long: " + path;
    return nullptr;
  }
  std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
  const auto addr_len = static_cast<socklen_t>(kPathOffset + path.size() + 1);

  struct stat st {};
  if (lstat(path.c_str(), &st) == 0) {
    if (!S_ISSOCK(st.st_mode)) {
      *err = path + " exists and is not a socket";
      return nullptr;
    }
    if (SocketIsLive(addr, addr_len)) {
      *err = path + " is in use by a running vaned";
      return nullptr;
    }
    unlink(path.c_str());
  }
  const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    *err = fmt::format("socket: {}", std::strerror(errno));
    return nullptr;
  }
  const int on = 1;
  if (setsockopt(fd, SOL_SOCKET, SO_PASSCRED, &on, sizeof(on)) != 0 ||
      bind(fd, reinterpret_cast<const sockaddr*>(&addr), addr_len) != 0) {
    *err = fmt::format("cannot bind {}: {}", path, std::strerror(errno));
    close(fd);
    return nullptr;
  }
  SetBuffers(fd);
  return std::make_unique<Channel>(fd, protocol, owner, path);
}

Channel::Channel(int fd, int protocol, uid_t owner, std::string path)
    : fd_(fd), protocol_(protocol), owner_(owner), path_(std::move(path)), buf_(kRecvBytes) {}

Channel::~Channel() {
  for (auto& [key, client] : clients_) client->Unbind();
  clients_.clear();
  close(fd_);
  if (!path_.empty()) unlink(path_.c_str());
}

size_t Channel::Drain(size_t budget) {
  size_t n = 0;
  for (; n < budget; ++n) {
    sockaddr_un from{};
    iovec iov{buf_.data(), buf_.size()};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(ucred))];
    msghdr msg{};
    msg.msg_name = &from;
    msg.msg_namelen = sizeof(from);
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    msg.msg_control = control;
    msg.msg_controllen = sizeof(control);
    const ssize_t got = recvmsg(fd_, &msg, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
    if (got < 0) break;
    ucred cred{};
    bool have_cred = false;
    for (cmsghdr* c = CMSG_FIRSTHDR(&msg); c != nullptr; c = CMSG_NXTHDR(&msg, c)) {
      if (c->cmsg_level == SOL_SOCKET && c->cmsg_type == SCM_CREDENTIALS &&
          c->cmsg_len >= CMSG_LEN(sizeof(ucred))) {
        std::memcpy(&cred, CMSG_DATA(c), sizeof(cred));
        have_cred = true;
      }
    }
    if (!have_cred || (msg.msg_flags & MSG_TRUNC) != 0) {
      ++counters_.datagrams;
      ++counters_.malformed;
      continue;
    }
    HandleDatagram(from, msg.msg_namelen, cred, buf_.data(), static_cast<size_t>(got));
  }
  return n;
}

void Channel::Refuse(const sockaddr_un& from, socklen_t from_len, const uint8_t* data, size_t len,
                     uint32_t pid) {
  ++counters_.refused;
  std::vector<uint8_t> reply;
  if (IsFileRequest(data, len)) {
    reply = FileError(data, len, pid, -EPERM);
  } else {
    // What netlink sends for a failed request: its header echoed after the
    // error code.
    kport_nlmsghdr req{};
    std::memcpy(&req, data, sizeof(req));
    const kport_nlmsghdr hdr{KPORT_NLMSG_HDRLEN + 4 + KPORT_NLMSG_HDRLEN, KPORT_NLMSG_ERROR, 0,
                             req.nlmsg_seq, pid};
    const int32_t error = -EPERM;
    reply.resize(hdr.nlmsg_len);
    std::memcpy(reply.data(), &hdr, sizeof(hdr));
    std::memcpy(reply.data() + sizeof(hdr), &error, sizeof(error));
    std::memcpy(reply.data() + sizeof(hdr) + sizeof(error), &req, sizeof(req));
  }
  SendTo(fd_, from, from_len, reply.data(), reply.size());
}

Client* Channel::Attach(const std::string& key, const sockaddr_un& from, socklen_t from_len,
                        uint32_t pid, bool registers) {
  auto it = clients_.find(key);
  // Port ids with the AUTO bit are vaned's; a pid can never look like one.
  registers = registers && pid != 0 && (pid & VANE_WIRE_PORTID_AUTO) == 0;
  if (it != clients_.end() && (!registers || it->second->portid() == pid)) {
    return it->second.get();
  }
  if (registers) {
    // The pid's port id moves to this address, as a process's first netlink
    // socket would own it: whoever held it before is forgotten.
    for (auto held = clients_.begin(); held != clients_.end(); ++held) {
      if (held->second->portid() == pid) {
        held->second->Unbind();
        clients_.erase(held);
        break;
      }
    }
    if (it != clients_.end()) {
      it->second->Unbind();
      clients_.erase(it);
    }
  } else if (clients_.size() >= kMaxClients) {
    ++counters_.overflow;
    return nullptr;
  }
  auto client = std::make_shared<Client>(fd_, protocol_, from, from_len);
  bool bound = registers && client->Bind(pid, pid);
  // Else (or when the pid's port id is held outside vaned) one of ours.
  for (unsigned tries = 0; !bound && tries < 64; ++tries) {
    const uint32_t portid = VANE_WIRE_PORTID_AUTO | next_auto_;
    next_auto_ = next_auto_ % 0x7FFFFFFFu + 1;
    bound = client->Bind(portid, pid);
  }
  if (!bound) return nullptr;
  Client* raw = client.get();
  clients_[key] = std::move(client);
  return raw;
}

void Channel::HandleDatagram(const sockaddr_un& from, socklen_t from_len, const ucred& cred,
                             const uint8_t* data, size_t len) {
  ++counters_.datagrams;
  // Without a header there is no sequence number to answer to, and without
  // an address nowhere to answer.
  if (len < KPORT_NLMSG_HDRLEN || from_len <= kPathOffset || from_len > sizeof(from)) {
    ++counters_.malformed;
    return;
  }
  if (cred.uid != owner_ && cred.uid != 0) {
    Refuse(from, from_len, data, len, static_cast<uint32_t>(cred.pid));
    return;
  }
  const std::string key(reinterpret_cast<const char*>(&from.sun_path), from_len - kPathOffset);
  const bool file = IsFileRequest(data, len);
  Client* client = Attach(key, from, from_len, static_cast<uint32_t>(cred.pid),
                          !file && HoldsRegistration(data, len));
  if (client == nullptr) return;
  if (file) {
    ++counters_.files;
    const std::vector<uint8_t> reply = ServeFile(data, len, client->portid());
    client->Reply(reply.data(), reply.size());
    return;
  }
  client->SendToModule(data, len);
}

void Channel::Housekeeping() {
  for (auto it = clients_.begin(); it != clients_.end();) {
    if (it->second->gone()) {
      it->second->Unbind();
      it = clients_.erase(it);
      continue;
    }
    it->second->FlushOverrun();
    ++it;
  }
}

std::vector<ClientInfo> Channel::Clients() const {
  std::vector<ClientInfo> out;
  out.reserve(clients_.size());
  for (const auto& [key, c] : clients_) {
    out.push_back({c->portid(), c->pid(), c->sent(), c->dropped(), c->notices()});
  }
  return out;
}

}  // namespace vane::host
