// Services shared by the pieces of the user-space backend: allocation
// accounting, fault injection and fatal contract violations.
#ifndef KPORT_USER_INTERNAL_H
#define KPORT_USER_INTERNAL_H

#include <cstddef>

#include "kport/compiler.h"
#include "kport/user/testing.h"

namespace kport::user::internal {

// Accounting behind LiveAllocations(): every object handed to the module
// (memory, socket buffers, sockets, entries) is counted while it lives.
void CountAlloc();
void CountFree();

#ifdef KPORT_USER_FAULT_INJECTION
// Whether the current call at `site` is to fail; counts the call.
bool ShouldFail(fault::Site site);
#else
// The product backend has no fault sites: every check folds away.
constexpr bool ShouldFail(fault::Site) { return false; }
#endif

// A broken contract that the kernel would answer with a BUG, a deadlock or
// memory corruption: print why and abort, so the test stops where it broke.
[[noreturn]] void Fatal(const char* fmt, ...) KPORT_PRINTF(1, 2);

}  // namespace kport::user::internal

#endif  // KPORT_USER_INTERNAL_H
