#include "support/module_env.h"

#include <cstring>

#include <algorithm>

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

std::optional<Ack> DecodeAck(const std::vector<uint8_t>& msg) {
  // Header, error code, then at least the acknowledged message's header.
  constexpr size_t kAckLen = 16 + 4 + 16;
  constexpr uint16_t kNlmsgError = 2;
  if (msg.size() < kAckLen || get16(msg, 4) != kNlmsgError) return std::nullopt;
  const uint32_t len = get32(msg, 0);
  if (len < kAckLen || len > msg.size()) return std::nullopt;
  Ack ack;
  ack.flags = get16(msg, 6);
  ack.seq = get32(msg, 8);
  ack.portid = get32(msg, 12);
  ack.error = static_cast<int32_t>(get32(msg, 16));
  ack.orig_len = get32(msg, 20);
  ack.orig_type = get16(msg, 24);
  return ack;
}

const char* PowerName(Power p) {
  switch (p) {
    case Power::kManualClock:
      return "a clock the test moves";
    case Power::kFaultInjection:
      return "fault injection";
    case Power::kCountedQueues:
      break;
  }
  return "receive queues bounded by a message count";
}

Worker::Worker(const Options& opt) : Worker(env().NewPeer(), opt.queue_limit) {}

Worker::Worker(std::unique_ptr<Peer> peer, size_t queue_limit) : peer_(std::move(peer)) {
  if (queue_limit != 0 && !env().Has(Power::kCountedQueues)) {
    ADD_FAILURE() << "a worker queue of " << queue_limit << " messages needs "
                  << PowerName(Power::kCountedQueues);
  }
  normal_ = peer_->Open(kNormal, 0, queue_limit);
  fast_ = peer_->Open(kFast, 0, queue_limit);
  EXPECT_NE(normal_, nullptr) << "worker " << pid() << " cannot open its normal socket";
  EXPECT_NE(fast_, nullptr) << "worker " << pid() << " cannot open its fast socket";
}

Worker::~Worker() = default;

void Worker::Close() {
  normal_.reset();
  fast_.reset();
}

void Worker::Drain(int protocol) {
  Port* p = protocol == kFast ? fast_.get() : normal_.get();
  if (p == nullptr) return;
  bool overrun = false;
  while (auto msg = p->Receive(&overrun)) {
    if (overrun) {
      ++(protocol == kFast ? fast_overruns_ : normal_overruns_);
      continue;
    }
    stash(protocol).push_back(std::move(*msg));
  }
}

std::optional<int> Worker::Control(uint32_t id, const std::vector<uint8_t>& payload, int via,
                                   const CtrlOptions& opt) {
  Port& p = port(via);
  p.Send(ControlMessage(id, payload, opt));
  // Packets may be queued ahead of the acknowledgement; keep them in order.
  std::optional<int> result;
  bool overrun = false;
  while (auto msg = p.Receive(&overrun)) {
    if (overrun) {
      ++(via == kFast ? fast_overruns_ : normal_overruns_);
    } else if (auto ack = DecodeAck(*msg); ack && !result) {
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
  Drain(protocol);
  if (stash(protocol).empty()) return std::nullopt;
  std::vector<uint8_t> msg = std::move(stash(protocol).front());
  stash(protocol).pop_front();
  return DecodeDelivered(msg);
}

size_t Worker::Pending(int protocol) {
  Drain(protocol);
  return stash(protocol).size();
}

Receivers::Receivers(std::initializer_list<uint32_t> vcpus) {
  for (uint32_t v : vcpus) {
    workers_[v] = std::make_unique<Worker>();
    EXPECT_EQ(workers_[v]->Register(kNormal, v), 0) << "vCPU " << v;
  }
}

std::vector<uint32_t> Receivers::Deliver(const std::vector<uint8_t>& packet) {
  env().Deliver(1, packet);
  std::vector<uint32_t> got;
  for (auto& [v, w] : workers_) {
    while (auto d = w->Next()) {
      got.push_back(v);
      last_ = d->data;
    }
  }
  return got;
}

std::string DebugText() {
  std::vector<uint8_t> bytes = env().Read("/proc/bypassDebug/debug").value_or(Bytes{});
  auto end = std::find(bytes.begin(), bytes.end(), 0);
  return std::string(bytes.begin(), end);
}

void SetDebugLevel(uint32_t level) {
  std::vector<uint8_t> bytes(4);
  std::memcpy(bytes.data(), &level, 4);
  ASSERT_EQ(env().Write("/proc/bypassDebug/debug", bytes), 4);
}

std::vector<std::string> LogTexts() {
  std::vector<std::string> texts;
  for (LogLine& l : env().Log()) texts.push_back(std::move(l.text));
  return texts;
}

size_t Occurrences(const std::string& text, const std::string& part) {
  size_t n = 0;
  for (size_t p = text.find(part); p != std::string::npos; p = text.find(part, p + 1)) ++n;
  return n;
}

uint16_t Ipv4FragmentRecords() {
  const Bytes d = env().ReadAt("/proc/bypassDebug/hashInfoIpv4", 0, 2).value_or(Bytes{});
  return d.size() == 2 ? static_cast<uint16_t>(d[0] | d[1] << 8) : 0xFFFF;
}

std::vector<uint32_t> Counters() {
  std::vector<uint8_t> bytes = env().Read("/proc/bypassDebug/counts").value_or(Bytes{});
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

void ModuleTest::SetUp() { ASSERT_EQ(env().Load(), 0); }

void ModuleTest::TearDown() { env().Unload(); }

}  // namespace vane::test
