// A minimal pcapng writer: one section, one Ethernet interface with
// nanosecond time stamps, enhanced packet blocks with comments. Blocks are
// built in memory in the writer's byte order, which readers detect from the
// section header.
#ifndef VANE_TOOLS_VANECTL_PCAPNG_H
#define VANE_TOOLS_VANECTL_PCAPNG_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace vanectl::pcapng {

// Section header block (byte-order magic, version 1.0, length unknown),
// with an optional shb_userappl.
std::string SectionHeader(std::string_view application);
// Interface description block: link type Ethernet, the snap length, the
// interface name and if_tsresol 9 (time stamps count nanoseconds).
std::string EthernetInterface(std::string_view name, uint32_t snaplen);
// Enhanced packet block on interface 0: time stamp in nanoseconds since
// the epoch, the captured bytes, the frame's original length (at least the
// captured length), and one opt_comment per comment.
std::string Packet(uint64_t ts_ns, const uint8_t* data, uint32_t captured, uint32_t original,
                   const std::vector<std::string>& comments);

}  // namespace vanectl::pcapng

#endif  // VANE_TOOLS_VANECTL_PCAPNG_H
