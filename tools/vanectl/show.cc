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

// The attribute shows the view last selected, for every reader: select it
// right before reading. (Writing 0 would clear the message counters.)
std::string WlanView(Files& f, int view) {
  const std::string sel = std::to_string(view);
  f.Write(kWlanAttrPath, sel.data(), sel.size());
  const auto img = f.Read(kWlanAttrPath);
  return {img.begin(), img.end()};
}

template <typename T, typename Decode>
int ShowWlanView(const Global& g, int view, Decode decode, Rendered (*render)(const T&)) {
  Files f(g);
  const std::string text = WlanView(f, view);
  auto out = std::make_unique<T>();
  Check(decode(text.data(), text.size(), out.get()), kWlanAttrPath);
  return Print(g, render(*out));
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

}  // namespace

void AddShow(CLI::App& app, const Global& g, int& status) {
  CLI::App* show = app.add_subcommand("show", "Decode and show a diagnostic file");
  show->require_subcommand(1);

  auto* counters = show->add_subcommand("counters", "Packet counters per vCPU and type");
  static bool all = false;
  counters->add_flag("--all", all, "Every vCPU and packet type, also those at zero");
  counters->callback([&g, &status] {
    Guarded(status, [&g] {
      Files f(g);
      auto c = DecodeFile<vane_counters>(f, kCountsPath, vane_decode_counters);
      return Print(g, RenderCounters(*c, all));
    });
  });

  show->add_subcommand("debug", "The debug text, line by line")->callback([&g, &status] {
    Guarded(status, [&g] {
      Files f(g);
      const auto img = f.Read(kDebugPath);
      vane::decode::DebugText d;
      Check(vane::decode::Debug(img.data(), img.size(), &d), kDebugPath);
      return Print(g, RenderDebug(d));
    });
  });

  auto* frag = show->add_subcommand("frag", "The IPv4 or IPv6 fragment table (default both)");
  static std::string family;
  frag->add_option("family", family, "ipv4 or ipv6")->check(CLI::IsMember({"ipv4", "ipv6"}));
  frag->callback([&g, &status] {
    Guarded(status, [&g] {
      Files f(g);
      Rendered r;
      r.json = nlohmann::json::object();
      if (family != "ipv6") {
        auto d = DecodeFile<vane_frag4_dump>(f, kFrag4Path, vane_decode_frag4);
        const Rendered v4 = RenderFrag4(*d);
        r.text += v4.text;
        r.json["ipv4"] = v4.json;
      }
      if (family != "ipv4") {
        auto d = DecodeFile<vane_frag6_dump>(f, kFrag6Path, vane_decode_frag6);
        const Rendered v6 = RenderFrag6(*d);
        r.text += (r.text.empty() ? "" : "\n") + v6.text;
        r.json["ipv6"] = v6.json;
      }
      return Print(g, family.empty() ? r : Rendered{r.text, r.json[family]});
    });
  });

  show->add_subcommand("steering", "The ivo and deteption tables and their hits")
      ->callback([&g, &status] {
        Guarded(status, [&g] {
          Files f(g);
          auto s = DecodeFile<vane_ivo_stats>(f, kIvoPath, vane_decode_ivo);
          return Print(g, RenderSteering(*s));
        });
      });

  show->add_subcommand("capture", "The capture store (reading it empties it)")
      ->callback([&g, &status] {
        Guarded(status, [&g] {
          Files f(g);
          const auto img = f.ReadOnce(kCatchPath, VANE_CAPTURE_STORE_SIZE);
          auto s = std::make_unique<vane_capture_store>();
          Check(vane_decode_capture_store(img.data(), img.size(), s.get()), kCatchPath);
          return Print(g, RenderCapture(*s));
        });
      });

  auto* wlan = show->add_subcommand("wlan", "The WLAN load-balancing tables");
  wlan->require_subcommand(1);
  wlan->add_subcommand("stats", "LB messages applied, by set type")->callback([&g, &status] {
    Guarded(status, [&g] {
      return ShowWlanView<vane_wlan_stats>(g, VANE_WLAN_VIEW_STATS, vane_decode_wlan_stats,
                                           RenderWlanStats);
    });
  });
  wlan->add_subcommand("causeid", "The cause-ID table")->callback([&g, &status] {
    Guarded(status, [&g] {
      return ShowWlanView<vane_wlan_causeids>(g, VANE_WLAN_VIEW_CAUSEID, vane_decode_wlan_causeids,
                                              RenderWlanCauseIds);
    });
  });
  wlan->add_subcommand("aaa", "The NAC vCPU list")->callback([&g, &status] {
    Guarded(status, [&g] {
      return ShowWlanView<vane_wlan_nac>(g, VANE_WLAN_VIEW_NAC, vane_decode_wlan_nac,
                                         RenderWlanNac);
    });
  });
  wlan->add_subcommand("ports", "Socket ports, RADIUS CoA and Portal")->callback([&g, &status] {
    Guarded(status, [&g] {
      return ShowWlanView<vane_wlan_ports>(g, VANE_WLAN_VIEW_PORTS, vane_decode_wlan_ports,
                                           RenderWlanPorts);
    });
  });

  auto* capwap = wlan->add_subcommand("capwap", "The CAPWAP tunnels from one source address");
  static std::string key;
  capwap->add_option("KEY", key, "Source address (IPv4)")->required();
  capwap->callback([&g, &status] {
    Guarded(status, [&g] {
      uint8_t k[VANE_CAPWAP_KEY_SIZE];
      vane_build_capwap_key(ParseIpv4(key), k);
      Files f(g);
      f.Write(kCapwapPath, k, sizeof k);
      auto v = DecodeFile<vane_capwap_view>(f, kCapwapPath, vane_decode_capwap);
      return Print(g, RenderCapwap(*v));
    });
  });

  auto* ka = wlan->add_subcommand("capwap-ka", "The keep-alive session with one identifier");
  static std::string session;
  ka->add_option("SESSION", session, "Session identifier: four hex words a:b:c:d")->required();
  ka->callback([&g, &status] {
    Guarded(status, [&g] {
      uint32_t words[4];
      ParseSession(session, words);
      uint8_t k[VANE_CAPWAP_KA_KEY_SIZE];
      vane_build_capwap_ka_key(words, k);
      Files f(g);
      f.Write(kCapwapKaPath, k, sizeof k);
      auto v = DecodeFile<vane_capwap_ka_view>(f, kCapwapKaPath, vane_decode_capwap_ka);
      return Print(g, RenderCapwapKa(*v));
    });
  });
}

}  // namespace vanectl
