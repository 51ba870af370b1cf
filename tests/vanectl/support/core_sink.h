// Carries what apply sends into the dispatcher core running in this process:
// a dry-run endpoint whose callback hands each control message to the core
// through an in-memory netlink socket and checks the acknowledgement, as the
// netlink and vaned transports would.
//
// Threads: one thread at a time, like the control handle that drives it.
#ifndef VANE_TESTS_VANECTL_SUPPORT_CORE_SINK_H
#define VANE_TESTS_VANECTL_SUPPORT_CORE_SINK_H

#include <cstddef>
#include <cstdint>
#include <memory>

#include "kport/user/testing.h"
#include "vane/vane.h"

namespace vanectl::test {

class CoreSink {
 public:
  // Opens the sender's sockets on both channels; the core must be loaded.
  explicit CoreSink(uint32_t pid);

  // A dry-run endpoint that delivers into the core; valid while this lives.
  vane_endpoint Endpoint();

  bool ok() const { return normal_ != nullptr && fast_ != nullptr; }
  size_t messages() const { return messages_; }
  // Messages acknowledged with an error, or not acknowledged at all.
  size_t failures() const { return failures_; }
  int first_error() const { return first_error_; }

 private:
  static void Deliver(void* arg, int channel, const uint8_t* msg, size_t len);

  std::unique_ptr<kport::user::UserSocket> normal_;
  std::unique_ptr<kport::user::UserSocket> fast_;
  size_t messages_ = 0;
  size_t failures_ = 0;
  int first_error_ = 0;
};

}  // namespace vanectl::test

#endif  // VANE_TESTS_VANECTL_SUPPORT_CORE_SINK_H
