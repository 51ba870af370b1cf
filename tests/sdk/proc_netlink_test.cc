// The drop-count parser, and its reading of the real file.
#include <gtest/gtest.h>
#include <linux/netlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include "proc_netlink.h"

namespace vane::test {
namespace {

constexpr char kProcNetlink[] =
    "sk               Eth Pid        Groups   Rmem     Wmem     Dump  Locks    Drops    Inode\n"
    "000000005caa5593 0   0          00000000 0        0        0     2        0        4       \n"
    "0000000011f10920 26  4242       00000000 212992   0        0     2        17       1513    \n"
    "00000000531dcc98 27  4242       00000000 0        0        0     2        3        15130   \n";

TEST(ProcNetlinkTest, FindsTheDropsOfTheSocketByInode) {
  EXPECT_EQ(ParseNetlinkDrops(kProcNetlink, 1513), 17u);
  EXPECT_EQ(ParseNetlinkDrops(kProcNetlink, 15130), 3u);
  EXPECT_EQ(ParseNetlinkDrops(kProcNetlink, 4), 0u);
  EXPECT_FALSE(ParseNetlinkDrops(kProcNetlink, 151));  // no prefix matches
  EXPECT_FALSE(ParseNetlinkDrops("", 4));
  // Columns are found by name, wherever a kernel puts them.
  EXPECT_EQ(ParseNetlinkDrops("Inode Foo Drops\n77 x 9\n", 77), 9u);
  EXPECT_FALSE(ParseNetlinkDrops("Inode Foo\n77 x 9\n", 77));
  EXPECT_FALSE(ParseNetlinkDrops("Inode Drops\n77\n", 77));  // short row
  EXPECT_FALSE(ParseNetlinkDrops("Inode Drops\n77 -1\n", 77));
}

TEST(ProcNetlinkTest, FindsAnOpenSocketInTheRealFile) {
  // Any protocol will do: the row is found by the socket's inode.
  const int fd = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
  ASSERT_GE(fd, 0);
  sockaddr_nl a{};
  a.nl_family = AF_NETLINK;
  ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
  EXPECT_EQ(NetlinkDrops(fd), 0u);
  close(fd);
}

}  // namespace
}  // namespace vane::test
