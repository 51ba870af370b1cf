// vanectl capture: arms a capture run through catchPkt, polls the store
// until the run's packets are in or the time is up, disarms, and writes what
// it got as pcapng.
//
// The store empties on every read, so the command drains it once before
// arming (leftovers of an earlier run are not this run's) and keeps every
// entry it reads. An entry read before its later event came keeps only its
// capture time stamp: --settle delays the reads for callers that report
// later events.
#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <memory>
#include <thread>
#include <vector>

#include "capture_file.h"
#include "commands.h"
#include "files.h"

namespace vanectl {

namespace {

struct CaptureOptions {
  unsigned count = VANE_CAPTURE_MAX_TOTAL;
  std::vector<std::string> filters;
  double timeout = 10;
  double interval = 0.2;
  double settle = 0;
  unsigned slot = 0;
  std::string output;
};

std::vector<vane_capture_entry> ReadStore(Files& f) {
  const auto img = f.ReadOnce(kCatchPath, VANE_CAPTURE_STORE_SIZE);
  vane_capture_store s{};
  if (int rc = vane_decode_capture_store(img.data(), img.size(), &s); rc < 0) {
    throw FileError(
        fmt::format("{} does not hold a capture store: {}", kCatchPath, std::strerror(-rc)));
  }
  std::vector<vane_capture_entry> out(s.entries, s.entries + s.count);
  std::sort(out.begin(), out.end(), [](const auto& a, const auto& b) { return a.num < b.num; });
  return out;
}

int Run(const Global& g, const CaptureOptions& o) {
  vane_capture_arm arm{};
  arm.total = static_cast<uint16_t>(o.count);
  arm.slot = o.slot;
  arm.slot_mask = 1u << (o.slot % 32);
  for (const std::string& kv : o.filters) {
    ApplyCaptureFilter(kv, &arm);
  }
  uint8_t block[VANE_CAPTURE_ARM_SIZE];
  if (vane_build_capture_arm(&arm, block) < 0) {
    throw std::invalid_argument("the capture options do not make a block");
  }
  Files f(g);
  (void)ReadStore(f);
  f.Write(kCatchPath, block, sizeof block);

  using Clock = std::chrono::steady_clock;
  const auto deadline = Clock::now() + std::chrono::duration<double>(o.timeout);
  std::vector<vane_capture_entry> got;
  while (got.size() < o.count && Clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::duration<double>(o.interval));
    for (const auto& e : ReadStore(f)) {
      got.push_back(e);
    }
  }
  if (got.size() >= o.count && o.settle > 0) {
    std::this_thread::sleep_for(std::chrono::duration<double>(o.settle));
  }
  // Whatever came in while we stopped is still this run's.
  vane_capture_arm off{};
  uint8_t stop[VANE_CAPTURE_ARM_SIZE];
  vane_build_capture_arm(&off, stop);
  f.Write(kCatchPath, stop, sizeof stop);
  for (const auto& e : ReadStore(f)) {
    got.push_back(e);
  }

  std::ofstream out(o.output, std::ios::binary | std::ios::trunc);
  const std::string file = CapturePcapng(got);
  out.write(file.data(), static_cast<std::streamsize>(file.size()));
  if (!out.flush()) {
    throw FileError("cannot write " + o.output);
  }
  fmt::print(stderr, "{} of {} packets captured into {}\n", got.size(), o.count, o.output);
  return got.size() < o.count ? 1 : 0;
}

}  // namespace

void AddCapture(CLI::App& app, const Global& g, int& status) {
  auto o = std::make_shared<CaptureOptions>();
  CLI::App* c = app.add_subcommand("capture", "Capture packets on the dispatcher into pcapng");
  c->add_option("--count", o->count,
                fmt::format("Packets to capture (1-{})", VANE_CAPTURE_MAX_TOTAL))
      ->check(CLI::Range(1, static_cast<int>(VANE_CAPTURE_MAX_TOTAL)));
  c->add_option("--filter", o->filters,
                "KEY=VALUE, repeatable: ethertype, sip, dip, sip6, dip6, smac, dmac, len, "
                "udf=OFFSET:VALUE (twice at most), srcmod, srcport");
  c->add_option("--timeout", o->timeout, "Seconds to wait for the packets")
      ->check(CLI::PositiveNumber);
  c->add_option("--interval", o->interval, "Seconds between reads of the store")
      ->check(CLI::PositiveNumber);
  c->add_option("--settle", o->settle, "Seconds to wait after the last capture for later events");
  c->add_option("--slot", o->slot, "The dispatcher's slot number (default 0)");
  c->add_option("-o,--output", o->output, "The pcapng file to write")->required();
  c->callback([&g, &status, o] { Guarded(status, [&g, &o] { return Run(g, *o); }); });
}

}  // namespace vanectl
