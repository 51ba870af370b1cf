/* Self-test packets: debug commands 4 to 8 push built-in messages through
 * netlink_send_msg (message type 1), as the switch driver would.
 *
 * Context: the control-message receiver (process context); each call sends
 * synchronously and keeps no state. */
#ifndef DRV_VANE_SELFTEST_H
#define DRV_VANE_SELFTEST_H

#include "kport/compiler.h"
#include "kport/types.h"

#define BYPASS_SELFTEST_REPEAT 1000
#define BYPASS_SELFTEST_FRAG_LEN 162
#define BYPASS_SELFTEST_V4A_LEN 166
#define BYPASS_SELFTEST_V4B_LEN 162
#define BYPASS_SELFTEST_V6_LEN 164

KPORT_EXTERN_C_BEGIN

/* The first, a middle and the last fragment of one IPv4 CAPWAP datagram,
 * each sent once. */
void test_ipFirstFragment(void);
void test_ipMiddleFragment(void);
void test_ipLastFragment(void);
/* 1000 sends of IPv4 test A (g_ulLBType 1, 3 or 4) or B (2), the variant
 * read before each send; nothing for other values. */
void test_ipV4Test(void);
/* 1000 sends of the IPv6 test. */
void test_ipV6Test(void);

KPORT_EXTERN_C_END

#endif /* DRV_VANE_SELFTEST_H */
