#include "core_sink.h"

namespace vanectl::test {

CoreSink::CoreSink(uint32_t pid)
    : normal_(kport::user::UserSocket::Open(VANE_CHANNEL_NORMAL, pid, pid)),
      fast_(kport::user::UserSocket::Open(VANE_CHANNEL_FAST, pid, pid)) {}

vane_endpoint CoreSink::Endpoint() {
  vane_endpoint ep{};
  ep.transport = VANE_TRANSPORT_DRY_RUN;
  ep.dry_run = Deliver;
  ep.dry_run_arg = this;
  return ep;
}

void CoreSink::Deliver(void* arg, int channel, const uint8_t* msg, size_t len) {
  auto* self = static_cast<CoreSink*>(arg);
  kport::user::UserSocket* s =
      channel == VANE_CHANNEL_FAST ? self->fast_.get() : self->normal_.get();
  ++self->messages_;
  int error = -1;  // no acknowledgement
  if (s != nullptr && s->Send(msg, len) == static_cast<int>(len)) {
    // The core answers synchronously, inside the send.
    while (auto reply = s->Receive()) {
      if (auto ack = kport::user::DecodeAck(*reply)) error = ack->error;
    }
  }
  if (error != 0) {
    if (self->failures_++ == 0) self->first_error_ = error;
  }
}

}  // namespace vanectl::test
