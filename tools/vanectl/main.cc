// vanectl, the operator's tool: the options every subcommand shares, and the
// subcommands each file adds (commands.h).
#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <string>

#include "commands.h"

#ifndef VANECTL_VERSION
#define VANECTL_VERSION "unknown"
#endif

namespace vanectl {

vane_endpoint Global::Endpoint() const {
  vane_endpoint ep{};
  if (transport == "netlink") {
    ep.transport = VANE_TRANSPORT_NETLINK;
  } else if (transport == "unix") {
    ep.transport = VANE_TRANSPORT_UNIX;
  } else {
    ep.transport = VANE_TRANSPORT_AUTO;
  }
  // Empty: libvane's own default ($VANE_RUNDIR, then /run/vane).
  ep.run_dir = run_dir.empty() ? nullptr : run_dir.c_str();
  return ep;
}

namespace {

int Run(int argc, char** argv) {
  CLI::App app{"vanectl: configure and inspect the drv_vane dispatcher (kernel module or vaned)"};
  app.set_version_flag("--version", std::string("vanectl ") + VANECTL_VERSION);
  app.require_subcommand(1);

  Global g;
  app.add_option("--transport", g.transport,
                 "Where the dispatcher is: auto (VANE_TRANSPORT, else vaned if its run "
                 "directory has sockets, else the kernel module), netlink or unix")
      ->check(CLI::IsMember({"auto", "netlink", "unix"}))
      ->capture_default_str();
  app.add_option("--run-dir", g.run_dir,
                 "vaned's run directory (default: $VANE_RUNDIR or /run/vane)");
  app.add_flag("--json", g.json, "Output for programs: JSON instead of tables and text");

  int status = 0;
  AddApply(app, g, status);
  AddShow(app, g, status);
  AddCapture(app, g, status);
  AddTop(app, g, status);
  AddMetrics(app, g, status);

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    const int rc = app.exit(e);
    return rc == 0 ? 0 : 2;
  }
  return status;
}

}  // namespace
}  // namespace vanectl

int main(int argc, char** argv) {
  // A subcommand reports its own failures; anything that escapes it (no
  // memory, a library's surprise) still ends with a message and status 1.
  try {
    return vanectl::Run(argc, argv);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "vanectl: %s\n", e.what());
  } catch (...) {
    std::fprintf(stderr, "vanectl: unexpected failure\n");
  }
  return 1;
}
