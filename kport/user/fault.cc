// Fault injection, in the test build of the backend only: each site fails on
// demand, once (the nth call from now) or until cleared, and counts its calls
// and its injected failures.
#include <mutex>

#include "internal.h"

#ifndef KPORT_USER_FAULT_INJECTION
#error "fault.cc belongs to the test build of the backend (KPORT_USER_FAULT_INJECTION)"
#endif

namespace kport::user {
namespace {

enum class Mode { kOff, kNth, kAlways };

struct SiteState {
  std::mutex mu;
  Mode mode = Mode::kOff;
  unsigned countdown = 0;  // kNth: calls left until the failing one
  unsigned long calls = 0;
  unsigned long injected = 0;
};

constexpr int kSites = 3;

SiteState& StateOf(fault::Site site) {
  // Never destroyed: allocations may still be made while the process exits.
  static SiteState* states = new SiteState[kSites];
  const int i = static_cast<int>(site);
  if (i < 0 || i >= kSites) internal::Fatal("fault: unknown site %d", i);
  return states[i];
}

}  // namespace

namespace internal {

bool ShouldFail(fault::Site site) {
  SiteState& s = StateOf(site);
  std::lock_guard lock(s.mu);
  ++s.calls;
  bool fail = false;
  if (s.mode == Mode::kAlways) {
    fail = true;
  } else if (s.mode == Mode::kNth && --s.countdown == 0) {
    fail = true;
    s.mode = Mode::kOff;
  }
  if (fail) ++s.injected;
  return fail;
}

}  // namespace internal

namespace fault {

void FailNth(Site site, unsigned n) {
  SiteState& s = StateOf(site);
  std::lock_guard lock(s.mu);
  // n = 0 names no call; treat it as disarming rather than failing forever.
  s.mode = n == 0 ? Mode::kOff : Mode::kNth;
  s.countdown = n;
}

void FailAlways(Site site) {
  SiteState& s = StateOf(site);
  std::lock_guard lock(s.mu);
  s.mode = Mode::kAlways;
}

void Clear(Site site) {
  SiteState& s = StateOf(site);
  std::lock_guard lock(s.mu);
  s.mode = Mode::kOff;
  s.countdown = 0;
  s.calls = 0;
  s.injected = 0;
}

void ClearAll() {
  for (Site site : {Site::kAlloc, Site::kCopyFromUser, Site::kCopyToUser}) Clear(site);
}

void ResetCounts(Site site) {
  SiteState& s = StateOf(site);
  std::lock_guard lock(s.mu);
  s.calls = 0;
  s.injected = 0;
}

unsigned long Calls(Site site) {
  SiteState& s = StateOf(site);
  std::lock_guard lock(s.mu);
  return s.calls;
}

unsigned long Injected(Site site) {
  SiteState& s = StateOf(site);
  std::lock_guard lock(s.mu);
  return s.injected;
}

}  // namespace fault
}  // namespace kport::user
