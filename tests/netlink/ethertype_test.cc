// The EtherType tests other modules and the pipeline use to recognise the
// board's internal packet kinds, tagged and untagged, per board type.
#include <gtest/gtest.h>

#include "drv_vane/config.h"
#include "drv_vane/netlink.h"
#include "support/packet_builder.h"

namespace vane::test {
namespace {

class EtherTypeTest : public ::testing::Test {
 protected:
  void SetUp() override { bypass_pkt_offset = BYPASS_PKT_OFFSET_S{}; }
  void TearDown() override { bypass_pkt_offset = BYPASS_PKT_OFFSET_S{}; }

  // Untagged: EtherType at 12. Tagged: a tag at 12, EtherType at 16.
  static Bytes Frame(uint16_t type, bool tagged) {
    PacketBuilder b;
    b.ethernet(Mac("0a:0b:0c:00:00:01"), Mac("00:00:00:00:00:02"));
    if (tagged) b.vlan(5);
    return b.ether_type(type).payload(8).build();
  }
};

TEST_F(EtherTypeTest, ConfiguredEtherTypesMatchAtTheFlaggedPosition) {
  bypass_pkt_offset.ulIpcEthType = 0x0640;
  bypass_pkt_offset.ulVpEthType = 0x5101;
  bypass_pkt_offset.ulEcmVcpuEthType = 0x06A4;
  for (bool tagged : {false, true}) {
    SCOPED_TRACE(tagged);
    const uint8_t untagged = tagged ? 0 : 1;
    Bytes ipc = Frame(0x0640, tagged);
    Bytes vp = Frame(0x5101, tagged);
    Bytes ecm = Frame(0x06A4, tagged);
    EXPECT_EQ(netlink_check_if_data_ipc(ipc.data(), untagged), 0);
    EXPECT_EQ(netlink_check_if_data_vp(vp.data(), untagged), 0);
    EXPECT_EQ(netlink_check_if_data_ecm_vcpu(ecm.data(), untagged), 0);
    EXPECT_EQ(netlink_check_if_data_ipc(vp.data(), untagged), -22);
    EXPECT_EQ(netlink_check_if_data_vp(ecm.data(), untagged), -22);
    EXPECT_EQ(netlink_check_if_data_ecm_vcpu(ipc.data(), untagged), -22);
    // Reading at the other position sees the tag or the payload instead.
    EXPECT_EQ(netlink_check_if_data_ipc(ipc.data(), tagged ? 1 : 0), -22);
  }
  // The whole 32-bit slot is compared: above 0xFFFF nothing matches.
  bypass_pkt_offset.ulIpcEthType = 0x10640;
  Bytes ipc = Frame(0x0640, false);
  EXPECT_EQ(netlink_check_if_data_ipc(ipc.data(), 1), -22);
  EXPECT_EQ(netlink_check_if_data_ipc(nullptr, 1), -22);
}

TEST_F(EtherTypeTest, BoardWithoutEcmHasFixedVpTypesAndNoEcmVcpu) {
  bypass_pkt_offset.ulBoardType = BYPASS_BOARD_TYPE_NO_ECM;
  bypass_pkt_offset.ulVpEthType = 0x5103;
  bypass_pkt_offset.ulEcmVcpuEthType = 0x06A4;
  for (uint16_t t : {0x5102, 0x5107, 0x510A, 0x510D}) {
    Bytes f = Frame(t, false);
    EXPECT_EQ(netlink_check_if_data_vp(f.data(), 1), 0) << std::hex << t;
  }
  for (uint16_t t : {0x5101, 0x5103, 0x5106, 0x510E}) {
    Bytes f = Frame(t, false);
    EXPECT_EQ(netlink_check_if_data_vp(f.data(), 1), -22) << std::hex << t;
  }
  Bytes ecm = Frame(0x06A4, false);
  EXPECT_EQ(netlink_check_if_data_ecm_vcpu(ecm.data(), 1), -22);
}

}  // namespace
}  // namespace vane::test
