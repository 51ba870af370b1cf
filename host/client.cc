// Sends to one client, with drop accounting and overrun notices; see
// client.h.
#include "client.h"

#include <cerrno>
#include <cstring>

#include "kport/netlink.h"
#include "vane/wire.h"

namespace vane::host {

int SendErrno(int err) {
  switch (err) {
    case EAGAIN:
    case ENOBUFS:
      return -EAGAIN;
    case ECONNREFUSED:
    case ENOENT:
      return -ECONNREFUSED;
    default:
      return -err;
  }
}

int SendTo(int fd, const sockaddr_un& addr, socklen_t addr_len, const void* data, size_t len) {
  const ssize_t n = sendto(fd, data, len, MSG_DONTWAIT | MSG_NOSIGNAL,
                           reinterpret_cast<const sockaddr*>(&addr), addr_len);
  return n < 0 ? SendErrno(errno) : static_cast<int>(n);
}

Client::Client(int fd, int protocol, const sockaddr_un& addr, socklen_t addr_len)
    : fd_(fd), protocol_(protocol), addr_(addr), addr_len_(addr_len) {}

Client::~Client() { socket_.reset(); }

bool Client::Bind(uint32_t portid, uint32_t pid) {
  socket_ = kport::user::ExternalSocket::Open(
      protocol_, portid, pid,
      [this](const uint8_t* data, size_t len, bool) { return Deliver(data, len); });
  if (socket_ == nullptr) return false;
  portid_ = portid;
  pid_ = pid;
  return true;
}

int Client::Raw(const void* data, size_t len) {
  const int rc = SendTo(fd_, addr_, addr_len_, data, len);
  if (rc == -ECONNREFUSED) gone_.store(true, std::memory_order_relaxed);
  return rc;
}

bool Client::SendNotice() {
  const uint32_t lost = lost_.exchange(0);
  if (lost == 0) return true;
  struct {
    kport_nlmsghdr hdr;
    vane_wire_overrun body;
  } notice{};
  notice.hdr = {sizeof(notice), VANE_WIRE_OVERRUN, 0, 0, portid_};
  notice.body = {lost, static_cast<uint32_t>(protocol_)};
  if (Raw(&notice, sizeof(notice)) < 0) {
    lost_.fetch_add(lost);  // told next time, together with what follows
    return false;
  }
  notices_.fetch_add(1, std::memory_order_relaxed);
  return true;
}

int Client::Deliver(const uint8_t* data, size_t len) {
  // A worker must learn of a gap before it sees what follows the gap.
  if (lost_.load(std::memory_order_relaxed) != 0 && !SendNotice()) {
    lost_.fetch_add(1);
    dropped_.fetch_add(1, std::memory_order_relaxed);
    return gone() ? -ECONNREFUSED : -EAGAIN;
  }
  const int rc = Raw(data, len);
  if (rc >= 0) {
    sent_.fetch_add(1, std::memory_order_relaxed);
  } else if (rc == -EAGAIN) {
    lost_.fetch_add(1);
    dropped_.fetch_add(1, std::memory_order_relaxed);
  }
  return rc;
}

int Client::Reply(const void* data, size_t len) { return Raw(data, len); }

void Client::FlushOverrun() {
  if (lost_.load(std::memory_order_relaxed) != 0) SendNotice();
}

}  // namespace vane::host
