// vanectl show: reads one diagnostic file, decodes it and prints it as a
// table or, with --json, as JSON (OUTPUT.md).
//
// Note: `show capture` reads the capture store, and a read empties it.
#include <arpa/inet.h>
#include <fmt/format.h>

#include <cstring>
#include <memory>
#include <string>

#include "commands.h"
#include "files.h"
#include "render.h"
#include "vane/decode.h"

namespace vanectl {

namespace {

void Check(int rc, const char* path) {
  if (rc < 0) {
    throw FileError(fmt::format("{} does not hold what it should: {}", path, std::strerror(-rc)));
  }
}

int Print(const Global& g, const Rendered& r) {
  if (g.json) {
    // Debug text is whatever the module was given to print: never let a
    // stray byte stop the output.
    fmt::print("{}\n", r.json.dump(2, ' ', false, nlohmann::json::error_handler_t::replace));
  } else {
    fmt::print("{}", r.text);
  }
  return 0;
}

template <typename T, typename Decode>
std::unique_ptr<T> DecodeFile(Files& f, const char* path, Decode decode) {
  const auto img = f.Read(path);
  auto out = std::make_unique<T>();
  Check(decode(img.data(), img.size(), out.get()), path);
  return out;
}

uint32_t ParseIpv4(const std::string& s) {
  in_addr a{};
  if (inet_pton(AF_INET, s.c_str(), &a) != 1) {
    throw std::invalid_argument("not an IPv4 address: " + s);
  }
  return ntohl(a.s_addr);
}

// Four 32-bit words in hex, separated by ':' (as the session is shown).
void ParseSession(const std::string& s, uint32_t out[4]) {
  size_t at = 0;
  for (int i = 0; i < 4; ++i) {
    const size_t end = s.find(':', at);
    const std::string word = s.substr(at, end == std::string::npos ? end : end - at);
    size_t used = 0;
    unsigned long v = 0;
    try {
      v = std::stoul(word, &used, 16);
    } catch (const std::exception&) {
      used = 0;
    }
    if (word.empty() || used != word.size() || v > 0xFFFFFFFFul ||
        (i < 3) == (end == std::string::npos)) {
      throw std::invalid_argument("a session is four hex words a:b:c:d, not " + s);
    }
    out[i] = static_cast<uint32_t>(v);
    at = end + 1;
  }
}

// What a view's command line gave it: each view reads only its own.
struct ShowArgs {
  bool all = false;     // counters --all
  std::string family;   // frag: ipv4, ipv6 or empty for both
  std::string address;  // wlan capwap: the source address
  std::string session;  // wlan capwap-ka: the session identifier
};

Rendered Counters(Files& f, const ShowArgs& a) {
  auto c = DecodeFile<vane_counters>(f, kCountsPath, vane_decode_counters);
  return RenderCounters(*c, a.all);
}

Rendered Debug(Files& f, const ShowArgs&) {
  const auto img = f.Read(kDebugPath);
  vane::decode::DebugText d;
  Check(vane::decode::Debug(img.data(), img.size(), &d), kDebugPath);
  return RenderDebug(d);
}

Rendered Frag(Files& f, const ShowArgs& a) {
  Rendered r;
  r.json = nlohmann::json::object();
  if (a.family != "ipv6") {
    auto d = DecodeFile<vane_frag4_dump>(f, kFrag4Path, vane_decode_frag4);
    const Rendered v4 = RenderFrag4(*d);
    r.text += v4.text;
    r.json["ipv4"] = v4.json;
  }
  if (a.family != "ipv4") {
    auto d = DecodeFile<vane_frag6_dump>(f, kFrag6Path, vane_decode_frag6);
    const Rendered v6 = RenderFrag6(*d);
    r.text += (r.text.empty() ? "" : "\n") + v6.text;
    r.json["ipv6"] = v6.json;
  }
  return a.family.empty() ? r : Rendered{r.text, r.json[a.family]};
}

Rendered Steering(Files& f, const ShowArgs&) {
  return RenderSteering(*DecodeFile<vane_ivo_stats>(f, kIvoPath, vane_decode_ivo));
}

Rendered Capture(Files& f, const ShowArgs&) {
  const auto img = f.ReadOnce(kCatchPath, VANE_CAPTURE_STORE_SIZE);
  auto s = std::make_unique<vane_capture_store>();
  Check(vane_decode_capture_store(img.data(), img.size(), s.get()), kCatchPath);
  return RenderCapture(*s);
}

// The attribute shows the view last selected, for every reader: select it
// right before reading. (Writing 0 would clear the message counters.)
template <int kView, typename T, auto kDecode, auto kRender>
Rendered WlanAttr(Files& f, const ShowArgs&) {
  const std::string sel = std::to_string(kView);
  f.Write(kWlanAttrPath, sel.data(), sel.size());
  const auto img = f.Read(kWlanAttrPath);
  auto out = std::make_unique<T>();
  Check(kDecode(reinterpret_cast<const char*>(img.data()), img.size(), out.get()), kWlanAttrPath);
  return kRender(*out);
}

Rendered Capwap(Files& f, const ShowArgs& a) {
  uint8_t k[VANE_CAPWAP_KEY_SIZE];
  vane_build_capwap_key(ParseIpv4(a.address), k);
  f.Write(kCapwapPath, k, sizeof k);
  return RenderCapwap(*DecodeFile<vane_capwap_view>(f, kCapwapPath, vane_decode_capwap));
}

Rendered CapwapKa(Files& f, const ShowArgs& a) {
  uint32_t words[4];
  ParseSession(a.session, words);
  uint8_t k[VANE_CAPWAP_KA_KEY_SIZE];
  vane_build_capwap_ka_key(words, k);
  f.Write(kCapwapKaPath, k, sizeof k);
  return RenderCapwapKa(*DecodeFile<vane_capwap_ka_view>(f, kCapwapKaPath, vane_decode_capwap_ka));
}

// The options of the views that take one.
void AllFlag(CLI::App* cmd, ShowArgs* a) {
  cmd->add_flag("--all", a->all, "Every vCPU and packet type, also those at zero");
}
void FamilyArg(CLI::App* cmd, ShowArgs* a) {
  cmd->add_option("family", a->family, "ipv4 or ipv6")->check(CLI::IsMember({"ipv4", "ipv6"}));
}
void AddressArg(CLI::App* cmd, ShowArgs* a) {
  cmd->add_option("KEY", a->address, "Source address (IPv4)")->required();
}
void SessionArg(CLI::App* cmd, ShowArgs* a) {
  cmd->add_option("SESSION", a->session, "Session identifier: four hex words a:b:c:d")->required();
}

// One view of `show`: its subcommand (under `show wlan` when wlan is set),
// its options, and what it reads and renders.
struct View {
  bool wlan;
  const char* name;
  const char* help;
  void (*options)(CLI::App*, ShowArgs*);  // null: none
  Rendered (*show)(Files&, const ShowArgs&);
};

const View kViews[] = {
    {false, "counters", "Packet counters per vCPU and type", AllFlag, Counters},
    {false, "debug", "The debug text, line by line", nullptr, Debug},
    {false, "frag", "The IPv4 or IPv6 fragment table (default both)", FamilyArg, Frag},
    {false, "steering", "The ivo and deteption tables and their hits", nullptr, Steering},
    {false, "capture", "The capture store (reading it empties it)", nullptr, Capture},
    {true, "stats", "LB messages applied, by set type", nullptr,
     WlanAttr<VANE_WLAN_VIEW_STATS, vane_wlan_stats, vane_decode_wlan_stats, RenderWlanStats>},
    {true, "causeid", "The cause-ID table", nullptr,
     WlanAttr<VANE_WLAN_VIEW_CAUSEID, vane_wlan_causeids, vane_decode_wlan_causeids,
              RenderWlanCauseIds>},
    {true, "aaa", "The NAC vCPU list", nullptr,
     WlanAttr<VANE_WLAN_VIEW_NAC, vane_wlan_nac, vane_decode_wlan_nac, RenderWlanNac>},
    {true, "ports", "Socket ports, RADIUS CoA and Portal", nullptr,
     WlanAttr<VANE_WLAN_VIEW_PORTS, vane_wlan_ports, vane_decode_wlan_ports, RenderWlanPorts>},
    {true, "capwap", "The CAPWAP tunnels from one source address", AddressArg, Capwap},
    {true, "capwap-ka", "The keep-alive session with one identifier", SessionArg, CapwapKa},
};

}  // namespace

void AddShow(CLI::App& app, const Global& g, int& status) {
  CLI::App* show = app.add_subcommand("show", "Decode and show a diagnostic file");
  show->require_subcommand(1);
  CLI::App* wlan = nullptr;  // after the other views, as the table lists them
  // Owned by the callbacks, which the application keeps as long as the
  // options that fill it.
  auto args = std::make_shared<ShowArgs>();
  for (const View& v : kViews) {
    if (v.wlan && wlan == nullptr) {
      wlan = show->add_subcommand("wlan", "The WLAN load-balancing tables");
      wlan->require_subcommand(1);
    }
    CLI::App* cmd = (v.wlan ? wlan : show)->add_subcommand(v.name, v.help);
    if (v.options != nullptr) v.options(cmd, args.get());
    cmd->callback([&g, &status, args, &v] {
      Guarded(status, [&] {
        Files f(g);
        return Print(g, v.show(f, *args));
      });
    });
  }
}

}  // namespace vanectl
