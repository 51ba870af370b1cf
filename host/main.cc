// vaned: the module core as a host service.
//
//   vaned [--run-dir DIR] [--config FILE.yaml] [--source SOURCE]... [--stats FILE]
//         [--exit-when-done] [--paused] [--foreground]
//
// The configuration file's `vaned:` section gives the packet sources and the
// chip-header settings; --source options replace its sources. Exit status:
// 0 after a clean shutdown, 1 when the module's unload left allocations
// behind, 2 for a bad command line or configuration, 3 when vaned could not
// start (run directory, sockets, module init) or failed unexpectedly.
#include <yaml-cpp/yaml.h>

#include <CLI/CLI.hpp>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "daemon.h"
#include "log.h"
#include "sources/factory.h"
#include "vane/wire.h"

namespace {

using vane::host::kLogErr;
using vane::host::Log;

// Makes the sources of the command line, or else of the configuration.
// false (logged) when one cannot be made.
bool AddSources(vane::host::Daemon& daemon, const YAML::Node& vaned, const std::string& run_dir,
                const std::string& config_dir, const std::vector<std::string>& args) {
  const YAML::Node listed = vaned ? vaned["sources"] : YAML::Node();
  const bool any = !args.empty() || (listed && listed.IsSequence() && listed.size() != 0);
  if (!any) return true;
  vane::host::SourceContext ctx{run_dir, vaned, config_dir};
  std::string err;
  if (!args.empty()) {
    for (const std::string& arg : args) {
      auto src = vane::host::MakeSourceFromArg(arg, ctx, &err);
      if (src == nullptr) {
        Log(kLogErr, "source '{}': {}", arg, err);
        return false;
      }
      daemon.AddSource(std::move(src));
    }
    return true;
  }
  for (const YAML::Node& node : listed) {
    auto src = vane::host::MakeSource(node, ctx, &err);
    if (src == nullptr) {
      Log(kLogErr, "source {}: {}", YAML::Dump(node), err);
      return false;
    }
    daemon.AddSource(std::move(src));
  }
  return true;
}

int Main(int argc, char** argv) {
  // The module's kernel log goes to stderr with its level prefix, next to
  // vaned's own lines; set before the first printk reads it.
  setenv("KPORT_KLOG_STDERR", "1", 0);

  CLI::App app{"vaned: the packet dispatcher core as a host service"};
  vane::host::DaemonOptions opt;
  opt.run_dir = VANE_WIRE_RUN_DIR_DEFAULT;
  std::string config;
  std::vector<std::string> args;
  bool foreground = false;
  app.add_option("--run-dir", opt.run_dir, "directory of the channel sockets");
  app.add_option("--config", config, "configuration file (YAML; its vaned section)");
  app.add_option("--source", args, "packet source; replaces the configuration's sources");
  app.add_option("--stats", opt.stats_path, "JSON counters file, rewritten every second");
  app.add_flag("--exit-when-done", opt.exit_when_done,
               "shut down once every source that plays once has finished");
  app.add_flag("--paused", opt.paused,
               "hold the sources until SIGUSR1 (workers register, tables are applied first)");
  // vaned never detaches: service managers and shells do that better.
  app.add_flag("--foreground", foreground, "stay in the foreground (always the case)");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    return app.exit(e) == 0 ? 0 : 2;
  }

  YAML::Node vaned;
  std::string config_dir = ".";
  if (!config.empty()) {
    try {
      vaned = YAML::LoadFile(config)["vaned"];
    } catch (const YAML::Exception& e) {
      Log(kLogErr, "configuration {}: {}", config, e.what());
      return 2;
    }
    config_dir = std::filesystem::absolute(config).parent_path().string();
  }

  vane::host::Daemon daemon(opt);
  if (daemon.Start() != 0) return 3;
  if (!AddSources(daemon, vaned, opt.run_dir, config_dir, args)) {
    daemon.RequestStop();
    daemon.Run();
    return 2;
  }
  return daemon.Run();
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return Main(argc, argv);
  } catch (const std::exception& e) {
    Log(kLogErr, "{}", e.what());
    return 3;
  }
}
