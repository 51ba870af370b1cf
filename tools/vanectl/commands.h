// vanectl's subcommands: each file adds its own to the application.
#ifndef VANE_TOOLS_VANECTL_COMMANDS_H
#define VANE_TOOLS_VANECTL_COMMANDS_H

#include <CLI/CLI.hpp>
#include <string>

#include "vane/vane.h"

namespace vanectl {

// Options every subcommand shares; filled by main before a callback runs.
struct Global {
  std::string transport = "auto";  // --transport auto|netlink|unix
  std::string run_dir;             // --run-dir (default: $VANE_RUNDIR or /run/vane)
  bool json = false;               // --json

  vane_endpoint Endpoint() const;  // main.cc
};

// Each returns nothing; the subcommand's callback sets the process's exit
// status through `int& status` (0 success, 1 failure, 2 usage).
void AddApply(CLI::App& app, const Global& g, int& status);    // apply.cc
void AddShow(CLI::App& app, const Global& g, int& status);     // show.cc
void AddCapture(CLI::App& app, const Global& g, int& status);  // capture.cc
void AddTop(CLI::App& app, const Global& g, int& status);      // top.cc
void AddMetrics(CLI::App& app, const Global& g, int& status);  // metrics.cc

}  // namespace vanectl

#endif  // VANE_TOOLS_VANECTL_COMMANDS_H
