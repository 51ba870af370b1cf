// Netlink: the receive walk and its acknowledgements, unicast to user
// sockets, and the life cycle of kernel sockets.
#include "kport/netlink.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <mutex>
#include <thread>
#include <vector>

#include "kport/errno.h"
#include "kport/user/testing.h"

namespace {

using kport::user::DecodeAck;
using kport::user::UserSocket;

constexpr int kProto = 30;
constexpr uint32_t kPort = 4242;
constexpr uint32_t kPid = 777;
constexpr uint16_t kType = 0x20;      // handled by the module
constexpr uint16_t kFailType = 0x21;  // its handler fails with -EINVAL
constexpr uint16_t kReq = KPORT_NLM_F_REQUEST;
constexpr uint16_t kAck = KPORT_NLM_F_ACK;

using Bytes = std::vector<uint8_t>;

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

  size_t live_before_ = 0;
  sock* sk_ = nullptr;
  std::unique_ptr<UserSocket> user_;
};

TEST_F(NetlinkTest, WalksEveryMessageOfOneSendInOrder) {
  const Bytes batch = Concat({Msg(kType, kReq, 1, 5), Msg(kType, kReq, 2, 8), Msg(kType, kReq, 3)});
  EXPECT_EQ(user_->Send(batch), static_cast<int>(batch.size()));
  ASSERT_EQ(g_seen.size(), 3u);
  for (uint32_t i = 0; i < 3; ++i) {
    EXPECT_EQ(g_seen[i].seq, i + 1);
    EXPECT_EQ(g_seen[i].creds_pid, kPid);
  }
  EXPECT_EQ(user_->Pending(), 0u) << "no acknowledgement unless asked for or failed";
}

TEST_F(NetlinkTest, StopsAtMalformedOrShortRemainder) {
  Bytes bad_len = Msg(kType, kReq, 2);
  bad_len[0] = 8;  // nlmsg_len below the header size
  user_->Send(Concat({Msg(kType, kReq, 1), bad_len, Msg(kType, kReq, 3)}));

  Bytes too_long = Msg(kType, kReq, 5, 8);
  too_long.resize(20);  // claims 24 bytes, 20 remain
  user_->Send(Concat({Msg(kType, kReq, 4), too_long}));

  Bytes trailing = Msg(kType, kReq, 6);
  trailing.resize(trailing.size() + 12, 0);  // fewer bytes than a header
  user_->Send(trailing);

  ASSERT_EQ(g_seen.size(), 3u);
  EXPECT_EQ(g_seen[0].seq, 1u);
  EXPECT_EQ(g_seen[1].seq, 4u);
  EXPECT_EQ(g_seen[2].seq, 6u);
  EXPECT_EQ(user_->Pending(), 0u);
}

TEST_F(NetlinkTest, NonRequestsAndControlTypesAreAckedButNotHandled) {
  user_->Send(Concat({Msg(kType, kAck, 1), Msg(KPORT_NLMSG_MIN_TYPE - 1, kReq | kAck, 2)}));
  EXPECT_TRUE(g_seen.empty());
  const auto acks = Drain();
  ASSERT_EQ(acks.size(), 2u);
  for (uint32_t i = 0; i < 2; ++i) {
    auto ack = DecodeAck(acks[i]);
    ASSERT_TRUE(ack);
    EXPECT_EQ(ack->error, 0);
    EXPECT_EQ(ack->seq, i + 1);
  }
}

TEST_F(NetlinkTest, SuccessAckEchoesOnlyTheHeader) {
  const Bytes req = Msg(kType, kReq | kAck, 9, 6);
  user_->Send(req);
  const auto msgs = Drain();
  ASSERT_EQ(msgs.size(), 1u);
  const Bytes& m = msgs[0];
  auto ack = DecodeAck(m);
  ASSERT_TRUE(ack);
  EXPECT_EQ(ack->flags, KPORT_NLM_F_CAPPED);
  EXPECT_EQ(ack->seq, 9u);
  EXPECT_EQ(ack->portid, kPort);
  EXPECT_EQ(ack->error, 0);
  ASSERT_EQ(m.size(), 36u);
  EXPECT_EQ(m[0], 36) << "nlmsg_len";
  EXPECT_EQ(Bytes(m.begin() + 20, m.end()), Bytes(req.begin(), req.begin() + 16));
}

TEST_F(NetlinkTest, ErrorAckEchoesTheWholeMessageEvenUnasked) {
  const Bytes req = Msg(kFailType, kReq, 4, 7);
  user_->Send(Concat({req, Msg(kType, kReq, 5)}));
  EXPECT_EQ(g_seen.size(), 2u) << "a failed message does not stop the walk";
  const auto msgs = Drain();
  ASSERT_EQ(msgs.size(), 1u);
  const Bytes& m = msgs[0];
  auto ack = DecodeAck(m);
  ASSERT_TRUE(ack);
  EXPECT_EQ(ack->error, -KPORT_EINVAL);
  EXPECT_EQ(ack->flags, 0) << "not capped";
  ASSERT_EQ(m.size(), KPORT_NLMSG_ALIGN(20 + req.size()));
  EXPECT_EQ(Bytes(m.begin() + 20, m.begin() + 20 + req.size()), req);
}

TEST_F(NetlinkTest, UnicastQueuesWholeBufferAndConsumesIt) {
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
}

TEST_F(NetlinkTest, UnicastRefusesUnknownPortAndFullQueue) {
  EXPECT_EQ(kport_netlink_unicast(sk_, kport_alloc_skb(16), kPort + 1, 1), -KPORT_ECONNREFUSED);

  auto small = UserSocket::Open(kProto, 99, 99, /*queue_limit=*/1);
  ASSERT_NE(small, nullptr);
  EXPECT_EQ(kport_netlink_unicast(sk_, kport_alloc_skb(16), 99, 1), 0);
  EXPECT_EQ(kport_netlink_unicast(sk_, kport_alloc_skb(16), 99, 1), -KPORT_EAGAIN);
  EXPECT_EQ(small->Pending(), 1u);

  // Without nonblock the sender waits for the reader.
  std::atomic<int> blocked_result{1};
  std::thread sender(
      [&] { blocked_result = kport_netlink_unicast(sk_, kport_alloc_skb(8), 99, 0); });
  EXPECT_TRUE(small->Receive());
  sender.join();
  EXPECT_EQ(blocked_result, 0);
  EXPECT_EQ(small->Pending(), 1u);
  // TearDown checks that every refused buffer was freed.
}

TEST_F(NetlinkTest, SocketsAreUniqueAndNeedTheKernelSide) {
  EXPECT_EQ(kport_netlink_kernel_create(kProto, Input), nullptr);
  EXPECT_EQ(UserSocket::Open(kProto, kPort, 1), nullptr);
  EXPECT_EQ(UserSocket::Open(kProto + 1, 5, 5), nullptr);
  EXPECT_NE(UserSocket::Open(kProto + 1, 5, 5, 8, /*require_kernel=*/false), nullptr);
  EXPECT_TRUE(kport::user::KernelSocketExists(kProto));
  EXPECT_FALSE(kport::user::KernelSocketExists(kProto + 1));
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
  g_in_input = g_release_returned = g_returned_early = false;
  sock* sk = kport_netlink_kernel_create(kProto + 2, SlowInput);
  ASSERT_NE(sk, nullptr);
  auto user = UserSocket::Open(kProto + 2, 1, 1);
  std::thread sender([&] { EXPECT_EQ(user->Send(Msg(kType, kReq, 1)), 16); });
  while (!g_in_input) std::this_thread::yield();
  kport_netlink_kernel_release(sk);
  g_release_returned = true;
  sender.join();
  EXPECT_FALSE(g_returned_early);
  EXPECT_EQ(user->Send(Msg(kType, kReq, 2)), -KPORT_ECONNREFUSED);
  EXPECT_EQ(kport::user::KernelSocketCount(), 0u);
}

}  // namespace
