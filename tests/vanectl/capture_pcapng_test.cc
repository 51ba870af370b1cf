// A pcapng file made from a known capture store, read back by tshark (one
// of the project's dependencies): the frames, their lengths, their capture
// times to the nanosecond and the event comments; and the filter options.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "capture_file.h"
#include "host_support.h"
#include "vanectl/images.h"

namespace vane::test {
namespace {

std::vector<std::string> Split(const std::string& s, char sep) {
  std::vector<std::string> out;
  std::stringstream in(s);
  std::string part;
  while (std::getline(in, part, sep)) out.push_back(part);
  return out;
}

TEST(CapturePcapng, TsharkReadsFramesTimesAndEvents) {
  std::vector<uint8_t> store(VANE_CAPTURE_STORE_SIZE, 0);
  PutCaptureEntry(&store, 0, 0, UdpFrame(100, 1), 1700000000, 5, 9, 250000);
  PutCaptureEntry(&store, 7, 1, UdpFrame(60, 2), 1700000001, 999999999);
  vane_capture_store s{};
  ASSERT_EQ(vane_decode_capture_store(store.data(), store.size(), &s), 0);
  const std::string file =
      vanectl::CapturePcapng(std::vector<vane_capture_entry>(s.entries, s.entries + s.count));

  TempDir dir;
  std::ofstream(dir / "c.pcapng", std::ios::binary) << file;
  std::string out;
  ASSERT_EQ(RunCommand({.argv = {VANE_TSHARK, "-n",
                                 "-r",        dir / "c.pcapng",
                                 "-T",        "fields",
                                 "-E",        "separator=|",
                                 "-E",        "occurrence=a",
                                 "-E",        "aggregator=+",
                                 "-e",        "frame.time_epoch",
                                 "-e",        "frame.len",
                                 "-e",        "frame.cap_len",
                                 "-e",        "ip.src",
                                 "-e",        "udp.dstport",
                                 "-e",        "frame.comment"}},
                       &out),
            0)
      << out;
  const auto lines = Split(out, '\n');
  ASSERT_EQ(lines.size(), 2u) << out;

  const auto a = Split(lines[0], '|');
  ASSERT_EQ(a.size(), 6u) << lines[0];
  EXPECT_EQ(a[0], "1700000000.000000005");
  EXPECT_EQ(a[1], "100") << "the frame's own length";
  EXPECT_EQ(a[2], "64") << "the bytes the store kept";
  EXPECT_EQ(a[3], "10.0.0.1");
  EXPECT_EQ(a[4], "2000");
  EXPECT_EQ(a[5],
            "capture 0 on slot 2, store entry 0+event 1 at 1700000000.000000005+"
            "event 9 at 1700000000.000250000 (+249995 ns)");

  const auto b = Split(lines[1], '|');
  ASSERT_EQ(b.size(), 6u) << lines[1];
  EXPECT_EQ(b[0], "1700000001.999999999");
  EXPECT_EQ(b[1], "60");
  EXPECT_EQ(b[2], "60");
  EXPECT_EQ(b[3], "10.0.0.2");
  EXPECT_EQ(b[5], "capture 1 on slot 2, store entry 7+event 1 at 1700000001.999999999");
}

TEST(CapturePcapng, FilterOptionsSetValueAndBit) {
  vane_capture_arm a{};
  vanectl::ApplyCaptureFilter("ethertype=0x0800", &a);
  vanectl::ApplyCaptureFilter("sip=10.0.0.1", &a);
  vanectl::ApplyCaptureFilter("dip6=2001:db8::2", &a);
  vanectl::ApplyCaptureFilter("smac=00:11:22:33:44:55", &a);
  vanectl::ApplyCaptureFilter("udf=12:0x0800", &a);
  vanectl::ApplyCaptureFilter("udf=23:17", &a);
  EXPECT_EQ(a.filters, VANE_CAPTURE_F_ETHTYPE | VANE_CAPTURE_F_SIP | VANE_CAPTURE_F_DIP6 |
                           VANE_CAPTURE_F_SMAC | VANE_CAPTURE_F_UDF1 | VANE_CAPTURE_F_UDF2);
  EXPECT_EQ(a.ethertype, 0x0800u);
  EXPECT_EQ(a.sip, 0x0A000001u) << "host order, as the module compares it";
  EXPECT_EQ(a.dip6[0], 0x20u);
  EXPECT_EQ(a.dip6[15], 2u);
  EXPECT_EQ(a.smac[5], 0x55u);
  EXPECT_EQ(a.udf1_offset, 12u);
  EXPECT_EQ(a.udf1_value, 0x0800u);
  EXPECT_EQ(a.udf2_offset, 23u);
  EXPECT_EQ(a.udf2_value, 17u);
  for (const char* bad : {"udf=1:2", "ethertype=0x10000", "sip=10.0.0", "smac=00:11:22:33:44",
                          "smac=00:11:22:33:44:55:66", "len=", "vlan=3", "sip"}) {
    EXPECT_THROW(vanectl::ApplyCaptureFilter(bad, &a), std::invalid_argument) << bad;
  }
}

}  // namespace
}  // namespace vane::test
