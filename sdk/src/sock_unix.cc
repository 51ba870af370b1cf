// The unix side of a channel socket: a datagram socket bound to an abstract
// address of the kernel's choosing (so the daemon can answer it) that sends
// to the daemon's socket file for the channel in the run directory.
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "sock.h"
#include "vane/wire.h"

namespace vane {

int Sock::OpenUnix(const std::string& run_dir) {
  const std::string path =
      run_dir + "/" + (channel_ == VANE_CHANNEL_FAST ? VANE_WIRE_SOCK_FAST : VANE_WIRE_SOCK_NORMAL);
  if (path.size() >= sizeof peer_.sun_path) return -ENAMETOOLONG;
  peer_ = sockaddr_un{};
  peer_.sun_family = AF_UNIX;
  std::memcpy(peer_.sun_path, path.c_str(), path.size() + 1);
  peer_len_ = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size() + 1);

  const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return -errno;
  // Binding only the family asks the kernel for an abstract address.
  sockaddr_un self{};
  self.sun_family = AF_UNIX;
  if (bind(fd, reinterpret_cast<sockaddr*>(&self), sizeof(sa_family_t)) != 0) {
    const int err = errno;
    close(fd);
    return -err;
  }
  fd_ = fd;
  return 0;
}

void Sock::Attach() const {
  if (transport_ != VANE_TRANSPORT_UNIX || fd_ < 0) return;
  (void)connect(fd_, reinterpret_cast<const sockaddr*>(&peer_), peer_len_);
}

}  // namespace vane
