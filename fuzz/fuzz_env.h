// What every fuzz target shares: a freshly loaded module per input, with
// workers registered on both channels, and a reader of the inputs' simple
// record format.
//
// Each input runs against a module loaded for it alone and unloaded after
// it, so a finding reproduces from its input by itself. The unload must give
// back every allocation, registration and timer; a leak aborts, which
// libFuzzer reports as a crash of that input. The clock is manual and
// starts at the same instant for every input.
#ifndef VANE_FUZZ_FUZZ_ENV_H
#define VANE_FUZZ_FUZZ_ENV_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

#include "kport/user/testing.h"

namespace vane::fuzz {

// Process ids of the workers: A is the default receiver of both channels and
// vCPUs 1..4, B holds vCPUs 5..8; C registers nothing.
constexpr uint32_t kWorkerA = 4101;
constexpr uint32_t kWorkerB = 4102;
constexpr uint32_t kStranger = 4103;

class FreshModule {
 public:
  FreshModule();
  ~FreshModule();
  FreshModule(const FreshModule&) = delete;
  FreshModule& operator=(const FreshModule&) = delete;

  // The socket of worker 0..2 (A, B, stranger) on protocol 26 or 27.
  kport::user::UserSocket& socket(unsigned worker, int protocol);
  // Sends a control message (id, payload) from worker A on protocol 26.
  void Control(uint32_t id, std::span<const uint8_t> payload);
  // Moves the manual clock on, firing the timers that fall due.
  void Advance(unsigned long ticks);
  // Throws away whatever the workers were sent.
  void Drain();

 private:
  size_t live_before_;
  std::unique_ptr<kport::user::UserSocket> sockets_[3][2];
};

// Reads an input front to back. Past the end every read yields zeros and an
// empty span, so a target never has to check lengths itself.
class Reader {
 public:
  Reader(const uint8_t* data, size_t size) : data_(data), size_(size) {}
  bool empty() const { return pos_ >= size_; }
  uint8_t u8();
  uint16_t u16();
  uint32_t u32();
  // Up to n bytes (fewer at the end of the input).
  std::span<const uint8_t> bytes(size_t n);
  // A length-prefixed block: u16 length, then that many bytes.
  std::span<const uint8_t> block() { return bytes(u16()); }

 private:
  const uint8_t* data_;
  size_t size_;
  size_t pos_ = 0;
};

}  // namespace vane::fuzz

#endif  // VANE_FUZZ_FUZZ_ENV_H
