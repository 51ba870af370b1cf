// Registration of the WLAN status views: the sysfs class, device and
// attribute "wlan_lb", and /proc/wlan_lb with its capwap and capwap_ka files.
//
// Context: WLAN_LB_InitSysfs runs once at start-up and WLAN_LB_ExitSysfs at
// shut-down (or after a failed start-up), both in the module loader's process
// context, never concurrently with each other. The views are all or nothing:
// a step that fails takes back every earlier one, so an operator never finds
// half of them, and the module runs on without them.
#include "kport/printk.h"
#include "kport/procfs.h"
#include "kport/sysfs.h"
#include "wlan_lb/views_internal.h"

extern "C" {
constinit struct kport_class* g_wlanlbSysvfs_class = nullptr;
// No device node: the device exists only to carry the attribute.
constinit u32 g_wlanlbDev_t = 0;
constinit struct proc_dir_entry* wlan_lb_proc_dir = nullptr;
constinit struct kport_device_attr dev_attr_wlan_lb = {
    "wlan_lb", 0644, wlan_lb_attr_show, wlan_lb_attr_store, {}};
}

namespace vane {
namespace {

constexpr char kName[] = "wlan_lb";
constexpr char kCapwapFile[] = "capwap";
constexpr char kCapwapKaFile[] = "capwap_ka";
constexpr char kProcFileFailed[] = "\r\nErr: create subdir in /proc/wlan_lb/capwap failed.";

constinit struct device* g_wlanlb_device = nullptr;
constinit bool g_attr_created = false;
constinit bool g_capwap_created = false;
constinit bool g_capwap_ka_created = false;
constinit bool g_proc_locks_ready = false;

bool create_sysfs() {
  g_wlanlbSysvfs_class = kport_class_create(kName);
  if (g_wlanlbSysvfs_class == nullptr) {
    kport_printk(KPORT_LOGLEVEL_ALERT, "Failed to create wlan lb class.\n");
    return false;
  }
  g_wlanlb_device = kport_device_create(g_wlanlbSysvfs_class, g_wlanlbDev_t, kName);
  if (g_wlanlb_device == nullptr) {
    kport_printk(KPORT_LOGLEVEL_ALERT, "Failed to create wlan lb device.\n");
    return false;
  }
  const int err = kport_device_create_file(g_wlanlb_device, &dev_attr_wlan_lb);
  if (err != 0) {
    kport_printk(KPORT_LOGLEVEL_ALERT, "wlan lb: device_create_file return %d\n", err);
    return false;
  }
  g_attr_created = true;
  return true;
}

bool create_proc() {
  wlan_lb_proc_dir = kport_proc_mkdir(kName, nullptr);
  if (wlan_lb_proc_dir == nullptr) {
    kport_printk(KPORT_LOGLEVEL_ALERT, "\r\nErr: create dir /proc/wlan_lb failed.");
    return false;
  }
  g_capwap_created =
      kport_proc_create(kCapwapFile, 0666, wlan_lb_proc_dir, &g_wlan_lb_capwap_fop) != nullptr;
  if (!g_capwap_created) {
    kport_printk(KPORT_LOGLEVEL_ALERT, "%s", kProcFileFailed);
    return false;
  }
  g_capwap_ka_created =
      kport_proc_create(kCapwapKaFile, 0666, wlan_lb_proc_dir, &g_wlan_lb_capwap_ka_fop) != nullptr;
  if (!g_capwap_ka_created) {
    kport_printk(KPORT_LOGLEVEL_ALERT, "%s", kProcFileFailed);
    return false;
  }
  return true;
}

// Removes what exists, newest first. Each removal returns once no handler
// of the entry runs, so afterwards nothing reaches the views' code or state.
void remove_all() {
  if (g_capwap_ka_created) kport_remove_proc_entry(kCapwapKaFile, wlan_lb_proc_dir);
  if (g_capwap_created) kport_remove_proc_entry(kCapwapFile, wlan_lb_proc_dir);
  if (wlan_lb_proc_dir != nullptr) kport_remove_proc_entry(kName, nullptr);
  g_capwap_ka_created = false;
  g_capwap_created = false;
  wlan_lb_proc_dir = nullptr;

  if (g_attr_created) kport_device_remove_file(g_wlanlb_device, &dev_attr_wlan_lb);
  if (g_wlanlb_device != nullptr) kport_device_destroy(g_wlanlbSysvfs_class, g_wlanlbDev_t);
  if (g_wlanlbSysvfs_class != nullptr) kport_class_destroy(g_wlanlbSysvfs_class);
  g_attr_created = false;
  g_wlanlb_device = nullptr;
  g_wlanlbSysvfs_class = nullptr;
}

}  // namespace
}  // namespace vane

// Start-up, process context. Never fails the start-up: a failure is logged at
// alert level and leaves no view behind.
extern "C" void WLAN_LB_InitSysfs(void) {
  using namespace vane;
  views_proc_init();
  g_proc_locks_ready = true;
  if (!create_sysfs() || !create_proc()) remove_all();
}

// Shut-down, process context; safe when the start-up never got here or
// failed half way.
extern "C" void WLAN_LB_ExitSysfs(void) {
  using namespace vane;
  remove_all();
  if (g_proc_locks_ready) views_proc_exit();
  g_proc_locks_ready = false;
}
