// `vanectl apply FILE [--dry-run]`: the subcommand's options; the work is
// RunApply's (apply_run.cc).
#include <fmt/format.h>

#include <iostream>
#include <memory>
#include <string>

#include "apply.h"
#include "commands.h"

namespace vanectl {

void AddApply(CLI::App& app, const Global& g, int& status) {
  CLI::App* cmd = app.add_subcommand(
      "apply",
      "Install a configuration file: each table entry as a control message, in a safe "
      "order, each acknowledged (format: tools/vanectl/CONFIG.md)");
  struct Args {
    std::string file;
    bool dry_run = false;
  };
  auto args = std::make_shared<Args>();
  cmd->add_option("FILE", args->file, "The YAML configuration file")->required();
  cmd->add_flag("--dry-run", args->dry_run,
                "Print each message (channel, id, what it installs, the exact bytes) and send "
                "nothing");
  cmd->callback([&g, &status, args]() {
    Config c;
    try {
      c = LoadConfig(args->file);
    } catch (const ConfigError& e) {
      fmt::print(stderr, "vanectl: apply: {}\n", e.what());
      status = 1;
      return;
    }
    ApplyOptions opts;
    opts.dry_run = args->dry_run;
    opts.json = g.json;
    status = RunApply(c, g.Endpoint(), opts, std::cout, std::cerr);
  });
}

}  // namespace vanectl
