// The scenario environment over the real module (env_kernel.cc): what the
// guest program's main sets before the scenarios run.
#ifndef VANE_TESTS_QEMU_ENV_KERNEL_H
#define VANE_TESTS_QEMU_ENV_KERNEL_H

#include <string>

namespace vane::test {

// The kernel the scenarios run on ("x86_64", "arm64", "kasan", "kcsan"), as
// Env::Name() reports it. Without a call, the word vane.target= of the
// kernel command line names it.
void SetKernelTarget(const std::string& target);

}  // namespace vane::test

#endif  // VANE_TESTS_QEMU_ENV_KERNEL_H
