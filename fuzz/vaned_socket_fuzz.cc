// vaned's socket input: arbitrary datagrams with arbitrary credentials and
// sender addresses through the function that serves every received
// datagram, with packets delivered between them so that acknowledgements,
// file replies, packets and overrun notices all go out through the clients.
//
// The module is loaded once for the whole run (as vaned loads it once); each
// input gets fresh channels, so the clients of one input are not the next
// one's.
//
// Input: records of
//   u8   bit 0: channel (0 protocol 26, 1 protocol 27)
//        bits 1-2: sender's uid (0 the owner, 1 root, 2 another user)
//        bits 3-5: sender's address (0-3 live peers, 4 a peer that is gone,
//                  5 an address of the family alone, 6-7 a live peer)
//        bit 6: the pid is the next u32 of the input (else 4200 + address)
//        bit 7: deliver a packet to the default receiver afterwards
//   [u32 pid, when bit 6 is set]
//   u16  n, then n bytes: the datagram
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "channel.h"
#include "drv_vane/entry.h"
#include "drv_vane/netlink.h"
#include "fuzz_env.h"

namespace {

constexpr uid_t kOwner = 1000;
constexpr int kPeers = 4;

socklen_t PeerAddr(int i, sockaddr_un* addr) {
  std::memset(addr, 0, sizeof(*addr));
  addr->sun_family = AF_UNIX;
  // Abstract names: nothing to clean up on disk.
  const int n = std::snprintf(addr->sun_path + 1, sizeof(addr->sun_path) - 1, "vaned-fuzz-%d-%d",
                              static_cast<int>(getpid()), i);
  return static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + n);
}

struct World {
  World() {
    if (vane_entry_init() != 0) std::abort();
    for (int i = 0; i < kPeers; ++i) {
      peers[i] = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
      sockaddr_un addr{};
      const socklen_t len = PeerAddr(i, &addr);
      if (peers[i] < 0 || bind(peers[i], reinterpret_cast<sockaddr*>(&addr), len) != 0) {
        std::abort();
      }
    }
  }
  void Drain() const {
    char buf[256];
    for (int fd : peers) {
      while (recv(fd, buf, sizeof(buf), MSG_DONTWAIT) >= 0) {
      }
    }
  }
  int peers[kPeers];
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static World world;
  std::unique_ptr<vane::host::Channel> channels[2];
  for (int i = 0; i < 2; ++i) {
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) std::abort();
    channels[i] = std::make_unique<vane::host::Channel>(fd, i == 0 ? 26 : 27, kOwner);
  }
  vane::fuzz::Reader in(data, size);
  uint32_t n = 0;
  while (!in.empty()) {
    const uint8_t how = in.u8();
    const unsigned who = (how >> 3) & 7;
    const uint32_t pid = (how & 0x40) ? in.u32() : 4200 + who;
    const std::span<const uint8_t> datagram = in.block();

    sockaddr_un from{};
    socklen_t from_len = PeerAddr(who == 4 ? 99 : static_cast<int>(who % kPeers), &from);
    if (who == 5) from_len = sizeof(sa_family_t);
    const uid_t uids[4] = {kOwner, 0, 1001, kOwner};
    const ucred cred{static_cast<pid_t>(pid), uids[(how >> 1) & 3], 0};
    channels[how & 1]->HandleDatagram(from, from_len, cred, datagram.data(), datagram.size());
    if (how & 0x80) {
      uint8_t pkt[64] = {1};
      std::memcpy(pkt + 4, &n, sizeof(n));
      ++n;
      netlink_send_msg(7, pkt, sizeof(pkt));
    }
    channels[0]->Housekeeping();
    channels[1]->Housekeeping();
  }
  world.Drain();
  return 0;
}
