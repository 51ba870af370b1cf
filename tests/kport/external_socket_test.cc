// External user sockets: deliveries reach the sink with their bytes and the
// caller's blocking wish, the sink's verdict is what the sender sees, sends
// carry the socket's credentials, and closing fences off the sink.
#include "kport/user/external.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <thread>
#include <vector>

#include "kport/errno.h"
#include "kport/netlink.h"
#include "kport/user/testing.h"

namespace {

using kport::user::ExternalSocket;
using kport::user::UserSocket;

constexpr int kProto = 29;
constexpr uint32_t kPort = 0x80000005u;
constexpr uint32_t kPid = 4321;

sock* g_sk = nullptr;
std::atomic<uint32_t> g_last_creds{0};

int OnMessage(sk_buff* skb, kport_nlmsghdr*) {
  g_last_creds = kport_netlink_creds_pid(skb);
  return 0;
}
// Requests with NLM_F_ACK are acknowledged to the sender's port id.
void Input(sk_buff* skb) { kport_netlink_rcv_skb(skb, OnMessage); }

struct Sent {
  std::vector<uint8_t> bytes;
  bool nonblock;
};

class ExternalSocketTest : public ::testing::Test {
 protected:
  void SetUp() override {
    live_before_ = kport::user::LiveAllocations();
    g_sk = kport_netlink_kernel_create(kProto, Input);
    ASSERT_NE(g_sk, nullptr);
  }
  void TearDown() override {
    kport_netlink_kernel_release(g_sk);
    EXPECT_EQ(kport::user::LiveAllocations(), live_before_);
  }

  // Unicasts a message of `payload` bytes of 0x5a to kPort as the module
  // does; its length is 16 + payload (payload a multiple of 4).
  int Unicast(size_t payload, bool nonblock) {
    const auto n = static_cast<int>(payload);
    sk_buff* skb = kport_alloc_skb(KPORT_NLMSG_HDRLEN + static_cast<unsigned>(n));
    kport_nlmsghdr* h = kport_nlmsg_put(skb, kPort, 0, 0x30, n, 0);
    std::memset(reinterpret_cast<uint8_t*>(h) + KPORT_NLMSG_HDRLEN, 0x5a, payload);
    return kport_netlink_unicast(g_sk, skb, kPort, nonblock ? 1 : 0);
  }

  size_t live_before_ = 0;
};

TEST_F(ExternalSocketTest, SinkGetsBytesAndDecidesTheResult) {
  std::vector<Sent> got;
  int verdict = 0;  // 0: accept (return the length), else return it
  auto ext = ExternalSocket::Open(kProto, kPort, kPid, [&](const uint8_t* d, size_t n, bool nb) {
    got.push_back({{d, d + n}, nb});
    return verdict == 0 ? static_cast<int>(n) : verdict;
  });
  ASSERT_NE(ext, nullptr);
  EXPECT_EQ(ext->portid(), kPort);

  EXPECT_EQ(Unicast(40, true), 56);
  verdict = -KPORT_EAGAIN;
  EXPECT_EQ(Unicast(8, false), -KPORT_EAGAIN);
  verdict = -KPORT_ECONNREFUSED;
  EXPECT_EQ(Unicast(8, true), -KPORT_ECONNREFUSED);

  ASSERT_EQ(got.size(), 3u);
  ASSERT_EQ(got[0].bytes.size(), 56u);
  EXPECT_EQ(std::vector<uint8_t>(got[0].bytes.begin() + 16, got[0].bytes.end()),
            std::vector<uint8_t>(40, 0x5a));
  EXPECT_TRUE(got[0].nonblock);
  EXPECT_FALSE(got[1].nonblock);
}

TEST_F(ExternalSocketTest, SendCarriesPidAndAcksComeBackToItsPort) {
  std::vector<std::vector<uint8_t>> got;
  auto ext = ExternalSocket::Open(kProto, kPort, kPid, [&](const uint8_t* d, size_t n, bool) {
    got.emplace_back(d, d + n);
    return static_cast<int>(n);
  });
  ASSERT_NE(ext, nullptr);
  kport_nlmsghdr msg{20, 0x20, KPORT_NLM_F_REQUEST | KPORT_NLM_F_ACK, 7, 0};
  uint8_t bytes[20] = {};
  std::memcpy(bytes, &msg, sizeof(msg));
  EXPECT_EQ(ext->Send(bytes, sizeof(bytes)), 20);
  EXPECT_EQ(g_last_creds.load(), kPid);
  ASSERT_EQ(got.size(), 1u);
  auto ack = kport::user::DecodeAck(got[0]);
  ASSERT_TRUE(ack.has_value());
  EXPECT_EQ(ack->portid, kPort);
  EXPECT_EQ(ack->seq, 7u);
  EXPECT_EQ(ack->error, 0);
}

TEST_F(ExternalSocketTest, SharesTheAddressSpaceWithQueuedSockets) {
  auto user = UserSocket::Open(kProto, kPort, kPid);
  ASSERT_NE(user, nullptr);
  auto sink = [](const uint8_t*, size_t n, bool) { return static_cast<int>(n); };
  EXPECT_EQ(ExternalSocket::Open(kProto, kPort, kPid, sink), nullptr) << "port id taken";
  EXPECT_EQ(ExternalSocket::Open(kProto + 1, kPort, kPid, sink), nullptr) << "no kernel socket";
  EXPECT_NE(ExternalSocket::Open(kProto + 1, kPort, kPid, sink, false), nullptr);
  EXPECT_EQ(ExternalSocket::Open(kProto, kPort + 1, kPid, nullptr), nullptr) << "no sink";
  user.reset();
  EXPECT_NE(ExternalSocket::Open(kProto, kPort, kPid, sink), nullptr);
}

TEST_F(ExternalSocketTest, CloseWaitsForSinkCallsAndRefusesLaterOnes) {
  std::atomic<bool> inside{false};
  std::atomic<bool> release{false};
  std::atomic<bool> destroyed{false};
  std::atomic<bool> called_after{false};
  auto ext = ExternalSocket::Open(kProto, kPort, kPid, [&](const uint8_t*, size_t n, bool) {
    if (destroyed) called_after = true;
    inside = true;
    while (!release) std::this_thread::yield();
    return static_cast<int>(n);
  });
  ASSERT_NE(ext, nullptr);
  int first = 0;
  std::thread sender([&] { first = Unicast(16, true); });
  while (!inside) std::this_thread::yield();
  std::thread closer([&] {
    ext.reset();
    destroyed = true;
  });
  release = true;
  closer.join();
  sender.join();
  EXPECT_EQ(first, 32) << "the call under way completes";
  EXPECT_EQ(Unicast(16, true), -KPORT_ECONNREFUSED);
  EXPECT_FALSE(called_after);
}

TEST_F(ExternalSocketTest, ConcurrentDeliveriesAllReachTheSink) {
  std::atomic<uint64_t> count{0};
  auto ext = ExternalSocket::Open(kProto, kPort, kPid, [&](const uint8_t*, size_t n, bool) {
    count.fetch_add(1);
    return static_cast<int>(n);
  });
  ASSERT_NE(ext, nullptr);
  constexpr int kThreads = 4;
  constexpr int kEach = 2000;
  std::vector<std::thread> threads;
  threads.reserve(kThreads);
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < kEach; ++i) Unicast(24, true);
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(count.load(), static_cast<uint64_t>(kThreads * kEach));
}

}  // namespace
