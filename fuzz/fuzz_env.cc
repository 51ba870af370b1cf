#include "fuzz_env.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "drv_vane/entry.h"
#include "drv_vane/netlink.h"

namespace vane::fuzz {
namespace {

constexpr int kProtocols[2] = {NETLINK_VANE_PROTO, NETLINK_VANE_FAST_PROTO};

[[noreturn]] void Die(const char* why) {
  std::fprintf(stderr, "fuzz: %s\n", why);
  std::abort();
}

std::vector<uint8_t> Message(uint32_t id, std::span<const uint8_t> payload) {
  const uint32_t len = 24 + static_cast<uint32_t>(payload.size());
  std::vector<uint8_t> msg(len, 0);
  const uint16_t type = NETLINK_VANE_MSG_TYPE;
  const uint16_t flags = 0x0001 | 0x0004;  // request, acknowledge
  const uint32_t size = static_cast<uint32_t>(payload.size());
  std::memcpy(&msg[0], &len, 4);
  std::memcpy(&msg[4], &type, 2);
  std::memcpy(&msg[6], &flags, 2);
  std::memcpy(&msg[16], &id, 4);
  std::memcpy(&msg[20], &size, 4);
  if (!payload.empty()) std::memcpy(&msg[24], payload.data(), payload.size());
  return msg;
}

}  // namespace

FreshModule::FreshModule() {
  kport::user::klog::Clear();
  // Time moves only when an input says so, from the same instant each time:
  // a timer firing on a thread of its own would make a finding depend on
  // when it ran rather than on its input.
  kport::user::clock::UseManual();
  kport::user::clock::FixWallClock(1700000000, 0);
  live_before_ = kport::user::LiveAllocations();
  if (vane_entry_init() != 0) Die("the module does not load");
  const uint32_t pids[3] = {kWorkerA, kWorkerB, kStranger};
  for (unsigned w = 0; w < 3; ++w) {
    for (unsigned p = 0; p < 2; ++p) {
      sockets_[w][p] = kport::user::UserSocket::Open(kProtocols[p], pids[w], pids[w]);
      if (!sockets_[w][p]) Die("a worker socket does not open");
    }
  }
  for (int protocol : kProtocols) {
    for (uint32_t vcpu = 0; vcpu <= 8; ++vcpu) {
      // Message 0 names the channel by its protocol number.
      const uint32_t reg[2] = {static_cast<uint32_t>(protocol), vcpu};
      kport::user::UserSocket& s = socket(vcpu <= 4 ? 0 : 1, NETLINK_VANE_PROTO);
      s.Send(Message(NETLINK_MID_PID, {reinterpret_cast<const uint8_t*>(reg), sizeof(reg)}));
    }
  }
  Drain();
  // The module acknowledges a registration it ignores, so only the channel
  // records tell that the workers are there for the packets to reach.
  for (const SUPP_NETLINK_KERNEL_S* rec : {&g_supp_netlink_kernel, &g_supp_fast_netlink_kernel}) {
    if (rec->ulPid != kWorkerA || rec->aulVcpuPid[8] != kWorkerB)
      Die("the workers did not register");
  }
}

FreshModule::~FreshModule() {
  vane_entry_exit();
  for (auto& worker : sockets_) {
    for (auto& s : worker) s.reset();
  }
  if (kport::user::LiveAllocations() != live_before_) Die("the unload leaked allocations");
  if (kport::user::KernelSocketCount() != 0) Die("the unload left a kernel socket");
  if (kport::user::clock::PendingTimers() != 0) Die("the unload left a timer armed");
  for (const std::string& path : kport::user::vfs::List()) {
    std::fprintf(stderr, "fuzz: left registered: %s\n", path.c_str());
    Die("the unload left a proc or sysfs entry");
  }
}

kport::user::UserSocket& FreshModule::socket(unsigned worker, int protocol) {
  return *sockets_[worker % 3][protocol == 27 ? 1 : 0];
}

void FreshModule::Control(uint32_t id, std::span<const uint8_t> payload) {
  socket(0, 26).Send(Message(id, payload));
  Drain();
}

void FreshModule::Advance(unsigned long ticks) {
  kport::user::clock::Advance(ticks);
  Drain();
}

void FreshModule::Drain() {
  for (auto& worker : sockets_) {
    for (auto& s : worker) {
      while (s->Receive()) {
      }
    }
  }
}

uint8_t Reader::u8() { return pos_ < size_ ? data_[pos_++] : 0; }

uint16_t Reader::u16() {
  uint16_t v = 0;
  std::span<const uint8_t> b = bytes(2);
  std::memcpy(&v, b.data(), b.size());
  return v;
}

uint32_t Reader::u32() {
  uint32_t v = 0;
  std::span<const uint8_t> b = bytes(4);
  std::memcpy(&v, b.data(), b.size());
  return v;
}

std::span<const uint8_t> Reader::bytes(size_t n) {
  const size_t take = pos_ < size_ ? (n < size_ - pos_ ? n : size_ - pos_) : 0;
  std::span<const uint8_t> out(data_ + (pos_ < size_ ? pos_ : size_), take);
  pos_ += take;
  return out;
}

}  // namespace vane::fuzz
