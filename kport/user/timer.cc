// Kernel timers and jiffies, under one of two clocks:
//  - the timer thread (default): jiffies follow the steady clock and due
//    timers fire on a thread of the backend's;
//  - the manual clock: jiffies move only by clock::Advance(), which fires due
//    timers in the advancing thread.
//
// Both process time the way the kernel's timer softirq does, tick by tick:
// at each tick the timers due by then are collected and fired in expiry
// order (ties in the order they were armed). A timer armed while a tick is
// being processed, even with an expiry already reached, fires at the next
// tick, so a callback that re-arms itself "now" cannot spin forever.
//
// One thread fires at a time, so a callback never runs concurrently with
// itself or with another. Callbacks run without the backend's mutex held:
// they may arm, modify and delete timers (except del_sync of themselves).
#include <chrono>
#include <climits>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <new>
#include <optional>
#include <thread>

#include "internal.h"
#include "kport/timer.h"

namespace kport::user {
namespace {

using SteadyClock = std::chrono::steady_clock;

struct TimerImpl {
  kport_timer_fn fn = nullptr;
  unsigned long expires = 0;
  uint64_t seq = 0;    // arm order, to break ties between equal expiries
  uint64_t batch = 0;  // the tick batch that collected it, 0 when none
  TimerImpl* prev = nullptr;
  TimerImpl* next = nullptr;
  bool pending = false;
};
static_assert(sizeof(TimerImpl) <= KPORT_TIMER_SIZE, "timer storage too small");
static_assert(alignof(TimerImpl) <= 8, "timer storage underaligned");

TimerImpl* Impl(kport_timer_t* timer) { return reinterpret_cast<TimerImpl*>(timer->opaque); }
const TimerImpl* Impl(const kport_timer_t* timer) {
  return reinterpret_cast<const TimerImpl*>(timer->opaque);
}

// Signed distance from `now` to `t`: negative when `t` is in the past.
long Delta(unsigned long t, unsigned long now) { return static_cast<long>(t - now); }

constexpr unsigned long kDefaultHz = 250;

// The timer whose callback this thread is running, if any.
thread_local const TimerImpl* t_in_callback = nullptr;

class Timers {
 public:
  Timers() : anchor_time_(SteadyClock::now()) {
    anchor_jiffies_ = static_cast<unsigned long>(-300L * static_cast<long>(hz_));
    clk_ = anchor_jiffies_;
  }

  void Setup(TimerImpl* t, kport_timer_fn fn) {
    std::lock_guard lock(mu_);
    // Looks only at the list: the timer's own storage may be uninitialised.
    for (TimerImpl* p = first_; p != nullptr; p = p->next) {
      if (p == t) internal::Fatal("timer_setup on a pending timer");
    }
    new (t) TimerImpl;
    t->fn = fn;
  }

  void Add(TimerImpl* t, unsigned long expires) {
    std::lock_guard lock(mu_);
    if (t->pending) internal::Fatal("add_timer on a pending timer");
    Arm(t, expires);
  }

  int Mod(TimerImpl* t, unsigned long expires) {
    std::lock_guard lock(mu_);
    if (t->pending && t->expires == expires) return 1;
    const bool was_pending = t->pending;
    if (was_pending) Detach(t);
    Arm(t, expires);
    return was_pending;
  }

  int DelSync(TimerImpl* t) {
    if (t_in_callback == t) internal::Fatal("del_timer_sync from the timer's own callback");
    std::unique_lock lock(mu_);
    // Like the kernel, detach only once the callback is not running: what it
    // re-armed is then deleted too.
    finished_.wait(lock, [&] { return running_ != t; });
    const bool was_pending = t->pending;
    if (was_pending) Detach(t);
    return was_pending;
  }

  int Pending(const TimerImpl* t) {
    std::lock_guard lock(mu_);
    return t->pending;
  }

  unsigned long Jiffies() {
    std::lock_guard lock(mu_);
    return manual_ ? manual_jiffies_ : RealJiffies();
  }

  unsigned long Hz() {
    std::lock_guard lock(mu_);
    return hz_;
  }

  void SetHz(unsigned long hz) {
    std::lock_guard lock(mu_);
    if (hz == 0) internal::Fatal("clock::SetHz(0)");
    if (pending_count_ != 0)
      internal::Fatal("clock::SetHz with %zu timers pending", pending_count_);
    if (!manual_) Reanchor(RealJiffies());
    hz_ = hz;
    wake_.notify_all();
  }

  void UseManual(unsigned long start) {
    if (t_in_callback != nullptr) internal::Fatal("clock::UseManual from a timer callback");
    // Once this returns the timer thread fires nothing more.
    std::lock_guard fire(fire_mu_);
    std::lock_guard lock(mu_);
    manual_ = true;
    manual_jiffies_ = start;
    wake_.notify_all();
  }

  void UseTimerThread() {
    std::lock_guard lock(mu_);
    if (!manual_) return;
    // Time goes on from where the manual clock stopped.
    Reanchor(manual_jiffies_);
    manual_ = false;
    StartThread();
    wake_.notify_all();
  }

  bool IsManual() {
    std::lock_guard lock(mu_);
    return manual_;
  }

  size_t PendingCount() {
    std::lock_guard lock(mu_);
    return pending_count_;
  }

  void Advance(unsigned long ticks) {
    if (t_in_callback != nullptr) internal::Fatal("clock::Advance from a timer callback");
    std::lock_guard fire(fire_mu_);
    std::unique_lock lock(mu_);
    if (!manual_) internal::Fatal("clock::Advance needs the manual clock");
    while (ticks > 0 && manual_) {
      const unsigned long step = StepFrom(manual_jiffies_, ticks);
      manual_jiffies_ += step;
      ticks -= step;
      FireDue(lock, manual_jiffies_);
    }
  }

 private:
  using Lock = std::unique_lock<std::mutex>;

  // --- Guarded by mu_. ---

  void Arm(TimerImpl* t, unsigned long expires) {
    t->expires = expires;
    t->seq = ++next_seq_;
    t->batch = 0;
    t->pending = true;
    t->prev = nullptr;
    t->next = first_;
    if (first_ != nullptr) first_->prev = t;
    first_ = t;
    if (pending_count_++ == 0 && !manual_ && Delta(RealJiffies(), clk_) > 0) {
      // Nothing was pending, so no tick in between has work: the idle timer
      // thread's clock catches up, and the new timer fires at the next tick
      // as it would in the kernel.
      clk_ = RealJiffies();
    }
    if (!manual_) {
      StartThread();
      // Wake the thread only when it would otherwise sleep past this expiry.
      if (!planned_ || Delta(expires, *planned_) < 0) wake_.notify_all();
    }
  }

  void Detach(TimerImpl* t) {
    if (t->prev != nullptr) t->prev->next = t->next;
    if (t->next != nullptr) t->next->prev = t->prev;
    if (first_ == t) first_ = t->next;
    t->prev = t->next = nullptr;
    t->pending = false;
    --pending_count_;
  }

  // How far to move from tick `now`, at most `limit`: straight to the next
  // expiry, since nothing happens on the ticks in between.
  unsigned long StepFrom(unsigned long now, unsigned long limit) const {
    unsigned long step = limit;
    for (const TimerImpl* t = first_; t != nullptr; t = t->next) {
      const long d = Delta(t->expires, now);
      const unsigned long s = d <= 0 ? 1 : static_cast<unsigned long>(d);
      if (s < step) step = s;
    }
    return step;
  }

  // Processes tick `tick`; fire_mu_ is held. Callbacks run unlocked.
  void FireDue(Lock& lock, unsigned long tick) {
    const uint64_t batch = ++next_batch_;
    for (TimerImpl* t = first_; t != nullptr; t = t->next) {
      if (Delta(t->expires, tick) <= 0) t->batch = batch;
    }
    for (;;) {
      TimerImpl* next = nullptr;
      for (TimerImpl* t = first_; t != nullptr; t = t->next) {
        if (t->batch != batch) continue;
        if (next == nullptr || Delta(t->expires, next->expires) < 0 ||
            (t->expires == next->expires && t->seq < next->seq)) {
          next = t;
        }
      }
      if (next == nullptr) return;
      Detach(next);
      next->batch = 0;
      running_ = next;
      const kport_timer_fn fn = next->fn;
      lock.unlock();
      t_in_callback = next;
      fn(reinterpret_cast<kport_timer_t*>(next));
      t_in_callback = nullptr;
      lock.lock();
      running_ = nullptr;
      finished_.notify_all();
    }
  }

  unsigned long RealJiffies() const {
    const auto ns =
        std::chrono::duration_cast<std::chrono::nanoseconds>(SteadyClock::now() - anchor_time_)
            .count();
    const auto ticks = static_cast<unsigned __int128>(ns) * hz_ / 1000000000u;
    return anchor_jiffies_ + static_cast<unsigned long>(ticks);
  }

  SteadyClock::time_point TimeOfTick(unsigned long tick) const {
    const unsigned long ticks = tick - anchor_jiffies_;
    const auto ns = (static_cast<unsigned __int128>(ticks) * 1000000000u + hz_ - 1) / hz_;
    return anchor_time_ + std::chrono::nanoseconds(static_cast<int64_t>(ns));
  }

  void Reanchor(unsigned long jiffies) {
    anchor_jiffies_ = jiffies;
    anchor_time_ = SteadyClock::now();
    clk_ = jiffies;
  }

  void StartThread() {
    if (thread_started_) return;
    thread_started_ = true;
    std::thread([this] { ThreadMain(); }).detach();
  }

  // --- The timer thread. ---

  void ThreadMain() {
    for (;;) {
      Lock lock(mu_);
      WaitForDueTick(lock);
      lock.unlock();
      std::lock_guard fire(fire_mu_);
      lock.lock();
      // clk_ is the last tick processed; catch up with the real one.
      while (!manual_) {
        const unsigned long now = RealJiffies();
        if (Delta(now, clk_) <= 0) break;
        clk_ += StepFrom(clk_, now - clk_);
        FireDue(lock, clk_);
      }
    }
  }

  void WaitForDueTick(Lock& lock) {
    for (;;) {
      planned_.reset();
      if (manual_ || first_ == nullptr) {
        wake_.wait(lock);
        continue;
      }
      const unsigned long due = clk_ + StepFrom(clk_, static_cast<unsigned long>(LONG_MAX));
      if (Delta(RealJiffies(), due) >= 0) return;
      planned_ = due;
      wake_.wait_until(lock, TimeOfTick(due));
    }
  }

  std::mutex fire_mu_;  // held by whoever fires timers; taken before mu_
  std::mutex mu_;
  std::condition_variable wake_;      // for the timer thread
  std::condition_variable finished_;  // a callback returned

  TimerImpl* first_ = nullptr;
  size_t pending_count_ = 0;
  uint64_t next_seq_ = 0;
  uint64_t next_batch_ = 0;
  const TimerImpl* running_ = nullptr;
  unsigned long hz_ = kDefaultHz;
  bool manual_ = false;
  unsigned long manual_jiffies_ = 0;
  unsigned long anchor_jiffies_ = 0;  // timer thread: jiffies at anchor_time_
  SteadyClock::time_point anchor_time_;
  unsigned long clk_ = 0;                 // timer thread: last tick processed
  std::optional<unsigned long> planned_;  // tick the timer thread sleeps until
  bool thread_started_ = false;
};

Timers& TheTimers() {
  // Never destroyed: the timer thread outlives static destruction.
  static Timers* timers = new Timers;
  return *timers;
}

}  // namespace

namespace clock {

void SetHz(unsigned long hz) { TheTimers().SetHz(hz); }
unsigned long Hz() { return TheTimers().Hz(); }
void UseManual(unsigned long start) { TheTimers().UseManual(start); }
void UseTimerThread() { TheTimers().UseTimerThread(); }
bool IsManual() { return TheTimers().IsManual(); }
void Advance(unsigned long ticks) { TheTimers().Advance(ticks); }
size_t PendingTimers() { return TheTimers().PendingCount(); }

}  // namespace clock
}  // namespace kport::user

using kport::user::Impl;
using kport::user::TheTimers;

extern "C" {

void kport_timer_setup(kport_timer_t* timer, kport_timer_fn fn) {
  TheTimers().Setup(Impl(timer), fn);
}

void kport_timer_add(kport_timer_t* timer, unsigned long expires) {
  TheTimers().Add(Impl(timer), expires);
}

int kport_timer_mod(kport_timer_t* timer, unsigned long expires) {
  return TheTimers().Mod(Impl(timer), expires);
}

int kport_timer_del_sync(kport_timer_t* timer) { return TheTimers().DelSync(Impl(timer)); }

int kport_timer_pending(const kport_timer_t* timer) { return TheTimers().Pending(Impl(timer)); }

unsigned long kport_jiffies(void) { return TheTimers().Jiffies(); }

unsigned long kport_hz(void) { return TheTimers().Hz(); }

}  // extern "C"
