// Load-time state and final release of the AAA-side tables, split by file so
// that aaa_tables_init/exit can reach the parts that each file keeps to
// itself (the static empty NAC list, the RCU wrappers).
//
// Context: only aaa_tables_init and aaa_tables_exit call these, in the
// module loader's process context with no reader and no writer left (after
// kport_rcu_barrier at exit), so they free at once instead of after a grace
// period.
#ifndef VANE_WLAN_LB_AAA_TABLES_H
#define VANE_WLAN_LB_AAA_TABLES_H

namespace vane {

// Both socket-port lists empty; _free also frees every entry.
void socket_ports_init();
void socket_ports_free();
// Portal and CoA entries zero, the NAC list the static empty one; _free also
// frees a loaded NAC copy.
void port_entries_init();
void port_entries_free();
// Destroys the cause-ID table with its records and forgets it.
void causeid_table_free();

}  // namespace vane

#endif  // VANE_WLAN_LB_AAA_TABLES_H
