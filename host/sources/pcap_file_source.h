// A pcap or pcapng capture file as a packet source: its Ethernet frames go
// through the chip-header stage to the dispatcher, as fast as possible, at
// the capture's recorded pace, or at a fixed rate; once or looped.
//
// Thread context: Run on the source's own thread; Stop, Stats, Error and
// Describe from any thread.
#ifndef VANE_HOST_SOURCES_PCAP_FILE_SOURCE_H
#define VANE_HOST_SOURCES_PCAP_FILE_SOURCE_H

#include <chrono>
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

enum class Timing { kFast, kRecorded, kRate };

struct PcapFileOptions {
  std::string path;
  std::optional<uint32_t> eth_num;
  Timing timing = Timing::kFast;
  uint64_t rate_pps = 0;  // kRate only; > 0
  bool loop = false;
};

class PcapFileSource : public Source {
 public:
  // Opens the file once to check it (readable, Ethernet link type); nullptr
  // with *err otherwise.
  static std::unique_ptr<PcapFileSource> Open(const PcapFileOptions& opt,
                                              std::shared_ptr<const ChipHeaderStage> stage,
                                              std::string* err);

  std::string Describe() const override;
  // 0 at the end of a single pass or after Stop; -EIO when the file cannot
  // be read (again) or breaks off with a read error.
  int Run(PacketOut& out) override;
  void Stop() override { stop_.Raise(); }
  SourceStats Stats() const override { return feed_.stats().Snapshot(); }
  std::string Error() const override;

 private:
  PcapFileSource(PcapFileOptions opt, std::shared_ptr<const ChipHeaderStage> stage)
      : opt_(std::move(opt)), feed_(std::move(stage), opt_.eth_num) {}
  using Clock = std::chrono::steady_clock;
  int Pass(PacketOut& out, Clock::time_point run_start, uint64_t* sent);
  int Fail(const std::string& message);

  PcapFileOptions opt_;
  FrameFeed feed_;
  StopSignal stop_;
  mutable std::mutex error_mu_;
  std::string error_;
};

}  // namespace vane::host

#endif  // VANE_HOST_SOURCES_PCAP_FILE_SOURCE_H
