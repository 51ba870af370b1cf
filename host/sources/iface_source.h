// A live network interface as a packet source: every Ethernet frame it
// receives goes through the chip-header stage to the dispatcher.
//
// Thread context: Run on the source's own thread; Stop, Stats, Error and
// Describe from any thread. Capturing needs CAP_NET_RAW (or root).
#ifndef VANE_HOST_SOURCES_IFACE_SOURCE_H
#define VANE_HOST_SOURCES_IFACE_SOURCE_H

#include <pcap/pcap.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "host/source.h"
#include "host/sources/chip_header.h"
#include "host/sources/frame_feed.h"
#include "host/sources/stop_signal.h"

namespace vane::host {

class IfaceSource : public Source {
 public:
  // Opens and activates the capture (immediate mode, snaplen 10000, a short
  // read timeout so that Stop is seen promptly); nullptr with *err when the
  // interface does not exist, is not Ethernet, or capturing is not
  // permitted.
  static std::unique_ptr<IfaceSource> Open(const std::string& name, std::optional<uint32_t> eth,
                                           std::shared_ptr<const ChipHeaderStage> stage,
                                           std::string* err);
  ~IfaceSource() override;

  std::string Describe() const override;
  // 0 after Stop; -EIO when the capture fails (the interface went away).
  int Run(PacketOut& out) override;
  void Stop() override;
  SourceStats Stats() const override { return feed_.stats().Snapshot(); }
  std::string Error() const override;

 private:
  IfaceSource(std::string name, std::optional<uint32_t> eth, pcap_t* pcap,
              std::shared_ptr<const ChipHeaderStage> stage)
      : name_(std::move(name)), eth_(eth), pcap_(pcap), feed_(std::move(stage), eth) {}
  static void OnFrame(u_char* self, const pcap_pkthdr* h, const u_char* data);

  std::string name_;
  std::optional<uint32_t> eth_;
  pcap_t* pcap_;
  FrameFeed feed_;
  PacketOut* out_ = nullptr;  // valid during Run
  StopSignal stop_;
  mutable std::mutex error_mu_;
  std::string error_;
};

}  // namespace vane::host

#endif  // VANE_HOST_SOURCES_IFACE_SOURCE_H
