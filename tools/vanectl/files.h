// The diagnostic files as vanectl reads and writes them, over whichever
// transport the global options pick. Errors are thrown as FileError with a
// message naming the file, so a command reports them in one place.
#ifndef VANE_TOOLS_VANECTL_FILES_H
#define VANE_TOOLS_VANECTL_FILES_H

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "commands.h"
#include "vane/vane.h"

namespace vanectl {

inline constexpr char kCountsPath[] = "/proc/bypassDebug/counts";
inline constexpr char kDebugPath[] = "/proc/bypassDebug/debug";
inline constexpr char kFrag4Path[] = "/proc/bypassDebug/hashInfoIpv4";
inline constexpr char kFrag6Path[] = "/proc/bypassDebug/hashInfoIpv6";
inline constexpr char kIvoPath[] = "/proc/bypassDebug/ivo";
inline constexpr char kCatchPath[] = "/proc/bypassDebug/catchPkt";
inline constexpr char kWlanAttrPath[] = "/sys/class/wlan_lb/wlan_lb/wlan_lb";
inline constexpr char kCapwapPath[] = "/proc/wlan_lb/capwap";
inline constexpr char kCapwapKaPath[] = "/proc/wlan_lb/capwap_ka";

class FileError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// One control handle for the life of a command.
class Files {
 public:
  explicit Files(const Global& g);
  ~Files();
  Files(const Files&) = delete;
  Files& operator=(const Files&) = delete;

  // The whole file from position 0.
  std::vector<uint8_t> Read(const char* path);
  // One read of up to `count` bytes at position 0: for catchPkt, which
  // empties itself on every read, so it must be taken in one piece.
  std::vector<uint8_t> ReadOnce(const char* path, size_t count);
  // One write at position 0 that must take every byte.
  void Write(const char* path, const void* data, size_t len);

 private:
  vane_ctl* ctl_ = nullptr;
};

// Runs `body`, turning FileError and other failures into a message on
// stderr and status 1.
template <typename F>
void Guarded(int& status, F&& body);

}  // namespace vanectl

#include "files_inl.h"

#endif  // VANE_TOOLS_VANECTL_FILES_H
