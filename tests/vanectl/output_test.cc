// vanectl's output code: show's tables and JSON against the golden files in
// golden/ (NAME.txt and NAME.json), for known images and for the WLAN views
// and records the module shows; metrics; the pcapng file of a capture read
// back by tshark (one of the project's dependencies); capture filters; and
// top's rates. VANE_UPDATE_GOLDEN=1 rewrites the golden files; review the
// diff before committing it.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "capture_file.h"
#include "drv_vane/capture.h"
#include "drv_vane/frag.h"
#include "drv_vane/steering.h"
#include "drv_vane/wlan_lb.h"
#include "host_support.h"
#include "prom.h"
#include "rates.h"
#include "render.h"
#include "support/packet_builder.h"

namespace vane::test {
namespace {

using vanectl::Rendered;

// A capture entry at `index` of a store image.
void PutCaptureEntry(Bytes* store, size_t index, uint8_t num, const Bytes& frame, uint32_t sec,
                     uint32_t nsec, uint16_t later_event = 0, uint32_t later_nsec = 0) {
  BYPASS_CATCH_PKT_S e{};
  std::memcpy(e.aucData, frame.data(), std::min<size_t>(frame.size(), 64));
  e.usLen = static_cast<uint16_t>(frame.size());
  e.ucUsed = 1;
  e.ucNum = num;
  e.usSlot = 2;
  e.astTime[0] = {sec, nsec, 1, 0, 1};
  if (later_event != 0) e.astTime[1] = {sec, later_nsec, later_event, 0, 1};
  PutRecord(store, index * sizeof e, e);
}

// An untagged UDP frame of `len` bytes from 10.0.0.<host>:5000 to
// 10.0.0.200:2000.
Bytes UdpFrame(size_t len, uint8_t host) {
  return PacketBuilder()
      .ethernet(Mac("00:11:22:33:44:55"), Mac("00:66:77:88:99:aa"))
      .ipv4({.src = Ipv4Addr("10.0.0.0") + host, .dst = Ipv4Addr("10.0.0.200"), .id = 1})
      .udp(5000, 2000)
      .payload(len - 42)
      .build();
}

void ExpectGoldenFile(const std::string& file, const std::string& got) {
  const std::string path = std::string(VANE_GOLDEN_DIR) + "/" + file;
  if (std::getenv("VANE_UPDATE_GOLDEN") != nullptr) std::ofstream(path, std::ios::binary) << got;
  EXPECT_EQ(got, ReadText(path)) << file;
}

void ExpectGolden(const std::string& name, const Rendered& r) {
  ExpectGoldenFile(name + ".txt", r.text);
  ExpectGoldenFile(name + ".json", r.json.dump(2) + "\n");
}

TEST(ShowGolden, Counters) {
  Bytes img(VANE_COUNTERS_SIZE, 0);
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

  const Bytes zeros(VANE_COUNTERS_SIZE, 0);
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
  Bytes img(VANE_DEBUG_SIZE, 0);
  std::memcpy(img.data(), text.data(), text.size());
  vane::decode::DebugText d;
  ASSERT_EQ(vane::decode::Debug(img.data(), img.size(), &d), 0);
  ExpectGolden("debug", vanectl::RenderDebug(d));
}

TEST(ShowGolden, FragmentTables) {
  Bytes v4(VANE_FRAG4_SIZE, 0);
  PutRecord(&v4, 0, uint16_t{2});
  PutRecord(&v4, 4, BYPASS_IPV4_FRAG_INFO_S{0x0A000001, 0xC0A80102, 0x1234, 0, 7, 5, 0});
  PutRecord(&v4, 20, BYPASS_IPV4_FRAG_INFO_S{0xAC100001, 0x0A0000FE, 65535, 0, 63, 30, 0});
  // A slot past the count is a leftover of an earlier dump.
  PutRecord(&v4, 36, BYPASS_IPV4_FRAG_INFO_S{1, 2, 3, 0, 4, 5, 0});
  auto d4 = std::make_unique<vane_frag4_dump>();
  ASSERT_EQ(vane_decode_frag4(v4.data(), v4.size(), d4.get()), 0);
  ExpectGolden("frag_ipv4", vanectl::RenderFrag4(*d4));

  Bytes v6(VANE_FRAG6_SIZE, 0);
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
  Bytes img(sizeof s);
  PutRecord(&img, 0, s);
  vane_ivo_stats st{};
  ASSERT_EQ(vane_decode_ivo(img.data(), img.size(), &st), 0);
  ExpectGolden("steering", vanectl::RenderSteering(st));
}

TEST(ShowGolden, CaptureStore) {
  Bytes store(VANE_CAPTURE_STORE_SIZE, 0);
  PutCaptureEntry(&store, 0, 0, UdpFrame(100, 1), 1700000000, 5, 9, 250000);
  PutCaptureEntry(&store, 4, 1, UdpFrame(42, 2), 1700000001, 999999999);
  vane_capture_store s{};
  ASSERT_EQ(vane_decode_capture_store(store.data(), store.size(), &s), 0);
  ExpectGolden("capture", vanectl::RenderCapture(s));
}

// The WLAN views and records as the module shows them, after tables set
// through libvane on vaned, read and decoded as show reads them.
class ShowModuleGolden : public ::testing::Test {
 protected:
  std::string View(const char* which) {
    return v_.Read("/sys/class/wlan_lb/wlan_lb/wlan_lb", which);
  }
  VanedControl v_;
  vane_ctl* ctl_ = v_.ctl;
};

TEST_F(ShowModuleGolden, WlanViews) {
  const vane_cause_id_entry causes[] = {{300, 4, 1}, {301, 5, 2}, {4000, 11, 4}};
  ASSERT_EQ(vane_ctl_lb_cause_ids(ctl_, causes, 3), 0);
  const uint32_t nac[] = {20, 21, 63};
  ASSERT_EQ(vane_ctl_lb_nac(ctl_, 3, nac, 3), 0);
  ASSERT_EQ(vane_ctl_lb_portal(ctl_, 8080, 3), 0);
  ASSERT_EQ(vane_ctl_lb_board_type(ctl_, 3), 0);
  const vane_capwap_entry tunnel{0x0A010101, 0x0A010102, 5246, 5247, 0, 12};
  ASSERT_EQ(vane_ctl_lb_capwap(ctl_, &tunnel, 1), 0);
  const uint32_t session[4] = {1, 2, 3, 4};
  ASSERT_EQ(vane_ctl_lb_capwap_ka(ctl_, session, 7, 1), 0);
  for (const vane_socket_port& p :
       {vane_socket_port{1812, 0, 1, 7, 0}, vane_socket_port{2001, 0, 0, 0xFFFFFFFFu, 0},
        vane_socket_port{443, 1, 0, 9, 0}}) {
    ASSERT_EQ(vane_ctl_lb_socket_port(ctl_, &p, 1), 0);
  }
  const std::string stats = View("3");
  vane_wlan_stats st{};
  ASSERT_EQ(vane_decode_wlan_stats(stats.data(), stats.size(), &st), 0) << stats;
  ExpectGolden("wlan_stats", vanectl::RenderWlanStats(st));
  const std::string cause_view = View("4");
  vane_wlan_causeids c{};
  ASSERT_EQ(vane_decode_wlan_causeids(cause_view.data(), cause_view.size(), &c), 0);
  ExpectGolden("wlan_causeid", vanectl::RenderWlanCauseIds(c));
  const std::string nac_view = View("1");
  vane_wlan_nac n{};
  ASSERT_EQ(vane_decode_wlan_nac(nac_view.data(), nac_view.size(), &n), 0) << nac_view;
  ExpectGolden("wlan_aaa", vanectl::RenderWlanNac(n));
  const std::string ports = View("2");
  vane_wlan_ports p{};
  ASSERT_EQ(vane_decode_wlan_ports(ports.data(), ports.size(), &p), 0) << ports;
  ExpectGolden("wlan_ports", vanectl::RenderWlanPorts(p));
}

TEST_F(ShowModuleGolden, CapwapRecordsForAnAddressAndASession) {
  // Twelve tunnels from one address, of which the file holds ten.
  for (uint16_t i = 0; i < 12; ++i) {
    const vane_capwap_entry e{0x0A010101, 0x0A010102u + i,         static_cast<uint16_t>(5000 + i),
                              5247,       static_cast<uint8_t>(i), 20u + i};
    ASSERT_EQ(vane_ctl_lb_capwap(ctl_, &e, 1), 0);
  }
  const vane_capwap_entry other{0x0A020202, 1, 2, 3, 0, 4};
  ASSERT_EQ(vane_ctl_lb_capwap(ctl_, &other, 1), 0);
  const uint32_t session[4] = {0x01020304, 0x05060708, 0x090A0B0C, 0x0D0E0F10};
  ASSERT_EQ(vane_ctl_lb_capwap_ka(ctl_, session, 7, 1), 0);

  uint8_t key[8];
  vane_build_capwap_key(0x0A010101, key);
  const std::string img = v_.Read("/proc/wlan_lb/capwap", std::string(key, key + 8));
  vane_capwap_view v{};
  ASSERT_EQ(vane_decode_capwap(reinterpret_cast<const uint8_t*>(img.data()), img.size(), &v), 0);
  ExpectGolden("wlan_capwap", vanectl::RenderCapwap(v));
  uint8_t ka_key[16];
  vane_build_capwap_ka_key(session, ka_key);
  const std::string ka = v_.Read("/proc/wlan_lb/capwap_ka", std::string(ka_key, ka_key + 16));
  vane_capwap_ka_view k{};
  ASSERT_EQ(vane_decode_capwap_ka(reinterpret_cast<const uint8_t*>(ka.data()), ka.size(), &k), 0);
  ExpectGolden("wlan_capwap_ka", vanectl::RenderCapwapKa(k));
  // A session the table does not hold is shown as such.
  const uint32_t unknown[4] = {9, 9, 9, 9};
  vane_build_capwap_ka_key(unknown, ka_key);
  const std::string none = v_.Read("/proc/wlan_lb/capwap_ka", std::string(ka_key, ka_key + 16));
  ASSERT_EQ(vane_decode_capwap_ka(reinterpret_cast<const uint8_t*>(none.data()), none.size(), &k),
            0);
  EXPECT_EQ(k.found, 0);
}

// Prometheus exposition text: every family announced with HELP and TYPE
// before its samples, labels well formed, no series twice.
void ExpectExposition(const std::string& text) {
  std::set<std::string> helped, typed, series;
  const std::regex help(R"(# HELP ([a-z_]+) \S.*)");
  const std::regex type(R"(# TYPE ([a-z_]+) (counter|gauge))");
  const std::regex sample(R"(([a-z_]+)(\{[a-z_]+="[^"\\]*"(,[a-z_]+="[^"\\]*")*\})? \d+)");
  std::istringstream in(text);
  std::smatch m;
  for (std::string line; std::getline(in, line);) {
    if (std::regex_match(line, m, help)) {
      EXPECT_TRUE(helped.insert(m[1]).second) << "HELP twice: " << line;
    } else if (std::regex_match(line, m, type)) {
      EXPECT_TRUE(helped.count(m[1]) && typed.insert(m[1]).second) << line;
    } else if (std::regex_match(line, m, sample)) {
      EXPECT_TRUE(typed.count(m[1])) << "sample before its TYPE: " << line;
      EXPECT_TRUE(series.insert(line.substr(0, line.rfind(' '))).second) << "twice: " << line;
    } else {
      ADD_FAILURE() << "not exposition format: '" << line << "'";
    }
  }
  EXPECT_TRUE(text.empty() || text.back() == '\n');
}

TEST(ShowGolden, Metrics) {
  vane_counters c{};
  c.dispatched[0] = 4;
  c.dispatched[63] = 4294967295u;
  c.ecm[3] = 12;
  c.vp[9] = 1;
  c.wlan[4][2] = 7;
  vane_ivo_stats s{};
  s.ivo_slot_hits[0] = 2;
  s.ivo_slot_hits[19] = 3;
  s.deteption_range_hits = 9;
  vane_wlan_stats w{};
  w.messages[0] = 11;
  w.messages[6] = 1;
  w.board_type = 3;
  const std::string text = vanectl::PrometheusText({&c, &s, &w, 0});
  ExpectExposition(text);
  ExpectGoldenFile("metrics.prom", text);
  // Without its sources, only the error count is left.
  const std::string none = vanectl::PrometheusText({nullptr, nullptr, nullptr, 3});
  ExpectExposition(none);
  EXPECT_EQ(none.substr(none.find("\nvane_scrape_errors ")), "\nvane_scrape_errors 3\n");
  EXPECT_EQ(std::count(none.begin(), none.end(), '\n'), 3);
}

TEST(CapturePcapng, TsharkReadsFramesTimesAndEvents) {
  Bytes store(VANE_CAPTURE_STORE_SIZE, 0);
  PutCaptureEntry(&store, 0, 0, UdpFrame(100, 1), 1700000000, 5, 9, 250000);
  PutCaptureEntry(&store, 7, 1, UdpFrame(60, 2), 1700000001, 999999999);
  vane_capture_store s{};
  ASSERT_EQ(vane_decode_capture_store(store.data(), store.size(), &s), 0);
  const std::string file =
      vanectl::CapturePcapng(std::vector<vane_capture_entry>(s.entries, s.entries + s.count));

  TempDir dir;
  std::ofstream(dir / "c.pcapng", std::ios::binary) << file;
  Command tshark{.argv = {VANE_TSHARK, "-n", "-r", dir / "c.pcapng", "-T", "fields", "-E",
                          "separator=|", "-E", "occurrence=a", "-E", "aggregator=+"}};
  for (const char* f : {"frame.time_epoch", "frame.len", "frame.cap_len", "ip.src", "udp.dstport",
                        "frame.comment"}) {
    tshark.argv.insert(tshark.argv.end(), {"-e", f});
  }
  tshark.stdout_path = dir / "out";
  ASSERT_EQ(Wait(Start(tshark)), 0) << ReadText(dir / "out");
  // Time, the frame's own length, the bytes the store kept, and the events.
  EXPECT_EQ(ReadText(dir / "out"),
            "1700000000.000000005|100|64|10.0.0.1|2000|capture 0 on slot 2, store entry 0+event 1 "
            "at 1700000000.000000005+event 9 at 1700000000.000250000 (+249995 ns)\n"
            "1700000001.999999999|60|60|10.0.0.2|2000|capture 1 on slot 2, store entry 7+event 1 "
            "at 1700000001.999999999\n");
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

TEST(Top, RatesOverTheIntervalWithClearsTakenAsResets) {
  EXPECT_EQ(vanectl::Delta(10, 25), 15u);
  EXPECT_EQ(vanectl::Delta(1000, 3), 3u);

  vane_counters before{};
  vane_counters now{};
  before.dispatched[2] = 100;
  now.dispatched[2] = 300;
  now.ecm[2] = 50;
  before.dispatched[7] = 1000000;  // cleared, then 20 more
  now.dispatched[7] = 20;
  now.wlan[7][4] = 10;
  now.wlan[9][4] = 30;
  const std::string screen = vanectl::TopScreen(before, now, 2.0);
  EXPECT_EQ(screen,
            "155.0 packets/s over 2.0 s\n"
            "\n"
            "VCPU  DISPATCHED/S  VP/S  ECM/S  WLAN/S  TOTAL\n"
            "   2         100.0   0.0   25.0     0.0    350\n"
            "   7          10.0   0.0    0.0     5.0     30\n"
            "   9           0.0   0.0    0.0    15.0     30\n"
            "\n"
            "PKT_TYPE  WLAN/S\n"
            "       4    20.0\n");
  EXPECT_EQ(vanectl::TopScreen(now, now, 1.0),
            "0.0 packets/s over 1.0 s\n\n"
            "VCPU  DISPATCHED/S  VP/S  ECM/S  WLAN/S  TOTAL\n"
            "   2           0.0   0.0    0.0     0.0    350\n"
            "   7           0.0   0.0    0.0     0.0     30\n"
            "   9           0.0   0.0    0.0     0.0     30\n");
}

}  // namespace
}  // namespace vane::test
