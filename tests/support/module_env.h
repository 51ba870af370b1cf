// Drives the module the way its users do: a fixture that loads and unloads
// it around each test, workers that register over the in-memory netlink
// sockets and receive what the module delivers, and control-message helpers.
#ifndef VANE_TESTS_SUPPORT_MODULE_ENV_H
#define VANE_TESTS_SUPPORT_MODULE_ENV_H

#include <gtest/gtest.h>

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "drv_vane/config.h"
#include "drv_vane/dispatch.h"
#include "kport/user/testing.h"

namespace vane::test {

constexpr int kNormal = 26;
constexpr int kFast = 27;

// Options of one control message; the defaults make a well-formed request.
struct CtrlOptions {
  uint16_t type = 18;
  uint16_t flags = 0x0001 | 0x0004;  // request, ask for an acknowledgement
  uint32_t seq = 1;
  std::optional<uint32_t> len_field;  // default: the payload's size
  std::optional<uint32_t> nlmsg_len;  // default: the real length
};

// A control message: netlink header, message id, payload length, payload.
std::vector<uint8_t> ControlMessage(uint32_t id, const std::vector<uint8_t>& payload,
                                    const CtrlOptions& opt = {});
// Payload bytes of message 0 and of message 5.
std::vector<uint8_t> PidPayload(uint32_t channel, uint32_t vcpu);
std::vector<uint8_t> ConfigPayload(const BYPASS_PKT_OFFSET_S& cfg);

// A packet message as a worker receives it.
struct Delivered {
  uint32_t nlmsg_len = 0;
  uint16_t nlmsg_type = 0;
  uint16_t nlmsg_flags = 0;
  uint32_t nlmsg_seq = 0;
  uint32_t nlmsg_pid = 0;
  uint32_t type = 0;
  uint32_t len = 0;
  std::vector<uint8_t> data;  // len bytes from offset 24
  std::vector<uint8_t> raw;   // the whole message
};
std::optional<Delivered> DecodeDelivered(const std::vector<uint8_t>& msg);

// A user-space worker: one socket per channel, both with port id = pid.
class Worker {
 public:
  explicit Worker(uint32_t pid, size_t queue_limit = kport::user::UserSocket::kDefaultQueueLimit);

  uint32_t pid() const { return pid_; }
  kport::user::UserSocket& socket(int protocol) { return protocol == kFast ? *fast_ : *normal_; }

  // Sends one control message on `via` and returns the acknowledgement's
  // error code (nullopt when none came back).
  std::optional<int> Control(uint32_t id, const std::vector<uint8_t>& payload, int via = kNormal,
                             const CtrlOptions& opt = {});
  // Registers for `vcpu` on `channel` (message 0 sent on `via`); returns the
  // acknowledgement's error code.
  int Register(uint32_t channel, uint32_t vcpu, int via = kNormal);
  // Installs a configuration record (message 5).
  int Configure(const BYPASS_PKT_OFFSET_S& cfg);
  // Runs a debug command (message 6).
  int Debug(uint8_t command);

  // Next packet message queued on the channel's socket.
  // Packets that arrived while an acknowledgement was awaited come first.
  std::optional<Delivered> Next(int protocol = kNormal);
  size_t Pending(int protocol = kNormal);

 private:
  std::deque<std::vector<uint8_t>>& stash(int protocol) {
    return protocol == kFast ? fast_stash_ : normal_stash_;
  }

  uint32_t pid_;
  std::deque<std::vector<uint8_t>> normal_stash_;
  std::deque<std::vector<uint8_t>> fast_stash_;
  std::unique_ptr<kport::user::UserSocket> normal_;
  std::unique_ptr<kport::user::UserSocket> fast_;
};

// The debug text as /proc/bypassDebug/debug shows it, up to the first zero.
std::string DebugText();
// Writes a level to /proc/bypassDebug/debug (clears the text).
void SetDebugLevel(uint32_t level);
// The 960 counters as /proc/bypassDebug/counts shows them.
std::vector<uint32_t> Counters();
// The counters that are not zero, by index.
std::map<uint32_t, uint32_t> NonZeroCounters();
// The index of the WLAN counter of vCPU v and packet type t.
constexpr uint32_t WlanCounterIndex(uint32_t v, uint32_t t) {
  return BYPASS_PKT_COUNT_WLAN_BASE + BYPASS_PKT_COUNT_WLAN_TYPES * v + t;
}

// Loads the module before each test and unloads it after, checking that the
// unload gives back every allocation and leaves no proc entry or socket.
class ModuleTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

 private:
  size_t live_before_ = 0;
};

}  // namespace vane::test

#endif  // VANE_TESTS_SUPPORT_MODULE_ENV_H
