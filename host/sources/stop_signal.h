// The stop request of one source: set from any thread (a signal handler's
// thread included), polled by the source's Run loop, and able to cut short a
// pacing sleep so that Stop is honoured at once, not after the next packet.
#ifndef VANE_HOST_SOURCES_STOP_SIGNAL_H
#define VANE_HOST_SOURCES_STOP_SIGNAL_H

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>

namespace vane::host {

class StopSignal {
 public:
  // Notifies under the lock: the sleeper cannot return (and its owner
  // destroy this) before the notification is done with the condition.
  void Raise() {
    std::lock_guard<std::mutex> lock(mu_);
    stopped_.store(true, std::memory_order_release);
    cv_.notify_all();
  }
  bool Raised() const { return stopped_.load(std::memory_order_acquire); }
  // Sleeps until `deadline` or until Raise(); true when raised.
  bool SleepUntil(std::chrono::steady_clock::time_point deadline) {
    std::unique_lock<std::mutex> lock(mu_);
    return cv_.wait_until(lock, deadline, [this] { return Raised(); });
  }

 private:
  std::atomic<bool> stopped_{false};
  std::mutex mu_;
  std::condition_variable cv_;
};

}  // namespace vane::host

#endif  // VANE_HOST_SOURCES_STOP_SIGNAL_H
