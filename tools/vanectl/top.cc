// vanectl top: samples the counters every interval and shows the rates,
// redrawn in place on a terminal and as plain successive screens otherwise
// (for logs and pipes).
#include <fmt/format.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <memory>
#include <thread>

#include "commands.h"
#include "files.h"
#include "rates.h"

namespace vanectl {

namespace {

struct TopOptions {
  double interval = 1;
  unsigned iterations = 0;  // 0: until interrupted
};

vane_counters Sample(Files& f) {
  const auto img = f.Read(kCountsPath);
  vane_counters c{};
  if (int rc = vane_decode_counters(img.data(), img.size(), &c); rc < 0) {
    throw FileError(
        fmt::format("{} does not hold the counters: {}", kCountsPath, std::strerror(-rc)));
  }
  return c;
}

int Run(const Global& g, const TopOptions& o) {
  using Clock = std::chrono::steady_clock;
  const bool tty = isatty(STDOUT_FILENO) == 1;
  Files f(g);
  vane_counters before = Sample(f);
  auto t0 = Clock::now();
  for (unsigned i = 0; o.iterations == 0 || i < o.iterations; ++i) {
    std::this_thread::sleep_for(std::chrono::duration<double>(o.interval));
    const vane_counters now = Sample(f);
    const auto t1 = Clock::now();
    // The measured interval, not the requested one: a slow read must not
    // inflate the rates.
    const double seconds = std::chrono::duration<double>(t1 - t0).count();
    const std::string screen = TopScreen(before, now, seconds);
    if (tty) {
      fmt::print("\x1b[H\x1b[2J{}", screen);
    } else {
      fmt::print("{}{}", i ? "\n" : "", screen);
    }
    std::fflush(stdout);
    before = now;
    t0 = t1;
  }
  return 0;
}

}  // namespace

void AddTop(CLI::App& app, const Global& g, int& status) {
  auto o = std::make_shared<TopOptions>();
  CLI::App* t = app.add_subcommand("top", "Live per-vCPU and per-type packet rates");
  t->add_option("--interval", o->interval, "Seconds between samples")->check(CLI::PositiveNumber);
  t->add_option("--iterations", o->iterations, "Screens to show (0: until interrupted)");
  t->callback([&g, &status, o] { Guarded(status, [&g, &o] { return Run(g, *o); }); });
}

}  // namespace vanectl
