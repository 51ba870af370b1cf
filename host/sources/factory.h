// Makes vaned's packet sources from the configuration file's
// `vaned.sources` entries or from command-line arguments.
//
// Configuration entries (exactly one of pcap, iface, inject):
//   {pcap: FILE, eth_num: N, timing: fast|recorded|rate, rate_pps: N, loop: B}
//   {iface: NAME, eth_num: N}
//   {inject: PATH}      PATH may be omitted or null: <run_dir>/inject.sock
// A relative pcap FILE resolves against the configuration file's directory,
// a relative inject PATH against the run directory.
//
// Command-line arguments (relative paths resolve against the working directory):
//   pcap:FILE[,eth=N][,timing=fast|recorded|rate][,rate=PPS][,loop]
//   iface:NAME[,eth=N]
//   inject[:PATH]
// rate=PPS alone implies rate timing. Without an ethNum, a frame gets the
// chip-header stage's (rules first, then its default).
//
// Capture-based sources (pcap, iface) wrap frames with the chip-header stage
// built from the `chip_header` key of the vaned section.
#ifndef VANE_HOST_SOURCES_FACTORY_H
#define VANE_HOST_SOURCES_FACTORY_H

#include <yaml-cpp/yaml.h>

#include <memory>
#include <string>

#include "host/source.h"

namespace vane::host {

struct SourceContext {
  std::string run_dir;       // where the default injection socket lives
  YAML::Node vaned_section;  // the configuration's `vaned` section (may be null)
  std::string config_dir;    // directory of the configuration file
};

// nullptr with a message naming the entry's mistake in *err.
std::unique_ptr<Source> MakeSource(const YAML::Node& entry, const SourceContext& ctx,
                                   std::string* err);
std::unique_ptr<Source> MakeSourceFromArg(const std::string& cli_spec, const SourceContext& ctx,
                                          std::string* err);

}  // namespace vane::host

#endif  // VANE_HOST_SOURCES_FACTORY_H
