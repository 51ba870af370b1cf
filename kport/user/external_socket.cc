// External user sockets: an endpoint of the netlink wire whose deliveries go
// to the owner's sink.
#include <utility>

#include "kport/user/external.h"
#include "netlink_internal.h"

namespace kport::user {

ExternalSocket::ExternalSocket(std::shared_ptr<internal::Endpoint> ep) : ep_(std::move(ep)) {}

std::unique_ptr<ExternalSocket> ExternalSocket::Open(int protocol, uint32_t portid, uint32_t pid,
                                                     Sink sink, bool require_kernel) {
  if (!sink) return nullptr;
  auto ep = internal::Bind(protocol, portid, pid, 0, require_kernel, std::move(sink));
  if (ep == nullptr) return nullptr;
  return std::unique_ptr<ExternalSocket>(new ExternalSocket(std::move(ep)));
}

ExternalSocket::~ExternalSocket() { internal::Unbind(ep_); }

int ExternalSocket::Send(const void* data, size_t len) {
  return internal::SendToKernel(*ep_, data, len);
}

int ExternalSocket::protocol() const { return ep_->protocol; }
uint32_t ExternalSocket::portid() const { return ep_->portid; }
uint32_t ExternalSocket::pid() const { return ep_->pid; }

}  // namespace kport::user
