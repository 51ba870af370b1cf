/* libvane decoders: the diagnostic images of /proc/bypassDebug, /proc/wlan_lb
 * and the wlan_lb attribute turned into records, and the few blocks a tool
 * writes to those files built from records.
 *
 * Every function is pure: bytes in, records out, no I/O, no allocation
 * (except the C++ helpers at the end, which return std containers), safe
 * from any thread. Images are taken in the byte order of the machine that
 * produced them, which is the order of the machine that reads them here.
 *
 * Result codes of every decoder returning int:
 *   0          the image was decoded; the output is complete
 *   -EINVAL    an argument is missing (null image with a non-zero length,
 *              null output)
 *   -EMSGSIZE  the image does not have the size its file always has (too
 *              short, or longer than the file can be); nothing is read
 *              beyond `len` in any case
 *   -EBADMSG   the image has the right size but holds what its file never
 *              holds (a record count above the table's limit, a flag byte
 *              other than 0 or 1, a text line that is not the view's);
 *              the output is then unspecified
 * The output is written only as far as the image was read: callers must
 * not use it unless the result is 0. */
#ifndef VANE_DECODE_H
#define VANE_DECODE_H

#include <stddef.h>
#include <stdint.h>

#include "vane/vane.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ------------------------------------------------------------------------ */
/* /proc/bypassDebug/counts: 960 native-order u32 counters. */

#define VANE_COUNTERS_SIZE 3840u
#define VANE_VCPUS 64u
#define VANE_PKT_TYPES 12u /* WLAN slots per vCPU; types 1..11 are counted */

typedef struct vane_counters {
  /* [v]: packets dispatched to vCPU v; [0]: packets that got no vCPU or
   * more than seven, and TIMNG scan packets. */
  uint32_t dispatched[VANE_VCPUS];
  uint32_t vp[VANE_VCPUS];                   /* packets whose VP tag (or fragment) named vCPU v */
  uint32_t ecm[VANE_VCPUS];                  /* ECM packets dispatched to vCPU v */
  uint32_t wlan[VANE_VCPUS][VANE_PKT_TYPES]; /* WLAN packets by vCPU and type */
} vane_counters;

int vane_decode_counters(const uint8_t* img, size_t len, vane_counters* out);

/* ------------------------------------------------------------------------ */
/* /proc/bypassDebug/debug: up to 32,768 bytes of text, zero-filled after it.
 * A shorter image is accepted (the text then ends with the image). */

#define VANE_DEBUG_SIZE 32768u

/* Calls `line` for each non-empty line of the text, in order, without its
 * line ending ("\r\n", or a lone "\n"); `text` is not NUL-terminated. Sets
 * *full when the text ends with the buffer-full line (output stopped).
 * Returns the number of lines, or a negative code as above. */
int vane_decode_debug(const uint8_t* img, size_t len,
                      void (*line)(void* arg, const char* text, size_t n), void* arg, int* full);

/* ------------------------------------------------------------------------ */
/* /proc/bypassDebug/hashInfoIpv4 and hashInfoIpv6: a record count, then up
 * to 1000 record slots; slots past the count carry no meaning. */

#define VANE_FRAG_MAX 1000u
#define VANE_FRAG4_SIZE 16004u
#define VANE_FRAG6_SIZE 40004u

typedef struct vane_frag4_record {
  uint32_t sip; /* host order */
  uint32_t dip;
  uint16_t id;
  uint8_t vcpu;
  uint8_t age; /* ageing ticks seen; the record goes at 34 */
} vane_frag4_record;

typedef struct vane_frag6_record {
  uint8_t addr1[16]; /* packet order */
  uint8_t addr2[16];
  uint32_t id;
  uint8_t age;
} vane_frag6_record;

typedef struct vane_frag4_dump {
  uint32_t count;
  vane_frag4_record records[VANE_FRAG_MAX];
} vane_frag4_dump;

typedef struct vane_frag6_dump {
  uint32_t count;
  vane_frag6_record records[VANE_FRAG_MAX];
} vane_frag6_dump;

int vane_decode_frag4(const uint8_t* img, size_t len, vane_frag4_dump* out);
int vane_decode_frag6(const uint8_t* img, size_t len, vane_frag6_dump* out);

/* ------------------------------------------------------------------------ */
/* /proc/bypassDebug/ivo: the two steering tables and their hit counters. */

#define VANE_IVO_SIZE 296u

typedef struct vane_ivo_stats {
  vane_steering_table ivo; /* table_type is 0 in both copies */
  vane_steering_table deteption;
  uint32_t ivo_hits; /* list and range */
  uint32_t deteption_hits;
  uint32_t ivo_slot_hits[VANE_STEERING_CAUSEIDS]; /* per cause_ids[i] */
  uint32_t deteption_slot_hits[VANE_STEERING_CAUSEIDS];
  uint32_t ivo_range_hits;
  uint32_t deteption_range_hits;
} vane_ivo_stats;

int vane_decode_ivo(const uint8_t* img, size_t len, vane_ivo_stats* out);

/* ------------------------------------------------------------------------ */
/* /proc/bypassDebug/catchPkt: read, the 30-entry capture store (emptied by
 * the read); written, the 100-byte arming block. */

#define VANE_CAPTURE_ENTRIES 30u
#define VANE_CAPTURE_STORE_SIZE 2880u
#define VANE_CAPTURE_DATA 64u
#define VANE_CAPTURE_CTRL_SIZE 92u
#define VANE_CAPTURE_ARM_SIZE 100u
#define VANE_CAPTURE_MAX_TOTAL 30u

/* Filter bits of vane_capture_arm.filters. */
#define VANE_CAPTURE_F_SRCMOD (1u << 0)
#define VANE_CAPTURE_F_SRCPORT (1u << 1)
#define VANE_CAPTURE_F_LEN (1u << 4)
#define VANE_CAPTURE_F_UDF1 (1u << 5)
#define VANE_CAPTURE_F_UDF2 (1u << 6)
#define VANE_CAPTURE_F_SMAC (1u << 7)
#define VANE_CAPTURE_F_DMAC (1u << 8)
#define VANE_CAPTURE_F_SIP (1u << 9)
#define VANE_CAPTURE_F_DIP (1u << 10)
#define VANE_CAPTURE_F_SIP6 (1u << 11)
#define VANE_CAPTURE_F_DIP6 (1u << 12)
#define VANE_CAPTURE_F_ETHTYPE (1u << 13)
#define VANE_CAPTURE_F_ALL 0x3FF3u

#define VANE_CAPTURE_EVENT_CAPTURE 1u

typedef struct vane_capture_time {
  uint32_t sec;  /* wall clock, low 32 bits */
  uint32_t nsec; /* nanoseconds */
  uint16_t event;
  uint8_t used;
} vane_capture_time;

typedef struct vane_capture_entry {
  uint8_t index; /* position in the store, 0..29 */
  uint8_t num;   /* capture number of the run, 0..63 */
  uint16_t slot;
  uint16_t len;                    /* the frame's full length */
  uint16_t data_len;               /* bytes of data held: min(len, 64) */
  uint8_t data[VANE_CAPTURE_DATA]; /* from the Ethernet header */
  vane_capture_time times[2];      /* [0] the capture, [1] a later event */
} vane_capture_entry;

typedef struct vane_capture_store {
  uint32_t count; /* entries taken, in store order */
  vane_capture_entry entries[VANE_CAPTURE_ENTRIES];
} vane_capture_store;

int vane_decode_capture_store(const uint8_t* img, size_t len, vane_capture_store* out);

/* What a capture run captures: the slot mask and this host's slot, the
 * packet count, and the filters selected in `filters` with their values. */
typedef struct vane_capture_arm {
  uint32_t slot_mask; /* bit s: slot s captures; 0 switches capture off */
  uint32_t slot;      /* the dispatcher's own slot */
  uint16_t total;     /* packets in the run, 1..30 (0: disarm) */
  uint16_t remaining; /* decoded blocks only; the builder sets it to total */
  uint32_t filters;   /* VANE_CAPTURE_F_* */
  uint16_t src_mod, src_port;
  uint16_t udf1_offset, udf1_value; /* value in network order at the offset */
  uint16_t udf2_offset, udf2_value;
  uint16_t length; /* frame length */
  uint16_t ethertype;
  uint8_t smac[6], dmac[6];
  uint32_t sip, dip; /* host order */
  uint8_t sip6[16], dip6[16];
  uint8_t on; /* decoded blocks only; the builder sets 1 when total > 0 */
} vane_capture_arm;

/* Builds the 100-byte block written to catchPkt: 100, or -EINVAL when an
 * argument is missing, total is above 30 or filters has a bit that selects
 * nothing. total 0 builds a block that stops capture. */
int vane_build_capture_arm(const vane_capture_arm* a, uint8_t out[VANE_CAPTURE_ARM_SIZE]);
/* Decodes a 100-byte arming block, or a 92-byte control block alone (the
 * mask and slot are then 0). */
int vane_decode_capture_arm(const uint8_t* img, size_t len, vane_capture_arm* out);

/* ------------------------------------------------------------------------ */
/* The wlan_lb attribute (/sys/class/wlan_lb/wlan_lb/wlan_lb): a text view,
 * chosen by writing its number first. Views are at most 4095 characters. */

#define VANE_WLAN_VIEW_NAC 1
#define VANE_WLAN_VIEW_PORTS 2
#define VANE_WLAN_VIEW_STATS 3
#define VANE_WLAN_VIEW_CAUSEID 4
#define VANE_WLAN_VIEW_MAX 4095u

#define VANE_WLAN_SET_TYPES 7u
typedef struct vane_wlan_stats {
  /* LB messages applied by set type: CAPWAP, CAPWAP keep-alive, NAC list,
   * Portal, socket port, board type, cause IDs. */
  uint32_t messages[VANE_WLAN_SET_TYPES];
  uint32_t board_type;
} vane_wlan_stats;
int vane_decode_wlan_stats(const char* text, size_t len, vane_wlan_stats* out);

typedef struct vane_wlan_nac {
  uint32_t count; /* 0: no list (the view is empty) */
  uint32_t ids[VANE_NAC_MAX];
} vane_wlan_nac;
int vane_decode_wlan_nac(const char* text, size_t len, vane_wlan_nac* out);

/* The most records a 4095-character view can hold. */
#define VANE_WLAN_CAUSEID_VIEW_MAX 273u
typedef struct vane_wlan_causeids {
  uint32_t count;
  vane_cause_id_entry entries[VANE_WLAN_CAUSEID_VIEW_MAX]; /* table order */
} vane_wlan_causeids;
int vane_decode_wlan_causeids(const char* text, size_t len, vane_wlan_causeids* out);

#define VANE_WLAN_PORT_VIEW_MAX 58u
#define VANE_WLAN_TARGET_PROCESS 0 /* a vCPU */
#define VANE_WLAN_TARGET_NAC 1     /* hashed over the NAC list */
#define VANE_WLAN_TARGET_RANGE 2   /* by the source port range */
typedef struct vane_wlan_port {
  uint16_t port;
  uint8_t src_port; /* 1 "S": matches the source port; 0 "D" */
  uint8_t tcp;
  uint8_t target;   /* VANE_WLAN_TARGET_* */
  uint32_t process; /* TARGET_PROCESS only */
} vane_wlan_port;
/* Lines in view order: the UDP list, the TCP list, then the RADIUS CoA and
 * Portal lines (which look like UDP entries). */
typedef struct vane_wlan_ports {
  uint32_t count;
  vane_wlan_port ports[VANE_WLAN_PORT_VIEW_MAX];
} vane_wlan_ports;
int vane_decode_wlan_ports(const char* text, size_t len, vane_wlan_ports* out);

/* ------------------------------------------------------------------------ */
/* /proc/wlan_lb/capwap and capwap_ka: write the key, then read the records. */

#define VANE_CAPWAP_KEY_SIZE 8u
#define VANE_CAPWAP_VIEW_SIZE 200u
#define VANE_CAPWAP_VIEW_RECORDS 10u
#define VANE_CAPWAP_KA_KEY_SIZE 16u
#define VANE_CAPWAP_KA_VIEW_SIZE 20u

/* The key of the capwap file: the tunnels whose source address is sip. */
void vane_build_capwap_key(uint32_t sip, uint8_t out[VANE_CAPWAP_KEY_SIZE]);
/* The key of the capwap_ka file: the session identifier, host order. */
void vane_build_capwap_ka_key(const uint32_t session[4], uint8_t out[VANE_CAPWAP_KA_KEY_SIZE]);

typedef struct vane_capwap_view {
  uint32_t count; /* records before the first all-zero slot */
  vane_capwap_entry records[VANE_CAPWAP_VIEW_RECORDS];
} vane_capwap_view;
int vane_decode_capwap(const uint8_t* img, size_t len, vane_capwap_view* out);

typedef struct vane_capwap_ka_view {
  int found; /* 0: the record is all zero, no session matched */
  uint32_t session[4];
  uint32_t process;
} vane_capwap_ka_view;
int vane_decode_capwap_ka(const uint8_t* img, size_t len, vane_capwap_ka_view* out);

#ifdef __cplusplus
}

#include <string>
#include <vector>

namespace vane::decode {

// The debug text as lines; `full` tells that the buffer-full line ended it.
struct DebugText {
  std::vector<std::string> lines;
  bool full = false;
};
// 0 or a negative code as above.
int Debug(const uint8_t* img, size_t len, DebugText* out);

}  // namespace vane::decode
#endif

#endif /* VANE_DECODE_H */
