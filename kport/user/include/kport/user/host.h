// What a program that hosts the module in its own process (vaned) uses of the
// user-space backend besides the external sockets (external.h): the proc and
// sysfs files by path, on behalf of its clients, and the allocation count
// that tells whether the module's exit gave back everything it took.
//
// Everything here is thread-safe.
#ifndef KPORT_USER_HOST_H
#define KPORT_USER_HOST_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace kport::user {

// ---------------------------------------------------------------------------
// procfs and sysfs registry. Paths are absolute: "/proc/bypassDebug/counts",
// "/sys/class/wlan_lb/wlan_lb/wlan_lb".
namespace vfs {

bool Exists(std::string_view path);

// One read(2)/write(2) on a proc file at *pos (advanced by the handler):
// the handler sees `count` and a user buffer of exactly `count` bytes, so a
// handler that reads or writes beyond it is caught by AddressSanitizer.
// *pos is handed to the handler as its position and the handler's update
// is stored back (pos may be null: position 0, update dropped).
// Returns the handler's result, or -ENOENT (-2) for an unknown path, -EIO
// (-5) when the file has no such handler, -EISDIR (-21) for a directory.
long ProcRead(std::string_view path, void* buf, size_t count, int64_t* pos);
long ProcWrite(std::string_view path, const void* buf, size_t count, int64_t* pos);

// sysfs attribute: show into a page and return the text (nullopt when the
// attribute does not exist or show fails); store returns the handler result.
std::optional<std::string> SysfsShow(std::string_view path);
long SysfsStore(std::string_view path, std::string_view text);

}  // namespace vfs

// ---------------------------------------------------------------------------
// Allocation accounting: live allocations made through kport (memory, socket
// buffers, sockets, entries). A module that unloads cleanly leaves the count
// where it was before it loaded.
size_t LiveAllocations();

}  // namespace kport::user

#endif  // KPORT_USER_HOST_H
