/* A sample worker on libvane's C API.
 *
 *   vane_sample_worker --name NAME [--vcpus 1,2] [--default] [--fast]
 *                      [--report FILE] [--idle-exit SECONDS] [--ready FILE]
 *
 * Registers for the given vCPU slots (and as default receiver with
 * --default) on the normal channel, and on the fast channel too with --fast.
 * It counts what it receives: per message type, per channel, per packet type
 * (the byte the dispatcher stamps into the HiGig2 header) and, for IPv4
 * fragments, the (source, destination, id) keys it saw, so a test can tell
 * that all fragments of a datagram reached one worker. On SIGTERM or SIGINT,
 * or after --idle-exit seconds without packets, it writes a JSON report to
 * --report (or stdout) and exits 0. --ready FILE is created once every
 * registration was acknowledged, so a script knows when to send traffic. The buffer layout is that
 * of the sample configuration: HiGig2 header right after the 12-byte delivery prefix, Ethernet
 * header 24 bytes into the packet. */
#include <errno.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "vane/vane.h"

#define PREFIX_LEN 12u
#define HG_PKT_TYPE_AT (PREFIX_LEN + 2u)
#define ETH_AT (PREFIX_LEN + 24u)
#define MAX_FRAG_KEYS 4096u

struct frag_key {
  uint32_t src, dst;
  uint16_t id;
};

struct counts {
  uint64_t packets, bytes, lost, loss_events;
  uint64_t per_type[16];      /* message type 1..15; 0 holds anything else */
  uint64_t per_channel[2];    /* normal, fast */
  uint64_t per_pkt_type[256]; /* the stamped byte */
  uint64_t no_pkt_type;       /* too short to carry one */
  struct frag_key frags[MAX_FRAG_KEYS];
  unsigned n_frags;
  uint64_t frag_keys_dropped; /* more distinct keys than the table holds */
  int64_t last_packet_ms;
};

static volatile sig_atomic_t g_stop;

static void on_signal(int sig) {
  (void)sig;
  g_stop = 1;
}

static int64_t now_ms(void) {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return (int64_t)ts.tv_sec * 1000 + ts.tv_nsec / 1000000;
}

static uint16_t be16(const uint8_t* p) { return (uint16_t)(p[0] << 8 | p[1]); }
static uint32_t be32(const uint8_t* p) {
  return (uint32_t)p[0] << 24 | (uint32_t)p[1] << 16 | (uint32_t)p[2] << 8 | p[3];
}

static void note_fragment(struct counts* c, const uint8_t* d, uint32_t len) {
  uint32_t at = ETH_AT + 12; /* past the two MAC addresses */
  if (len < at + 2) return;
  uint16_t et = be16(d + at);
  /* Up to two VLAN tags. */
  for (int tags = 0; tags < 2 && (et == 0x8100 || et == 0x88A8 || et == 0x9100); ++tags) {
    at += 4;
    if (len < at + 2) return;
    et = be16(d + at);
  }
  at += 2;
  if (et != 0x0800 || len < at + 20) return;
  const uint8_t* ip = d + at;
  const uint16_t frag = be16(ip + 6);
  if ((frag & 0x3FFF) == 0) return; /* neither more-fragments nor an offset */
  struct frag_key k = {be32(ip + 12), be32(ip + 16), be16(ip + 4)};
  for (unsigned i = 0; i < c->n_frags; ++i) {
    if (c->frags[i].src == k.src && c->frags[i].dst == k.dst && c->frags[i].id == k.id) return;
  }
  if (c->n_frags == MAX_FRAG_KEYS) {
    ++c->frag_keys_dropped;
    return;
  }
  c->frags[c->n_frags++] = k;
}

static void on_packet(void* arg, const vane_packet* pkt) {
  struct counts* c = arg;
  ++c->packets;
  c->bytes += pkt->len;
  ++c->per_type[pkt->type <= 15 ? pkt->type : 0];
  ++c->per_channel[pkt->channel == VANE_CHANNEL_FAST ? 1 : 0];
  if (pkt->len > HG_PKT_TYPE_AT) {
    ++c->per_pkt_type[pkt->data[HG_PKT_TYPE_AT]];
  } else {
    ++c->no_pkt_type;
  }
  note_fragment(c, pkt->data, pkt->len);
}

static void on_loss(void* arg, int channel, uint64_t lost) {
  struct counts* c = arg;
  (void)channel;
  ++c->loss_events;
  c->lost += lost;
}

static void json_string(FILE* f, const char* s) {
  fputc('"', f);
  for (; *s; ++s) {
    const unsigned char ch = (unsigned char)*s;
    if (ch == '"' || ch == '\\') {
      fprintf(f, "\\%c", ch);
    } else if (ch < 0x20) {
      fprintf(f, "\\u%04x", ch);
    } else {
      fputc(ch, f);
    }
  }
  fputc('"', f);
}

static void write_report(FILE* f, const char* name, const struct counts* c,
                         const vane_worker_stats* st) {
  fputs("{\"name\": ", f);
  json_string(f, name);
  fprintf(f,
          ", \"packets\": %llu, \"bytes\": %llu, \"lost\": %llu, \"loss_events\": %llu"
          ", \"malformed\": %llu, \"registrations\": %llu, \"registration_failures\": %llu",
          (unsigned long long)c->packets, (unsigned long long)c->bytes, (unsigned long long)c->lost,
          (unsigned long long)c->loss_events, (unsigned long long)st->malformed,
          (unsigned long long)st->registrations, (unsigned long long)st->registration_failures);
  fputs(", \"per_type\": {", f);
  const char* sep = "";
  for (unsigned t = 0; t < 16; ++t) {
    if (c->per_type[t] == 0) continue;
    fprintf(f, "%s\"%u\": %llu", sep, t, (unsigned long long)c->per_type[t]);
    sep = ", ";
  }
  fprintf(f, "}, \"per_channel\": {\"normal\": %llu, \"fast\": %llu}",
          (unsigned long long)c->per_channel[0], (unsigned long long)c->per_channel[1]);
  fputs(", \"per_pkt_type\": {", f);
  sep = "";
  for (unsigned t = 0; t < 256; ++t) {
    if (c->per_pkt_type[t] == 0) continue;
    fprintf(f, "%s\"%u\": %llu", sep, t, (unsigned long long)c->per_pkt_type[t]);
    sep = ", ";
  }
  fputs("}, \"fragment_keys\": [", f);
  for (unsigned i = 0; i < c->n_frags; ++i) {
    const struct frag_key* k = &c->frags[i];
    fprintf(f, "%s{\"src\": \"%u.%u.%u.%u\", \"dst\": \"%u.%u.%u.%u\", \"id\": %u}", i ? ", " : "",
            k->src >> 24, k->src >> 16 & 255, k->src >> 8 & 255, k->src & 255, k->dst >> 24,
            k->dst >> 16 & 255, k->dst >> 8 & 255, k->dst & 255, k->id);
  }
  fprintf(f, "], \"fragment_keys_dropped\": %llu}\n", (unsigned long long)c->frag_keys_dropped);
}

static int parse_vcpus(const char* s, uint8_t* out, size_t* n) {
  char* end;
  *n = 0;
  while (*s) {
    errno = 0;
    const long v = strtol(s, &end, 10);
    if (errno || end == s || v < 1 || v > VANE_VCPU_MAX || *n == VANE_WORKER_MAX_VCPUS - 1)
      return -1;
    out[(*n)++] = (uint8_t)v;
    s = end;
    if (*s == ',') {
      ++s;
    } else if (*s) {
      return -1;
    }
  }
  return *n ? 0 : -1;
}

static void usage(void) {
  fprintf(stderr,
          "usage: vane_sample_worker --name NAME [--vcpus 1,2] [--default] [--fast]\n"
          "                          [--report FILE] [--idle-exit SECONDS] [--ready FILE]\n");
}

int main(int argc, char** argv) {
  const char* name = NULL;
  const char* report = NULL;
  const char* ready = NULL;
  long idle_exit_s = 0;
  uint8_t vcpus[VANE_WORKER_MAX_VCPUS];
  size_t n_vcpus = 0;
  int as_default = 0, fast = 0;

  for (int i = 1; i < argc; ++i) {
    const char* a = argv[i];
    const int has_val = i + 1 < argc;
    if (strcmp(a, "--name") == 0 && has_val) {
      name = argv[++i];
    } else if (strcmp(a, "--vcpus") == 0 && has_val) {
      if (parse_vcpus(argv[++i], vcpus, &n_vcpus) != 0) {
        fprintf(stderr, "vane_sample_worker: bad --vcpus (1..63, comma-separated)\n");
        return 2;
      }
    } else if (strcmp(a, "--default") == 0) {
      as_default = 1;
    } else if (strcmp(a, "--fast") == 0) {
      fast = 1;
    } else if (strcmp(a, "--report") == 0 && has_val) {
      report = argv[++i];
    } else if (strcmp(a, "--ready") == 0 && has_val) {
      ready = argv[++i];
    } else if (strcmp(a, "--idle-exit") == 0 && has_val) {
      char* end;
      idle_exit_s = strtol(argv[++i], &end, 10);
      if (*end || idle_exit_s < 0) {
        usage();
        return 2;
      }
    } else {
      usage();
      return 2;
    }
  }
  if (name == NULL || (n_vcpus == 0 && !as_default)) {
    usage();
    return 2;
  }

  static struct counts c; /* large; zeroed */
  struct sigaction sa;
  memset(&sa, 0, sizeof sa);
  sa.sa_handler = on_signal; /* no SA_RESTART: the poll must return */
  sigaction(SIGTERM, &sa, NULL);
  sigaction(SIGINT, &sa, NULL);

  vane_worker_opts opts;
  memset(&opts, 0, sizeof opts);
  opts.open_normal = 1;
  opts.open_fast = fast;
  opts.default_receiver = as_default;
  opts.vcpus = vcpus;
  opts.n_vcpus = n_vcpus;
  opts.on_loss = on_loss;
  opts.on_loss_arg = &c;

  vane_worker* w = NULL;
  int rc = vane_worker_open(&opts, &w);
  if (rc != 0) {
    fprintf(stderr, "vane_sample_worker %s: cannot open (%s transport): %s\n", name,
            vane_transport_name(vane_resolve_transport(&opts.ep)), strerror(-rc));
    return 1;
  }
  if (ready != NULL) {
    FILE* f = fopen(ready, "w");
    if (f == NULL || fclose(f) != 0) {
      fprintf(stderr, "vane_sample_worker %s: cannot create %s: %s\n", name, ready,
              strerror(errno));
      vane_worker_close(w);
      return 1;
    }
  }
  c.last_packet_ms = now_ms();
  while (!g_stop) {
    rc = vane_worker_poll(w, 200, on_packet, &c);
    if (rc < 0) {
      fprintf(stderr, "vane_sample_worker %s: receive: %s\n", name, strerror(-rc));
      break;
    }
    const int64_t now = now_ms();
    if (rc > 0) c.last_packet_ms = now;
    if (idle_exit_s > 0 && now - c.last_packet_ms >= idle_exit_s * 1000) break;
  }

  /* What was already queued for us counts too. */
  while (rc >= 0 && (rc = vane_worker_poll(w, 0, on_packet, &c)) > 0) {
  }

  vane_worker_stats st;
  vane_worker_stats_get(w, &st);
  vane_worker_close(w);
  FILE* f = report ? fopen(report, "w") : stdout;
  if (f == NULL) {
    fprintf(stderr, "vane_sample_worker %s: %s: %s\n", name, report, strerror(errno));
    return 1;
  }
  write_report(f, name, &c, &st);
  if (f != stdout) fclose(f);
  return rc < 0 ? 1 : 0;
}
