/* vane_nlhold.ko: holds netlink protocol 26 with a kernel socket of its own,
 * so the harness can watch drv_vane's start-up fail when its protocol is
 * taken. */
#include <linux/module.h>
#include <linux/netlink.h>
#include <net/net_namespace.h>

static struct sock* hold_sock;

static void nlhold_input(struct sk_buff* skb) {}

static int __init nlhold_init(void) {
  struct netlink_kernel_cfg cfg = {.input = nlhold_input};

  hold_sock = netlink_kernel_create(&init_net, 26, &cfg);
  return hold_sock ? 0 : -EBUSY;
}

static void __exit nlhold_exit(void) { netlink_kernel_release(hold_sock); }

module_init(nlhold_init);
module_exit(nlhold_exit);
MODULE_LICENSE("Dual BSD/GPL");
MODULE_DESCRIPTION("Test helper: holds netlink protocol 26");
