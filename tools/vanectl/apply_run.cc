// The apply command's work once its file is loaded: send the plan and say
// what happened, or, on a dry run, show every message exactly as it would go
// out instead.
#include "apply.h"

#include <fmt/format.h>
#include <fmt/ostream.h>

#include <cstring>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "plan.h"

namespace vanectl {
namespace {

struct Captured {
  int channel = 0;
  std::vector<uint8_t> bytes;
};

void Capture(void* arg, int channel, const uint8_t* msg, size_t len) {
  static_cast<std::vector<Captured>*>(arg)->push_back(
      {channel, std::vector<uint8_t>(msg, msg + len)});
}

std::string ChannelName(int channel) {
  if (channel == VANE_CHANNEL_NORMAL) return "normal(26)";
  if (channel == VANE_CHANNEL_FAST) return "fast(27)";
  return fmt::format("channel {}", channel);
}

std::string Hex(const std::vector<uint8_t>& b, const char* indent, size_t per_line) {
  std::string s;
  for (size_t i = 0; i < b.size(); ++i) {
    if (i % per_line == 0) s += (i == 0 ? "" : "\n") + std::string(indent);
    s += fmt::format("{}{:02x}", i % per_line == 0 ? "" : " ", b[i]);
  }
  return s;
}

std::string HexCompact(const std::vector<uint8_t>& b) {
  std::string s;
  for (uint8_t x : b) s += fmt::format("{:02x}", x);
  return s;
}

std::string Where(const Config& c, const Step& s) {
  return s.line > 0 ? fmt::format("{} line {}", c.file, s.line) : c.file;
}

std::string ErrorText(int rc) { return fmt::format("{} ({})", std::strerror(-rc), rc); }

}  // namespace

int RunApply(const Config& c, const vane_endpoint& ep_in, const ApplyOptions& opts,
             std::ostream& out, std::ostream& err) {
  std::vector<Captured> captured;
  vane_endpoint ep = ep_in;
  if (opts.dry_run) {
    ep = vane_endpoint{};
    ep.transport = VANE_TRANSPORT_DRY_RUN;
    ep.dry_run = Capture;
    ep.dry_run_arg = &captured;
  }
  const std::vector<Step> plan = Plan(c);
  vane_ctl* ctl = nullptr;
  if (const int rc = vane_ctl_open(&ep, &ctl); rc != 0) {
    fmt::print(err, "vanectl: apply: cannot reach the dispatcher over {}: {}\n",
               vane_transport_name(vane_resolve_transport(&ep)), ErrorText(rc));
    return 1;
  }

  nlohmann::json messages = nlohmann::json::array();
  if (!opts.json && opts.dry_run) {
    fmt::print(out, "# {}: {} message{}, dry run: nothing is sent\n", c.file, plan.size(),
               plan.size() == 1 ? "" : "s");
  }
  const StepObserver observe = [&](size_t i, const Step& s, int rc) {
    if (opts.json) {
      nlohmann::json m = {{"index", i + 1},
                          {"kind", s.kind},
                          {"message_id", s.msg_id},
                          {"summary", s.summary},
                          {"result", rc}};
      if (s.line > 0) m["line"] = s.line;
      if (opts.dry_run) {
        nlohmann::json wire = nlohmann::json::array();
        for (const Captured& m2 : captured) {
          wire.push_back({{"channel", m2.channel}, {"bytes", HexCompact(m2.bytes)}});
        }
        m["wire"] = wire;
      }
      messages.push_back(m);
    } else if (opts.dry_run) {
      fmt::print(out, "[{}] message {}: {}{}\n", i + 1, s.msg_id, s.summary,
                 s.line > 0 ? fmt::format(" (line {})", s.line) : "");
      for (const Captured& m : captured) {
        fmt::print(out, "  {} {} bytes\n{}\n", ChannelName(m.channel), m.bytes.size(),
                   Hex(m.bytes, "    ", 16));
      }
    }
    captured.clear();
  };
  ApplyResult r;
  const int rc = ApplyConfig(c, ctl, &r, observe);
  const std::string transport = vane_transport_name(vane_ctl_transport(ctl));
  vane_ctl_close(ctl);

  const std::string summary = Summary(plan, r);
  std::string failure;
  if (rc != 0) {
    const Step& s = plan[r.failed_index];
    failure = fmt::format("{}: message {} of {} ({}) failed: {}; {} message{} applied before it",
                          Where(c, s), r.failed_index + 1, plan.size(), s.summary, ErrorText(rc),
                          r.sent, r.sent == 1 ? " was" : "s were");
  }
  if (opts.json) {
    nlohmann::json doc = {{"file", c.file},         {"dry_run", opts.dry_run},
                          {"transport", transport}, {"planned", plan.size()},
                          {"applied", r.sent},      {"summary", summary},
                          {"messages", messages}};
    doc["error"] = rc != 0 ? nlohmann::json(failure) : nlohmann::json(nullptr);
    out << doc.dump(2) << '\n';
  } else {
    fmt::print(out, "{}{}\n", opts.dry_run ? "dry run: " : "", summary);
  }
  if (rc != 0) {
    fmt::print(err, "vanectl: apply: {}\n", failure);
    return 1;
  }
  return 0;
}

}  // namespace vanectl
