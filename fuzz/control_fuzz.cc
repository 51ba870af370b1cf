// Control messages: arbitrary netlink datagrams into the control receiver of
// either channel, from registered workers and from a stranger.
//
// Input: records of
//   u8   bit 0: channel (0 protocol 26, 1 protocol 27); bits 1-2: sender
//        (0 worker A, 1 worker B, 2 the stranger); bit 7: time passes first
//   [u16 ticks, when bit 7 is set: the clock moves on that many ticks]
//   u16  n, then n bytes: the datagram, sent as it is (header, message id,
//        length field and payload are all the input's)
// Any message id reaches the receiver, so ids served only by later tables
// are fuzzed as soon as they exist.
#include "fuzz_env.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  vane::fuzz::FreshModule module;
  vane::fuzz::Reader in(data, size);
  while (!in.empty()) {
    const uint8_t how = in.u8();
    if (how & 0x80) module.Advance(in.u16());
    std::span<const uint8_t> datagram = in.block();
    module.socket((how >> 1) & 3, (how & 1) ? 27 : 26).Send(datagram.data(), datagram.size());
    module.Drain();
  }
  return 0;
}
