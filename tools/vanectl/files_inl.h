// Guarded() of files.h.
#ifndef VANE_TOOLS_VANECTL_FILES_INL_H
#define VANE_TOOLS_VANECTL_FILES_INL_H

#include <fmt/format.h>

#include <cstdio>
#include <exception>

namespace vanectl {

template <typename F>
void Guarded(int& status, F&& body) {
  try {
    status = body();
  } catch (const std::exception& e) {
    fmt::print(stderr, "vanectl: {}\n", e.what());
    status = 1;
  }
}

}  // namespace vanectl

#endif  // VANE_TOOLS_VANECTL_FILES_INL_H
