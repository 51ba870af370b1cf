// vanectl show's tables and JSON for known images, against the golden files
// in golden/ (NAME.txt and NAME.json). VANE_UPDATE_GOLDEN=1 rewrites them;
// review the diff before committing it.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "drv_vane/frag.h"
#include "drv_vane/steering.h"
#include "drv_vane/wlan_lb.h"
#include "host_support.h"
#include "render.h"
#include "vanectl/images.h"

namespace vane::test {
namespace {

using vanectl::Rendered;

void ExpectGolden(const std::string& name, const Rendered& r) {
  const std::string base = std::string(VANE_GOLDEN_DIR) + "/" + name;
  const std::string json = r.json.dump(2) + "\n";
  if (std::getenv("VANE_UPDATE_GOLDEN") != nullptr) {
    std::ofstream(base + ".txt", std::ios::binary) << r.text;
    std::ofstream(base + ".json", std::ios::binary) << json;
  }
  EXPECT_EQ(r.text, ReadText(base + ".txt")) << name;
  EXPECT_EQ(json, ReadText(base + ".json")) << name;
}

TEST(ShowGolden, Counters) {
  std::vector<uint8_t> img(VANE_COUNTERS_SIZE, 0);
  auto set = [&img](uint32_t index, uint32_t v) { PutRecord(&img, index * 4, v); };
  set(0, 4);
  set(3, 1200);
  set(128 + 3, 1200);  // ECM
  set(64 + 17, 99);    // VP
  set(12, 4294967295u);
  set(192 + 12 * 12 + 4, 4294967295u);  // WLAN, vCPU 12 type 4
  set(192 + 12 * 63 + 11, 1);
  vane_counters c{};
  ASSERT_EQ(vane_decode_counters(img.data(), img.size(), &c), 0);
  ExpectGolden("counters", vanectl::RenderCounters(c, false));

  const std::vector<uint8_t> zeros(VANE_COUNTERS_SIZE, 0);
  ASSERT_EQ(vane_decode_counters(zeros.data(), zeros.size(), &c), 0);
  EXPECT_EQ(vanectl::RenderCounters(c, false).text, "all counters are zero\n");
  const Rendered all = vanectl::RenderCounters(c, true);
  EXPECT_EQ(all.json["vcpus"].size(), 64u);
  EXPECT_EQ(all.json["vcpus"][5]["wlan"].size(), 11u);
}

TEST(ShowGolden, DebugText) {
  const std::string text =
      "\r\nmsg id 11 len 60\r\nWLAN_LB_SetCauseIDTable  causeid 300 lbtype 1 pkttype 4\n"
      "\r\n********Buff is full********";
  std::vector<uint8_t> img(VANE_DEBUG_SIZE, 0);
  std::memcpy(img.data(), text.data(), text.size());
  vane::decode::DebugText d;
  ASSERT_EQ(vane::decode::Debug(img.data(), img.size(), &d), 0);
  ExpectGolden("debug", vanectl::RenderDebug(d));
}

TEST(ShowGolden, FragmentTables) {
  std::vector<uint8_t> v4(VANE_FRAG4_SIZE, 0);
  PutRecord(&v4, 0, uint16_t{2});
  PutRecord(&v4, 4, BYPASS_IPV4_FRAG_INFO_S{0x0A000001, 0xC0A80102, 0x1234, 0, 7, 5, 0});
  PutRecord(&v4, 20, BYPASS_IPV4_FRAG_INFO_S{0xAC100001, 0x0A0000FE, 65535, 0, 63, 30, 0});
  // A slot past the count is a leftover of an earlier dump.
  PutRecord(&v4, 36, BYPASS_IPV4_FRAG_INFO_S{1, 2, 3, 0, 4, 5, 0});
  auto d4 = std::make_unique<vane_frag4_dump>();
  ASSERT_EQ(vane_decode_frag4(v4.data(), v4.size(), d4.get()), 0);
  ExpectGolden("frag_ipv4", vanectl::RenderFrag4(*d4));

  std::vector<uint8_t> v6(VANE_FRAG6_SIZE, 0);
  PutRecord(&v6, 0, uint16_t{1});
  BYPASS_IPV6_FRAG_INFO_S r{};
  r.aucAddr1[0] = 0x20;
  r.aucAddr1[1] = 0x01;
  r.aucAddr1[2] = 0x0d;
  r.aucAddr1[3] = 0xb8;
  r.aucAddr1[15] = 1;
  r.aucAddr2[0] = 0xfe;
  r.aucAddr2[1] = 0x80;
  r.aucAddr2[15] = 2;
  r.ulId = 0xDEADBEEF;
  r.ucAge = 10;
  PutRecord(&v6, 4, r);
  auto d6 = std::make_unique<vane_frag6_dump>();
  ASSERT_EQ(vane_decode_frag6(v6.data(), v6.size(), d6.get()), 0);
  ExpectGolden("frag_ipv6", vanectl::RenderFrag6(*d6));
}

TEST(ShowGolden, Steering) {
  BYPASS_IVO_DEBUG_INFO_S s{};
  s.stIvoTable = {1, 0, 5, 3, {10, 11, 12}, 100, 200};
  s.stDeteptionTable = {0, 0, 0x109, 25, {}, 0, 0};
  s.ulIvoHitCnt = 7;
  s.aulIvoCauseIdHitCnt[1] = 2;
  s.aulIvoCauseIdHitCnt[2] = 1;
  s.ulIvoRangeHitCnt = 4;
  std::vector<uint8_t> img(sizeof s);
  PutRecord(&img, 0, s);
  vane_ivo_stats st{};
  ASSERT_EQ(vane_decode_ivo(img.data(), img.size(), &st), 0);
  ExpectGolden("steering", vanectl::RenderSteering(st));
}

TEST(ShowGolden, CaptureStore) {
  std::vector<uint8_t> store(VANE_CAPTURE_STORE_SIZE, 0);
  PutCaptureEntry(&store, 0, 0, UdpFrame(100, 1), 1700000000, 5, 9, 250000);
  PutCaptureEntry(&store, 4, 1, UdpFrame(42, 2), 1700000001, 999999999);
  vane_capture_store s{};
  ASSERT_EQ(vane_decode_capture_store(store.data(), store.size(), &s), 0);
  ExpectGolden("capture", vanectl::RenderCapture(s));
}

TEST(ShowGolden, WlanViews) {
  // The texts as the attribute prints them.
  const std::string stats =
      "\r\nWLAN LB KERNEL LB SET CAPWAP      :12 \r\nWLAN LB KERNEL LB SET CAPWAP KA   :3 "
      "\r\nWLAN LB KERNEL LB SET NAC NODELIST:1 \r\nWLAN LB KERNEL LB SET PORTAL NODE :1 "
      "\r\nWLAN LB KERNEL LB SET SOCKET PORT :2 \r\nWLAN LB KERNEL LB SET BOARD TYPE  :1 "
      "\r\nWLAN LB KERNEL LB SET CAUSEIID    :1 \r\nWLAN LB BOARD TYPE                :3 \r\n";
  vane_wlan_stats st{};
  ASSERT_EQ(vane_decode_wlan_stats(stats.data(), stats.size(), &st), 0);
  ExpectGolden("wlan_stats", vanectl::RenderWlanStats(st));

  const std::string causes = "300  1    4   ;301  2    5   ;4000 4    11  ;";
  vane_wlan_causeids c{};
  ASSERT_EQ(vane_decode_wlan_causeids(causes.data(), causes.size(), &c), 0);
  ExpectGolden("wlan_causeid", vanectl::RenderWlanCauseIds(c));

  const std::string nac = "\r\nNAC process list :20 21 4294967295 ";
  vane_wlan_nac n{};
  ASSERT_EQ(vane_decode_wlan_nac(nac.data(), nac.size(), &n), 0);
  ExpectGolden("wlan_aaa", vanectl::RenderWlanNac(n));

  const std::string line = "                      ";
  const std::string gap = "                                 ";
  const std::string ports = "\r\n  2001(D)" + line + "UDP" + gap + "NAC" + "\r\n  1812(S)" + line +
                            "UDP" + gap + "RANGE" + "\r\n   443(D)" + line + "TCP" + gap + "9" +
                            "\r\n  3799(D)" + line + "UDP" + gap + "NAC" + "\r\n  8080(D)" + line +
                            "UDP" + gap + "3";
  vane_wlan_ports p{};
  ASSERT_EQ(vane_decode_wlan_ports(ports.data(), ports.size(), &p), 0);
  ExpectGolden("wlan_ports", vanectl::RenderWlanPorts(p));
}

TEST(ShowGolden, CapwapRecords) {
  std::vector<uint8_t> img(VANE_CAPWAP_VIEW_SIZE, 0);
  PutRecord(&img, 0, WLAN_LB_CAPWAP_NODE_S{0x0A010101, 0x0A010102, 5246, 5247, 0, 12});
  PutRecord(&img, 20, WLAN_LB_CAPWAP_NODE_S{0x0A010101, 0x0A0101FE, 12222, 5247, 3, 4});
  vane_capwap_view v{};
  ASSERT_EQ(vane_decode_capwap(img.data(), img.size(), &v), 0);
  ExpectGolden("wlan_capwap", vanectl::RenderCapwap(v));

  std::vector<uint8_t> ka(VANE_CAPWAP_KA_VIEW_SIZE, 0);
  PutRecord(&ka, 0, WLAN_LB_CAPWAP_KA_NODE_S{{0x01020304, 0x05060708, 0x090A0B0C, 0x0D0E0F10}, 7});
  vane_capwap_ka_view k{};
  ASSERT_EQ(vane_decode_capwap_ka(ka.data(), ka.size(), &k), 0);
  ExpectGolden("wlan_capwap_ka", vanectl::RenderCapwapKa(k));
}

}  // namespace
}  // namespace vane::test
