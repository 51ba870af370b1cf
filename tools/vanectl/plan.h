// From a validated configuration to the ordered list of control messages
// that installs it, and the loop that sends them one by one, each waiting for
// its acknowledgement, stopping at the first failure.
//
// The order (tables before what makes them reachable, the dispatch record
// last) is explained in CONFIG.md and in Plan().
//
// Threads: ApplyConfig uses the control handle from the calling thread only.
#ifndef VANE_TOOLS_VANECTL_PLAN_H
#define VANE_TOOLS_VANECTL_PLAN_H

#include <cstddef>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "config.h"
#include "vane/vane.h"

namespace vanectl {

// One control message of the plan.
struct Step {
  std::string kind;     // counted in the summary: "capwap", "nac", "dispatch", ...
  uint32_t msg_id = 0;  // 5, 10, 11, 14 or 15
  std::string summary;  // what it installs, for people
  int line = 0;         // where the file says so (0: the section as a whole)
  std::function<int(vane_ctl*)> send;
};

// The messages, in the order in which they are safe to send.
std::vector<Step> Plan(const Config& c);

struct ApplyResult {
  size_t sent = 0;                        // acknowledged with success
  std::map<std::string, size_t> by_kind;  // of those, per kind
  bool failed = false;
  size_t failed_index = 0;  // into the plan
  int error = 0;            // the negated errno of the failing message
};

// Called after each message with its index in the plan and its result.
using StepObserver = std::function<void(size_t index, const Step& step, int result)>;

// Sends Plan(c) on `ctl`. Returns 0 when every message was acknowledged
// with success, else the failing message's (negative) result; `out`, when
// given, says how far it got.
int ApplyConfig(const Config& c, vane_ctl* ctl, ApplyResult* out = nullptr,
                const StepObserver& observe = {});

// "applied 27 messages (8 capwap, 4 capwap_keepalive, ...)" in plan order.
std::string Summary(const std::vector<Step>& plan, const ApplyResult& r);

}  // namespace vanectl

#endif  // VANE_TOOLS_VANECTL_PLAN_H
