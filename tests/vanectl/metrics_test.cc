// vanectl metrics' Prometheus text parsed back line by line: every sample
// belongs to a family announced with HELP and TYPE before it, labels are
// well formed, no series repeats, and the values are the decoded ones.
#include <gtest/gtest.h>

#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>

#include "prom.h"

namespace {

struct Parsed {
  std::map<std::string, std::string> type;  // family -> counter|gauge
  std::map<std::string, double> samples;    // "name{labels}" -> value
};

Parsed Parse(const std::string& text) {
  Parsed p;
  std::set<std::string> helped;
  const std::regex help(R"(# HELP ([a-z_]+) \S.*)");
  const std::regex type(R"(# TYPE ([a-z_]+) (counter|gauge))");
  const std::regex sample(R"(([a-z_]+)(\{([a-z_]+="[^"\\]*")(,[a-z_]+="[^"\\]*")*\})? (\d+))");
  std::istringstream in(text);
  std::string line;
  std::smatch m;
  while (std::getline(in, line)) {
    if (std::regex_match(line, m, help)) {
      EXPECT_TRUE(helped.insert(m[1]).second) << "HELP twice: " << line;
    } else if (std::regex_match(line, m, type)) {
      EXPECT_TRUE(helped.count(m[1])) << "TYPE before HELP: " << line;
      EXPECT_TRUE(p.type.emplace(m[1], m[2]).second) << "TYPE twice: " << line;
    } else if (std::regex_match(line, m, sample)) {
      EXPECT_TRUE(p.type.count(m[1])) << "sample before its TYPE: " << line;
      const std::string series = line.substr(0, line.rfind(' '));
      EXPECT_TRUE(p.samples.emplace(series, std::stod(m[5])).second) << "repeated: " << line;
    } else {
      ADD_FAILURE() << "not exposition format: '" << line << "'";
    }
  }
  EXPECT_TRUE(text.empty() || text.back() == '\n');
  return p;
}

TEST(Metrics, EverySourceParsesBackToItsValues) {
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

  const Parsed p = Parse(vanectl::PrometheusText({&c, &s, &w, 0}));
  EXPECT_EQ(p.type.at("vane_packets_total"), "counter");
  EXPECT_EQ(p.type.at("vane_wlan_lb_board_type"), "gauge");
  EXPECT_EQ(p.samples.at(R"(vane_packets_total{kind="dispatched",vcpu="0"})"), 4);
  EXPECT_EQ(p.samples.at(R"(vane_packets_total{kind="dispatched",vcpu="63"})"), 4294967295.0);
  EXPECT_EQ(p.samples.at(R"(vane_packets_total{kind="ecm",vcpu="3"})"), 12);
  EXPECT_EQ(p.samples.at(R"(vane_packets_total{kind="vp",vcpu="9"})"), 1);
  EXPECT_EQ(p.samples.at(R"(vane_packets_total{kind="vp",vcpu="10"})"), 0);
  EXPECT_EQ(p.samples.at(R"(vane_wlan_packets_total{vcpu="4",pkt_type="2"})"), 7);
  EXPECT_EQ(p.samples.at(R"(vane_steering_hits_total{table="ivo",match="list"})"), 5);
  EXPECT_EQ(p.samples.at(R"(vane_steering_hits_total{table="deteption",match="range"})"), 9);
  EXPECT_EQ(p.samples.at(R"(vane_wlan_lb_messages_total{set_type="capwap"})"), 11);
  EXPECT_EQ(p.samples.at(R"(vane_wlan_lb_messages_total{set_type="cause_ids"})"), 1);
  EXPECT_EQ(p.samples.at("vane_wlan_lb_board_type"), 3);
  EXPECT_EQ(p.samples.at("vane_scrape_errors"), 0);
  size_t wlan_series = 0;
  for (const auto& [series, v] : p.samples) {
    wlan_series += series.rfind("vane_wlan_packets_total", 0) == 0 ? 1 : 0;
  }
  EXPECT_EQ(wlan_series, 1u) << "WLAN series only once non-zero";
  EXPECT_EQ(p.samples.size(), 192u + 1 + 4 + 7 + 1 + 1);
}

TEST(Metrics, MissingSourcesLeaveOnlyTheErrorCount) {
  const Parsed p = Parse(vanectl::PrometheusText({nullptr, nullptr, nullptr, 3}));
  EXPECT_EQ(p.samples.size(), 1u);
  EXPECT_EQ(p.samples.at("vane_scrape_errors"), 3);
}

}  // namespace
