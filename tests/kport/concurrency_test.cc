// The backend under concurrent use, as the module's stress tests drive it:
// run under ThreadSanitizer, these find races in the backend itself.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <thread>
#include <vector>

#include "kport/cxx/guard.h"
#include "kport/mem.h"
#include "kport/netlink.h"
#include "kport/timer.h"
#include "kport/user/testing.h"

namespace {

using kport::user::UserSocket;

constexpr int kProto = 33;
constexpr int kThreads = 4;
constexpr int kRounds = 300;

kport_spinlock_t g_lock;
long g_handled = 0;  // guarded by g_lock
sock* g_sk = nullptr;

// Handles each request on the sender's thread: counts it under a kport lock
// and answers with a buffer of the module's own.
int Handle(sk_buff* skb, kport_nlmsghdr* nlh) {
  {
    kport::SpinGuardBh guard(&g_lock);
    ++g_handled;
  }
  void* scratch = kport_kmalloc_atomic(64);  // may be failed by injection
  kport_kfree(scratch);
  sk_buff* reply = kport_alloc_skb(32);
  if (reply == nullptr) return -12;
  kport_nlmsg_put(reply, nlh->nlmsg_pid, nlh->nlmsg_seq, 0x30, 4, 0);
  kport_netlink_unicast(g_sk, reply, kport_netlink_creds_pid(skb), 1);
  return 0;
}

void Input(sk_buff* skb) { kport_netlink_rcv_skb(skb, Handle); }

struct Ticker {
  kport_timer_t timer;
  std::atomic<int> fired{0};
};

void Tick(kport_timer_t* t) {
  auto* ticker = reinterpret_cast<Ticker*>(t);
  ++ticker->fired;
  kport_timer_mod(t, kport_jiffies() + 1);
}

TEST(Concurrency, SendsAcksTimersAndFaultsTogether) {
  const size_t live_before = kport::user::LiveAllocations();
  g_handled = 0;
  kport::user::clock::UseTimerThread();
  kport_spin_lock_init(&g_lock);
  g_sk = kport_netlink_kernel_create(kProto, Input);
  ASSERT_NE(g_sk, nullptr);
  Ticker ticker;
  kport_timer_setup(&ticker.timer, Tick);
  kport_timer_add(&ticker.timer, kport_jiffies() + 1);
  kport::user::fault::FailNth(kport::user::fault::Site::kAlloc, 50);

  std::atomic<int> acks{0};
  std::vector<std::thread> senders;
  for (int i = 0; i < kThreads; ++i) {
    senders.emplace_back([i, &acks] {
      const uint32_t port = 100 + static_cast<uint32_t>(i);
      auto user = UserSocket::Open(kProto, port, port, 1024);
      for (int n = 0; n < kRounds; ++n) {
        kport_nlmsghdr h{16, 0x20, KPORT_NLM_F_REQUEST | KPORT_NLM_F_ACK, static_cast<uint32_t>(n),
                         port};
        user->Send(&h, sizeof(h));
        while (auto msg = user->Receive()) {
          if (kport::user::DecodeAck(*msg)) ++acks;
        }
      }
    });
  }
  for (auto& t : senders) t.join();

  kport_timer_del_sync(&ticker.timer);
  kport_netlink_kernel_release(g_sk);
  kport_spin_lock_destroy(&g_lock);
  kport::user::fault::ClearAll();
  kport::user::clock::UseManual();

  EXPECT_EQ(g_handled, kThreads * kRounds);
  EXPECT_EQ(acks, kThreads * kRounds);
  EXPECT_EQ(kport::user::LiveAllocations(), live_before);
}

}  // namespace
