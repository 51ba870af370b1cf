// `vanectl apply FILE [--dry-run]`: the command around Plan/ApplyConfig,
// with its text and JSON output (apply_run.cc; the options are apply.cc).
// RunApply is the whole command minus the argument parsing, so that tests
// drive it as the operator does.
#ifndef VANE_TOOLS_VANECTL_APPLY_H
#define VANE_TOOLS_VANECTL_APPLY_H

#include <ostream>

#include "config.h"
#include "vane/vane.h"

namespace vanectl {

struct ApplyOptions {
  bool dry_run = false;  // print each message with its bytes; send nothing
  bool json = false;     // the plan and the outcome as one JSON document
};

// Applies `c` through a control handle opened on `ep` (replaced by a dry-run
// endpoint when opts.dry_run). Reports on `out`, problems on `err`.
// Returns the exit status: 0 all acknowledged, 1 a message failed or the
// dispatcher could not be reached.
int RunApply(const Config& c, const vane_endpoint& ep, const ApplyOptions& opts, std::ostream& out,
             std::ostream& err);

}  // namespace vanectl

#endif  // VANE_TOOLS_VANECTL_APPLY_H
