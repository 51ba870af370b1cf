// The daemon's life cycle and event loop; see daemon.h.
#include "daemon.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <fstream>

#include "drv_vane/entry.h"
#include "drv_vane/netlink.h"
#include "kport/user/host.h"
#include "log.h"
#include "run_dir.h"
#include "vane/wire.h"

namespace vane::host {
namespace {

constexpr long kTickMs = 100;
constexpr unsigned kTicksPerStats = 10;

void CloseFd(int* fd) {
  if (*fd >= 0) close(*fd);
  *fd = -1;
}

void Wake(int fd) {
  const uint64_t one = 1;
  const ssize_t ignored = write(fd, &one, sizeof(one));
  (void)ignored;
}

}  // namespace

Daemon::Daemon(DaemonOptions opt) : opt_(std::move(opt)) {}

Daemon::~Daemon() {
  // A destructor cannot report: a Run that never came still unloads.
  try {
    if (loaded_) Shutdown();
  } catch (const std::exception& e) {
    LogLine(kLogErr, e.what());
  }
  CloseFd(&signal_fd_);
  CloseFd(&wake_fd_);
  CloseFd(&timer_fd_);
}

int Daemon::Start() {
  std::string err;
  int rc = PrepareRunDir(opt_.run_dir, &owner_, &err);
  if (rc != 0) {
    Log(kLogErr, "{}", err);
    return rc;
  }
  if (opt_.handle_signals) {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    signal_fd_ = signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
  }
  wake_fd_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  timer_fd_ = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK);
  if (wake_fd_ < 0 || timer_fd_ < 0 || (opt_.handle_signals && signal_fd_ < 0)) {
    rc = -errno;
    Log(kLogErr, "cannot create the event descriptors: {}", std::strerror(errno));
    return rc;
  }

  live_at_start_ = kport::user::LiveAllocations();
  rc = vane_entry_init();
  if (rc != 0) {
    Log(kLogErr, "module init failed: {}", rc);
    return rc;
  }
  loaded_ = true;
  const char* names[2] = {VANE_WIRE_SOCK_NORMAL, VANE_WIRE_SOCK_FAST};
  const int protocols[2] = {NETLINK_VANE_PROTO, NETLINK_VANE_FAST_PROTO};
  for (int i = 0; i < 2; ++i) {
    channels_[i] = Channel::Open(opt_.run_dir + "/" + names[i], protocols[i], owner_, &err);
    if (channels_[i] == nullptr) {
      Log(kLogErr, "{}", err);
      Shutdown();
      return -EADDRINUSE;
    }
  }
  started_ = std::chrono::steady_clock::now();
  Log(kLogInfo, "module loaded; serving {} for uid {}", opt_.run_dir, owner_);
  return 0;
}

void Daemon::AddSource(std::unique_ptr<Source> source) {
  auto r = std::make_unique<Running>();
  r->source = std::move(source);
  sources_.push_back(std::move(r));
}

void Daemon::StartSources() {
  if (sources_started_) return;
  sources_started_ = true;
  for (auto& r : sources_) {
    Log(kLogInfo, "source: {}", r->source->Describe());
    Running* run = r.get();
    run->started = std::chrono::steady_clock::now();
    r->thread = std::thread([this, run] {
      run->result = run->source->Run(out_);
      run->run_ns.store(std::chrono::duration_cast<std::chrono::nanoseconds>(
                            std::chrono::steady_clock::now() - run->started)
                            .count());
      if (run->result < 0) {
        Log(kLogErr, "source {} failed: {}", run->source->Describe(), run->source->Error());
      } else {
        Log(kLogInfo, "source {} finished", run->source->Describe());
      }
      run->done.store(true);
      Wake(wake_fd_);
    });
  }
}

void Daemon::RequestStop() {
  stop_.store(true);
  if (wake_fd_ >= 0) Wake(wake_fd_);
}

int Daemon::Run() {
  if (!loaded_) return 1;
  const int ep = epoll_create1(EPOLL_CLOEXEC);
  auto watch = [ep](int fd) {
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.fd = fd;
    epoll_ctl(ep, EPOLL_CTL_ADD, fd, &ev);
  };
  for (auto& c : channels_) watch(c->fd());
  watch(wake_fd_);
  watch(timer_fd_);
  if (signal_fd_ >= 0) watch(signal_fd_);
  itimerspec tick{};
  tick.it_interval.tv_nsec = kTickMs * 1000000;
  tick.it_value = tick.it_interval;
  timerfd_settime(timer_fd_, 0, &tick, nullptr);

  if (opt_.paused) {
    Log(kLogNotice, "sources held until SIGUSR1");
  } else {
    StartSources();
  }
  while (!stop_.load()) {
    epoll_event events[8];
    const int n = epoll_wait(ep, events, 8, -1);
    for (int i = 0; i < n; ++i) {
      const int fd = events[i].data.fd;
      uint64_t count = 0;
      if (fd == timer_fd_) {
        if (read(timer_fd_, &count, sizeof(count)) > 0) Tick();
      } else if (fd == wake_fd_) {
        const ssize_t ignored = read(wake_fd_, &count, sizeof(count));
        (void)ignored;
      } else if (fd == signal_fd_) {
        signalfd_siginfo si{};
        if (read(signal_fd_, &si, sizeof(si)) != sizeof(si)) continue;
        if (si.ssi_signo == SIGUSR1) {
          StartSources();
        } else {
          Log(kLogNotice, "signal {}: shutting down", si.ssi_signo);
          stop_.store(true);
        }
      } else {
        for (auto& c : channels_) {
          if (c->fd() == fd) c->Drain();
        }
      }
    }
    if (opt_.exit_when_done && sources_started_ && !sources_.empty()) {
      bool all = true;
      for (auto& r : sources_) all = all && r->done.load();
      if (all) {
        Log(kLogNotice, "every source has finished: shutting down");
        stop_.store(true);
      }
    }
  }
  close(ep);
  return Shutdown();
}

void Daemon::Tick() {
  for (auto& c : channels_) c->Housekeeping();
  if (++ticks_ % kTicksPerStats == 0) WriteStats(Snapshot());
}

nlohmann::json Daemon::Snapshot() const {
  using nlohmann::json;
  json j;
  j["uptime_s"] =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - started_).count();
  json sources = json::array();
  for (const auto& r : sources_) {
    const SourceStats s = r->source->Stats();
    sources.push_back(
        {{"source", r->source->Describe()},
         {"read", s.read},
         {"delivered", s.delivered},
         {"refused", s.refused},
         {"skipped", s.skipped},
         {"bytes", s.bytes},
         {"loops", s.loops},
         {"finished", r->done.load()},
         // How long the source has played (all of it, once finished): the
         // delivery rate's time base.
         {"run_s",
          r->done.load() ? static_cast<double>(r->run_ns.load()) * 1e-9
          : sources_started_
              ? std::chrono::duration<double>(std::chrono::steady_clock::now() - r->started).count()
              : 0.0},
         {"error", r->source->Error()}});
  }
  j["sources"] = sources;
  json results = json::object();
  for (const auto& [code, n] : out_.Results()) results[std::to_string(code)] = n;
  j["delivery"] = results;
  json channels = json::array();
  for (const auto& c : channels_) {
    if (c == nullptr) continue;
    const ChannelCounters& k = c->counters();
    json clients = json::array();
    for (const ClientInfo& ci : c->Clients()) {
      clients.push_back({{"portid", ci.portid},
                         {"pid", ci.pid},
                         {"sent", ci.sent},
                         {"dropped", ci.dropped},
                         {"overrun_notices", ci.notices}});
    }
    channels.push_back({{"protocol", c->protocol()},
                        {"datagrams", k.datagrams},
                        {"refused", k.refused},
                        {"malformed", k.malformed},
                        {"files", k.files},
                        {"overflow", k.overflow},
                        {"clients", clients}});
  }
  j["channels"] = channels;
  return j;
}

void Daemon::WriteStats(const nlohmann::json& snapshot) const {
  if (opt_.stats_path.empty()) return;
  // Readers poll the file: they must never see half of it.
  const std::string tmp = opt_.stats_path + ".tmp";
  {
    std::ofstream f(tmp, std::ios::trunc);
    f << snapshot.dump(2) << '\n';
    if (!f) {
      Log(kLogWarning, "cannot write {}", tmp);
      return;
    }
  }
  if (std::rename(tmp.c_str(), opt_.stats_path.c_str()) != 0) {
    Log(kLogWarning, "cannot rename {} to {}", tmp, opt_.stats_path);
  }
}

int Daemon::Shutdown() {
  if (!loaded_) return 0;
  // Sources first, so that nothing is delivered to clients being closed.
  for (auto& r : sources_) r->source->Stop();
  for (auto& r : sources_) {
    if (r->thread.joinable()) r->thread.join();
  }
  nlohmann::json final_stats = Snapshot();
  for (auto& c : channels_) c.reset();
  vane_entry_exit();
  loaded_ = false;
  const size_t live = kport::user::LiveAllocations();
  final_stats["allocations_left"] = live - live_at_start_;
  WriteStats(final_stats);
  if (live != live_at_start_) {
    Log(kLogErr, "module unloaded with {} allocations left (start {}, now {})",
        live - live_at_start_, live_at_start_, live);
    return 1;
  }
  Log(kLogInfo, "module unloaded; allocations back to {}", live);
  return 0;
}

}  // namespace vane::host
