// The configuration format: what it leaves out, and each kind of mistake
// refused with the file, line and key that hold it. (The sample file is
// pinned by the golden dry run of apply.)
#include "config.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>

namespace vanectl {
namespace {

std::string Error(const std::string& yaml) {
  try {
    ParseConfig(yaml, "t.yaml");
  } catch (const ConfigError& e) {
    return e.what();
  }
  return "accepted";
}

TEST(ConfigTest, MissingSectionsAreLeftOutAndNumbersMayBeHex) {
  const Config empty = ParseConfig("", "t.yaml");
  EXPECT_FALSE(empty.dispatch || empty.steering || empty.timng || empty.wlan);
  const Config c = ParseConfig("wlan:\n  portal: {port: 0x7d0, vcpu: 0x3F}\n", "t.yaml");
  EXPECT_FALSE(c.dispatch);
  EXPECT_EQ(c.wlan->portal->port, 2000);
  EXPECT_EQ(c.wlan->portal->vcpu, 63u);
  EXPECT_FALSE(c.wlan->nac);
}

TEST(ConfigTest, UnknownAndRepeatedKeysAreRefusedWhereTheyStand) {
  EXPECT_EQ(Error("steering:\n  ivo:\n    enable: true\n    vpcu: 7\n"),
            "t.yaml:4:5: steering.ivo.vpcu: unknown key (known here: enable, vcpu, cause_ids, "
            "range)");
  EXPECT_EQ(Error("dispatch:\n  multicore: true\n  multicore: false\n"),
            "t.yaml:3:3: dispatch.multicore: key given twice");
  EXPECT_EQ(Error("wlan: {}\nwaln: {}\n"),
            "t.yaml:2:1: waln: unknown key (known here: dispatch, steering, timng, wlan, vaned)");
  // The daemon's section is not vanectl's to judge.
  EXPECT_EQ(Error("vaned:\n  anything: [goes, here]\n"), "accepted");
}

TEST(ConfigTest, ValuesOutOfRangeNameTheirKeyAndLine) {
  EXPECT_EQ(Error("wlan:\n  portal: {port: 2000, vcpu: 64}\n"),
            "t.yaml:2:30: wlan.portal.vcpu: 64 is out of range 1..63");
  EXPECT_EQ(Error("timng:\n  entries:\n    - {cause_id: 8192, node: 1}\n"),
            "t.yaml:3:18: timng.entries[0].cause_id: 8192 is out of range 0..8191");
  EXPECT_EQ(Error("wlan:\n  socket_ports:\n    - {port: 65536, vcpu: 3}\n"),
            "t.yaml:3:14: wlan.socket_ports[0].port: 65536 is out of range 0..65535");
  EXPECT_EQ(Error("dispatch:\n  ethertypes: {vp: 0x10000}\n"),
            "t.yaml:2:20: dispatch.ethertypes.vp: 0x10000 is out of range 0..65535");
  EXPECT_EQ(Error("dispatch:\n  board_type: 99999999999999999999999\n"),
            "t.yaml:2:15: dispatch.board_type: 99999999999999999999999 is out of range "
            "0..4294967295");
  EXPECT_EQ(Error("dispatch:\n  board_type: -1\n"),
            "t.yaml:2:15: dispatch.board_type: '-1' is not a decimal or 0x number");
  EXPECT_EQ(Error("dispatch:\n  multicore: yes\n"),
            "t.yaml:2:14: dispatch.multicore: 'yes' is not true or false");
  EXPECT_EQ(Error("wlan:\n  cause_ids:\n    - {cause_id: 1, pkt_type: 12, lb: capwap}\n"),
            "t.yaml:3:31: wlan.cause_ids[0].pkt_type: 12 is out of range 1..11");
  EXPECT_EQ(Error("wlan:\n  cause_ids:\n    - {cause_id: 1, pkt_type: 1, lb: capwapp}\n"),
            "t.yaml:3:38: wlan.cause_ids[0].lb: 'capwapp' is not one of "
            "capwap|capwap_ka|aaa_mac|aaa_port");
}

TEST(ConfigTest, ListsKeepToWhatTheDispatcherHolds) {
  std::string ids;
  for (int i = 0; i < 21; ++i) ids += (i ? ", " : "") + std::to_string(i);
  EXPECT_EQ(Error("steering:\n  ivo: {vcpu: 1, cause_ids: [" + ids + "]}\n"),
            "t.yaml:2:29: steering.ivo.cause_ids: 21 entries; at most 20");
  EXPECT_EQ(Error("wlan:\n  board_type: 3\n  nac: [1,2,3,4,5,6,7,8,9,10,11,12,13,14,15,16,17]\n"),
            "t.yaml:3:8: wlan.nac: 17 entries; at most 16");
  std::string causes = "wlan:\n  cause_ids:\n";
  for (int i = 0; i < 101; ++i) {
    causes += "    - {cause_id: " + std::to_string(i) + ", pkt_type: 1, lb: capwap}\n";
  }
  EXPECT_EQ(Error(causes), "t.yaml:3:5: wlan.cause_ids: 101 entries; at most 100");
  EXPECT_EQ(Error("timng:\n  entries:\n    - {cause_id: 1, node: 1}\n    - {cause_id: 2, node: 1}\n"
                  "    - {cause_id: 3, node: 1}\n"),
            "t.yaml:3:5: timng.entries: 3 entries; at most 2");
  // A steering range from 0 would be switched off by the dispatcher.
  EXPECT_EQ(Error("steering:\n  ivo: {vcpu: 1, range: [0, 10]}\n"),
            "t.yaml:2:26: steering.ivo.range.min: 0 is out of range 1..8191");
  EXPECT_EQ(Error("steering:\n  ivo: {vcpu: 1, range: [20, 10]}\n"),
            "t.yaml:2:25: steering.ivo.range: min is above max: the range would match nothing");
}

TEST(ConfigTest, EntriesTheDispatcherWouldMergeOrNeverMatchAreRefused) {
  EXPECT_EQ(Error("wlan:\n  cause_ids:\n    - {cause_id: 7, pkt_type: 1, lb: capwap}\n"
                  "    - {cause_id: 7, pkt_type: 2, lb: aaa_mac}\n"),
            "t.yaml:4:7: wlan.cause_ids[1].cause_id: cause ID 7 is already given on line 3");
  EXPECT_EQ(Error("wlan:\n  capwap:\n"
                  "    - {src: 10.0.0.1, dst: 10.0.0.2, sport: 1, dport: 2, vcpu: 1}\n"
                  "    - {src: 10.0.0.1, dst: 10.0.0.2, sport: 1, dport: 2, vcpu: 2}\n"),
            "t.yaml:4:7: wlan.capwap[1]: the same tunnel is given on line 3");
  EXPECT_EQ(
      Error("wlan:\n  capwap:\n    - {src: any, dst: 10.0.0.2, sport: 1, dport: 2, vcpu: 1}\n"),
      "t.yaml:3:7: wlan.capwap[0]: a wildcard entry needs src: any, dst: any and vpn: any "
      "(with sport: any for a destination-port entry); no packet could reach this one");
  EXPECT_EQ(
      Error("wlan:\n  capwap:\n    - {src: 10.0.0.300, dst: any, sport: 1, dport: 2, vcpu: 1}\n"),
      "t.yaml:3:13: wlan.capwap[0].src: '10.0.0.300' is not a dotted IPv4 address or 'any'");
  EXPECT_EQ(Error("wlan:\n  capwap_keepalive:\n    - {session: 0a01000b, vcpu: 1}\n"),
            "t.yaml:3:17: wlan.capwap_keepalive[0].session: '0a01000b' is not 32 hex digits");
  EXPECT_EQ(Error("wlan:\n  nac: [3]\n"),
            "t.yaml:2:8: wlan.nac: needs wlan.board_type: the NAC list message sets the board "
            "type too");
  EXPECT_EQ(Error("wlan:\n  capwap:\n    - {src: 1.2.3.4, dst: 1.2.3.5, dport: 2, vcpu: 1}\n"),
            "t.yaml:3:7: wlan.capwap[0].sport: missing");
  // The two shapes the lookup tries do parse.
  const Config c = ParseConfig(
      "wlan:\n  capwap:\n"
      "    - {src: any, dst: any, sport: any, dport: 5247, vpn: any, vcpu: 4}\n"
      "    - {src: any, dst: any, sport: 9, dport: 5247, vpn: any, vcpu: 5}\n",
      "t.yaml");
  EXPECT_EQ(c.wlan->capwap[0].sport, kAnyPort);
  EXPECT_EQ(c.wlan->capwap[1].src, kAnyAddress);
}

TEST(ConfigTest, OddShapesAreRefusedWithAPlace) {
  const std::string cases[] = {
      "wlan: [1, 2]\n",
      "- 1\n- 2\n",
      "dispatch:\n  offsets: 5\n",
      "wlan:\n  board_type: 3\n  nac: {a: 1}\n",
      "? [a]\n: 1\n",
      "wlan:\n  board_type: 3\n  nac: &x [{a: 1}]\n  cause_ids: *x\n",
      "steering:\n  ivo: {vcpu: [1]}\n",
      "wlan:\n  capwap:\n    - {src: [1], dst: any, sport: any, dport: 1, vpn: any, vcpu: 1}\n",
      "a: " + std::string(20000, '['),
  };
  for (const std::string& text : cases) {
    EXPECT_EQ(Error(text).rfind("t.yaml", 0), 0u) << text.substr(0, 80) << ": " << Error(text);
  }
}

TEST(ConfigTest, TheDocumentedExampleParses) {
  std::ifstream in(VANECTL_CONFIG_DOC);
  std::ostringstream doc;
  doc << in.rdbuf();
  const std::string text = doc.str();
  const size_t start = text.rfind("```yaml\n");
  ASSERT_NE(start, std::string::npos);
  const size_t end = text.find("```", start + 8);
  ASSERT_NE(end, std::string::npos);
  const Config c = ParseConfig(text.substr(start + 8, end - start - 8), "CONFIG.md");
  ASSERT_TRUE(c.dispatch && c.steering && c.timng && c.wlan);
  EXPECT_EQ(c.wlan->capwap[1].sport, kAnyPort);
}

TEST(ConfigTest, SyntaxErrorsAndUnreadableFilesSayWhere) {
  EXPECT_EQ(Error("wlan: [\n").rfind("t.yaml:", 0), 0u);
  EXPECT_NE(Error("wlan: [\n").find(": syntax: "), std::string::npos);
  try {
    LoadConfig("/nonexistent/vane.yaml");
    FAIL() << "accepted";
  } catch (const ConfigError& e) {
    EXPECT_STREQ(e.what(), "/nonexistent/vane.yaml: cannot be read");
  }
}

}  // namespace
}  // namespace vanectl
