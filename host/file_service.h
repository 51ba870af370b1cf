// The module's proc and sysfs files served over the channel sockets: one
// read or write by path, count and position per request, so that a tool
// reads them the same way whichever backend it talks to.
//
// Thread context: any; the proc and sysfs handlers do their own locking.
#ifndef VANE_HOST_FILE_SERVICE_H
#define VANE_HOST_FILE_SERVICE_H

#include <cstddef>
#include <cstdint>
#include <vector>

namespace vane::host {

// Whether a datagram's first message is a file request.
bool IsFileRequest(const uint8_t* data, size_t len);

// Carries out the file request in `data` and returns the reply datagram
// (nlmsg_pid `portid`, the request's nlmsg_seq). Results in the reply:
// bytes read or written; -EINVAL for a request whose header, path length
// (1..255), count (at most one chunk) or position (negative) is wrong or
// whose lengths do not fit the datagram; -ENOENT for a path that is neither
// a proc file nor a sysfs attribute; else the handler's result.
std::vector<uint8_t> ServeFile(const uint8_t* data, size_t len, uint32_t portid);

// The reply of a refused request: result `error`, position 0, no data.
std::vector<uint8_t> FileError(const uint8_t* data, size_t len, uint32_t portid, int error);

}  // namespace vane::host

#endif  // VANE_HOST_FILE_SERVICE_H
