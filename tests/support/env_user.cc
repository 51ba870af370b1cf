// The scenario environment on the user-space backend: the core linked into
// the test program, driven through the backend's controls.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <mutex>

#include "drv_vane/capture.h"
#include "drv_vane/entry.h"
#include "drv_vane/netlink.h"
#include "kport/user/testing.h"
#include "support/env.h"
#include "support/module_env.h"

namespace vane::test {
namespace {

namespace ku = kport::user;

// The handler the driver stand-in registers for message 3, recording as it
// does.
constexpr int kHandlerId = 3;
constexpr uint32_t kHandlerKeep = 16;
std::mutex g_handler_mu;
HandlerCalls g_handler;

int RecordingHandler(void* payload, u32 len) {
  std::lock_guard lock(g_handler_mu);
  ++g_handler.calls;
  g_handler.len = len;
  const auto* p = static_cast<const uint8_t*>(payload);
  g_handler.data.assign(p, p + std::min(len, kHandlerKeep));
  return 0;
}

ku::fault::Site ToSite(FaultSite s) {
  switch (s) {
    case FaultSite::kAlloc:
      return ku::fault::Site::kAlloc;
    case FaultSite::kCopyFromUser:
      return ku::fault::Site::kCopyFromUser;
    case FaultSite::kCopyToUser:
      break;
  }
  return ku::fault::Site::kCopyToUser;
}

bool IsSysfs(const std::string& path) { return path.rfind("/sys/", 0) == 0; }

class UserPort : public Port {
 public:
  explicit UserPort(std::unique_ptr<ku::UserSocket> s) : s_(std::move(s)) {}
  int Send(const Bytes& bytes) override { return s_->Send(bytes); }
  std::optional<Bytes> Receive(bool* overrun) override {
    // The in-memory queue refuses what does not fit; the sender sees -EAGAIN
    // and nothing is reported to the receiver.
    if (overrun != nullptr) *overrun = false;
    return s_->Receive();
  }
  uint32_t portid() const override { return s_->portid(); }

 private:
  std::unique_ptr<ku::UserSocket> s_;
};

class UserPeer : public Peer {
 public:
  explicit UserPeer(uint32_t pid) : pid_(pid) {}
  uint32_t pid() const override { return pid_; }
  std::unique_ptr<Port> Open(int protocol, uint32_t portid, size_t queue_limit) override {
    auto s =
        ku::UserSocket::Open(protocol, portid != 0 ? portid : pid_, pid_,
                             queue_limit != 0 ? queue_limit : ku::UserSocket::kDefaultQueueLimit);
    if (s == nullptr) return nullptr;
    return std::make_unique<UserPort>(std::move(s));
  }

 private:
  uint32_t pid_;
};

class UserEnv : public Env {
 public:
  std::string Name() const override { return "user"; }
  bool Has(Power) const override { return true; }

  // Faults armed before the call apply to the start-up itself; Unload
  // clears them, so none are left from an earlier test.
  int Load() override {
    ku::klog::Clear();
    live_before_ = ku::LiveAllocations();
    const int rc = vane_entry_init();
    if (rc != 0) {
      ExpectNothingLeft("a failed start-up");
      return rc;
    }
    {
      std::lock_guard lock(g_handler_mu);
      g_handler = HandlerCalls{};
    }
    EXPECT_EQ(netlink_connect(kHandlerId, RecordingHandler), 0);
    return 0;
  }

  void Unload() override {
    ku::fault::ClearAll();
    EXPECT_EQ(netlink_disconnect(kHandlerId), 0);
    vane_entry_exit();
    ExpectNothingLeft("unload");
    if (ku::clock::IsManual()) ku::clock::UseTimerThread();
  }

  std::unique_ptr<Peer> NewPeer() override { return std::make_unique<UserPeer>(next_pid_++); }

  int Deliver(uint32_t type, const Bytes& buf, bool fast) override {
    // A real driver never passes a null buffer with a length; an empty one
    // is passed as a valid pointer and length 0, as the stand-in does.
    uint8_t none = 0;
    u8* data = buf.empty() ? &none : const_cast<u8*>(buf.data());
    const u32 len = static_cast<u32>(buf.size());
    return fast ? netlink_fastsend_msg(type, data, len) : netlink_send_msg(type, data, len);
  }

  uint32_t CatchPkt(const Bytes& packet, uint16_t event, uint8_t* mark,
                    uint16_t mac_offset) override {
    Bytes copy = packet;
    uint8_t m = 0;
    uint8_t none = 0;
    const uint32_t r = bypass_IsNeedCatchPkt(copy.empty() ? &none : copy.data(),
                                             static_cast<u32>(copy.size()), event, &m, mac_offset);
    if (mark != nullptr) *mark = r != 0 ? m : 0;
    return r;
  }

  void TsRecvEvent(uint8_t event, const Bytes& frame, uint16_t value, uint8_t mark,
                   uint16_t slot) override {
    Bytes copy = frame;
    bypass_TS_RecvPktEvent(event, copy.empty() ? nullptr : copy.data(),
                           static_cast<u32>(copy.size()), value, mark, slot);
  }

  HandlerCalls Handler() override {
    std::lock_guard lock(g_handler_mu);
    return g_handler;
  }

  std::optional<Bytes> Read(const std::string& path, size_t chunk, long* error) override {
    if (error != nullptr) *error = 0;
    if (IsSysfs(path)) {
      auto text = ku::vfs::SysfsShow(path);
      if (!text) {
        if (error != nullptr) *error = -2;
        return std::nullopt;
      }
      return Bytes(text->begin(), text->end());
    }
    if (!ku::vfs::Exists(path)) {
      if (error != nullptr) *error = -2;
      return std::nullopt;
    }
    Bytes all;
    Bytes buf(chunk);
    int64_t pos = 0;
    for (;;) {
      const long n = ku::vfs::ProcRead(path, buf.data(), buf.size(), &pos);
      if (n < 0) {
        if (error != nullptr) *error = n;
        return std::nullopt;
      }
      if (n == 0) return all;
      all.insert(all.end(), buf.begin(), buf.begin() + n);
    }
  }

  std::optional<Bytes> ReadAt(const std::string& path, int64_t pos, size_t count,
                              long* error) override {
    Bytes buf(count);
    const long n = ku::vfs::ProcRead(path, buf.data(), buf.size(), &pos);
    if (error != nullptr) *error = n < 0 ? n : 0;
    if (n < 0) return std::nullopt;
    buf.resize(static_cast<size_t>(n));
    return buf;
  }

  long Write(const std::string& path, const Bytes& bytes) override {
    if (IsSysfs(path)) {
      return ku::vfs::SysfsStore(path, std::string(bytes.begin(), bytes.end()));
    }
    return ku::vfs::ProcWriteAll(path, bytes);
  }

  bool Exists(const std::string& path) override { return ku::vfs::Exists(path); }
  uint32_t Mode(const std::string& path) override { return ku::vfs::Mode(path); }

  std::vector<LogLine> Log() override {
    std::vector<LogLine> out;
    for (auto& l : ku::klog::Lines()) {
      std::string text = std::move(l.text);
      if (!text.empty() && text.back() == '\n') text.pop_back();
      out.push_back(LogLine{l.level, std::move(text)});
    }
    return out;
  }
  void ClearLog() override { ku::klog::Clear(); }

  void FailNth(FaultSite site, unsigned n) override { ku::fault::FailNth(ToSite(site), n); }
  void FailAlways(FaultSite site) override { ku::fault::FailAlways(ToSite(site)); }
  void ClearFaults() override { ku::fault::ClearAll(); }
  void UseManualClock() override { ku::clock::UseManual(); }
  void AdvanceClock(unsigned long ticks) override { ku::clock::Advance(ticks); }
  unsigned long Hz() const override { return ku::clock::Hz(); }

 private:
  void ExpectNothingLeft(const char* after) const {
    EXPECT_EQ(ku::LiveAllocations(), live_before_) << after << " leaked allocations";
    EXPECT_EQ(ku::clock::PendingTimers(), 0u) << after << " left a timer armed";
    EXPECT_FALSE(ku::vfs::Exists("/proc/bypassDebug")) << after;
    EXPECT_EQ(ku::KernelSocketCount(), 0u) << after;
  }

  size_t live_before_ = 0;
  // Well away from the ids a test of the backend itself might pick.
  uint32_t next_pid_ = 40000;
};

}  // namespace

std::unique_ptr<Peer> UserPeerWithPid(uint32_t pid) { return std::make_unique<UserPeer>(pid); }

Worker::Worker(uint32_t pid, size_t queue_limit) : Worker(UserPeerWithPid(pid), queue_limit) {}

Env& Env::Get() {
  static UserEnv env;
  return env;
}

}  // namespace vane::test
