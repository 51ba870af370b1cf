/* Result codes of the module's function families.
 *
 * Netlink and lifecycle functions: 0 or a length on success, else a negated
 * Linux error number:
 *   -EINVAL (-22)  bad argument, or a control message too short for its id
 *   -EBADFD (-77)  channel or receiver not ready
 *   -ENOMEM (-12)  no memory
 *   -EMSGSIZE (-90) message does not fit its buffer
 *   and whatever the platform's unicast answers (-ECONNREFUSED, -EAGAIN).
 *
 * Containers and the bypass_ functions: small positive codes, listed below;
 * the parser's own codes are in drv_vane/parser.h.
 *
 * WLAN load-balancing functions: 0 success, 1 failure. */
#ifndef DRV_VANE_STATUS_H
#define DRV_VANE_STATUS_H

#define BYPASS_OK 0u
#define BYPASS_ERR_NOT_FOUND 1u /* no record matches the key */
#define BYPASS_ERR_PARA 100u    /* missing or bad argument */
#define BYPASS_ERR_NO_MEM 101u  /* no memory */
#define BYPASS_ERR_BUCKET 103u  /* bucket index out of range */

#define WLAN_LB_OK 0u
#define WLAN_LB_ERR 1u

#endif /* DRV_VANE_STATUS_H */
