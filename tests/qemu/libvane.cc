// libvane against the real module inside the qemu guest: a worker that
// registers and receives, every control function acknowledged by the
// module, loss accounting on a full netlink receive queue, and every
// decoder over the module's real files. Packets come in through the driver
// stand-in (/proc/vane_drvsim), as in the other guest programs.
#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "guest.h"
#include "vane/decode.h"
#include "vane/vane.h"

namespace {

vane_endpoint Netlink() {
  vane_endpoint ep{};
  ep.transport = VANE_TRANSPORT_NETLINK;
  return ep;
}

// The cascade layout of guest.h, as libvane's record.
vane_dispatch_config McConfig() {
  uint32_t rec[22];
  mc_config(rec);
  vane_dispatch_config cfg;
  static_assert(sizeof(cfg) == sizeof(rec));
  memcpy(&cfg, rec, sizeof(cfg));
  return cfg;
}

// A packet of interface MC_ETHNUM with `cause`, an untagged Ethernet header
// and `payload` bytes after it.
std::vector<uint8_t> CausePacket(uint16_t cause, uint32_t payload, uint8_t seed) {
  std::vector<uint8_t> p(PREFIX_LEN + MC_HEAD + 14 + payload);
  mc_head(p.data(), cause);
  uint8_t* eth = p.data() + PREFIX_LEN + MC_HEAD;
  const uint8_t macs[12] = {2, 0, 0, 0, 0, 1, 2, 0, 0, 0, 0, 2};
  memcpy(eth, macs, sizeof(macs));
  eth[12] = 0x88;
  eth[13] = 0xB5;  // local experimental: nothing parses it further
  pattern(eth + 14, payload, seed);
  return p;
}

struct Received {
  std::vector<std::vector<uint8_t>> packets;
  std::vector<uint32_t> types;
};

void Collect(void* arg, const vane_packet* pkt) {
  auto* r = static_cast<Received*>(arg);
  r->packets.emplace_back(pkt->data, pkt->data + pkt->len);
  r->types.push_back(pkt->type);
}

// Polls until `want` packets came or nothing arrives for half a second.
void Drain(vane_worker* w, Received* r, size_t want) {
  while (r->packets.size() < want) {
    if (vane_worker_poll(w, 500, Collect, r) <= 0) break;
  }
}

int ReadCounters(vane_ctl* c, vane_counters* out) {
  uint8_t* img = nullptr;
  size_t len = 0;
  int rc = vane_file_read_all(c, "/proc/bypassDebug/counts", &img, &len);
  if (rc == 0) rc = vane_decode_counters(img, len, out);
  free(img);
  return rc;
}

vane_ctl* g_ctl;
vane_worker* g_worker;

int ScRegister() {
  const uint8_t vcpus[] = {1, 2};
  vane_worker_opts o{};
  o.ep = Netlink();
  o.open_normal = 1;
  o.open_fast = 1;
  o.default_receiver = 1;
  o.vcpus = vcpus;
  o.n_vcpus = sizeof(vcpus);
  int rc = vane_worker_open(&o, &g_worker);
  CHECK(rc == 0, "vane_worker_open: %d", rc);
  vane_worker_stats s;
  vane_worker_stats_get(g_worker, &s);
  CHECK(s.registrations >= 1 && s.registration_failures == 0, "registrations %llu, failures %llu",
        (unsigned long long)s.registrations, (unsigned long long)s.registration_failures);
  CHECK(vane_worker_fd(g_worker, VANE_CHANNEL_NORMAL) >= 0 &&
            vane_worker_fd(g_worker, VANE_CHANNEL_FAST) >= 0,
        "a channel has no socket");
  return 1;
}

// Every control function is acknowledged with 0 by the real module, and the
// module's rejection of a short LB message comes back as -22.
int ScControlAcks() {
  vane_ctl* c = g_ctl;
  const vane_dispatch_config cfg = McConfig();
  int rc;
  CHECK((rc = vane_ctl_set_config(c, &cfg)) == 0, "set_config: %d", rc);
  CHECK((rc = vane_ctl_debug_command(c, 2)) == 0, "debug_command: %d", rc);
  vane_steering_table t{};
  t.enable = 1;
  t.table_type = VANE_STEERING_IVO;
  t.vcpu = 2;
  t.cause_id_count = 1;
  t.cause_ids[0] = 10;
  CHECK((rc = vane_ctl_set_steering(c, &t)) == 0, "set_steering: %d", rc);
  CHECK((rc = vane_ctl_timng_master(c, 1)) == 0, "timng_master: %d", rc);
  CHECK((rc = vane_ctl_timng_set(c, 300, 2, 1, 0)) == 0, "timng_set: %d", rc);
  const vane_capwap_entry e{0x0A01000B, 0x0A000001, 12222, 5246, 0, 2};
  CHECK((rc = vane_ctl_lb_capwap(c, &e, VANE_LB_OP_ADD)) == 0, "lb_capwap: %d", rc);
  const uint32_t session[4] = {1, 2, 3, 4};
  CHECK((rc = vane_ctl_lb_capwap_ka(c, session, 1, VANE_LB_OP_ADD)) == 0, "capwap_ka: %d", rc);
  const uint32_t nac[] = {3, 4};
  CHECK((rc = vane_ctl_lb_nac(c, 3, nac, 2)) == 0, "lb_nac: %d", rc);
  CHECK((rc = vane_ctl_lb_portal(c, 2000, 5)) == 0, "lb_portal: %d", rc);
  const vane_socket_port sp{1812, 0, 0, 3, 0};
  CHECK((rc = vane_ctl_lb_socket_port(c, &sp, VANE_LB_OP_ADD)) == 0, "socket_port: %d", rc);
  CHECK((rc = vane_ctl_lb_board_type(c, 3)) == 0, "board_type: %d", rc);
  const vane_cause_id_entry ids[] = {{100, 1, 1}, {103, 4, 4}};
  CHECK((rc = vane_ctl_lb_cause_ids(c, ids, 2)) == 0, "cause_ids: %d", rc);
  const uint32_t four = 0;
  CHECK((rc = vane_ctl_send(c, VANE_CHANNEL_NORMAL, 10, &four, sizeof(four))) == -22,
        "a 4-byte LB message: %d, not -22", rc);
  CHECK((rc = vane_ctl_register(c, VANE_CHANNEL_NORMAL, 64)) == -EINVAL,
        "registering vCPU 64: %d, not -EINVAL", rc);

  unsigned calls0 = 0, calls1 = 0, len = 0;
  char data[64];
  CHECK(read_text(DRVSIM_HANDLER, data, sizeof(data)) > 0 && sscanf(data, "calls=%u", &calls0) == 1,
        "cannot read " DRVSIM_HANDLER);
  const uint8_t payload[3] = {0xAB, 0xCD, 0xEF};
  CHECK((rc = vane_ctl_handler_msg(c, MID_HANDLER, payload, 3)) == 0, "handler_msg: %d", rc);
  CHECK(read_text(DRVSIM_HANDLER, data, sizeof(data)) > 0 &&
            sscanf(data, "calls=%u len=%u", &calls1, &len) == 2,
        "cannot read " DRVSIM_HANDLER);
  CHECK(calls1 == calls0 + 1 && len == 3 && strstr(data, "abcdef") != nullptr, "handler saw: %s",
        data);
  return 1;
}

// Steered and default packets reach the worker whole, and the counters and
// steering statistics decoded from the real files say where they went.
int ScDeliver() {
  vane_counters before, after;
  CHECK(ReadCounters(g_ctl, &before) == 0, "reading the counters");
  std::vector<uint8_t> steered = CausePacket(10, 200, 1);
  std::vector<uint8_t> other = CausePacket(999, 61, 2);
  int rc;
  for (int i = 0; i < 5; i++) {
    CHECK((rc = drvsim(0, 3, steered.data(), (uint32_t)steered.size())) > 0, "drvsim: %d", rc);
  }
  for (int i = 0; i < 3; i++) {
    CHECK((rc = drvsim(0, 4, other.data(), (uint32_t)other.size())) > 0, "drvsim: %d", rc);
  }
  Received r;
  Drain(g_worker, &r, 8);
  CHECK(r.packets.size() == 8, "received %zu of 8 packets", r.packets.size());
  CHECK(r.types[0] == 3 && r.types[7] == 4, "types %u and %u", r.types[0], r.types[7]);
  CHECK(r.packets[0] == steered && r.packets[7] == other, "the data differs from what was sent");
  CHECK(ReadCounters(g_ctl, &after) == 0, "reading the counters");
  // A steering decision counts twice at its vCPU: the decision and the delivery.
  CHECK(after.dispatched[2] - before.dispatched[2] == 10, "vCPU 2 counter moved by %u",
        after.dispatched[2] - before.dispatched[2]);

  uint8_t* img = nullptr;
  size_t len = 0;
  vane_ivo_stats ivo;
  CHECK(vane_file_read_all(g_ctl, "/proc/bypassDebug/ivo", &img, &len) == 0, "reading ivo");
  rc = vane_decode_ivo(img, len, &ivo);
  free(img);
  CHECK(rc == 0, "decoding ivo: %d", rc);
  CHECK(ivo.ivo.enable == 1 && ivo.ivo.vcpu == 2 && ivo.ivo_slot_hits[0] >= 5,
        "ivo table: enable %u vcpu %u slot 0 hits %u", ivo.ivo.enable, ivo.ivo.vcpu,
        ivo.ivo_slot_hits[0]);
  return 1;
}

// A worker whose receive queue overflows learns exactly how many messages
// the module could not queue for it. It lives in a child process, since a
// worker socket's port id is its process id.
int ScLoss() {
  vane_steering_table t{};
  t.enable = 1;
  t.table_type = VANE_STEERING_DETEPTION;
  t.vcpu = 9;
  t.cause_id_count = 1;
  t.cause_ids[0] = 20;
  int rc;
  CHECK((rc = vane_ctl_set_steering(g_ctl, &t)) == 0, "set_steering: %d", rc);

  int ready[2], go[2], result[2];
  CHECK(pipe(ready) == 0 && pipe(go) == 0 && pipe(result) == 0, "pipe");
  pid_t child = fork();
  CHECK(child >= 0, "fork");
  if (child == 0) {
    const uint8_t vcpus[] = {9};
    vane_worker_opts o{};
    o.ep = Netlink();
    o.open_normal = 1;
    o.vcpus = vcpus;
    o.n_vcpus = 1;
    o.rcvbuf = 4096;
    vane_worker* w = nullptr;
    char byte = vane_worker_open(&o, &w) == 0 ? 1 : 0;
    if (write(ready[1], &byte, 1) != 1 || read(go[0], &byte, 1) != 1) _exit(1);
    Received r;
    Drain(w, &r, 1000);
    vane_worker_stats s;
    vane_worker_stats_get(w, &s);
    uint64_t out[3] = {s.packets, s.lost, s.loss_events};
    if (write(result[1], out, sizeof(out)) != sizeof(out)) _exit(1);
    vane_worker_close(w);
    _exit(0);
  }
  char byte = 0;
  CHECK(read(ready[0], &byte, 1) == 1 && byte == 1, "the child's worker did not open");
  std::vector<uint8_t> pkt = CausePacket(20, 900, 3);
  unsigned sent = 0, refused = 0;
  for (int i = 0; i < 200; i++) {
    rc = drvsim(0, 1, pkt.data(), (uint32_t)pkt.size());
    if (rc > 0)
      sent++;
    else if (rc == -EAGAIN || rc == -ENOBUFS)
      refused++;
    else
      return failf("drvsim: %d", rc);
  }
  CHECK(write(go[1], &byte, 1) == 1, "pipe");
  uint64_t got[3] = {0, 0, 0};
  CHECK(read(result[0], got, sizeof(got)) == sizeof(got), "no result from the child");
  int status = 0;
  waitpid(child, &status, 0);
  CHECK(refused > 0, "the queue never filled (%u sent)", sent);
  CHECK(got[0] == sent, "the worker received %llu of %u queued", (unsigned long long)got[0], sent);
  CHECK(got[1] == refused && got[2] >= 1, "lost %llu (events %llu), the module refused %u",
        (unsigned long long)got[1], (unsigned long long)got[2], refused);
  printf("vane-libvane: loss: %u queued, %u refused, counted %llu lost\n", sent, refused,
         (unsigned long long)got[1]);
  return 1;
}

// The remaining decoders over the module's real files.
int ScDecoders() {
  uint8_t* img = nullptr;
  size_t len = 0;
  int rc;
  // Debug text: a mask of 1 records the configuration events.
  const uint32_t mask = 1;
  CHECK(vane_file_write(g_ctl, "/proc/bypassDebug/debug", &mask, 4, nullptr) == 4,
        "setting the debug mask");
  const vane_dispatch_config cfg = McConfig();
  CHECK(vane_ctl_set_config(g_ctl, &cfg) == 0, "set_config");
  CHECK(vane_file_read_all(g_ctl, "/proc/bypassDebug/debug", &img, &len) == 0, "reading debug");
  std::string text;
  int full = 0;
  rc = vane_decode_debug(
      img, len,
      [](void* arg, const char* line, size_t n) {
        static_cast<std::string*>(arg)->append(line, n).push_back('|');
      },
      &text, &full);
  free(img);
  CHECK(rc >= 1 && text.find("NETLINK_MID_OFFSET.") != std::string::npos, "debug text (%d): %s", rc,
        text.c_str());

  // An IPv4 first fragment with a WLAN CAPWAP cause leaves a fragment entry.
  vane_frag4_dump* f4 = static_cast<vane_frag4_dump*>(malloc(sizeof(vane_frag4_dump)));
  vane_frag6_dump* f6 = static_cast<vane_frag6_dump*>(malloc(sizeof(vane_frag6_dump)));
  CHECK(vane_file_read_all(g_ctl, "/proc/bypassDebug/hashInfoIpv4", &img, &len) == 0,
        "reading hashInfoIpv4");
  rc = vane_decode_frag4(img, len, f4);
  free(img);
  CHECK(vane_file_read_all(g_ctl, "/proc/bypassDebug/hashInfoIpv6", &img, &len) == 0,
        "reading hashInfoIpv6");
  int rc6 = vane_decode_frag6(img, len, f6);
  free(img);
  free(f4);
  free(f6);
  CHECK(rc == 0 && rc6 == 0, "decoding the fragment dumps: %d %d", rc, rc6);

  vane_capture_store* store = static_cast<vane_capture_store*>(malloc(sizeof(*store)));
  CHECK(vane_file_read_all(g_ctl, "/proc/bypassDebug/catchPkt", &img, &len) == 0,
        "reading catchPkt");
  rc = vane_decode_capture_store(img, len, store);
  free(img);
  const uint32_t taken = store->count;
  free(store);
  CHECK(rc == 0 && taken == 0, "capture store: %d, %u entries", rc, taken);

  // The WLAN views that ScControlAcks filled.
  uint8_t key[VANE_CAPWAP_KEY_SIZE];
  vane_build_capwap_key(0x0A01000B, key);
  CHECK(vane_file_write(g_ctl, "/proc/wlan_lb/capwap", key, sizeof(key), nullptr) ==
            (ssize_t)sizeof(key),
        "writing the capwap key");
  CHECK(vane_file_read_all(g_ctl, "/proc/wlan_lb/capwap", &img, &len) == 0, "reading capwap");
  vane_capwap_view cv;
  rc = vane_decode_capwap(img, len, &cv);
  free(img);
  CHECK(rc == 0 && cv.count == 1 && cv.records[0].dport == 5246 && cv.records[0].process == 2,
        "capwap view: %d, %u records", rc, cv.count);
  const uint32_t session[4] = {1, 2, 3, 4};
  uint8_t ka_key[VANE_CAPWAP_KA_KEY_SIZE];
  vane_build_capwap_ka_key(session, ka_key);
  CHECK(vane_file_write(g_ctl, "/proc/wlan_lb/capwap_ka", ka_key, sizeof(ka_key), nullptr) ==
            (ssize_t)sizeof(ka_key),
        "writing the capwap_ka key");
  CHECK(vane_file_read_all(g_ctl, "/proc/wlan_lb/capwap_ka", &img, &len) == 0, "reading capwap_ka");
  vane_capwap_ka_view kv;
  rc = vane_decode_capwap_ka(img, len, &kv);
  free(img);
  CHECK(rc == 0 && kv.found && kv.process == 1, "capwap_ka view: %d found %d", rc, kv.found);

  const char* attr = "/sys/class/wlan_lb/wlan_lb/wlan_lb";
  auto view = [&](int which, std::string* out) {
    char sel[8];
    const int n = snprintf(sel, sizeof(sel), "%d", which);
    if (vane_file_write(g_ctl, attr, sel, (size_t)n, nullptr) != n) return -1;
    if (vane_file_read_all(g_ctl, attr, &img, &len) != 0) return -1;
    out->assign(reinterpret_cast<const char*>(img), len);
    free(img);
    return 0;
  };
  std::string s;
  vane_wlan_stats st;
  CHECK(view(VANE_WLAN_VIEW_STATS, &s) == 0 && vane_decode_wlan_stats(s.data(), s.size(), &st) == 0,
        "statistics view: %s", s.c_str());
  CHECK(st.messages[0] >= 1 && st.messages[6] >= 1 && st.board_type == 3,
        "statistics: capwap %u causeid %u board %u", st.messages[0], st.messages[6], st.board_type);
  vane_wlan_nac nac;
  CHECK(view(VANE_WLAN_VIEW_NAC, &s) == 0 && vane_decode_wlan_nac(s.data(), s.size(), &nac) == 0,
        "NAC view: %s", s.c_str());
  CHECK(nac.count == 2 && nac.ids[0] == 3 && nac.ids[1] == 4, "NAC list of %u", nac.count);
  auto* ids = static_cast<vane_wlan_causeids*>(malloc(sizeof(vane_wlan_causeids)));
  rc = view(VANE_WLAN_VIEW_CAUSEID, &s) == 0 ? vane_decode_wlan_causeids(s.data(), s.size(), ids)
                                             : -1;
  const uint32_t n_ids = ids->count;
  free(ids);
  CHECK(rc == 0 && n_ids == 2, "cause-ID view (%d): %u entries", rc, n_ids);
  vane_wlan_ports ports;
  CHECK(view(VANE_WLAN_VIEW_PORTS, &s) == 0 &&
            vane_decode_wlan_ports(s.data(), s.size(), &ports) == 0,
        "ports view: %s", s.c_str());
  bool radius = false;
  for (uint32_t i = 0; i < ports.count; i++) {
    radius |= ports.ports[i].port == 1812 && ports.ports[i].process == 3;
  }
  CHECK(radius, "the ports view lacks 1812 -> 3: %s", s.c_str());
  return 1;
}

}  // namespace

int main() {
  vane_endpoint ep = Netlink();
  if (vane_ctl_open(&ep, &g_ctl) != 0) {
    printf("VANE-FAIL libvane-open: no control handle\n");
    return 1;
  }
  run("libvane-register", ScRegister);
  if (g_worker != nullptr) {
    run("libvane-control-acks", ScControlAcks);
    run("libvane-deliver", ScDeliver);
    run("libvane-loss", ScLoss);
    run("libvane-decoders", ScDecoders);
    vane_worker_close(g_worker);
  }
  vane_ctl_close(g_ctl);
  printf("vane-libvane: %d passed, %d failed\n", passed, failed);
  return failed == 0 ? 0 : 1;
}
