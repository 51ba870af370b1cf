// The path of one captured frame from a capture-based source (file or live
// interface) to the dispatcher: counted as read, wrapped by the chip-header
// stage into the source's one reusable buffer, handed to PacketOut, counted
// by outcome. Frames that do not fit a delivery buffer are skipped.
//
// Thread context: one FrameFeed per source, used by its Run thread only.
#ifndef VANE_HOST_SOURCES_FRAME_FEED_H
#define VANE_HOST_SOURCES_FRAME_FEED_H

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "host/source.h"
#include "host/sources/chip_header.h"
#include "host/sources/source_stats.h"

namespace vane::host {

class FrameFeed {
 public:
  FrameFeed(std::shared_ptr<const ChipHeaderStage> stage, std::optional<uint32_t> eth)
      : stage_(std::move(stage)), eth_(eth), buf_(kMaxDeliveryLen) {}

  void Feed(const uint8_t* frame, uint32_t len, PacketOut& out) {
    stats_.Read();
    uint32_t type = 0;
    const uint32_t n =
        stage_->Build(frame, len, eth_, buf_.data(), static_cast<uint32_t>(buf_.size()), &type);
    if (n == 0) {
      stats_.Skipped();
      return;
    }
    stats_.Delivery(out.Deliver(type, buf_.data(), n), n);
  }

  AtomicSourceStats& stats() { return stats_; }
  const AtomicSourceStats& stats() const { return stats_; }

 private:
  std::shared_ptr<const ChipHeaderStage> stage_;
  std::optional<uint32_t> eth_;
  std::vector<uint8_t> buf_;
  AtomicSourceStats stats_;
};

}  // namespace vane::host

#endif  // VANE_HOST_SOURCES_FRAME_FEED_H
