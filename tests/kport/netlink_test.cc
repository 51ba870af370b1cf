// Netlink of the user backend, as the module and the host use it: the
// receive walk and its acknowledgements, unicast to queued and to external
// sockets, the life cycle of both kinds of socket, and all of it at once
// with timers and injected faults (under ThreadSanitizer, races in the
// backend itself show up here).
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <mutex>
#include <thread>
#include <vector>

#include "kport/cxx/guard.h"
#include "kport/errno.h"
#include "kport/mem.h"
#include "kport/netlink.h"
#include "kport/timer.h"
#include "kport/user/external.h"
#include "kport/user/testing.h"

namespace {

using kport::user::DecodeAck;
using kport::user::ExternalSocket;
using kport::user::UserSocket;
using Bytes = std::vector<uint8_t>;

constexpr int kProto = 30;
constexpr uint32_t kPort = 4242;
constexpr uint32_t kPid = 777;
constexpr uint16_t kType = 0x20;      // handled by the module
constexpr uint16_t kFailType = 0x21;  // its handler fails with -EINVAL
constexpr uint16_t kReq = KPORT_NLM_F_REQUEST;
constexpr uint16_t kAck = KPORT_NLM_F_ACK;

// One message: header then `payload` bytes of 0xab; nlmsg_len is unaligned.
Bytes Msg(uint16_t type, uint16_t flags, uint32_t seq, uint32_t payload = 0) {
  kport_nlmsghdr h{KPORT_NLMSG_HDRLEN + payload, type, flags, seq, kPort};
  Bytes b(h.nlmsg_len, 0xab);
  std::memcpy(b.data(), &h, sizeof(h));
  return b;
}

// Messages back to back, each padded to the netlink alignment.
Bytes Concat(std::initializer_list<Bytes> msgs) {
  Bytes out;
  for (const Bytes& m : msgs) {
    out.insert(out.end(), m.begin(), m.end());
    out.resize(KPORT_NLMSG_ALIGN(out.size()), 0);
  }
  return out;
}

struct Seen {
  uint16_t type;
  uint32_t seq;
  uint32_t creds_pid;
};
std::mutex g_mu;
std::vector<Seen> g_seen;

int OnMessage(sk_buff* skb, kport_nlmsghdr* nlh) {
  std::lock_guard lock(g_mu);
  g_seen.push_back({nlh->nlmsg_type, nlh->nlmsg_seq, kport_netlink_creds_pid(skb)});
  return nlh->nlmsg_type == kFailType ? -KPORT_EINVAL : 0;
}

void Input(sk_buff* skb) { kport_netlink_rcv_skb(skb, OnMessage); }

class NetlinkTest : public ::testing::Test {
 protected:
  void SetUp() override {
    live_before_ = kport::user::LiveAllocations();
    g_seen.clear();
    sk_ = kport_netlink_kernel_create(kProto, Input);
    ASSERT_NE(sk_, nullptr);
    user_ = UserSocket::Open(kProto, kPort, kPid);
    ASSERT_NE(user_, nullptr);
  }
  void TearDown() override {
    user_.reset();
    kport_netlink_kernel_release(sk_);
    EXPECT_EQ(kport::user::LiveAllocations(), live_before_);
  }
  std::vector<Bytes> Drain() {
    std::vector<Bytes> out;
    while (auto m = user_->Receive()) out.push_back(*m);
    return out;
  }
  // Unicasts a message of `payload` bytes of 0x5a as the module does; its
  // length is 16 + payload (payload a multiple of 4).
  int Unicast(uint32_t port, size_t payload, bool nonblock = true) {
    sk_buff* skb = kport_alloc_skb(KPORT_NLMSG_HDRLEN + static_cast<unsigned>(payload));
    kport_nlmsghdr* h = kport_nlmsg_put(skb, port, 0, 0x30, static_cast<int>(payload), 0);
    std::memset(reinterpret_cast<uint8_t*>(h) + KPORT_NLMSG_HDRLEN, 0x5a, payload);
    return kport_netlink_unicast(sk_, skb, port, nonblock ? 1 : 0);
  }

  size_t live_before_ = 0;
  sock* sk_ = nullptr;
  std::unique_ptr<UserSocket> user_;
};

TEST_F(NetlinkTest, WalksEveryWellFormedMessageOfASendInOrderAndStopsAtABadOne) {
  const Bytes batch = Concat({Msg(kType, kReq, 1, 5), Msg(kType, kReq, 2, 8), Msg(kType, kReq, 3)});
  EXPECT_EQ(user_->Send(batch), static_cast<int>(batch.size()));
  Bytes bad_len = Msg(kType, kReq, 5);
  bad_len[0] = 8;  // nlmsg_len below the header size
  user_->Send(Concat({Msg(kType, kReq, 4), bad_len, Msg(kType, kReq, 6)}));
  Bytes too_long = Msg(kType, kReq, 8, 8);
  too_long.resize(20);  // claims 24 bytes, 20 remain
  user_->Send(Concat({Msg(kType, kReq, 7), too_long}));
  Bytes trailing = Msg(kType, kReq, 9);
  trailing.resize(trailing.size() + 12, 0);  // fewer bytes than a header
  user_->Send(trailing);

  std::vector<uint32_t> seqs;
  for (const Seen& s : g_seen) {
    seqs.push_back(s.seq);
    EXPECT_EQ(s.creds_pid, kPid);
  }
  EXPECT_EQ(seqs, (std::vector<uint32_t>{1, 2, 3, 4, 7, 9}));
  EXPECT_EQ(user_->Pending(), 0u) << "no acknowledgement unless asked for or failed";
}

TEST_F(NetlinkTest, AcknowledgementsEchoTheHeaderOnSuccessAndTheMessageOnError) {
  // Non-requests and control types are acknowledged, not handled.
  user_->Send(Concat({Msg(kType, kAck, 1), Msg(KPORT_NLMSG_MIN_TYPE - 1, kReq | kAck, 2)}));
  EXPECT_TRUE(g_seen.empty());
  const Bytes ok = Msg(kType, kReq | kAck, 9, 6);
  const Bytes fail = Msg(kFailType, kReq, 4, 7);  // acknowledged unasked
  user_->Send(Concat({ok, fail, Msg(kType, kReq, 5)}));
  EXPECT_EQ(g_seen.size(), 3u) << "a failed message does not stop the walk";

  const std::vector<Bytes> msgs = Drain();
  ASSERT_EQ(msgs.size(), 4u);
  for (uint32_t i = 0; i < 2; ++i) {
    auto ack = DecodeAck(msgs[i]);
    ASSERT_TRUE(ack);
    EXPECT_EQ(ack->error, 0);
    EXPECT_EQ(ack->seq, i + 1);
  }
  auto ack = DecodeAck(msgs[2]);
  ASSERT_TRUE(ack);
  EXPECT_EQ(ack->flags, 0x100);
  EXPECT_EQ(ack->seq, 9u);
  EXPECT_EQ(ack->portid, kPort);
  ASSERT_EQ(msgs[2].size(), 36u);
  EXPECT_EQ(msgs[2][0], 36) << "nlmsg_len";
  EXPECT_EQ(Bytes(msgs[2].begin() + 20, msgs[2].end()), Bytes(ok.begin(), ok.begin() + 16));

  ack = DecodeAck(msgs[3]);
  ASSERT_TRUE(ack);
  EXPECT_EQ(ack->error, -22);
  EXPECT_EQ(ack->flags, 0) << "not capped";
  ASSERT_EQ(msgs[3].size(), KPORT_NLMSG_ALIGN(20 + fail.size()));
  EXPECT_EQ(Bytes(msgs[3].begin() + 20, msgs[3].begin() + 20 + fail.size()), fail);
}

TEST_F(NetlinkTest, UnicastQueuesTheWholeBufferOrRefusesIt) {
  sk_buff* skb = kport_alloc_skb(64);
  ASSERT_NE(skb, nullptr);
  kport_nlmsghdr* nlh = kport_nlmsg_put(skb, kPort, 3, kType, 5, 0);
  EXPECT_EQ(nlh->nlmsg_len, 21u);
  EXPECT_EQ(kport_skb_tailroom(skb), 64u - 24u) << "room is taken aligned";
  std::memset(reinterpret_cast<uint8_t*>(nlh) + 16, 0x11, 5);
  EXPECT_EQ(kport_netlink_unicast(sk_, skb, kPort, 1), 24);
  auto got = user_->Receive();
  ASSERT_TRUE(got);
  ASSERT_EQ(got->size(), 24u);
  EXPECT_EQ(Bytes(got->begin() + 16, got->end()), (Bytes{0x11, 0x11, 0x11, 0x11, 0x11, 0, 0, 0}));

  EXPECT_EQ(Unicast(kPort + 1, 0), -111);
  auto small = UserSocket::Open(kProto, 99, 99, /*queue_limit=*/1);
  ASSERT_NE(small, nullptr);
  EXPECT_EQ(Unicast(99, 0), 16);
  EXPECT_EQ(Unicast(99, 0), -11);
  EXPECT_EQ(small->Pending(), 1u);
  // Without nonblock the sender waits for the reader.
  std::atomic<int> blocked_result{1};
  std::thread sender([&] { blocked_result = Unicast(99, 4, false); });
  EXPECT_TRUE(small->Receive());
  sender.join();
  EXPECT_EQ(blocked_result, 20);
  EXPECT_EQ(small->Pending(), 1u);
  // TearDown checks that every refused buffer was freed.
}

TEST_F(NetlinkTest, SocketsAreUniqueAndNeedTheKernelSide) {
  auto sink = [](const uint8_t*, size_t n, bool) { return static_cast<int>(n); };
  EXPECT_EQ(kport_netlink_kernel_create(kProto, Input), nullptr);
  EXPECT_EQ(UserSocket::Open(kProto, kPort, 1), nullptr);
  EXPECT_EQ(ExternalSocket::Open(kProto, kPort, kPid, sink), nullptr) << "port id taken";
  EXPECT_EQ(UserSocket::Open(kProto + 1, 5, 5), nullptr);
  EXPECT_EQ(ExternalSocket::Open(kProto + 1, 5, 5, sink), nullptr) << "no kernel socket";
  EXPECT_NE(UserSocket::Open(kProto + 1, 5, 5, 8, /*require_kernel=*/false), nullptr);
  EXPECT_NE(ExternalSocket::Open(kProto + 1, 5, 5, sink, false), nullptr);
  EXPECT_EQ(ExternalSocket::Open(kProto, kPort + 1, kPid, nullptr), nullptr) << "no sink";
  EXPECT_TRUE(kport::user::KernelSocketExists(kProto));
  EXPECT_FALSE(kport::user::KernelSocketExists(kProto + 1));
  user_.reset();
  EXPECT_NE(ExternalSocket::Open(kProto, kPort, kPid, sink), nullptr);
}

TEST_F(NetlinkTest, AnExternalSinkGetsTheBytesAndDecidesTheResult) {
  std::vector<std::pair<Bytes, bool>> got;
  int verdict = 0;  // 0: accept (return the length), else return it
  auto ext =
      ExternalSocket::Open(kProto, kPort + 1, kPid, [&](const uint8_t* d, size_t n, bool nb) {
        got.emplace_back(Bytes(d, d + n), nb);
        return verdict == 0 ? static_cast<int>(n) : verdict;
      });
  ASSERT_NE(ext, nullptr);
  EXPECT_EQ(ext->portid(), kPort + 1);
  EXPECT_EQ(Unicast(kPort + 1, 40), 56);
  verdict = -KPORT_EAGAIN;
  EXPECT_EQ(Unicast(kPort + 1, 8, false), -11);
  ASSERT_EQ(got.size(), 2u);
  EXPECT_EQ(Bytes(got[0].first.begin() + 16, got[0].first.end()), Bytes(40, 0x5a));
  EXPECT_TRUE(got[0].second);
  EXPECT_FALSE(got[1].second);

  // A send carries the socket's pid; its acknowledgement comes back to it.
  verdict = 0;
  got.clear();
  const Bytes req = Msg(kType, kReq | kAck, 7, 4);
  EXPECT_EQ(ext->Send(req.data(), req.size()), 20);
  ASSERT_EQ(g_seen.size(), 1u);
  EXPECT_EQ(g_seen[0].creds_pid, kPid);
  ASSERT_EQ(got.size(), 1u);
  auto ack = DecodeAck(got[0].first);
  ASSERT_TRUE(ack.has_value());
  EXPECT_EQ(ack->portid, kPort + 1);
  EXPECT_EQ(ack->seq, 7u);
}

TEST_F(NetlinkTest, ClosingAnExternalSocketWaitsForItsSinkAndRefusesLaterCalls) {
  std::atomic<bool> inside{false}, release{false}, destroyed{false}, called_after{false};
  auto ext = ExternalSocket::Open(kProto, kPort + 1, kPid, [&](const uint8_t*, size_t n, bool) {
    if (destroyed) called_after = true;
    inside = true;
    while (!release) std::this_thread::yield();
    return static_cast<int>(n);
  });
  ASSERT_NE(ext, nullptr);
  int first = 0;
  std::thread sender([&] { first = Unicast(kPort + 1, 16); });
  while (!inside) std::this_thread::yield();
  std::thread closer([&] {
    ext.reset();
    destroyed = true;
  });
  release = true;
  closer.join();
  sender.join();
  EXPECT_EQ(first, 32) << "the call under way completes";
  EXPECT_EQ(Unicast(kPort + 1, 16), -111);
  EXPECT_FALSE(called_after);
}

std::atomic<bool> g_in_input{false};
std::atomic<bool> g_release_returned{false};
std::atomic<bool> g_returned_early{false};

void SlowInput(sk_buff*) {
  g_in_input = true;
  // Wait for the release to begin (the socket disappears at once), give it
  // every chance to return too early, then look.
  while (kport::user::KernelSocketExists(kProto + 2)) std::this_thread::yield();
  for (int i = 0; i < 1000; ++i) std::this_thread::yield();
  g_returned_early = g_release_returned.load();
}

TEST(NetlinkRelease, WaitsForRunningInputThenRefusesSends) {
  sock* sk = kport_netlink_kernel_create(kProto + 2, SlowInput);
  ASSERT_NE(sk, nullptr);
  auto user = UserSocket::Open(kProto + 2, 1, 1);
  std::thread sender([&] { EXPECT_EQ(user->Send(Msg(kType, kReq, 1)), 16); });
  while (!g_in_input) std::this_thread::yield();
  kport_netlink_kernel_release(sk);
  g_release_returned = true;
  sender.join();
  EXPECT_FALSE(g_returned_early);
  EXPECT_EQ(user->Send(Msg(kType, kReq, 2)), -111);
  EXPECT_EQ(kport::user::KernelSocketCount(), 0u);
}

constexpr int kConcurrentProto = 33;
constexpr int kThreads = 4;
constexpr int kRounds = 300;

kport_spinlock_t g_lock;
long g_handled = 0;  // guarded by g_lock
sock* g_sk = nullptr;

// Handles each request on the sender's thread: counts it under a kport lock
// and answers with a buffer of the module's own.
constexpr uint32_t kSinkPort = 99;
std::atomic<int> g_copies{0};

int CountingHandle(sk_buff* skb, kport_nlmsghdr* nlh) {
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
  // A copy for the external socket every sender's thread delivers to.
  if (sk_buff* copy = kport_alloc_skb(16)) {
    kport_nlmsg_put(copy, kSinkPort, nlh->nlmsg_seq, 0x30, 0, 0);
    if (kport_netlink_unicast(g_sk, copy, kSinkPort, 1) > 0) ++g_copies;
  }
  return 0;
}

void CountingInput(sk_buff* skb) { kport_netlink_rcv_skb(skb, CountingHandle); }

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
  g_sk = kport_netlink_kernel_create(kConcurrentProto, CountingInput);
  ASSERT_NE(g_sk, nullptr);
  Ticker ticker;
  kport_timer_setup(&ticker.timer, Tick);
  kport_timer_add(&ticker.timer, kport_jiffies() + 1);
  kport::user::fault::FailNth(kport::user::fault::Site::kAlloc, 50);
  std::atomic<int> acks{0}, sunk{0};
  auto sink =
      ExternalSocket::Open(kConcurrentProto, kSinkPort, 1, [&](const uint8_t*, size_t n, bool) {
        ++sunk;
        return static_cast<int>(n);
      });
  std::vector<std::thread> senders;
  for (int i = 0; i < kThreads; ++i) {
    senders.emplace_back([i, &acks] {
      const uint32_t port = 100 + static_cast<uint32_t>(i);
      auto user = UserSocket::Open(kConcurrentProto, port, port, 1024);
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
  sink.reset();
  kport_netlink_kernel_release(g_sk);
  kport_spin_lock_destroy(&g_lock);
  kport::user::fault::ClearAll();
  kport::user::clock::UseManual();

  EXPECT_EQ(g_handled, kThreads * kRounds);
  EXPECT_EQ(acks, kThreads * kRounds);
  EXPECT_EQ(sunk.load(), g_copies.load());
  EXPECT_GE(sunk.load(), kThreads * kRounds - 1);
  EXPECT_EQ(kport::user::LiveAllocations(), live_before);
}

}  // namespace
