// What `vanectl apply` sends and in which order: the sample's dry run, as
// text and as JSON, byte for byte against reviewed golden files (its order,
// each message, the summary), the TIMNG slots, and the stop at the first
// message that fails.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "apply.h"
#include "config.h"
#include "host_support.h"
#include "plan.h"

namespace vanectl {
namespace {

Config Sample() { return ParseConfig(vane::test::ReadText(VANECTL_SAMPLE), "wlc.yaml"); }

// What went out: message id and, for message 10, the LB set type.
struct Sent {
  uint32_t id;
  uint32_t set_type;
  bool operator==(const Sent&) const = default;
};

void Record(void* arg, int /*channel*/, const uint8_t* msg, size_t len) {
  uint32_t id = 0;
  uint32_t set_type = 0xFFFFFFFF;
  if (len >= 20) std::memcpy(&id, msg + 16, 4);
  if (id == 10 && len >= 28) std::memcpy(&set_type, msg + 24, 4);
  static_cast<std::vector<Sent>*>(arg)->push_back({id, set_type});
}

std::vector<Sent> SendAll(const Config& c, ApplyResult* r, int* rc) {
  std::vector<Sent> sent;
  vane_endpoint ep{};
  ep.transport = VANE_TRANSPORT_DRY_RUN;
  ep.dry_run = Record;
  ep.dry_run_arg = &sent;
  vane_ctl* ctl = nullptr;
  EXPECT_EQ(vane_ctl_open(&ep, &ctl), 0);
  *rc = ApplyConfig(c, ctl, r);
  vane_ctl_close(ctl);
  return sent;
}

TEST(ApplyTest, TimngSpendsNoSlotOnAMasterMessageWhenEntriesCarryTheFlag) {
  // The dispatcher takes two TIMNG messages in its lifetime: entries alone
  // must use them, and the master message goes out only without entries.
  ApplyResult r;
  int rc = -1;
  Config c = ParseConfig(
      "timng:\n  master: true\n  entries:\n    - {cause_id: 5, node: 2}\n"
      "    - {cause_id: 6, node: 3, frag_scan: true}\n",
      "t.yaml");
  EXPECT_EQ(SendAll(c, &r, &rc), (std::vector<Sent>{{14, 0xFFFFFFFF}, {14, 0xFFFFFFFF}}));
  c = ParseConfig("timng:\n  master: true\n", "t.yaml");
  EXPECT_EQ(SendAll(c, &r, &rc), (std::vector<Sent>{{15, 0xFFFFFFFF}}));
}

TEST(ApplyTest, TheSampleDryRunIsByteForByteTheReviewedOne) {
  for (const bool json : {false, true}) {
    std::ostringstream out;
    std::ostringstream err;
    ASSERT_EQ(RunApply(Sample(), vane_endpoint{}, {.dry_run = true, .json = json}, out, err), 0)
        << err.str();
    EXPECT_EQ(err.str(), "");
    const std::string golden = std::string(VANE_GOLDEN_DIR) + "/wlc.dryrun" + (json ? ".json" : "");
    if (std::getenv("VANE_UPDATE_GOLDEN") != nullptr) {
      std::ofstream(golden, std::ios::binary) << out.str();
    }
    EXPECT_EQ(out.str(), vane::test::ReadText(golden))
        << "regenerate with VANE_UPDATE_GOLDEN=1 and review";
  }
}

TEST(ApplyTest, TheFirstFailureStopsTheRestAndNamesItsEntry) {
  // A table the library refuses to build (21 cause IDs; the file parser
  // would have refused it first) stands for a message the dispatcher fails.
  Config c = ParseConfig(
      "wlan:\n  capwap:\n    - {src: 10.0.0.1, dst: 10.0.0.2, sport: 1, dport: 2, vcpu: 1}\n"
      "    - {src: 10.0.0.1, dst: 10.0.0.2, sport: 1, dport: 3, vcpu: 1}\n"
      "dispatch:\n  multicore: true\n",
      "t.yaml");
  c.steering.emplace().ivo.emplace().vcpu = 3;
  c.steering->ivo->cause_ids.assign(21, 9);

  ApplyResult r;
  int rc = 0;
  const std::vector<Sent> sent = SendAll(c, &r, &rc);
  EXPECT_EQ(rc, -EINVAL);
  EXPECT_EQ(sent, (std::vector<Sent>{{10, 0}, {10, 0}})) << "nothing after the failure is sent";
  EXPECT_TRUE(r.failed);
  EXPECT_EQ(r.failed_index, 2u);

  std::ostringstream out;
  std::ostringstream err;
  EXPECT_EQ(RunApply(c, vane_endpoint{}, {.dry_run = true}, out, err), 1);
  EXPECT_NE(out.str().find("dry run: applied 2 messages (2 capwap)\n"), std::string::npos);
  EXPECT_EQ(err.str(),
            "vanectl: apply: t.yaml: message 3 of 4 (steering ivo on, vCPU 3, cause IDs "
            "[9 9 9 9 9 9 9 9 9 9 9 9 9 9 9 9 9 9 9 9 9]) failed: Invalid argument (-22); 2 "
            "messages were applied before it\n");
}

}  // namespace
}  // namespace vanectl
