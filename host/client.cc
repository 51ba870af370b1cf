// Sends to one client, with drop accounting and overrun notices; see
// client.h.
#include "client.h"

#include <algorithm>
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
  // Set before the socket is bound: the sink may run (and read them) on
  // another thread as soon as it is.
  portid_ = portid;
  pid_ = pid;
  socket_ = kport::user::ExternalSocket::Open(
      protocol_, portid, pid,
      [this](const uint8_t* data, size_t len, bool) { return Deliver(data, len); });
  return socket_ != nullptr;
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
  if (SendBatch* batch = SendBatch::Current()) {
    batch->Queue(this, data, len);
    return static_cast<int>(len);
  }
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

void Client::DeliverMany(const iovec* msgs, size_t n) {
  if (lost_.load(std::memory_order_relaxed) != 0 && !SendNotice()) {
    lost_.fetch_add(static_cast<uint32_t>(n));
    dropped_.fetch_add(n, std::memory_order_relaxed);
    return;
  }
  constexpr size_t kChunk = 64;
  mmsghdr hdrs[kChunk];
  size_t done = 0;
  while (done < n) {
    const size_t count = std::min(kChunk, n - done);
    for (size_t i = 0; i < count; ++i) {
      hdrs[i] = {};
      hdrs[i].msg_hdr.msg_name = &addr_;
      hdrs[i].msg_hdr.msg_namelen = addr_len_;
      hdrs[i].msg_hdr.msg_iov = const_cast<iovec*>(&msgs[done + i]);
      hdrs[i].msg_hdr.msg_iovlen = 1;
    }
    const int sent = sendmmsg(fd_, hdrs, static_cast<unsigned>(count), MSG_DONTWAIT | MSG_NOSIGNAL);
    if (sent > 0) {
      sent_.fetch_add(static_cast<uint64_t>(sent), std::memory_order_relaxed);
      done += static_cast<size_t>(sent);
      continue;
    }
    // The first message of the chunk failed: account for it as a single
    // send would, and go on with the next.
    const int rc = SendErrno(errno);
    if (rc == -ECONNREFUSED) {
      gone_.store(true, std::memory_order_relaxed);
      return;
    }
    if (rc == -EAGAIN) {
      lost_.fetch_add(1);
      dropped_.fetch_add(1, std::memory_order_relaxed);
    }
    ++done;
  }
}

void Client::DeliverBurst(Client* const* clients, const iovec* msgs, size_t n) {
  constexpr size_t kChunk = 64;
  std::vector<uint8_t> skip(n, 0);
  // Notices first: a worker must learn of a gap before what follows it.
  for (size_t i = 0; i < n; ++i) {
    Client* c = clients[i];
    if (skip[i] != 0 || c->lost_.load(std::memory_order_relaxed) == 0 || c->SendNotice()) continue;
    for (size_t j = i; j < n; ++j) {
      if (clients[j] != c) continue;
      skip[j] = 1;
      c->lost_.fetch_add(1);
      c->dropped_.fetch_add(1, std::memory_order_relaxed);
    }
  }
  mmsghdr hdrs[kChunk];
  size_t index[kChunk] = {};
  for (size_t start = 0; start < n;) {
    // One socket per call: the next unsent message names it.
    while (start < n && skip[start] != 0) ++start;
    if (start == n) break;
    const int fd = clients[start]->fd_;
    size_t count = 0;
    for (size_t i = start; i < n && count < kChunk; ++i) {
      if (skip[i] != 0 || clients[i]->fd_ != fd) continue;
      hdrs[count] = {};
      hdrs[count].msg_hdr.msg_name = &clients[i]->addr_;
      hdrs[count].msg_hdr.msg_namelen = clients[i]->addr_len_;
      hdrs[count].msg_hdr.msg_iov = const_cast<iovec*>(&msgs[i]);
      hdrs[count].msg_hdr.msg_iovlen = 1;
      index[count++] = i;
    }
    size_t done = 0;
    while (done < count) {
      const int sent = sendmmsg(fd, hdrs + done, static_cast<unsigned>(count - done),
                                MSG_DONTWAIT | MSG_NOSIGNAL);
      // Never more than was asked, whatever the call says.
      const size_t ok = sent > 0 ? std::min(static_cast<size_t>(sent), count - done) : 0;
      for (size_t k = done; k < done + ok; ++k) {
        clients[index[k]]->sent_.fetch_add(1, std::memory_order_relaxed);
        skip[index[k]] = 1;
      }
      done += ok;
      if (sent > 0) continue;
      // The first message left failed: account for it as a single send would.
      const size_t i = index[done++];
      Client* c = clients[i];
      skip[i] = 1;
      const int rc = SendErrno(errno);
      if (rc == -ECONNREFUSED) {
        c->gone_.store(true, std::memory_order_relaxed);
        // Nothing more of this burst for a client that went away.
        for (size_t j = i; j < n; ++j) skip[j] |= static_cast<uint8_t>(clients[j] == c);
      } else if (rc == -EAGAIN) {
        c->lost_.fetch_add(1);
        c->dropped_.fetch_add(1, std::memory_order_relaxed);
      }
      // The messages queued behind it in this call go again, without it.
      size_t keep = done;
      for (size_t k = done; k < count; ++k) {
        if (skip[index[k]] != 0) continue;
        hdrs[keep] = hdrs[k];
        index[keep++] = index[k];
      }
      count = keep;
    }
    // Every message of this call is now sent or accounted for; the next
    // call takes the next socket's, or the rest of a long burst.
  }
}

int Client::Reply(const void* data, size_t len) { return Raw(data, len); }

void Client::FlushOverrun() {
  if (lost_.load(std::memory_order_relaxed) != 0) SendNotice();
}

namespace {
thread_local SendBatch* t_batch = nullptr;
}  // namespace

SendBatch::SendBatch() : outer_(t_batch) {
  // Only the outermost batch queues: an inner one would flush in the middle
  // of the outer's burst.
  if (outer_ == nullptr) t_batch = this;
}

SendBatch::~SendBatch() {
  if (t_batch == this) {
    Flush();
    t_batch = nullptr;
  }
}

SendBatch* SendBatch::Current() { return t_batch; }

void SendBatch::Queue(Client* client, const uint8_t* data, size_t len) {
  size_t index = 0;
  while (index < clients_.size() && clients_[index].get() != client) ++index;
  if (index == clients_.size()) clients_.push_back(client->shared_from_this());
  items_.push_back({index, bytes_.size(), len});
  bytes_.insert(bytes_.end(), data, data + len);
  if (bytes_.size() >= kMaxBytes || items_.size() >= kMaxItems) Flush();
}

void SendBatch::Flush() {
  iov_.clear();
  targets_.clear();
  for (const Item& item : items_) {
    iov_.push_back({bytes_.data() + item.off, item.len});
    targets_.push_back(clients_[item.client].get());
  }
  if (!iov_.empty()) Client::DeliverBurst(targets_.data(), iov_.data(), iov_.size());
  items_.clear();
  bytes_.clear();
  clients_.clear();
}

}  // namespace vane::host
