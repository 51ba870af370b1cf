#include "support/capture_env.h"

#include <cstring>

#include "support/module_env.h"

namespace vane::test {

BYPASS_PKT_RECORD_CTRL_S CaptureBlock(uint16_t total, uint32_t filters) {
  BYPASS_PKT_RECORD_CTRL_S b{};
  b.usTotalCnt = total;
  b.usCount = total;
  b.ulVauleBmp = filters;
  b.ucCatchIsOn = 1;
  return b;
}

long ArmCapture(const BYPASS_PKT_RECORD_CTRL_S& block, uint32_t mask, uint32_t slot) {
  std::vector<uint8_t> bytes(BYPASS_CATCH_CTRL_WRITE_LEN);
  std::memcpy(bytes.data(), &mask, 4);
  std::memcpy(bytes.data() + 4, &slot, 4);
  std::memcpy(bytes.data() + 8, &block, sizeof(block));
  return env().Write("/proc/bypassDebug/catchPkt", bytes);
}

std::vector<BYPASS_CATCH_PKT_S> ReadCaptureStore() {
  // One read: each read empties the store, so a second could lose entries
  // published in between.
  const Bytes raw =
      env().ReadAt("/proc/bypassDebug/catchPkt", 0, BYPASS_CATCH_STORE_LEN).value_or(Bytes{});
  std::vector<BYPASS_CATCH_PKT_S> store(BYPASS_CATCH_PKT_NUM);
  EXPECT_EQ(raw.size(), size_t{BYPASS_CATCH_STORE_LEN});
  if (raw.size() == BYPASS_CATCH_STORE_LEN) std::memcpy(store.data(), raw.data(), raw.size());
  return store;
}

std::vector<BYPASS_CATCH_PKT_S> UsedEntries(const std::vector<BYPASS_CATCH_PKT_S>& store) {
  std::vector<BYPASS_CATCH_PKT_S> used;
  for (const auto& e : store) {
    if (e.ucUsed != 0) used.push_back(e);
  }
  return used;
}

Bytes CaptureFrame(uint32_t tag, size_t payload) {
  Bytes body(payload, 0x5A);
  for (size_t i = 0; i < 4 && i < payload; ++i) body[i] = static_cast<uint8_t>(tag >> (24 - 8 * i));
  return PacketBuilder()
      .ethernet(Mac("00:11:22:33:44:55"), Mac("00:00:5e:00:01:02"))
      .ipv4({.src = Ipv4Addr("10.0.0.1"), .dst = Ipv4Addr("10.0.0.2")})
      .udp(1000, 2000)
      .payload(body)
      .build();
}

}  // namespace vane::test
