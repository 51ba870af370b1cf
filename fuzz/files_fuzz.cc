// proc and sysfs files: reads and writes of every registered file, with
// arbitrary bytes, counts and positions, between control messages and
// packets that give the files something to show.
//
// Input: records of
//   u8   operation: 0 read, 1 write, 2 control message, 3 packet
//   read/write:  u8 file (index into the registered files, modulo their
//                number), u32 count, u32 position (signed), and for a write
//                u16 n and n bytes (count bytes are written: the buffer is
//                the n bytes repeated, or zeros when n is 0). A count is
//                taken modulo a page and two, or modulo 128 KiB when its
//                top bit is set; a sysfs attribute has no position and
//                takes at most a page, so its count is always the former.
//   control:     u32 message id, u16 n and n payload bytes
//   packet:      u16 n and n bytes handed to netlink_send_msg as type 1
// The files are listed afresh from the registry for each input, so files
// that later parts of the module register are reached without a change.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "drv_vane/netlink.h"
#include "fuzz_env.h"

namespace {

constexpr uint32_t kMaxCount = 1u << 17;   // past every file's size
constexpr uint32_t kPageCount = 4096 + 2;  // up to just past a page

// Counts mostly stay within a page, around the files' sizes and the page
// boundary; words with the top bit set reach past every file. Large counts
// cost page faults in every buffer, and were most of the run time.
size_t Count(uint32_t word, bool sysfs) {
  if (sysfs || (word & 0x80000000u) == 0) return word % kPageCount;
  return word % kMaxCount;
}

// The caller's side of every read and write: the backend hands the handler
// a buffer of exactly the count, so this one can be shared.
uint8_t g_scratch[kMaxCount];

void Fill(std::span<const uint8_t> pattern, size_t count) {
  for (size_t i = 0; i < count; ++i)
    g_scratch[i] = pattern.empty() ? 0 : pattern[i % pattern.size()];
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  namespace vfs = kport::user::vfs;
  vane::fuzz::FreshModule module;
  vane::fuzz::Reader in(data, size);
  const std::vector<std::string> files = vfs::Files();
  // The module always registers files: none would fuzz nothing, silently.
  if (files.empty()) {
    std::fprintf(stderr, "fuzz: the module registered no file\n");
    std::abort();
  }
  while (!in.empty()) {
    const uint8_t op = in.u8() % 4;
    if (op == 2) {
      const uint32_t id = in.u32();
      module.Control(id, in.block());
      continue;
    }
    if (op == 3) {
      std::span<const uint8_t> bytes = in.block();
      std::vector<uint8_t> buf(bytes.begin(), bytes.end());
      netlink_send_msg(1, buf.empty() ? nullptr : buf.data(), static_cast<u32>(buf.size()));
      module.Drain();
      continue;
    }
    const std::string& path = files[in.u8() % files.size()];
    const bool sysfs = path.rfind("/sys/", 0) == 0;
    const size_t count = Count(in.u32(), sysfs);
    int64_t pos = static_cast<int32_t>(in.u32());
    if (op == 0) {
      if (sysfs) {
        vfs::SysfsShow(path);
      } else {
        vfs::ProcRead(path, count == 0 ? nullptr : g_scratch, count, &pos);
      }
    } else {
      Fill(in.block(), count);
      if (sysfs) {
        vfs::SysfsStore(path, std::string_view(reinterpret_cast<const char*>(g_scratch), count));
      } else {
        vfs::ProcWrite(path, count == 0 ? nullptr : g_scratch, count, &pos);
      }
    }
  }
  return 0;
}
