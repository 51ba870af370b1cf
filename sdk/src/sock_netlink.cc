// The netlink side of a channel socket: the kernel module's protocols 26 and
// 27 through libmnl. A worker socket takes the port id equal to the process
// id, because that is the port id control message 0 registers; a control
// socket takes another, so one process can be worker and controller at once.
#include <libmnl/libmnl.h>
#include <unistd.h>

#include <cerrno>

#include "sock.h"

namespace vane {
namespace {

// Port ids for control sockets: bit 30 set and a counter above the pid's 22
// bits, so they never equal a process id and do not collide with the
// kernel's automatic ids (which count down from -4096).
constexpr uint32_t kCtlPortBase = 0x40000000u;
constexpr uint32_t kPidMask = 0x3FFFFFu;
constexpr unsigned kCtlPortTries = 256;

}  // namespace

int Sock::OpenNetlink(Role role) {
  mnl_socket* nl = mnl_socket_open2(channel_, SOCK_CLOEXEC);
  if (nl == nullptr) {
    // The protocol exists only while the module is loaded.
    return errno == EPROTONOSUPPORT ? -ECONNREFUSED : -errno;
  }
  const auto pid = static_cast<uint32_t>(getpid());
  int rc = -EADDRINUSE;
  if (role == Role::kWorker) {
    rc = mnl_socket_bind(nl, 0, pid) == 0 ? 0 : -errno;
  } else {
    for (unsigned n = 0; n < kCtlPortTries && rc == -EADDRINUSE; ++n) {
      const uint32_t port = kCtlPortBase | (n << 22) | (pid & kPidMask);
      rc = mnl_socket_bind(nl, 0, port) == 0 ? 0 : -errno;
    }
  }
  if (rc != 0) {
    mnl_socket_close(nl);
    return rc;
  }
  nl_ = nl;
  fd_ = mnl_socket_get_fd(nl);
  return 0;
}

void Sock::CloseNetlink() {
  mnl_socket_close(nl_);
  nl_ = nullptr;
  fd_ = -1;
}

}  // namespace vane
