// Packet sources of vaned: where the packets that the switch driver would
// hand to the module come from on a host (capture files, live interfaces,
// the injection socket), and the one door they all go through.
#ifndef VANE_HOST_SOURCE_H
#define VANE_HOST_SOURCE_H

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace vane::host {

// The delivery entry point as a source sees it: `buf` holds the 12-byte
// delivery prefix and the packet, exactly what the switch driver passes to
// netlink_send_msg; the pipeline may rewrite bytes of it. Returns what
// netlink_send_msg returned. Thread-safe: sources call it concurrently.
class PacketOut {
 public:
  virtual ~PacketOut() = default;
  virtual int Deliver(uint32_t type, uint8_t* buf, uint32_t len) = 0;
};

struct SourceStats {
  uint64_t read = 0;       // frames taken from the input
  uint64_t delivered = 0;  // handed to PacketOut with a non-negative result
  uint64_t refused = 0;    // PacketOut returned an error (-77 no receiver, ...)
  uint64_t skipped = 0;    // not handed in: too short, too long, not Ethernet
  uint64_t bytes = 0;      // bytes handed in
  uint64_t loops = 0;      // completed passes over a file
};

class Source {
 public:
  virtual ~Source() = default;
  // "pcap sample.pcapng (eth 21, recorded timing, once)".
  virtual std::string Describe() const = 0;
  // Feeds packets to `out` on the calling thread until Stop() is called or,
  // for a source that plays its input once, until the input ends. Returns 0,
  // or a negative errno when the input failed (the message in Error()).
  virtual int Run(PacketOut& out) = 0;
  // May be called from any thread (a signal's handler thread); Run returns
  // soon after.
  virtual void Stop() = 0;
  virtual SourceStats Stats() const = 0;
  virtual std::string Error() const = 0;
};

}  // namespace vane::host

#endif  // VANE_HOST_SOURCE_H
