// The backend's services: simple_strtol, the kernel log, the bounds-checked
// routines (a failure never writes past destMax), fault injection at every
// site, allocation accounting, and timers on the manual clock and the timer
// thread.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <climits>
#include <cstring>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "kport/bndsafe.h"
#include "kport/errno.h"
#include "kport/lib.h"
#include "kport/mem.h"
#include "kport/netlink.h"
#include "kport/percpu.h"
#include "kport/printk.h"
#include "kport/procfs.h"
#include "kport/sysfs.h"
#include "kport/timer.h"
#include "kport/uaccess.h"
#include "kport/user/testing.h"

namespace {

TEST(SimpleStrtol, ParsesLikeTheKernel) {
  struct Case {
    const char* text;
    unsigned int base;
    long value;
    size_t used;  // characters consumed, as *endp reports
  };
  const Case cases[] = {
      {"0x10", 0, 16, 4},   {"0X1f", 0, 31, 4},   {"010", 0, 8, 3}, {"19", 0, 19, 2},
      {"-5", 10, -5, 2},    {"-0x10", 0, -16, 5}, {" 5", 10, 0, 0}, {"abc", 10, 0, 0},
      {"12abc", 10, 12, 2}, {"0xff", 16, 255, 4}, {"089", 0, 0, 1}, {"-", 10, 0, 1},
      {"0xg", 0, 0, 1},  // no hex digit: octal "0"
  };
  for (const Case& c : cases) {
    char* end = nullptr;
    EXPECT_EQ(kport_simple_strtol(c.text, &end, c.base), c.value) << c.text;
    EXPECT_EQ(static_cast<size_t>(end - c.text), c.used) << c.text;
  }
}

TEST(Klog, KeepsEachLineAsFormattedWithItsLevel) {
  namespace klog = kport::user::klog;
  klog::Clear();
  kport_printk(KPORT_LOGLEVEL_ALERT, "\r\nErr: %s %d.\r\n", "code", 7);
  kport_printk(KPORT_LOGLEVEL_INFO, "plain");
  ASSERT_EQ(klog::Lines().size(), 2u);
  EXPECT_TRUE(klog::Contains(1, "\r\nErr: code 7.\r\n"));
  EXPECT_FALSE(klog::Contains(KPORT_LOGLEVEL_INFO, "\r\nErr: code 7.\r\n")) << "wrong level";
  EXPECT_FALSE(klog::Contains(KPORT_LOGLEVEL_INFO, "pla")) << "whole lines only";
  EXPECT_TRUE(klog::ContainsFragment("code 7"));
  klog::Clear();
  EXPECT_TRUE(klog::Lines().empty());
}

constexpr size_t kMax = 8;

// kMax usable bytes followed by guard bytes that no call may touch.
struct Dest {
  Dest() { std::memset(bytes, '#', sizeof(bytes)); }
  std::string usable() const { return std::string(bytes, kMax); }
  bool guard_intact() const { return std::string(bytes + kMax, 8) == std::string(8, '#'); }
  char bytes[kMax + 8];
};

const std::string kZeros(kMax, '\0');

TEST(MemcpyS, CopiesOrResetsTheDestination) {
  Dest d;
  EXPECT_EQ(memcpy_s(d.bytes, kMax, "abcdefgh", 8), BND_OK);
  EXPECT_EQ(memcpy_s(d.bytes, kMax, "xy", 0), BND_OK) << "count 0 writes nothing";
  EXPECT_EQ(d.usable(), "abcdefgh");

  EXPECT_EQ(memcpy_s(d.bytes, kMax, "123456789", 9), BND_ERANGE_AND_RESET);
  EXPECT_EQ(d.usable(), kZeros);
  std::memcpy(d.bytes, "abcdefgh", 8);
  EXPECT_EQ(memcpy_s(d.bytes, kMax, nullptr, 4), BND_EINVAL_AND_RESET);
  EXPECT_EQ(d.usable(), kZeros);
  std::memcpy(d.bytes, "abcdefgh", 8);
  EXPECT_EQ(memcpy_s(d.bytes, kMax, d.bytes + 2, 4), BND_EOVERLAP_AND_RESET);
  EXPECT_EQ(d.usable(), kZeros);
  EXPECT_TRUE(d.guard_intact());
}

TEST(MemcpyS, UnusableDestinationIsNotTouched) {
  Dest d;
  EXPECT_EQ(memcpy_s(nullptr, 8, "ab", 2), BND_EINVAL);
  // A negative length converted to size_t.
  EXPECT_EQ(memcpy_s(d.bytes, static_cast<size_t>(-1), "ab", 2), BND_EINVAL);
  EXPECT_EQ(memset_s(d.bytes, static_cast<size_t>(-1), 0, 2), BND_EINVAL);
  EXPECT_EQ(d.usable(), std::string(kMax, '#'));
}

TEST(MemsetS, FillsTheWholeDestinationOnOverflow) {
  Dest d;
  EXPECT_EQ(memset_s(d.bytes, kMax, 'a', 3), BND_OK);
  EXPECT_EQ(d.usable(), "aaa#####");
  EXPECT_EQ(memset_s(d.bytes, kMax, 'b', 100), BND_ERANGE_AND_RESET);
  EXPECT_EQ(d.usable(), std::string(kMax, 'b'));
  EXPECT_TRUE(d.guard_intact());
}

TEST(SprintfS, TruncationIsAnErrorThatLeavesEmptyString) {
  Dest d;
  EXPECT_EQ(sprintf_s(d.bytes, kMax, "%s-%d", "ab", 42), 5);
  EXPECT_STREQ(d.bytes, "ab-42");
  EXPECT_EQ(sprintf_s(d.bytes, kMax, "%s", "1234567"), 7) << "terminator fits exactly";
  EXPECT_EQ(sprintf_s(d.bytes, kMax, "%s", "12345678"), -1);
  EXPECT_STREQ(d.bytes, "");
  EXPECT_TRUE(d.guard_intact());

  std::memcpy(d.bytes, "stale", 6);
  const char* no_format = nullptr;
  EXPECT_EQ(sprintf_s(d.bytes, kMax, no_format), -1);
  EXPECT_STREQ(d.bytes, "") << "a usable destination is emptied";
  std::memcpy(d.bytes, "stale", 6);
  EXPECT_EQ(sprintf_s(d.bytes, 0, "x"), -1);
  EXPECT_STREQ(d.bytes, "stale") << "destMax 0 gives nothing to write to";
}

TEST(SnprintfS, CutsAtCountOrDestMaxAndKeepsTheText) {
  Dest d;
  EXPECT_EQ(snprintf_s(d.bytes, kMax, 3, "%s", "abcdef"), -1);
  EXPECT_STREQ(d.bytes, "abc");
  EXPECT_EQ(snprintf_s(d.bytes, kMax, 100, "%s", "abcdefghij"), -1);
  EXPECT_STREQ(d.bytes, "abcdefg");
  EXPECT_TRUE(d.guard_intact());
  EXPECT_EQ(snprintf_s(d.bytes, kMax, 6, "%d", 12345), 5);
  EXPECT_STREQ(d.bytes, "12345");
  EXPECT_EQ(snprintf_s(d.bytes, 0, 4, "x"), -1);
}

namespace fault = kport::user::fault;
using fault::Site;
using kport::user::LiveAllocations;

class FaultTest : public ::testing::Test {
 protected:
  void SetUp() override { fault::ClearAll(); }
  void TearDown() override { fault::ClearAll(); }
};

TEST_F(FaultTest, NthCallFailsOnceAndIsCounted) {
  fault::FailNth(Site::kAlloc, 3);
  std::vector<bool> failed;
  for (int i = 0; i < 4; ++i) {
    void* p = kport_kmalloc_atomic(8);
    failed.push_back(p == nullptr);
    kport_kfree(p);
  }
  EXPECT_EQ(failed, (std::vector<bool>{false, false, true, false}));
  EXPECT_EQ(fault::Calls(Site::kAlloc), 4u);
  EXPECT_EQ(fault::Injected(Site::kAlloc), 1u);

  fault::ResetCounts(Site::kAlloc);
  EXPECT_EQ(fault::Calls(Site::kAlloc), 0u);
  EXPECT_EQ(fault::Injected(Site::kAlloc), 0u);
}

// Every kind of object handed to the module is counted while it lives, and
// every kind of allocation can be failed.
TEST_F(FaultTest, AlwaysCoversEveryKindOfAllocationAndLiveObjectsAreCounted) {
  const size_t before = LiveAllocations();
  void* mem = kport_kzalloc_atomic(32);
  EXPECT_EQ(std::memcmp(mem, std::string(32, '\0').data(), 32), 0);
  sk_buff* skb = kport_alloc_skb(64);
  sock* sk = kport_netlink_kernel_create(32, nullptr);
  kport_proc_mkdir("kplive", nullptr);
  kport_class* cls = kport_class_create("kplive");
  device* dev = kport_device_create(cls, 1, "d");
  ASSERT_NE(dev, nullptr);
  EXPECT_EQ(LiveAllocations(), before + 6);

  fault::FailAlways(Site::kAlloc);
  EXPECT_EQ(kport_kmalloc_atomic(1), nullptr);
  EXPECT_EQ(kport_kzalloc_atomic(1), nullptr);
  EXPECT_EQ(kport_alloc_skb(16), nullptr);
  EXPECT_EQ(kport_netlink_kernel_create(31, nullptr), nullptr);
  EXPECT_EQ(kport_proc_mkdir("kpfault", nullptr), nullptr);
  EXPECT_EQ(kport_class_create("kpfault"), nullptr);
  EXPECT_EQ(kport_percpu_alloc(64), nullptr);
  kport_device_attr attr = {"a", 0444, nullptr, nullptr, {}};
  EXPECT_EQ(kport_device_create_file(dev, &attr), -12);
  EXPECT_EQ(fault::Injected(Site::kAlloc), 8u);
  fault::Clear(Site::kAlloc);
  EXPECT_EQ(LiveAllocations(), before + 6);

  kport_kfree(mem);
  kport_kfree_skb(skb);
  kport_netlink_kernel_release(sk);
  kport_remove_proc_entry("kplive", nullptr);
  kport_device_destroy(cls, 1);
  kport_class_destroy(cls);
  EXPECT_EQ(LiveAllocations(), before);
}

TEST_F(FaultTest, FailedCopiesReportEveryByteUncopied) {
  char src[4] = {'a', 'b', 'c', 'd'};
  char dst[4] = {'x', 'x', 'x', 'x'};
  fault::FailNth(Site::kCopyFromUser, 1);
  EXPECT_EQ(kport_copy_from_user(dst, src, 4), 4u);
  EXPECT_EQ(std::string(dst, 4), std::string(4, '\0')) << "the kernel zero-fills";
  EXPECT_EQ(kport_copy_from_user(dst, src, 4), 0u);
  EXPECT_EQ(std::string(dst, 4), "abcd");

  fault::FailAlways(Site::kCopyToUser);
  char user[4] = {'u', 'u', 'u', 'u'};
  EXPECT_EQ(kport_copy_to_user(user, src, 4), 4u);
  EXPECT_EQ(std::string(user, 4), "uuuu");
  EXPECT_EQ(fault::Calls(Site::kCopyFromUser), 2u);
  EXPECT_EQ(fault::Injected(Site::kCopyToUser), 1u);
}

namespace clk = kport::user::clock;

// A timer that records (id, jiffies) each time it fires; the timer storage
// comes first so the callback can find its owner.
struct Probe {
  kport_timer_t timer;
  int id = 0;
  int rearm_times = 0;  // re-arms itself this many times
  unsigned long rearm_delay = 0;
};

using Fired = std::vector<std::pair<int, unsigned long>>;  // (id, jiffies)
Fired g_fired;

void Record(kport_timer_t* t) {
  auto* p = reinterpret_cast<Probe*>(t);
  g_fired.emplace_back(p->id, kport_jiffies());
  if (p->rearm_times > 0) {
    --p->rearm_times;
    EXPECT_EQ(kport_timer_mod(t, kport_jiffies() + p->rearm_delay), 0)
        << "a running timer is not pending";
  }
}

class ManualClockTest : public ::testing::Test {
 protected:
  void SetUp() override {
    clk::UseManual();
    g_fired.clear();
  }
  void TearDown() override { EXPECT_EQ(clk::PendingTimers(), 0u); }

  Probe* Make(int id) {
    probes_.emplace_back(new Probe);
    Probe* p = probes_.back().get();
    p->id = id;
    kport_timer_setup(&p->timer, Record);
    return p;
  }

  std::vector<std::unique_ptr<Probe>> probes_;
};

TEST_F(ManualClockTest, FiresDueTimersInExpiryOrderAtTheirTickAcrossTheWrap) {
  const unsigned long t0 = kport_jiffies();
  kport_timer_add(&Make(1)->timer, t0 + 5);
  kport_timer_add(&Make(2)->timer, t0 + 2);
  kport_timer_add(&Make(3)->timer, t0 + 2);
  clk::Advance(1);
  EXPECT_TRUE(g_fired.empty());
  clk::Advance(9);
  EXPECT_EQ(g_fired, (Fired{{2, t0 + 2}, {3, t0 + 2}, {1, t0 + 5}}));
  EXPECT_EQ(kport_jiffies(), t0 + 10);

  g_fired.clear();
  clk::UseManual(ULONG_MAX - 1);
  kport_timer_add(&Make(4)->timer, 2);  // three ticks after the wrap
  kport_timer_add(&Make(5)->timer, ULONG_MAX);
  clk::Advance(4);
  EXPECT_EQ(g_fired, (Fired{{5, ULONG_MAX}, {4, 2}}));
}

// A callback re-arming itself fires again at its new expiry; one re-armed
// for now fires at the next tick, not in a loop.
TEST_F(ManualClockTest, CallbacksMayRearmThemselves) {
  const unsigned long t0 = kport_jiffies();
  Probe* p = Make(1);
  p->rearm_times = 2;
  p->rearm_delay = 3;
  Probe* now = Make(2);
  now->rearm_times = 100;
  kport_timer_add(&p->timer, t0 + 1);
  kport_timer_add(&now->timer, t0 + 1);
  clk::Advance(7);
  Fired mine, nows;
  for (auto [id, at] : g_fired) (id == 1 ? mine : nows).emplace_back(id, at);
  EXPECT_EQ(mine, (Fired{{1, t0 + 1}, {1, t0 + 4}, {1, t0 + 7}}));
  EXPECT_EQ(nows.size(), 7u);
  EXPECT_EQ(nows.back(), (std::pair<int, unsigned long>{2, t0 + 7}));
  EXPECT_EQ(kport_timer_del_sync(&now->timer), 1);
}

TEST_F(ManualClockTest, ModAndDeleteReportWhetherPending) {
  Probe* p = Make(1);
  const unsigned long t0 = kport_jiffies();
  EXPECT_EQ(kport_timer_mod(&p->timer, t0 + 5), 0);
  EXPECT_EQ(kport_timer_mod(&p->timer, t0 + 2), 1);
  EXPECT_TRUE(kport_timer_pending(&p->timer));
  EXPECT_EQ(clk::PendingTimers(), 1u);
  clk::Advance(2);
  ASSERT_EQ(g_fired.size(), 1u) << "the later expiry replaced the earlier";
  EXPECT_FALSE(kport_timer_pending(&p->timer));

  kport_timer_add(&p->timer, t0 + 10);
  EXPECT_EQ(kport_timer_del_sync(&p->timer), 1);
  EXPECT_EQ(kport_timer_del_sync(&p->timer), 0);
  clk::Advance(20);
  EXPECT_EQ(g_fired.size(), 1u);
}

// del_timer_sync() on a running timer: waits for the callback, and deletes
// what the callback re-armed.
struct Blocking {
  kport_timer_t timer;
  std::atomic<bool> entered{false};
  std::atomic<bool> release{false};
  std::atomic<bool> finished{false};
};

void BlockingFire(kport_timer_t* t) {
  auto* b = reinterpret_cast<Blocking*>(t);
  b->entered = true;
  while (!b->release) std::this_thread::yield();
  for (int i = 0; i < 1000; ++i) std::this_thread::yield();
  kport_timer_mod(t, kport_jiffies() + 1);
  b->finished = true;
}

TEST_F(ManualClockTest, DelSyncWaitsForTheRunningCallback) {
  Blocking b;
  kport_timer_setup(&b.timer, BlockingFire);
  kport_timer_add(&b.timer, kport_jiffies() + 1);
  std::thread advancer([] { clk::Advance(1); });
  while (!b.entered) std::this_thread::yield();
  b.release = true;
  EXPECT_EQ(kport_timer_del_sync(&b.timer), 1) << "re-armed by the callback";
  EXPECT_TRUE(b.finished);
  EXPECT_FALSE(kport_timer_pending(&b.timer));
  advancer.join();
}

struct Flag {
  kport_timer_t timer;
  std::atomic<bool> fired{false};
};

TEST(TimerThread, DueTimersFireOnTheirOwn) {
  clk::UseTimerThread();
  EXPECT_FALSE(clk::IsManual());
  EXPECT_EQ(kport_hz(), 250u);
  Flag f;
  kport_timer_setup(&f.timer, [](kport_timer_t* t) { reinterpret_cast<Flag*>(t)->fired = true; });
  kport_timer_add(&f.timer, kport_jiffies() + 2);
  // The deadline only bounds a machine that never runs the timer thread.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (!f.fired && std::chrono::steady_clock::now() < deadline) std::this_thread::yield();
  EXPECT_TRUE(f.fired);
  kport_timer_del_sync(&f.timer);
  clk::UseManual();
}

}  // namespace
