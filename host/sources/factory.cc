#include "host/sources/factory.h"

#include <optional>
#include <set>
#include <vector>

#include "host/sources/chip_header.h"
#include "host/sources/chip_rules.h"
#include "host/sources/iface_source.h"
#include "host/sources/inject_source.h"
#include "host/sources/pcap_file_source.h"
#include "vane/wire.h"

namespace vane::host {
namespace {

// What a source argument says, whichever syntax it came in.
struct Wanted {
  std::string kind;  // pcap, iface, inject
  std::string target;
  std::optional<uint32_t> eth;
  std::optional<std::string> timing;
  std::optional<uint64_t> rate;
  bool loop = false;
};

std::string Resolve(const std::string& path, const std::string& base) {
  if (path.empty() || path[0] == '/' || base.empty()) return path;
  return base.back() == '/' ? base + path : base + "/" + path;
}

std::unique_ptr<Source> Build(Wanted s, const SourceContext& ctx, const std::string& file_base,
                              const std::string& sock_base, std::string* err) {
  if (s.kind == "inject") {
    if (s.timing || s.rate || s.loop || s.eth) {
      *err = "inject: takes only a path (its buffers carry their own ethNum)";
      return nullptr;
    }
    const std::string path = s.target.empty() ? Resolve(VANE_WIRE_SOCK_INJECT, ctx.run_dir)
                                              : Resolve(s.target, sock_base);
    return InjectSource::Open(path, err);
  }
  if (s.target.empty()) {
    *err = s.kind + ": needs a " + (s.kind == "pcap" ? "file name" : "interface name");
    return nullptr;
  }
  std::string stage_err;
  std::shared_ptr<const ChipHeaderStage> stage = ChipHeaderStage::FromYaml(
      ctx.vaned_section.IsMap() ? ctx.vaned_section["chip_header"] : YAML::Node(), &stage_err);
  if (!stage) {
    *err = stage_err;
    return nullptr;
  }
  if (s.kind == "iface") {
    if (s.timing || s.rate || s.loop) {
      *err = "iface " + s.target + ": timing, rate and loop apply to pcap files only";
      return nullptr;
    }
    return IfaceSource::Open(s.target, s.eth, std::move(stage), err);
  }
  PcapFileOptions opt;
  opt.path = Resolve(s.target, file_base);
  opt.eth_num = s.eth;
  opt.loop = s.loop;
  if (!s.timing && s.rate) s.timing = "rate";
  const std::string timing = s.timing.value_or("fast");
  if (timing == "fast") {
    opt.timing = Timing::kFast;
  } else if (timing == "recorded") {
    opt.timing = Timing::kRecorded;
  } else if (timing == "rate") {
    opt.timing = Timing::kRate;
    if (!s.rate || *s.rate == 0) {
      *err = "pcap " + s.target + ": rate timing needs a rate above 0 packets per second";
      return nullptr;
    }
    opt.rate_pps = *s.rate;
  } else {
    *err = "pcap " + s.target + ": timing '" + timing + "' is not fast, recorded or rate";
    return nullptr;
  }
  if (s.rate && opt.timing != Timing::kRate) {
    *err = "pcap " + s.target + ": a rate needs rate timing";
    return nullptr;
  }
  return PcapFileSource::Open(opt, std::move(stage), err);
}

bool NumberOr(const std::string& text, const std::string& what, uint64_t hi, uint64_t* out,
              std::string* err) {
  if (ParseNumber(text, 0, hi, out)) return true;
  *err = what + ": '" + text + "' is not a number in 0.." + std::to_string(hi);
  return false;
}

std::vector<std::string> Split(const std::string& s, char sep) {
  std::vector<std::string> parts;
  size_t start = 0;
  for (;;) {
    const size_t at = s.find(sep, start);
    parts.push_back(s.substr(start, at - start));
    if (at == std::string::npos) return parts;
    start = at + 1;
  }
}

}  // namespace

std::unique_ptr<Source> MakeSource(const YAML::Node& entry, const SourceContext& ctx,
                                   std::string* err) {
  if (!entry.IsMap()) {
    *err = "source: expected a mapping with pcap, iface or inject";
    return nullptr;
  }
  Wanted s;
  int kinds = 0;
  for (const char* k : {"pcap", "iface", "inject"}) {
    if (entry[k]) {
      s.kind = k;
      ++kinds;
    }
  }
  if (kinds != 1) {
    *err = "source: needs exactly one of pcap, iface or inject";
    return nullptr;
  }
  const std::set<std::string> known = {"pcap",   "iface",    "inject", "eth_num",
                                       "timing", "rate_pps", "loop"};
  for (const auto& kv : entry) {
    if (known.count(kv.first.Scalar()) == 0) {
      *err = "source " + s.kind + ": unknown key '" + kv.first.Scalar() + "'";
      return nullptr;
    }
  }
  const YAML::Node target = entry[s.kind];
  if (target.IsScalar()) {
    s.target = target.Scalar();
  } else if (!target.IsNull() || s.kind != "inject") {
    *err = "source " + s.kind + ": expected a name";
    return nullptr;
  }
  const std::string where = "source " + s.kind + " " + s.target;
  uint64_t v = 0;
  if (const YAML::Node n = entry["eth_num"]) {
    if (!n.IsScalar() || !NumberOr(n.Scalar(), where + ": eth_num", UINT32_MAX, &v, err)) {
      if (!n.IsScalar()) *err = where + ": eth_num must be a number";
      return nullptr;
    }
    s.eth = static_cast<uint32_t>(v);
  }
  if (const YAML::Node n = entry["timing"]) s.timing = n.IsScalar() ? n.Scalar() : "?";
  if (const YAML::Node n = entry["rate_pps"]) {
    if (!n.IsScalar() || !NumberOr(n.Scalar(), where + ": rate_pps", UINT32_MAX, &v, err)) {
      if (!n.IsScalar()) *err = where + ": rate_pps must be a number";
      return nullptr;
    }
    s.rate = v;
  }
  if (const YAML::Node n = entry["loop"]) {
    const std::string b = n.IsScalar() ? n.Scalar() : "";
    if (b != "true" && b != "false") {
      *err = where + ": loop must be true or false";
      return nullptr;
    }
    s.loop = b == "true";
  }
  return Build(std::move(s), ctx, ctx.config_dir, ctx.run_dir, err);
}

std::unique_ptr<Source> MakeSourceFromArg(const std::string& cli_spec, const SourceContext& ctx,
                                          std::string* err) {
  const size_t colon = cli_spec.find(':');
  Wanted s;
  s.kind = cli_spec.substr(0, colon);
  if (s.kind != "pcap" && s.kind != "iface" && s.kind != "inject") {
    *err = "source '" + cli_spec + "': expected pcap:FILE, iface:NAME or inject[:PATH]";
    return nullptr;
  }
  if (colon == std::string::npos) return Build(std::move(s), ctx, "", ctx.run_dir, err);
  const std::vector<std::string> parts = Split(cli_spec.substr(colon + 1), ',');
  // The injection path is taken whole: a socket path may hold commas.
  if (s.kind == "inject") {
    s.target = cli_spec.substr(colon + 1);
    return Build(std::move(s), ctx, "", "", err);
  }
  s.target = parts[0];
  const std::string where = "source '" + cli_spec + "'";
  for (size_t i = 1; i < parts.size(); ++i) {
    const std::string& p = parts[i];
    const size_t eq = p.find('=');
    const std::string key = p.substr(0, eq);
    const std::string val = eq == std::string::npos ? "" : p.substr(eq + 1);
    uint64_t v = 0;
    if (key == "loop" && eq == std::string::npos) {
      s.loop = true;
    } else if (key == "eth" && eq != std::string::npos) {
      if (!NumberOr(val, where + ": eth", UINT32_MAX, &v, err)) return nullptr;
      s.eth = static_cast<uint32_t>(v);
    } else if (key == "timing" && eq != std::string::npos) {
      s.timing = val;
    } else if (key == "rate" && eq != std::string::npos) {
      if (!NumberOr(val, where + ": rate", UINT32_MAX, &v, err)) return nullptr;
      s.rate = v;
    } else {
      *err = where;
      *err += ": unknown option '" + p + "'";
      return nullptr;
    }
  }
  return Build(std::move(s), ctx, "", "", err);
}

}  // namespace vane::host
