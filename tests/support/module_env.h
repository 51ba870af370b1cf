// Drives the module the way its users do, in whichever environment the
// program runs (env.h): a fixture that loads and unloads it around each
// test, workers that register over netlink and receive what the module
// delivers, control-message helpers, and the debug and counter files.
#ifndef VANE_TESTS_SUPPORT_MODULE_ENV_H
#define VANE_TESTS_SUPPORT_MODULE_ENV_H

#include <gtest/gtest.h>

#include <cstdint>
#include <deque>
#include <initializer_list>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "drv_vane/config.h"
#include "drv_vane/dispatch.h"
#include "support/env.h"

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

// A netlink acknowledgement (NLMSG_ERROR) as a worker receives it.
struct Ack {
  uint16_t flags = 0;
  uint32_t seq = 0;
  uint32_t portid = 0;  // nlmsg_pid: the receiver
  int32_t error = 0;
  uint16_t orig_type = 0;  // header of the acknowledged message
  uint32_t orig_len = 0;
};
// Decodes `msg` as an acknowledgement; nullopt when it is not one.
std::optional<Ack> DecodeAck(const std::vector<uint8_t>& msg);

// A user-space worker: one process id, one socket per channel, both bound
// with port id = pid, as a worker process binds them.
class Worker {
 public:
  struct Options {
    // Receive queue bound in messages; needs Power::kCountedQueues. 0 keeps
    // the platform's queue.
    size_t queue_limit = 0;
  };
  Worker() : Worker(Options{}) {}
  explicit Worker(const Options& opt);
  // User backend only (a test of the backend or of internals): a worker
  // with the given process id (defined by env_user.cc).
  explicit Worker(uint32_t pid, size_t queue_limit = 0);
  ~Worker();
  Worker(const Worker&) = delete;
  Worker& operator=(const Worker&) = delete;

  uint32_t pid() const { return peer_->pid(); }
  Port& port(int protocol) { return protocol == kFast ? *fast_ : *normal_; }
  // Closes the worker's sockets (the process stays): deliveries to it fail.
  void Close();

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
  // Messages queued and not yet taken by Next.
  size_t Pending(int protocol = kNormal);
  // How often the channel's queue reported an overrun (the kernel's
  // ENOBUFS) since the worker opened it.
  size_t Overruns(int protocol = kNormal) const {
    return protocol == kFast ? fast_overruns_ : normal_overruns_;
  }

 private:
  std::deque<std::vector<uint8_t>>& stash(int protocol) {
    return protocol == kFast ? fast_stash_ : normal_stash_;
  }
  Worker(std::unique_ptr<Peer> peer, size_t queue_limit);
  // Moves every queued message of the channel into its stash.
  void Drain(int protocol);

  std::unique_ptr<Peer> peer_;
  std::deque<std::vector<uint8_t>> normal_stash_;
  std::deque<std::vector<uint8_t>> fast_stash_;
  size_t normal_overruns_ = 0;
  size_t fast_overruns_ = 0;
  std::unique_ptr<Port> normal_;
  std::unique_ptr<Port> fast_;
};

// Workers registered on the normal channel, one per vCPU (0: the default
// receiver), and where a packet handed in ends up.
class Receivers {
 public:
  explicit Receivers(std::initializer_list<uint32_t> vcpus);
  Worker& operator[](uint32_t vcpu) { return *workers_.at(vcpu); }
  // Hands the packet in as message type 1 and returns the vCPUs whose worker
  // got a copy, in vCPU order; last() is the last copy's data.
  std::vector<uint32_t> Deliver(const std::vector<uint8_t>& packet);
  // The one vCPU whose worker got the packet, or -1.
  int Only(const std::vector<uint8_t>& packet) {
    const std::vector<uint32_t> got = Deliver(packet);
    return got.size() == 1 ? static_cast<int>(got[0]) : -1;
  }
  const std::vector<uint8_t>& last() const { return last_; }

 private:
  std::map<uint32_t, std::unique_ptr<Worker>> workers_;
  std::vector<uint8_t> last_;
};

// User backend only: a peer with the given process id (defined by
// env_user.cc, so a scenario that calls it does not link in the guest).
std::unique_ptr<Peer> UserPeerWithPid(uint32_t pid);

// The environment the scenario runs in.
inline Env& env() { return Env::Get(); }

// The debug text as /proc/bypassDebug/debug shows it, up to the first zero.
std::string DebugText();
// Writes a level to /proc/bypassDebug/debug (clears the text).
void SetDebugLevel(uint32_t level);
// The texts of the kernel log's lines since the last load or ClearLog.
std::vector<std::string> LogTexts();
// How often `part` occurs in `text`.
size_t Occurrences(const std::string& text, const std::string& part);
// The record count that /proc/bypassDebug/hashInfoIpv4 states.
uint16_t Ipv4FragmentRecords();
// The 960 counters as /proc/bypassDebug/counts shows them.
std::vector<uint32_t> Counters();
// The counters that are not zero, by index.
std::map<uint32_t, uint32_t> NonZeroCounters();
// The index of the WLAN counter of vCPU v and packet type t.
constexpr uint32_t WlanCounterIndex(uint32_t v, uint32_t t) {
  return BYPASS_PKT_COUNT_WLAN_BASE + BYPASS_PKT_COUNT_WLAN_TYPES * v + t;
}

// Loads the module before each test and unloads it after, checking that the
// unload leaves nothing behind (Env::Unload).
class ModuleTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;
};

}  // namespace vane::test

#endif  // VANE_TESTS_SUPPORT_MODULE_ENV_H
