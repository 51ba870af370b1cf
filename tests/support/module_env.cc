#include "support/module_env.h"

#include <cstring>

#include "drv_vane/entry.h"
#include "drv_vane/netlink.h"

namespace vane::test {
namespace {

void put32(std::vector<uint8_t>& v, size_t off, uint32_t x) { std::memcpy(&v[off], &x, 4); }
void put16(std::vector<uint8_t>& v, size_t off, uint16_t x) { std::memcpy(&v[off], &x, 2); }
uint32_t get32(const std::vector<uint8_t>& v, size_t off) {
  uint32_t x;
  std::memcpy(&x, &v[off], 4);
  return x;
}
uint16_t get16(const std::vector<uint8_t>& v, size_t off) {
  uint16_t x;
  std::memcpy(&x, &v[off], 2);
  return x;
}

}  // namespace

std::vector<uint8_t> ControlMessage(uint32_t id, const std::vector<uint8_t>& payload,
                                    const CtrlOptions& opt) {
  const uint32_t real = 24 + static_cast<uint32_t>(payload.size());
  std::vector<uint8_t> msg((real + 3) & ~3u, 0);
  put32(msg, 0, opt.nlmsg_len.value_or(real));
  put16(msg, 4, opt.type);
  put16(msg, 6, opt.flags);
  put32(msg, 8, opt.seq);
  put32(msg, 12, 0);
  put32(msg, 16, id);
  put32(msg, 20, opt.len_field.value_or(static_cast<uint32_t>(payload.size())));
  std::copy(payload.begin(), payload.end(), msg.begin() + 24);
  msg.resize(real);
  return msg;
}

std::vector<uint8_t> PidPayload(uint32_t channel, uint32_t vcpu) {
  std::vector<uint8_t> p(8);
  put32(p, 0, channel);
  put32(p, 4, vcpu);
  return p;
}

std::vector<uint8_t> ConfigPayload(const BYPASS_PKT_OFFSET_S& cfg) {
  std::vector<uint8_t> p(sizeof(cfg));
  std::memcpy(p.data(), &cfg, sizeof(cfg));
  return p;
}

std::optional<Delivered> DecodeDelivered(const std::vector<uint8_t>& msg) {
  if (msg.size() < 24) return std::nullopt;
  Delivered d;
  d.nlmsg_len = get32(msg, 0);
  d.nlmsg_type = get16(msg, 4);
  d.nlmsg_flags = get16(msg, 6);
  d.nlmsg_seq = get32(msg, 8);
  d.nlmsg_pid = get32(msg, 12);
  d.type = get32(msg, 16);
  d.len = get32(msg, 20);
  if (d.nlmsg_type != NETLINK_VANE_MSG_TYPE || 24 + size_t{d.len} > msg.size()) {
    return std::nullopt;
  }
  d.data.assign(msg.begin() + 24, msg.begin() + 24 + d.len);
  d.raw = msg;
  return d;
}

Worker::Worker(uint32_t pid, size_t queue_limit)
    : pid_(pid),
      normal_(kport::user::UserSocket::Open(kNormal, pid, pid, queue_limit)),
      fast_(kport::user::UserSocket::Open(kFast, pid, pid, queue_limit)) {
  EXPECT_NE(normal_, nullptr) << "worker " << pid << " cannot open its normal socket";
  EXPECT_NE(fast_, nullptr) << "worker " << pid << " cannot open its fast socket";
}

std::optional<int> Worker::Control(uint32_t id, const std::vector<uint8_t>& payload, int via,
                                   const CtrlOptions& opt) {
  kport::user::UserSocket& s = socket(via);
  s.Send(ControlMessage(id, payload, opt));
  // Packets may be queued ahead of the acknowledgement; keep them in order.
  std::optional<int> result;
  while (auto msg = s.Receive()) {
    if (auto ack = kport::user::DecodeAck(*msg); ack && !result) {
      result = ack->error;
    } else {
      stash(via).push_back(std::move(*msg));
    }
  }
  return result;
}

int Worker::Register(uint32_t channel, uint32_t vcpu, int via) {
  return Control(NETLINK_MID_PID, PidPayload(channel, vcpu), via).value_or(-9999);
}

int Worker::Configure(const BYPASS_PKT_OFFSET_S& cfg) {
  return Control(NETLINK_MID_OFFSET, ConfigPayload(cfg)).value_or(-9999);
}

int Worker::Debug(uint8_t command) {
  return Control(NETLINK_MID_DEBUG_FLAG, {command}).value_or(-9999);
}

std::optional<Delivered> Worker::Next(int protocol) {
  if (!stash(protocol).empty()) {
    std::vector<uint8_t> msg = std::move(stash(protocol).front());
    stash(protocol).pop_front();
    return DecodeDelivered(msg);
  }
  auto msg = socket(protocol).Receive();
  if (!msg) return std::nullopt;
  return DecodeDelivered(*msg);
}

size_t Worker::Pending(int protocol) { return stash(protocol).size() + socket(protocol).Pending(); }

std::string DebugText() {
  std::vector<uint8_t> bytes = kport::user::vfs::ProcReadAll("/proc/bypassDebug/debug");
  auto end = std::find(bytes.begin(), bytes.end(), 0);
  return std::string(bytes.begin(), end);
}

void SetDebugLevel(uint32_t level) {
  std::vector<uint8_t> bytes(4);
  std::memcpy(bytes.data(), &level, 4);
  ASSERT_EQ(kport::user::vfs::ProcWriteAll("/proc/bypassDebug/debug", bytes), 4);
}

std::vector<uint32_t> Counters() {
  std::vector<uint8_t> bytes = kport::user::vfs::ProcReadAll("/proc/bypassDebug/counts");
  std::vector<uint32_t> counts(bytes.size() / 4);
  std::memcpy(counts.data(), bytes.data(), counts.size() * 4);
  return counts;
}

std::map<uint32_t, uint32_t> NonZeroCounters() {
  std::map<uint32_t, uint32_t> m;
  const std::vector<uint32_t> c = Counters();
  for (uint32_t i = 0; i < c.size(); ++i) {
    if (c[i] != 0) m[i] = c[i];
  }
  return m;
}

void ModuleTest::SetUp() {
  kport::user::fault::ClearAll();
  kport::user::klog::Clear();
  live_before_ = kport::user::LiveAllocations();
  ASSERT_EQ(vane_entry_init(), 0);
}

void ModuleTest::TearDown() {
  kport::user::fault::ClearAll();
  vane_entry_exit();
  EXPECT_EQ(kport::user::LiveAllocations(), live_before_) << "unload leaked allocations";
  EXPECT_FALSE(kport::user::vfs::Exists("/proc/bypassDebug"));
  EXPECT_EQ(kport::user::KernelSocketCount(), 0u);
}

}  // namespace vane::test
