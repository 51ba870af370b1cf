// vaned itself: the module core loaded on the user backend, its two channel
// sockets, the packet sources each on a thread of its own, the stats file,
// and the orderly shutdown.
//
// Thread context: Start, AddSource and Run on one thread (main); the
// channels are served on that thread too. RequestStop from any thread.
#ifndef VANE_HOST_DAEMON_H
#define VANE_HOST_DAEMON_H

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

#include "channel.h"
#include "packet_out.h"
#include "source.h"

namespace vane::host {

struct DaemonOptions {
  std::string run_dir;
  std::string stats_path;       // empty: no stats file
  bool exit_when_done = false;  // stop once every source has returned
  // Hold the sources until SIGUSR1 (or StartHeldSources), so that workers
  // can register and the tables be applied before the first packet.
  bool paused = false;
  // Take SIGTERM and SIGINT through a signalfd (blocks them in the calling
  // thread, so Start must run before any other thread exists). Off for a
  // daemon embedded in a test.
  bool handle_signals = true;
};

class Daemon {
 public:
  explicit Daemon(DaemonOptions opt);
  ~Daemon();
  Daemon(const Daemon&) = delete;
  Daemon& operator=(const Daemon&) = delete;

  // Prepares the run directory, loads the module and binds the channels.
  // 0, or a negative errno with the reason logged; on failure nothing stays
  // loaded or bound.
  int Start();
  // Adds a source; it starts running when Run begins.
  void AddSource(std::unique_ptr<Source> source);
  // Serves until a stop signal, RequestStop, or (exit_when_done) the end of
  // every source, then shuts down: sources stopped, channels closed, the
  // module unloaded. Returns 0, or 1 when the unload left allocations
  // behind (logged).
  int Run();
  void RequestStop();

  PacketOut& packet_out() { return out_; }
  // The counters as the stats file holds them.
  nlohmann::json Snapshot() const;

 private:
  struct Running {
    std::unique_ptr<Source> source;
    std::thread thread;
    std::atomic<bool> done{false};
    int result = 0;
    // Set before the thread starts; read by the stats once `done`.
    std::chrono::steady_clock::time_point started;
    std::atomic<int64_t> run_ns{0};  // the time Run took, once done
  };

  void StartSources();
  bool sources_started_ = false;
  void Tick();
  void WriteStats(const nlohmann::json& snapshot) const;
  int Shutdown();

  const DaemonOptions opt_;
  uid_t owner_ = 0;
  bool loaded_ = false;
  size_t live_at_start_ = 0;
  std::chrono::steady_clock::time_point started_;
  int signal_fd_ = -1;
  int wake_fd_ = -1;   // eventfd: RequestStop and finished sources
  int timer_fd_ = -1;  // housekeeping tick
  unsigned ticks_ = 0;
  std::atomic<bool> stop_{false};
  ModulePacketOut out_;
  std::unique_ptr<Channel> channels_[2];
  std::vector<std::unique_ptr<Running>> sources_;
};

}  // namespace vane::host

#endif  // VANE_HOST_DAEMON_H
