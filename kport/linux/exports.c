/* The symbols drv_vane exports to other kernel modules: every function and
 * global of its public headers except the module's entry and exit, the
 * netlink internals, sysfs attribute handlers and bypass_print_pkt_data.
 * kport/linux/check-exports.sh fails the build when a C-linkage symbol of the
 * core is neither listed here nor in its list of internal symbols.
 *
 * The exports are plain (not GPL-only) and versioned: genksyms computes each
 * checksum from the C prototype these headers give, which is what a calling
 * module sees too. */
#include <linux/export.h>

#include "drv_vane/capture.h"
#include "drv_vane/config.h"
#include "drv_vane/container.h"
#include "drv_vane/debug.h"
#include "drv_vane/dispatch.h"
#include "drv_vane/entry.h"
#include "drv_vane/frag.h"
#include "drv_vane/higig2.h"
#include "drv_vane/netlink.h"
#include "drv_vane/parser.h"
#include "drv_vane/proc.h"
#include "drv_vane/selftest.h"
#include "drv_vane/steering.h"
#include "drv_vane/timng.h"

/* Channels, handler registration and delivery. */
EXPORT_SYMBOL(g_supp_netlink_kernel);
EXPORT_SYMBOL(g_supp_fast_netlink_kernel);
EXPORT_SYMBOL(netlink_connect);
EXPORT_SYMBOL(netlink_disconnect);
EXPORT_SYMBOL(netlink_send_msg);
EXPORT_SYMBOL(netlink_fastsend_msg);
EXPORT_SYMBOL(netlink_send_msg_vcpuid);
EXPORT_SYMBOL(netlink_check_if_data_ipc);
EXPORT_SYMBOL(netlink_check_if_data_vp);
EXPORT_SYMBOL(netlink_check_if_data_ecm_vcpu);

/* Start-up pieces. */
EXPORT_SYMBOL(bypass_dev_init);
EXPORT_SYMBOL(bypass_dev_exit);

/* Configuration record. */
EXPORT_SYMBOL(bypass_pkt_offset);
EXPORT_SYMBOL(bypass_set_pktOffsetAndDebugFlag);
EXPORT_SYMBOL(bypass_isSupportMulticore);
EXPORT_SYMBOL(bypass_get_boardType);

/* HiGig2 header fields. */
EXPORT_SYMBOL(bypass_higig2_field_get);
EXPORT_SYMBOL(bypass_higig2_field_set);
EXPORT_SYMBOL(bypass_swapHgHdrOrder);
EXPORT_SYMBOL(bypass_higDecode);

/* Parser. */
EXPORT_SYMBOL(bypass_parse_pkt_multicore);
EXPORT_SYMBOL(bypass_parse_pkt_ipv4);
EXPORT_SYMBOL(bypass_parse_pkt_ipv6);
EXPORT_SYMBOL(bypass_getDhcpFlag);
EXPORT_SYMBOL(bypass_proc_check_is_first_ipfrag);

/* Dispatch pipeline and counters. */
EXPORT_SYMBOL(g_bypassPktCounts);
EXPORT_SYMBOL(g_pktprintfcout);
EXPORT_SYMBOL(bypass_msg_getVCpuId);
EXPORT_SYMBOL(bypass_proc_msg_multicore);
EXPORT_SYMBOL(bypass_msg_get_causeid);
EXPORT_SYMBOL(bypass_getvcpu_by_Five);
EXPORT_SYMBOL(bypass_getSessionId);
EXPORT_SYMBOL(bypass_msg_get_ecmvp_pkt_vcpu);

/* WLAN load-balancing lookups. */
EXPORT_SYMBOL(WLAN_LB_IsNeedLBPkt);
EXPORT_SYMBOL(WLAN_LB_GetPktVCPUID);
EXPORT_SYMBOL(WLAN_LB_GetVCPUIDByCAPWAPKey);
EXPORT_SYMBOL(WLAN_LB_GetVCPUIDByCAPWAPSessionidKey);
EXPORT_SYMBOL(WLAN_LB_GetAAAAccessVcpuID);
EXPORT_SYMBOL(WLAN_LB_GetAAAPortVcpuID);

/* WLAN LB state, messages and views. */
EXPORT_SYMBOL(g_ulIsLBInited);
EXPORT_SYMBOL(g_ulKernelLBBoardType);
EXPORT_SYMBOL(g_ulMessageStatistics);
EXPORT_SYMBOL(WLAN_LB_PacketDistribute_Proc);
EXPORT_SYMBOL(WLAN_LB_InitSysfs);
EXPORT_SYMBOL(WLAN_LB_ExitSysfs);

/* Cause-ID steering tables and their statistics. */
EXPORT_SYMBOL(g_bypass_ivo_lb_table);
EXPORT_SYMBOL(g_bypass_deteption_lb_table);
EXPORT_SYMBOL(g_stIvoDebugInfo);
EXPORT_SYMBOL(g_bypass_ivo_stat_fop);
EXPORT_SYMBOL(bypass_set_ivo_lb_table);
EXPORT_SYMBOL(bypass_msg_get_ivo_vcpuid);
EXPORT_SYMBOL(bypass_print_ivo_table_info);
EXPORT_SYMBOL(bypass_proc_read_ivo_stat_info);
EXPORT_SYMBOL(bypass_proc_write_ivo_stat_info);

/* TIMNG. */
EXPORT_SYMBOL(g_timngKernelInfo);
EXPORT_SYMBOL(g_timngKernelInfoCnt);
EXPORT_SYMBOL(g_TimngBoardType);
EXPORT_SYMBOL(TIMNG_LB_InitKernel);
EXPORT_SYMBOL(TIMNG_GetVcpuIdByCauseid);
EXPORT_SYMBOL(TIMNG_IsIpFragPacket);

/* Debug buffer, commands and printers. */
EXPORT_SYMBOL(g_ulDebugLevel);
EXPORT_SYMBOL(g_pstDebug);
EXPORT_SYMBOL(g_ulDebugLen);
EXPORT_SYMBOL(g_ulLBType);
EXPORT_SYMBOL(g_ulVcpuId);
EXPORT_SYMBOL(g_ulSwitchDebug);
EXPORT_SYMBOL(g_ucPktTyep);
EXPORT_SYMBOL(g_ulMulPid);
EXPORT_SYMBOL(g_ulSendPid);
EXPORT_SYMBOL(bypass_debug_out);
EXPORT_SYMBOL(bypass_debug);
EXPORT_SYMBOL(bypass_debug_pktoffset);
EXPORT_SYMBOL(bypass_debug_pidInfo);
EXPORT_SYMBOL(bypass_print_pkt);
EXPORT_SYMBOL(bypass_print_All);

/* /proc/bypassDebug. */
EXPORT_SYMBOL(bypass_proc_dir);
EXPORT_SYMBOL(g_bypass_proc_counts_fop);
EXPORT_SYMBOL(g_bypass_proc_debug_fop);
EXPORT_SYMBOL(bypass_proc_init);
EXPORT_SYMBOL(bypass_proc_exit);
EXPORT_SYMBOL(bypass_proc_readCounts);
EXPORT_SYMBOL(bypass_proc_writeCounts);
EXPORT_SYMBOL(bypass_proc_read_debug);
EXPORT_SYMBOL(bypass_proc_write_debugLevel);

/* Capture store. */
EXPORT_SYMBOL(g_pstCatchPktData);

/* Lists and hash tables. */
EXPORT_SYMBOL(LIST_InitNew);
EXPORT_SYMBOL(LIST_AppendNode);
EXPORT_SYMBOL(LIST_FindNodeFromHead);
EXPORT_SYMBOL(LIST_RemoveHeadNode);
EXPORT_SYMBOL(LIST_RemoveTailNode);
EXPORT_SYMBOL(LIST_RemoveNodeByKey);
EXPORT_SYMBOL(HASH_CreateNew);
EXPORT_SYMBOL(HASH_Destroy);
EXPORT_SYMBOL(HASH_NewData);
EXPORT_SYMBOL(HASH_FreeData);
EXPORT_SYMBOL(HASH_AddNode);
EXPORT_SYMBOL(HASH_AddNode_LB_New);
EXPORT_SYMBOL(HASH_FindElemFromFirstList);
EXPORT_SYMBOL(HASH_FindElemFromFirstList_LB_New);
EXPORT_SYMBOL(HASH_RemoveElmtByKey);
EXPORT_SYMBOL(HASH_RemoveElmtByKey_LB_New);
EXPORT_SYMBOL(HASH_RemoveNodeByAddress);

/* Fragment tables, their ageing and their dumps. */
EXPORT_SYMBOL(g_bypass_ipV4FragHash);
EXPORT_SYMBOL(g_bypass_ipV6FragHash);
EXPORT_SYMBOL(g_bypassTimeInitedV4);
EXPORT_SYMBOL(g_bypassTimeInitedV6);
EXPORT_SYMBOL(g_pBypassIpv4TotalInfo);
EXPORT_SYMBOL(g_pBypassIpv6TotalInfo);
EXPORT_SYMBOL(g_bypass_proc_hashInfoIpv4_fop);
EXPORT_SYMBOL(g_bypass_proc_hashInfoIpv6_fop);
EXPORT_SYMBOL(bypass_ipfrag_initHash);
EXPORT_SYMBOL(bypass_ipfrag_exitHash);
EXPORT_SYMBOL(bypass_ipfrag_addInHash);
EXPORT_SYMBOL(bypass_ipfrag_addInHashPub);
EXPORT_SYMBOL(bypass_ipfrag_findVcpuInHash);
EXPORT_SYMBOL(bypass_ipfrag_delInHash);
EXPORT_SYMBOL(bypass_ipfrag_findInHash);
EXPORT_SYMBOL(bypass_ipv4frag_hashkey);
EXPORT_SYMBOL(bypass_ipv6frag_hashkey);
EXPORT_SYMBOL(bypass_ipv4frag_hashmatch);
EXPORT_SYMBOL(bypass_ipv6frag_hashmatch);
EXPORT_SYMBOL(bypass_ipv4frag_timer_callback);
EXPORT_SYMBOL(bypass_ipv6frag_timer_callback);
EXPORT_SYMBOL(bypass_proc_readHashInfoIpv4);
EXPORT_SYMBOL(bypass_proc_readHashInfoIpv6);

/* WLAN CAPWAP and keep-alive tables. */
EXPORT_SYMBOL(g_CAPWAP_LB_Table);
EXPORT_SYMBOL(g_CAPWAP_KEEP_ALIVE_LB_Table);
EXPORT_SYMBOL(WLAN_LB_InitCAPWAPLBHashTable);
EXPORT_SYMBOL(WLAN_LB_InitCAPWAPKeepAliveLBHashTable);
EXPORT_SYMBOL(WLAN_LB_CAPWAP_Hashkey);
EXPORT_SYMBOL(WLAN_LB_CAPWAP_Hashmatch);
EXPORT_SYMBOL(WLAN_LB_CAPWAP_KA_Hashkey);
EXPORT_SYMBOL(WLAN_LB_CAPWAP_KA_Hashmatch);
EXPORT_SYMBOL(WLAN_LB_CAPWAP_LB_FindNodeByNode);
EXPORT_SYMBOL(WLAN_LB_CAPWAP_KA_LB_FindNodeByNode);
EXPORT_SYMBOL(WLAN_LB_CAPWAP_LB_AddHashNode);
EXPORT_SYMBOL(WLAN_LB_CAPWAP_KA_LB_AddHashNode);
EXPORT_SYMBOL(WLAN_LB_CAPWAP_LB_DeleteHashNode);
EXPORT_SYMBOL(WLAN_LB_CAPWAP_KA_LB_DeleteHashNode);
EXPORT_SYMBOL(WLAN_LB_PacketDistribute_CAPWAPHashSet);
EXPORT_SYMBOL(WLAN_LB_PacketDistribute_CAPWAPKAHashSet);
EXPORT_SYMBOL(WLAN_LB_PacketDistribute_CAPWAPHashDelete);
EXPORT_SYMBOL(WLAN_LB_PacketDistribute_CAPWAPKAHashDelete);
EXPORT_SYMBOL(WLAN_LB_PacketDistribute_CAPWAPHashProc);
EXPORT_SYMBOL(WLAN_LB_PacketDistribute_CAPWAPKAHashProc);

/* WLAN cause-ID, socket-port, RADIUS CoA, Portal, NAC and AAA tables. */
EXPORT_SYMBOL(g_WLAN_LB_CAUSEID_HASH_Table);
EXPORT_SYMBOL(g_stSocketUdpPortDistribute);
EXPORT_SYMBOL(g_stSocketTcpPortDistribute);
EXPORT_SYMBOL(g_stRadiusCOADistribute);
EXPORT_SYMBOL(g_stPortalPktDistribute);
EXPORT_SYMBOL(g_pstNACNodidTbl);
EXPORT_SYMBOL(WLAN_LB_InitLBCauseIDHashTable);
EXPORT_SYMBOL(WLAN_LB_CauseID_Hashkey);
EXPORT_SYMBOL(WLAN_LB_CauseID_Hashmatch);
EXPORT_SYMBOL(WLAN_LB_CauseID_Table_FindNodeByNode);
EXPORT_SYMBOL(WLAN_LB_CauseID_Table_AddHashNode);
EXPORT_SYMBOL(WLAN_LB_SetCauseIDTable);
EXPORT_SYMBOL(WLAN_LB_FindSocketPortDistributeTblNodeByPort);
EXPORT_SYMBOL(WLAN_LB_SetSocketPortDistributeTbl);
EXPORT_SYMBOL(WLAN_LB_DeleteSocketPortDistributeTbl);
EXPORT_SYMBOL(WLAN_LB_ProcSocketPortDistributeTbl);
EXPORT_SYMBOL(WLAN_LB_GetDstSocketPortNodeID);
EXPORT_SYMBOL(WLAN_LB_CheckIsSrcSocketPortNeedDistribute);
EXPORT_SYMBOL(WLAN_LB_InitRdsCOADistributeTbl);
EXPORT_SYMBOL(WLAN_LB_SetAAARdsCOADistributeTbl);
EXPORT_SYMBOL(WLAN_LB_SetAAAPortalDistributeTbl);
EXPORT_SYMBOL(WLAN_LB_InitAAAAccessVcpuIDList);
EXPORT_SYMBOL(WLAN_LB_HashAAAAccessVcpuID);

/* Packet capture, the catchPkt file and the self-test packets. */
EXPORT_SYMBOL(g_ulPktAllSlotIsOn);
EXPORT_SYMBOL(g_ulCurrSlotId);
EXPORT_SYMBOL(g_stPktRecordCtrlInfo);
EXPORT_SYMBOL(g_bypass_proc_catchPkt_fop);
EXPORT_SYMBOL(bypass_IsNeedCatchPkt);
EXPORT_SYMBOL(bypass_TS_RecvPktEvent);
EXPORT_SYMBOL(bypass_TS_GetNum);
EXPORT_SYMBOL(bypass_TS_IsNeedCatchPktByUdf);
EXPORT_SYMBOL(bypass_TS_IsIpcPkt);
EXPORT_SYMBOL(bypass_catch_info);
EXPORT_SYMBOL(bypass_proc_read_catchPkt);
EXPORT_SYMBOL(bypass_proc_write_catchPkt);
EXPORT_SYMBOL(test_ipFirstFragment);
EXPORT_SYMBOL(test_ipMiddleFragment);
EXPORT_SYMBOL(test_ipLastFragment);
EXPORT_SYMBOL(test_ipV4Test);
EXPORT_SYMBOL(test_ipV6Test);

/* WLAN status views: their state and the proc files' handlers. */
EXPORT_SYMBOL(wlan_lb_proc_read_capwap_distribute_info);
EXPORT_SYMBOL(wlan_lb_proc_write_capwap_distribute_info);
EXPORT_SYMBOL(wlan_lb_proc_read_capwap_ka_distribute_info);
EXPORT_SYMBOL(wlan_lb_proc_write_capwap_ka_distribute_info);
EXPORT_SYMBOL(g_ulShowType);
EXPORT_SYMBOL(g_ulShowCapwapIP);
EXPORT_SYMBOL(g_stCapwapKAShowKey);
EXPORT_SYMBOL(g_wlan_lb_capwap_show_lock);
EXPORT_SYMBOL(g_wlan_lb_capwap_ka_show_lock);
EXPORT_SYMBOL(g_wlanlbSysvfs_class);
EXPORT_SYMBOL(g_wlanlbDev_t);
EXPORT_SYMBOL(wlan_lb_proc_dir);
EXPORT_SYMBOL(dev_attr_wlan_lb);
EXPORT_SYMBOL(g_wlan_lb_capwap_fop);
EXPORT_SYMBOL(g_wlan_lb_capwap_ka_fop);
