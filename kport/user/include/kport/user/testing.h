// Controls of the user-space kport backend for tests and benchmarks:
// in-memory netlink user sockets, the rest of the proc/sysfs registry, the
// clock, fault injection and the captured kernel log, on top of what a host
// process uses (host.h).
//
// Everything here is thread-safe unless stated otherwise.
#ifndef KPORT_USER_TESTING_H
#define KPORT_USER_TESTING_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kport/user/host.h"

namespace kport::user {

// ---------------------------------------------------------------------------
// Netlink user sockets.
//
// A user socket is bound to (protocol, port id) and carries the process id
// that the kernel side sees in the credentials of what it sends. Messages
// unicast to it wait in a bounded queue.
class UserSocket {
 public:
  static constexpr size_t kDefaultQueueLimit = 256;

  // Binds a socket. Fails (nullptr) when (protocol, portid) is taken, or when
  // no kernel socket of that protocol exists (as socket(2) fails with
  // EPROTONOSUPPORT once the module is gone), unless `require_kernel` is
  // false.
  static std::unique_ptr<UserSocket> Open(int protocol, uint32_t portid, uint32_t pid,
                                          size_t queue_limit = kDefaultQueueLimit,
                                          bool require_kernel = true);
  ~UserSocket();
  UserSocket(const UserSocket&) = delete;
  UserSocket& operator=(const UserSocket&) = delete;

  // sendmsg() to the kernel socket of the protocol: the bytes (one or more
  // netlink messages) are handed to its input callback synchronously, in the
  // calling thread, with this socket's port id and pid. Returns the byte
  // count, or -ECONNREFUSED (-111) when no kernel socket exists.
  int Send(const void* data, size_t len);
  int Send(const std::vector<uint8_t>& bytes) { return Send(bytes.data(), bytes.size()); }

  // Next queued message (one netlink message as the kernel queued it).
  std::optional<std::vector<uint8_t>> Receive();
  size_t Pending() const;

  int protocol() const;
  uint32_t portid() const;
  uint32_t pid() const;

 private:
  struct State;
  explicit UserSocket(std::shared_ptr<State> state);
  std::shared_ptr<State> state_;
};

// Whether a kernel socket of the protocol exists.
bool KernelSocketExists(int protocol);
// Number of kernel sockets alive.
size_t KernelSocketCount();

// A decoded NLMSG_ERROR acknowledgement.
struct Ack {
  uint16_t flags = 0;
  uint32_t seq = 0;
  uint32_t portid = 0;  // nlmsg_pid of the acknowledgement (the receiver)
  int32_t error = 0;
  uint16_t orig_type = 0;  // header of the acknowledged message
  uint32_t orig_len = 0;
};
// Decodes `msg` as an acknowledgement; nullopt when it is not one.
std::optional<Ack> DecodeAck(const std::vector<uint8_t>& msg);

// ---------------------------------------------------------------------------
// The rest of the procfs and sysfs registry (host.h has the file accesses).
namespace vfs {

// Mode bits of a file (0 if absent).
uint16_t Mode(std::string_view path);
// All registered paths, directories included, sorted.
std::vector<std::string> List();
// The registered files alone (proc files and sysfs attributes), sorted: what
// a reader or writer can open. Mode() holds only permission bits, so it
// cannot tell them from directories.
std::vector<std::string> Files();

// Opens, reads in `chunk`-byte reads from position 0 until a read returns 0
// or an error, and returns all bytes read.
std::vector<uint8_t> ProcReadAll(std::string_view path, size_t chunk = 4096);
// Writes all bytes with one write at position 0; returns the result.
long ProcWriteAll(std::string_view path, const std::vector<uint8_t>& bytes);

}  // namespace vfs

// ---------------------------------------------------------------------------
// Clock. The default is the timer thread: jiffies follow the steady clock at
// Hz() ticks per second and due timers fire on a thread of their own. A test
// may switch to the manual clock, under which jiffies move only by Advance()
// and due timers fire in the advancing thread, in expiry order.
namespace clock {

void SetHz(unsigned long hz);  // only while no timer is pending (else aborts)
unsigned long Hz();
// Switches to the manual clock at the given tick count (default: the
// kernel's INITIAL_JIFFIES, five minutes before the counter wraps). Once it
// returns the timer thread fires nothing more. Pending timers stay pending.
void UseManual(unsigned long start = static_cast<unsigned long>(-300L * 250));
// Back to the timer thread; jiffies go on from the manual clock's count.
void UseTimerThread();
bool IsManual();
// Manual clock only: moves jiffies forward one tick at a time, firing every
// timer whose expiry is reached. Within a tick timers fire in expiry order,
// ties in the order they were armed; a timer armed during a tick with an
// expiry already reached fires at the next tick (as in the kernel). Must not
// be called from a timer callback.
void Advance(unsigned long ticks);
// Number of timers currently pending.
size_t PendingTimers();

// Wall clock returned by kport_ktime_get_real_ts64: real time unless fixed.
void FixWallClock(int64_t sec, long nsec);
void UseRealWallClock();

}  // namespace clock

// ---------------------------------------------------------------------------
// Fault injection, like the kernel's fault-injection framework. Only the test
// build of the backend (kport_user_testing) has fault sites and defines these
// controls; the product backend's allocations and copies never fail on
// demand.
namespace fault {

enum class Site {
  kAlloc,         // every allocation: kmalloc/kzalloc, socket buffers, kernel
                  // sockets, proc/sysfs entries
  kCopyFromUser,  // kport_copy_from_user
  kCopyToUser,    // kport_copy_to_user
};

// The nth call from now (1 = the next one) fails; later calls succeed.
void FailNth(Site site, unsigned n);
// Every call from now on fails, until Clear().
void FailAlways(Site site);
void Clear(Site site);
void ClearAll();
// Zeroes the site's counters; an armed failure stays armed.
void ResetCounts(Site site);
// Calls made at the site since the last Clear/ClearAll/ResetCounts.
unsigned long Calls(Site site);
// Failures injected at the site since then.
unsigned long Injected(Site site);

}  // namespace fault

// ---------------------------------------------------------------------------
// Kernel log: every kport_printk line, at its level, with its text exactly as
// formatted (a trailing newline, if any, included). Like the kernel's ring
// buffer it keeps the latest 65536 lines. Setting KPORT_KLOG_STDERR in the
// environment also prints each line to stderr.
namespace klog {

struct Line {
  int level;
  std::string text;
};
std::vector<Line> Lines();
void Clear();
// Whether some line at `level` equals `text` exactly.
bool Contains(int level, std::string_view text);
// Whether some line contains `fragment`.
bool ContainsFragment(std::string_view fragment);

}  // namespace klog

}  // namespace kport::user

#endif  // KPORT_USER_TESTING_H
