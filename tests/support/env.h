// Where a scenario runs: the module as its users reach it, behind one
// interface with two implementations.
//
//  - user (env_user.cc): the core linked into the test, on the user-space
//    backend; loads are vane_entry_init/vane_entry_exit, sockets are the
//    backend's in-memory netlink sockets, files its proc/sysfs registry.
//  - kernel (tests/qemu/env_kernel.cc): drv_vane.ko in a real kernel; loads
//    are insmod/rmmod of drv_vane.ko and vane_drvsim.ko, sockets real netlink
//    sockets, files the real /proc and /sys, packets and capture events go
//    through the driver stand-in /proc/vane_drvsim.
//
// A scenario written against Env and the helpers of module_env.h runs
// unchanged on both. What only the user backend can do (a clock the test
// moves, failures injected on demand) is a Power: a scenario that needs one
// says so with VANE_REQUIRE(power) and is reported as skipped elsewhere.
#ifndef VANE_TESTS_SUPPORT_ENV_H
#define VANE_TESTS_SUPPORT_ENV_H

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace vane::test {

using Bytes = std::vector<uint8_t>;

enum class Power {
  kManualClock,     // jiffies move only when the test says
  kFaultInjection,  // allocations and user copies fail on demand
  kCountedQueues,   // receive queues bounded by a message count the test sets
};
const char* PowerName(Power p);

enum class FaultSite { kAlloc, kCopyFromUser, kCopyToUser };

// One netlink socket of a peer on one channel (protocol 26 or 27).
class Port {
 public:
  virtual ~Port() = default;
  // sendmsg() of one buffer (one or more netlink messages) to the module,
  // with the peer's credentials. The byte count, or -errno.
  virtual int Send(const Bytes& bytes) = 0;
  // The next queued message, without waiting: nullopt when none is queued.
  // A receive queue that overflowed reports it once, before the messages
  // still queued, as an empty message with `*overrun` set (ENOBUFS on the
  // kernel); `overrun` may be null.
  virtual std::optional<Bytes> Receive(bool* overrun = nullptr) = 0;
  virtual uint32_t portid() const = 0;
};

// A user process as the module sees it: a process id (the credentials of
// what it sends) and the sockets it opens.
class Peer {
 public:
  virtual ~Peer() = default;
  virtual uint32_t pid() const = 0;
  // Binds a socket on `protocol` with port id `portid` (0: the pid, as a
  // process's first netlink socket gets). `queue_limit` (messages) needs
  // Power::kCountedQueues; 0 keeps the platform's default. Null when the
  // bind fails (port id taken, or the module is not loaded).
  virtual std::unique_ptr<Port> Open(int protocol, uint32_t portid = 0, size_t queue_limit = 0) = 0;
};

// The last call of the handler that the driver stand-in registers for
// control message 3.
struct HandlerCalls {
  uint32_t calls = 0;
  uint32_t len = 0;  // the payload-length field it was handed
  Bytes data;        // its first min(len, 16) payload bytes
};

// One line of the kernel log: its level and its text, with one trailing
// newline taken off (the kernel keeps a record without it).
struct LogLine {
  int level;
  std::string text;
};

class Env {
 public:
  virtual ~Env() = default;

  // The environment of this test program.
  static Env& Get();

  // "user", or the kernel's target: "x86_64", "arm64", "kasan", "kcsan".
  virtual std::string Name() const = 0;
  virtual bool Has(Power p) const = 0;

  // Loads the module into its load-time state; 0 or the start-up's -errno.
  // A failed start-up must leave nothing behind, checked as by Unload.
  // Faults armed before the call (FailNth) apply to the start-up.
  virtual int Load() = 0;
  // Unloads it and checks that nothing is left behind (sockets, files,
  // allocations); a residue fails the running test.
  virtual void Unload() = 0;

  // A new process id for a worker or a tool.
  virtual std::unique_ptr<Peer> NewPeer() = 0;

  // The switch driver's calls: netlink_send_msg (fast: netlink_fastsend_msg)
  // with a message type and a buffer; the function's result.
  virtual int Deliver(uint32_t type, const Bytes& buf, bool fast = false) = 0;
  // The driver's capture calls, with their arguments in their order:
  // bypass_IsNeedCatchPkt (its result; *mark what it wrote, 0 when it
  // answered 0) and bypass_TS_RecvPktEvent (an empty frame passes none).
  virtual uint32_t CatchPkt(const Bytes& packet, uint16_t event, uint8_t* mark,
                            uint16_t mac_offset) = 0;
  virtual void TsRecvEvent(uint8_t event, const Bytes& frame, uint16_t value, uint8_t mark,
                           uint16_t slot) = 0;
  // The stand-in's handler for control message 3.
  virtual HandlerCalls Handler() = 0;

  // Files under /proc and /sys. A read opens the file and reads `chunk`
  // bytes at a time until a read returns 0 or fails; the bytes read, or
  // nullopt when the file cannot be opened or a read fails (*error: -errno).
  virtual std::optional<Bytes> Read(const std::string& path, size_t chunk = 4096,
                                    long* error = nullptr) = 0;
  // One read(2) of `count` bytes at `pos`: the bytes, or -errno in *error.
  virtual std::optional<Bytes> ReadAt(const std::string& path, int64_t pos, size_t count,
                                      long* error = nullptr) = 0;
  // One write(2) of all bytes at position 0: the result (count or -errno).
  virtual long Write(const std::string& path, const Bytes& bytes) = 0;
  virtual bool Exists(const std::string& path) = 0;
  // Permission bits (0 when absent).
  virtual uint32_t Mode(const std::string& path) = 0;

  // The kernel log since the last load (or ClearLog).
  virtual std::vector<LogLine> Log() = 0;
  virtual void ClearLog() = 0;

  // ---- Powers; call only where Has() says so ----
  virtual void FailNth(FaultSite site, unsigned n) = 0;
  virtual void FailAlways(FaultSite site) = 0;
  virtual void ClearFaults() = 0;
  virtual void UseManualClock() = 0;  // undone by Unload
  virtual void AdvanceClock(unsigned long ticks) = 0;
  virtual unsigned long Hz() const = 0;
};

}  // namespace vane::test

// Skips the running scenario where the environment lacks `power`.
#define VANE_REQUIRE(power)                                                   \
  do {                                                                        \
    if (!::vane::test::Env::Get().Has(power)) {                               \
      GTEST_SKIP() << "needs " << ::vane::test::PowerName(power) << " (only " \
                   << "the user backend has it)";                             \
    }                                                                         \
  } while (0)

#endif  // VANE_TESTS_SUPPORT_ENV_H
