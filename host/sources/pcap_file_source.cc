#include "host/sources/pcap_file_source.h"

#include <pcap/pcap.h>

#include <cerrno>
#include <chrono>
#include <optional>

#include "host/client.h"

namespace vane::host {
namespace {

constexpr unsigned kBurst = 32;

struct PcapCloser {
  void operator()(pcap_t* p) const { pcap_close(p); }
};
using PcapHandle = std::unique_ptr<pcap_t, PcapCloser>;

PcapHandle OpenFile(const std::string& path, std::string* err) {
  char errbuf[PCAP_ERRBUF_SIZE] = {};
  PcapHandle p(pcap_open_offline(path.c_str(), errbuf));
  if (!p) {
    *err = "cannot read capture " + path + ": " + errbuf;
    return nullptr;
  }
  if (pcap_datalink(p.get()) != DLT_EN10MB) {
    const char* name = pcap_datalink_val_to_name(pcap_datalink(p.get()));
    *err = "capture " + path + " has link type " + (name != nullptr ? name : "unknown") +
           "; only Ethernet captures can be replayed";
    return nullptr;
  }
  return p;
}

std::chrono::nanoseconds Stamp(const pcap_pkthdr& h) {
  return std::chrono::seconds(h.ts.tv_sec) + std::chrono::microseconds(h.ts.tv_usec);
}

}  // namespace

std::unique_ptr<PcapFileSource> PcapFileSource::Open(const PcapFileOptions& opt,
                                                     std::shared_ptr<const ChipHeaderStage> stage,
                                                     std::string* err) {
  if (opt.timing == Timing::kRate && opt.rate_pps == 0) {
    *err = "pcap " + opt.path + ": rate timing needs a rate above 0 packets per second";
    return nullptr;
  }
  if (!OpenFile(opt.path, err)) return nullptr;
  return std::unique_ptr<PcapFileSource>(new PcapFileSource(opt, std::move(stage)));
}

std::string PcapFileSource::Describe() const {
  std::string d = "pcap " + opt_.path + " (";
  d += opt_.eth_num ? "eth " + std::to_string(*opt_.eth_num) : std::string("eth by rules");
  switch (opt_.timing) {
    case Timing::kFast:
      d += ", fast";
      break;
    case Timing::kRecorded:
      d += ", recorded timing";
      break;
    case Timing::kRate:
      d += ", " + std::to_string(opt_.rate_pps) + " pps";
      break;
  }
  d += opt_.loop ? ", looped)" : ", once)";
  return d;
}

std::string PcapFileSource::Error() const {
  std::lock_guard<std::mutex> lock(error_mu_);
  return error_;
}

int PcapFileSource::Fail(const std::string& message) {
  std::lock_guard<std::mutex> lock(error_mu_);
  error_ = message;
  return -EIO;
}

int PcapFileSource::Run(PacketOut& out) {
  uint64_t sent = 0;  // across passes: the rate schedule runs on over loops
  const Clock::time_point run_start = Clock::now();
  while (!stop_.Raised()) {
    const uint64_t before = sent;
    if (const int rc = Pass(out, run_start, &sent); rc != 0) return rc;
    if (stop_.Raised()) break;
    feed_.stats().Loop();
    // An empty file would otherwise spin a looped source at full speed.
    if (!opt_.loop || sent == before) break;
  }
  return 0;
}

int PcapFileSource::Pass(PacketOut& out, Clock::time_point run_start, uint64_t* sent) {
  std::string err;
  PcapHandle p = OpenFile(opt_.path, &err);
  if (!p) return Fail(err);
  // Recorded timing replays each pass's gaps from the pass's own start.
  const Clock::time_point pass_start = Clock::now();
  std::optional<std::chrono::nanoseconds> first;

  pcap_pkthdr* h = nullptr;
  const u_char* data = nullptr;
  // The messages of a burst go out together (one sendmmsg per worker); a
  // burst ends after kBurst packets and before any wait for the schedule.
  std::optional<SendBatch> batch;
  unsigned in_batch = 0;
  for (;;) {
    if (stop_.Raised()) return 0;
    const int rc = pcap_next_ex(p.get(), &h, &data);
    if (rc == PCAP_ERROR_BREAK) return 0;  // end of file
    if (rc != 1) return Fail("reading " + opt_.path + ": " + pcap_geterr(p.get()));
    Clock::time_point due = pass_start;
    if (opt_.timing == Timing::kRecorded) {
      if (!first) first = Stamp(*h);
      const auto gap = Stamp(*h) - *first;
      if (gap.count() > 0) due = pass_start + std::chrono::duration_cast<Clock::duration>(gap);
    } else if (opt_.timing == Timing::kRate) {
      const uint64_t whole = *sent / opt_.rate_pps;
      const uint64_t part = (*sent % opt_.rate_pps) * 1000000000ULL / opt_.rate_pps;
      due = run_start + std::chrono::seconds(whole) + std::chrono::nanoseconds(part);
    }
    if (opt_.timing != Timing::kFast && due > Clock::now()) {
      batch.reset();
      in_batch = 0;
      if (stop_.SleepUntil(due)) return 0;
    }
    if (!batch) batch.emplace();
    feed_.Feed(data, h->caplen, out);
    ++*sent;
    if (++in_batch == kBurst) {
      batch.reset();
      in_batch = 0;
    }
  }
}

}  // namespace vane::host
