#include "host/sources/iface_source.h"

#include <cerrno>

namespace vane::host {
namespace {

constexpr int kSnapLen = 10000;
constexpr int kReadTimeoutMs = 100;
constexpr int kBatch = 64;

std::string ActivateError(const std::string& name, pcap_t* p, int rc) {
  const std::string detail = pcap_geterr(p);
  switch (rc) {
    case PCAP_ERROR_PERM_DENIED:
      return "not permitted to capture on " + name +
             " (needs root or CAP_NET_RAW and CAP_NET_ADMIN): " + detail;
    case PCAP_ERROR_NO_SUCH_DEVICE:
      return "no interface named " + name + ": " + detail;
    case PCAP_ERROR_IFACE_NOT_UP:
      return "interface " + name + " is down";
    default:
      return "cannot capture on " + name + ": " + pcap_statustostr(rc) +
             (detail.empty() ? "" : ": " + detail);
  }
}

}  // namespace

std::unique_ptr<IfaceSource> IfaceSource::Open(const std::string& name, std::optional<uint32_t> eth,
                                               std::shared_ptr<const ChipHeaderStage> stage,
                                               std::string* err) {
  char errbuf[PCAP_ERRBUF_SIZE] = {};
  pcap_t* p = pcap_create(name.c_str(), errbuf);
  if (p == nullptr) {
    *err = "cannot capture on " + name + ": " + errbuf;
    return nullptr;
  }
  pcap_set_snaplen(p, kSnapLen);
  pcap_set_immediate_mode(p, 1);
  pcap_set_timeout(p, kReadTimeoutMs);
  if (const int rc = pcap_activate(p); rc < 0) {
    *err = ActivateError(name, p, rc);
    pcap_close(p);
    return nullptr;
  }
  if (pcap_datalink(p) != DLT_EN10MB) {
    *err = "interface " + name + " is not an Ethernet interface";
    pcap_close(p);
    return nullptr;
  }
  return std::unique_ptr<IfaceSource>(new IfaceSource(name, eth, p, std::move(stage)));
}

IfaceSource::~IfaceSource() { pcap_close(pcap_); }

std::string IfaceSource::Describe() const {
  return "iface " + name_ + " (" +
         (eth_ ? "eth " + std::to_string(*eth_) : std::string("eth by rules")) + ")";
}

std::string IfaceSource::Error() const {
  std::lock_guard<std::mutex> lock(error_mu_);
  return error_;
}

void IfaceSource::Stop() {
  stop_.Raise();
  // Ends a pcap_dispatch under way; the read timeout covers a wait in the
  // kernel that breakloop cannot wake.
  pcap_breakloop(pcap_);
}

void IfaceSource::OnFrame(u_char* self, const pcap_pkthdr* h, const u_char* data) {
  auto* s = reinterpret_cast<IfaceSource*>(self);
  s->feed_.Feed(data, h->caplen, *s->out_);
}

int IfaceSource::Run(PacketOut& out) {
  out_ = &out;
  while (!stop_.Raised()) {
    const int rc =
        pcap_dispatch(pcap_, kBatch, &IfaceSource::OnFrame, reinterpret_cast<u_char*>(this));
    if (rc == PCAP_ERROR_BREAK) continue;
    if (rc < 0) {
      std::lock_guard<std::mutex> lock(error_mu_);
      error_ = "capture on " + name_ + " failed: " + pcap_geterr(pcap_);
      return -EIO;
    }
  }
  return 0;
}

}  // namespace vane::host
