// How many messages the kernel dropped for one netlink socket: the "Drops"
// column of /proc/net/netlink, found by the socket's inode. The parser is a
// pure function so that it can be checked against sample text.
#ifndef VANE_SDK_SRC_PROC_NETLINK_H
#define VANE_SDK_SRC_PROC_NETLINK_H

#include <cstdint>
#include <optional>
#include <string_view>

namespace vane {

// The Drops value of the row whose Inode is `inode`, with the columns found
// by the header's names; nothing when the text has no such row or header.
std::optional<uint64_t> ParseNetlinkDrops(std::string_view text, uint64_t inode);

// The drop count of the netlink socket fd from /proc/net/netlink.
std::optional<uint64_t> NetlinkDrops(int fd);

}  // namespace vane

#endif  // VANE_SDK_SRC_PROC_NETLINK_H
