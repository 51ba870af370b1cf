// vanectl metrics: one scrape of the dispatcher's statistics in the
// Prometheus text format, on stdout or atomically into a file for the node
// exporter's textfile collector.
//
// There is no HTTP server: the node exporter already serves the textfile
// directory, and a listening socket in an operator tool would be one more
// thing to secure. A cron or systemd timer running
// `vanectl metrics -o /var/lib/node_exporter/textfile/vane.prom` is enough.
#include <fmt/format.h>

#include <cstdio>
#include <fstream>
#include <memory>
#include <optional>

#include "commands.h"
#include "files.h"
#include "prom.h"

namespace vanectl {

namespace {

// A source that cannot be had is left out of the scrape, not fatal: the
// others still say something, and vane_scrape_errors tells it.
template <typename T, typename Decode>
std::unique_ptr<T> Source(Decode decode, unsigned* errors) {
  auto out = std::make_unique<T>();
  try {
    if (decode(out.get()) == 0) {
      return out;
    }
  } catch (const FileError& e) {
    fmt::print(stderr, "vanectl: {}\n", e.what());
  }
  ++*errors;
  return nullptr;
}

int Scrape(const Global& g, const std::string& path) {
  Files f(g);
  MetricsInput in;
  const auto counters = Source<vane_counters>(
      [&f](vane_counters* c) {
        const auto img = f.Read(kCountsPath);
        return vane_decode_counters(img.data(), img.size(), c);
      },
      &in.errors);
  const auto steering = Source<vane_ivo_stats>(
      [&f](vane_ivo_stats* s) {
        const auto img = f.Read(kIvoPath);
        return vane_decode_ivo(img.data(), img.size(), s);
      },
      &in.errors);
  const auto wlan = Source<vane_wlan_stats>(
      [&f](vane_wlan_stats* w) {
        const char sel[] = "3";
        f.Write(kWlanAttrPath, sel, 1);
        const auto img = f.Read(kWlanAttrPath);
        return vane_decode_wlan_stats(reinterpret_cast<const char*>(img.data()), img.size(), w);
      },
      &in.errors);
  in.counters = counters.get();
  in.steering = steering.get();
  in.wlan = wlan.get();
  const std::string text = PrometheusText(in);
  if (in.errors == 3) {
    return 1;
  }
  if (path.empty()) {
    fmt::print("{}", text);
    return 0;
  }
  // The collector may read at any moment: it must see the old file or the
  // new one, never half of one.
  const std::string tmp = path + ".tmp";
  {
    std::ofstream out(tmp, std::ios::trunc);
    out << text;
    if (!out.flush()) {
      throw FileError("cannot write " + tmp);
    }
  }
  if (std::rename(tmp.c_str(), path.c_str()) != 0) {
    std::remove(tmp.c_str());
    throw FileError("cannot replace " + path);
  }
  return 0;
}

}  // namespace

void AddMetrics(CLI::App& app, const Global& g, int& status) {
  auto output = std::make_shared<std::string>();
  CLI::App* m = app.add_subcommand("metrics", "Statistics in the Prometheus text format");
  m->add_option("-o,--output", *output,
                "Write to this file (replaced atomically) instead of stdout");
  m->callback(
      [&g, &status, output] { Guarded(status, [&g, &output] { return Scrape(g, *output); }); });
}

}  // namespace vanectl
