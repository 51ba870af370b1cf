#include "host/sources/inject_source.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "host/client.h"
#include "vane/inject.h"

namespace vane::host {
namespace {

constexpr unsigned kBatch = 16;
constexpr size_t kHeader = sizeof(vane_wire_inject);
// One byte more than the largest valid datagram, so that an oversized one is
// seen as such even where MSG_TRUNC is not reported.
constexpr size_t kSlot = kHeader + VANE_INJECT_MAX + 1;

std::string Errno(const std::string& what, int e) { return what + ": " + std::strerror(e); }

// True when something is bound and receiving at `addr`.
bool InUse(const sockaddr_un& addr) {
  const int s = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (s < 0) return false;
  const bool live = connect(s, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)) == 0;
  close(s);
  return live;
}

}  // namespace

std::unique_ptr<InjectSource> InjectSource::Open(const std::string& path, std::string* err) {
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof(addr.sun_path)) {
    *err = "injection socket path '" + path + "' is empty or longer than " +
           std::to_string(sizeof(addr.sun_path) - 1) + " bytes";
    return nullptr;
  }
  std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);

  struct stat st {};
  if (lstat(path.c_str(), &st) == 0) {
    if (!S_ISSOCK(st.st_mode)) {
      *err = "injection socket path " + path + " exists and is not a socket";
      return nullptr;
    }
    if (InUse(addr)) {
      *err = "injection socket " + path + " is in use by another process";
      return nullptr;
    }
    unlink(path.c_str());  // stale: left by a run that did not clean up
  }

  const int sock = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (sock < 0) {
    *err = Errno("injection socket", errno);
    return nullptr;
  }
  if (bind(sock, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)) != 0) {
    *err = Errno("cannot bind injection socket " + path, errno);
    close(sock);
    return nullptr;
  }
  // Senders need write permission on the socket file: the owner only. The
  // run directory is the owner's, so the moment before chmod exposes nothing.
  if (chmod(path.c_str(), 0600) != 0) {
    *err = Errno("cannot restrict injection socket " + path, errno);
    close(sock);
    unlink(path.c_str());
    return nullptr;
  }
  const int wake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (wake < 0) {
    *err = Errno("injection socket eventfd", errno);
    close(sock);
    unlink(path.c_str());
    return nullptr;
  }
  return std::unique_ptr<InjectSource>(new InjectSource(path, sock, wake));
}

InjectSource::~InjectSource() {
  Unlink();
  close(sock_);
  close(wake_);
}

void InjectSource::Unlink() {
  if (!unlinked_.exchange(true)) unlink(path_.c_str());
}

void InjectSource::Stop() {
  const uint64_t one = 1;
  // Cannot fail short of a full counter, which a second Stop does not need.
  [[maybe_unused]] const ssize_t n = write(wake_, &one, sizeof(one));
}

std::string InjectSource::Error() const {
  std::lock_guard<std::mutex> lock(error_mu_);
  return error_;
}

int InjectSource::Run(PacketOut& out) {
  std::vector<uint8_t> bufs(kBatch * kSlot);
  iovec iov[kBatch];
  mmsghdr msgs[kBatch];
  for (unsigned i = 0; i < kBatch; ++i) {
    iov[i] = {bufs.data() + i * kSlot, kSlot};
  }
  pollfd fds[2] = {{sock_, POLLIN, 0}, {wake_, POLLIN, 0}};
  int result = 0;
  for (;;) {
    if (poll(fds, 2, -1) < 0) {
      if (errno == EINTR) continue;
      result = -errno;
      break;
    }
    if (fds[1].revents != 0) break;
    std::memset(msgs, 0, sizeof(msgs));
    for (unsigned i = 0; i < kBatch; ++i) {
      msgs[i].msg_hdr.msg_iov = &iov[i];
      msgs[i].msg_hdr.msg_iovlen = 1;
    }
    const int n = recvmmsg(sock_, msgs, kBatch, MSG_DONTWAIT, nullptr);
    if (n < 0) {
      if (errno == EAGAIN || errno == EINTR) continue;
      result = -errno;
      break;
    }
    // One receive batch leaves as one sendmmsg per worker.
    SendBatch batch;
    for (int i = 0; i < n; ++i) {
      stats_.Read();
      const size_t got = msgs[i].msg_len;
      uint8_t* d = bufs.data() + static_cast<size_t>(i) * kSlot;
      vane_wire_inject h{};
      if (got < kHeader || (msgs[i].msg_hdr.msg_flags & MSG_TRUNC) != 0) {
        stats_.Skipped();
        continue;
      }
      std::memcpy(&h, d, kHeader);
      if (h.len == 0 || h.len > VANE_INJECT_MAX || h.len != got - kHeader) {
        stats_.Skipped();
        continue;
      }
      stats_.Delivery(out.Deliver(h.type, d + kHeader, h.len), h.len);
    }
  }
  if (result != 0) {
    std::lock_guard<std::mutex> lock(error_mu_);
    error_ = Errno("injection socket " + path_, -result);
  }
  Unlink();
  return result;
}

}  // namespace vane::host
