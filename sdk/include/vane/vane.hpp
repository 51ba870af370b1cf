// A thin C++ layer over libvane's C API (vane/vane.h): handles that close
// themselves, a packet callback that takes any callable, and whole-file reads
// into a vector. Results are the C API's: 0 or a negated errno, never an
// exception. Header-only; the same thread rules as the C handles.
#ifndef VANE_VANE_HPP
#define VANE_VANE_HPP

#include <cstdint>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "vane/vane.h"

namespace vane {

class Worker {
 public:
  Worker() = default;
  Worker(const Worker&) = delete;
  Worker& operator=(const Worker&) = delete;
  Worker(Worker&& o) noexcept : w_(std::exchange(o.w_, nullptr)) {}
  Worker& operator=(Worker&& o) noexcept {
    if (this != &o) {
      Close();
      w_ = std::exchange(o.w_, nullptr);
    }
    return *this;
  }
  ~Worker() { Close(); }

  int Open(const vane_worker_opts& opts) {
    Close();
    return vane_worker_open(&opts, &w_);
  }
  void Close() {
    vane_worker_close(w_);
    w_ = nullptr;
  }
  bool is_open() const { return w_ != nullptr; }

  // fn(const vane_packet&) for each packet; the number handed over, or a
  // negated errno.
  template <typename Fn>
  int Poll(int timeout_ms, Fn&& fn) {
    return vane_worker_poll(
        w_, timeout_ms,
        [](void* arg, const vane_packet* p) {
          (*static_cast<std::remove_reference_t<Fn>*>(arg))(*p);
        },
        &fn);
  }
  int Register() { return vane_worker_register(w_); }
  vane_worker_stats Stats() const {
    vane_worker_stats s{};
    vane_worker_stats_get(w_, &s);
    return s;
  }
  int Fd(int channel) const { return vane_worker_fd(w_, channel); }
  vane_worker* get() const { return w_; }

 private:
  vane_worker* w_ = nullptr;
};

class Control {
 public:
  Control() = default;
  Control(const Control&) = delete;
  Control& operator=(const Control&) = delete;
  Control(Control&& o) noexcept : c_(std::exchange(o.c_, nullptr)) {}
  Control& operator=(Control&& o) noexcept {
    if (this != &o) {
      Close();
      c_ = std::exchange(o.c_, nullptr);
    }
    return *this;
  }
  ~Control() { Close(); }

  int Open(const vane_endpoint* ep = nullptr) {
    Close();
    return vane_ctl_open(ep, &c_);
  }
  void Close() {
    vane_ctl_close(c_);
    c_ = nullptr;
  }
  bool is_open() const { return c_ != nullptr; }
  vane_transport transport() const { return vane_ctl_transport(c_); }
  vane_ctl* get() const { return c_; }

  int Send(int channel, uint32_t msg_id, const void* payload, uint32_t len) {
    return vane_ctl_send(c_, channel, msg_id, payload, len);
  }
  int Register(int channel, uint32_t vcpu) { return vane_ctl_register(c_, channel, vcpu); }
  int SetConfig(const vane_dispatch_config& cfg) { return vane_ctl_set_config(c_, &cfg); }
  int DebugCommand(uint8_t code) { return vane_ctl_debug_command(c_, code); }
  int SetSteering(const vane_steering_table& t) { return vane_ctl_set_steering(c_, &t); }
  int TimngSet(uint32_t cause_id, uint32_t node_id, uint32_t is_master, uint32_t is_frag_scan) {
    return vane_ctl_timng_set(c_, cause_id, node_id, is_master, is_frag_scan);
  }
  int TimngMaster(uint32_t is_master) { return vane_ctl_timng_master(c_, is_master); }
  int LbCapwap(const vane_capwap_entry& e, uint8_t op) { return vane_ctl_lb_capwap(c_, &e, op); }
  int LbCapwapKa(const uint32_t session[4], uint32_t process, uint8_t op) {
    return vane_ctl_lb_capwap_ka(c_, session, process, op);
  }
  int LbNac(uint32_t board_type, const std::vector<uint32_t>& ids) {
    if (ids.size() > VANE_NAC_MAX) return -22;  // -EINVAL, as the C call would say
    return vane_ctl_lb_nac(c_, board_type, ids.data(), static_cast<uint16_t>(ids.size()));
  }
  int LbPortal(uint16_t port, uint32_t process) { return vane_ctl_lb_portal(c_, port, process); }
  int LbSocketPort(const vane_socket_port& p, uint16_t op) {
    return vane_ctl_lb_socket_port(c_, &p, op);
  }
  int LbBoardType(uint32_t board_type) { return vane_ctl_lb_board_type(c_, board_type); }
  int LbCauseIds(const std::vector<vane_cause_id_entry>& entries) {
    if (entries.size() > VANE_CAUSEID_MAX) return -22;
    return vane_ctl_lb_cause_ids(c_, entries.data(), static_cast<uint32_t>(entries.size()));
  }
  int HandlerMsg(uint32_t msg_id, const void* payload, uint32_t len) {
    return vane_ctl_handler_msg(c_, msg_id, payload, len);
  }

  // The whole file; empty with *err set (when given) on failure.
  std::vector<uint8_t> ReadAll(const std::string& path, int* err = nullptr) {
    uint8_t* buf = nullptr;
    size_t len = 0;
    const int rc = vane_file_read_all(c_, path.c_str(), &buf, &len);
    if (err != nullptr) *err = rc;
    std::vector<uint8_t> out;
    if (rc == 0) out.assign(buf, buf + len);
    std::free(buf);
    return out;
  }
  ssize_t Read(const std::string& path, void* buf, size_t count, int64_t* pos) {
    return vane_file_read(c_, path.c_str(), buf, count, pos);
  }
  ssize_t Write(const std::string& path, const void* buf, size_t count, int64_t* pos = nullptr) {
    return vane_file_write(c_, path.c_str(), buf, count, pos);
  }

 private:
  vane_ctl* c_ = nullptr;
};

}  // namespace vane

#endif  // VANE_VANE_HPP
