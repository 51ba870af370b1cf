// The netlink "wire": kernel sockets by protocol, user sockets by (protocol,
// port id), and the two directions between them.
#include <condition_variable>
#include <cstring>
#include <map>
#include <mutex>
#include <shared_mutex>
#include <thread>
#include <utility>

#include "internal.h"
#include "kport/errno.h"
#include "netlink_internal.h"

namespace kport::user {
namespace {

// Lock order: mu before users_mu. Deliveries take users_mu shared only, so
// senders on different threads do not serialise on the lookup.
struct Registry {
  std::mutex mu;
  std::condition_variable input_done;  // a kernel input callback returned
  std::map<int, sock*> kernel;
  std::shared_mutex users_mu;
  std::map<std::pair<int, uint32_t>, std::shared_ptr<internal::Endpoint>> users;
};

Registry& Reg() {
  // Never destroyed: sockets may be used while the process exits.
  static Registry* reg = new Registry;
  return *reg;
}

// The kernel socket whose input callback this thread is running, if any.
thread_local const sock* t_in_input = nullptr;

std::shared_ptr<internal::Endpoint> FindUser(int protocol, uint32_t portid) {
  Registry& reg = Reg();
  std::shared_lock lock(reg.users_mu);
  auto it = reg.users.find({protocol, portid});
  return it == reg.users.end() ? nullptr : it->second;
}

}  // namespace

bool KernelSocketExists(int protocol) {
  Registry& reg = Reg();
  std::lock_guard lock(reg.mu);
  return reg.kernel.count(protocol) != 0;
}

size_t KernelSocketCount() {
  Registry& reg = Reg();
  std::lock_guard lock(reg.mu);
  return reg.kernel.size();
}

namespace internal {

std::shared_ptr<Endpoint> Bind(int protocol, uint32_t portid, uint32_t pid, size_t limit,
                               bool require_kernel, Endpoint::Sink sink) {
  auto ep = std::make_shared<Endpoint>(protocol, portid, pid, limit);
  ep->sink = std::move(sink);
  Registry& reg = Reg();
  std::lock_guard lock(reg.mu);
  if (require_kernel && reg.kernel.count(protocol) == 0) return nullptr;
  std::unique_lock users_lock(reg.users_mu);
  auto [it, inserted] = reg.users.try_emplace({protocol, portid}, ep);
  if (!inserted) return nullptr;
  return ep;
}

void Unbind(const std::shared_ptr<Endpoint>& ep) {
  {
    Registry& reg = Reg();
    std::unique_lock lock(reg.users_mu);
    auto it = reg.users.find({ep->protocol, ep->portid});
    if (it != reg.users.end() && it->second == ep) reg.users.erase(it);
  }
  if (ep->sink) {
    // A delivery that found the endpoint before it was unbound may be inside
    // the sink now; the sink's owner may go away as soon as we return.
    ep->sink_closed.store(true);
    while (ep->sink_calls.load() != 0) std::this_thread::yield();
    return;
  }
  std::lock_guard lock(ep->mu);
  ep->closed = true;
  ep->queue.clear();
  ep->space.notify_all();
}

int SendToKernel(const Endpoint& from, const void* data, size_t len) {
  Registry& reg = Reg();
  sock* sk;
  {
    std::lock_guard lock(reg.mu);
    auto it = reg.kernel.find(from.protocol);
    if (it == reg.kernel.end()) return -KPORT_ECONNREFUSED;
    sk = it->second;
    // Holds off kport_netlink_kernel_release until the callback returns.
    ++sk->running_inputs;
  }
  sk_buff* skb = NewSkb(static_cast<unsigned int>(len), false);
  if (len != 0) std::memcpy(skb->data, data, len);
  skb->len = static_cast<unsigned int>(len);
  skb->protocol = from.protocol;
  skb->portid = from.portid;
  skb->creds_pid = from.pid;

  // A socket made without an input callback drops what it is sent.
  if (sk->input != nullptr) {
    const sock* outer = t_in_input;
    t_in_input = sk;
    sk->input(skb);
    t_in_input = outer;
  }
  kport_kfree_skb(skb);

  std::lock_guard lock(reg.mu);
  if (--sk->running_inputs == 0) reg.input_done.notify_all();
  return static_cast<int>(len);
}

int Deliver(int protocol, sk_buff* skb, uint32_t portid, bool nonblock) {
  std::shared_ptr<Endpoint> ep = FindUser(protocol, portid);
  if (ep == nullptr) {
    kport_kfree_skb(skb);
    return -KPORT_ECONNREFUSED;
  }
  if (ep->sink) {
    // sink_calls before sink_closed, the reverse of Unbind's order, so that
    // either Unbind waits for this call or this call sees the close.
    ep->sink_calls.fetch_add(1);
    int ret = -KPORT_ECONNREFUSED;
    if (!ep->sink_closed.load()) ret = ep->sink(skb->data, skb->len, nonblock);
    ep->sink_calls.fetch_sub(1);
    kport_kfree_skb(skb);
    return ret;
  }
  const int len = static_cast<int>(skb->len);
  std::vector<uint8_t> bytes(skb->data, skb->data + skb->len);
  kport_kfree_skb(skb);

  std::unique_lock lock(ep->mu);
  if (ep->queue.size() >= ep->limit && !ep->closed) {
    if (nonblock) return -KPORT_EAGAIN;
    // A kernel socket's send timeout is infinite: wait for the reader.
    ep->space.wait(lock, [&] { return ep->queue.size() < ep->limit || ep->closed; });
  }
  if (ep->closed) return -KPORT_ECONNREFUSED;
  ep->queue.push_back(std::move(bytes));
  return len;
}

}  // namespace internal
}  // namespace kport::user

using kport::user::Reg;
using kport::user::Registry;

extern "C" {

struct sock* kport_netlink_kernel_create(int protocol, kport_netlink_input_t input) {
  if (kport::user::internal::ShouldFail(kport::user::fault::Site::kAlloc)) return nullptr;
  Registry& reg = Reg();
  std::lock_guard lock(reg.mu);
  if (reg.kernel.count(protocol) != 0) return nullptr;
  auto* sk = new sock;
  sk->protocol = protocol;
  sk->input = input;
  reg.kernel[protocol] = sk;
  kport::user::internal::CountAlloc();
  return sk;
}

void kport_netlink_kernel_release(struct sock* sk) {
  if (sk == nullptr) return;
  if (kport::user::t_in_input == sk) {
    kport::user::internal::Fatal(
        "netlink_kernel_release of protocol %d from its own input callback", sk->protocol);
  }
  Registry& reg = Reg();
  {
    std::unique_lock lock(reg.mu);
    auto it = reg.kernel.find(sk->protocol);
    if (it == reg.kernel.end() || it->second != sk) {
      kport::user::internal::Fatal("netlink_kernel_release of an unknown socket");
    }
    // New sends are refused from here on; those already inside finish first.
    reg.kernel.erase(it);
    reg.input_done.wait(lock, [sk] { return sk->running_inputs == 0; });
  }
  delete sk;
  kport::user::internal::CountFree();
}

int kport_netlink_unicast(struct sock* sk, struct sk_buff* skb, u32 portid, int nonblock) {
  if (sk == nullptr || skb == nullptr)
    kport::user::internal::Fatal("netlink_unicast without a socket or buffer");
  return kport::user::internal::Deliver(sk->protocol, skb, portid, nonblock != 0);
}

}  // extern "C"
