// Timers under the manual clock (ordering, re-arming, deletion) and under
// the timer thread (they fire on their own).
#include "kport/timer.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <climits>
#include <thread>
#include <utility>
#include <vector>

#include "kport/user/testing.h"

namespace {

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
