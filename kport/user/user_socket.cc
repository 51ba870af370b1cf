// User sockets: what a user-space process sees of netlink, in memory.
#include <utility>

#include "kport/user/testing.h"
#include "netlink_internal.h"

namespace kport::user {

struct UserSocket::State {
  std::shared_ptr<internal::Endpoint> ep;
};

UserSocket::UserSocket(std::shared_ptr<State> state) : state_(std::move(state)) {}

std::unique_ptr<UserSocket> UserSocket::Open(int protocol, uint32_t portid, uint32_t pid,
                                             size_t queue_limit, bool require_kernel) {
  auto ep = internal::Bind(protocol, portid, pid, queue_limit, require_kernel);
  if (ep == nullptr) return nullptr;
  auto state = std::make_shared<State>();
  state->ep = std::move(ep);
  return std::unique_ptr<UserSocket>(new UserSocket(std::move(state)));
}

UserSocket::~UserSocket() { internal::Unbind(state_->ep); }

int UserSocket::Send(const void* data, size_t len) {
  return internal::SendToKernel(*state_->ep, data, len);
}

std::optional<std::vector<uint8_t>> UserSocket::Receive() {
  internal::Endpoint& ep = *state_->ep;
  std::lock_guard lock(ep.mu);
  if (ep.queue.empty()) return std::nullopt;
  std::vector<uint8_t> msg = std::move(ep.queue.front());
  ep.queue.pop_front();
  ep.space.notify_all();
  return msg;
}

size_t UserSocket::Pending() const {
  internal::Endpoint& ep = *state_->ep;
  std::lock_guard lock(ep.mu);
  return ep.queue.size();
}

int UserSocket::protocol() const { return state_->ep->protocol; }
uint32_t UserSocket::portid() const { return state_->ep->portid; }
uint32_t UserSocket::pid() const { return state_->ep->pid; }

}  // namespace kport::user
