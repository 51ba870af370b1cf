// The injection socket as a packet source: another program hands in
// ready-made delivery buffers (prefix and chip bytes included) as the switch
// driver would, one per datagram in the format of vane/inject.h. They go to
// the dispatcher unchanged; the chip-header stage is not involved.
//
// The socket file is created at Open with mode 0600 and removed when the
// source is destroyed (or Run ends); a stale socket file left by a previous
// run is replaced, a live one is an error.
//
// Thread context: Run on the source's own thread; Stop, Stats, Error and
// Describe from any thread.
#ifndef VANE_HOST_SOURCES_INJECT_SOURCE_H
#define VANE_HOST_SOURCES_INJECT_SOURCE_H

#include <atomic>
#include <memory>
#include <mutex>
#include <string>

#include "host/source.h"
#include "host/sources/source_stats.h"

namespace vane::host {

class InjectSource : public Source {
 public:
  // Binds the socket at `path`; nullptr with *err when it cannot.
  static std::unique_ptr<InjectSource> Open(const std::string& path, std::string* err);
  ~InjectSource() override;

  std::string Describe() const override { return "inject " + path_; }
  // 0 after Stop; -errno when the socket fails.
  int Run(PacketOut& out) override;
  void Stop() override;
  SourceStats Stats() const override { return stats_.Snapshot(); }
  std::string Error() const override;

  const std::string& path() const { return path_; }

 private:
  InjectSource(std::string path, int sock, int wake)
      : path_(std::move(path)), sock_(sock), wake_(wake) {}
  void Unlink();

  std::string path_;
  int sock_;
  int wake_;  // eventfd: Stop wakes the poll
  std::atomic<bool> unlinked_{false};
  AtomicSourceStats stats_;
  mutable std::mutex error_mu_;
  std::string error_;
};

}  // namespace vane::host

#endif  // VANE_HOST_SOURCES_INJECT_SOURCE_H
