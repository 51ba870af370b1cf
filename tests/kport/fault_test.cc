// Fault injection at every site, and the allocation accounting that a clean
// module unload is checked against.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "kport/errno.h"
#include "kport/mem.h"
#include "kport/netlink.h"
#include "kport/percpu.h"
#include "kport/procfs.h"
#include "kport/sysfs.h"
#include "kport/uaccess.h"
#include "kport/user/testing.h"

namespace {

namespace fault = kport::user::fault;
using fault::Site;
using kport::user::LiveAllocations;

class FaultTest : public ::testing::Test {
 protected:
  void SetUp() override { fault::ClearAll(); }
  void TearDown() override { fault::ClearAll(); }
};

TEST_F(FaultTest, NthCallFailsOnceAndIsCounted) {
  fault::FailNth(Site::kAlloc, 3);
  std::vector<bool> failed;
  for (int i = 0; i < 4; ++i) {
    void* p = kport_kmalloc_atomic(8);
    failed.push_back(p == nullptr);
    kport_kfree(p);
  }
  EXPECT_EQ(failed, (std::vector<bool>{false, false, true, false}));
  EXPECT_EQ(fault::Calls(Site::kAlloc), 4u);
  EXPECT_EQ(fault::Injected(Site::kAlloc), 1u);

  fault::ResetCounts(Site::kAlloc);
  EXPECT_EQ(fault::Calls(Site::kAlloc), 0u);
  EXPECT_EQ(fault::Injected(Site::kAlloc), 0u);
}

// Every kind of object handed to the module is counted while it lives, and
// every kind of allocation can be failed.
TEST_F(FaultTest, AlwaysCoversEveryKindOfAllocationAndLiveObjectsAreCounted) {
  const size_t before = LiveAllocations();
  void* mem = kport_kzalloc_atomic(32);
  EXPECT_EQ(std::memcmp(mem, std::string(32, '\0').data(), 32), 0);
  sk_buff* skb = kport_alloc_skb(64);
  sock* sk = kport_netlink_kernel_create(32, nullptr);
  kport_proc_mkdir("kplive", nullptr);
  kport_class* cls = kport_class_create("kplive");
  device* dev = kport_device_create(cls, 1, "d");
  ASSERT_NE(dev, nullptr);
  EXPECT_EQ(LiveAllocations(), before + 6);

  fault::FailAlways(Site::kAlloc);
  EXPECT_EQ(kport_kmalloc_atomic(1), nullptr);
  EXPECT_EQ(kport_kzalloc_atomic(1), nullptr);
  EXPECT_EQ(kport_alloc_skb(16), nullptr);
  EXPECT_EQ(kport_netlink_kernel_create(31, nullptr), nullptr);
  EXPECT_EQ(kport_proc_mkdir("kpfault", nullptr), nullptr);
  EXPECT_EQ(kport_class_create("kpfault"), nullptr);
  EXPECT_EQ(kport_percpu_alloc(64), nullptr);
  kport_device_attr attr = {"a", 0444, nullptr, nullptr, {}};
  EXPECT_EQ(kport_device_create_file(dev, &attr), -12);
  EXPECT_EQ(fault::Injected(Site::kAlloc), 8u);
  fault::Clear(Site::kAlloc);
  EXPECT_EQ(LiveAllocations(), before + 6);

  kport_kfree(mem);
  kport_kfree_skb(skb);
  kport_netlink_kernel_release(sk);
  kport_remove_proc_entry("kplive", nullptr);
  kport_device_destroy(cls, 1);
  kport_class_destroy(cls);
  EXPECT_EQ(LiveAllocations(), before);
}

TEST_F(FaultTest, FailedCopiesReportEveryByteUncopied) {
  char src[4] = {'a', 'b', 'c', 'd'};
  char dst[4] = {'x', 'x', 'x', 'x'};
  fault::FailNth(Site::kCopyFromUser, 1);
  EXPECT_EQ(kport_copy_from_user(dst, src, 4), 4u);
  EXPECT_EQ(std::string(dst, 4), std::string(4, '\0')) << "the kernel zero-fills";
  EXPECT_EQ(kport_copy_from_user(dst, src, 4), 0u);
  EXPECT_EQ(std::string(dst, 4), "abcd");

  fault::FailAlways(Site::kCopyToUser);
  char user[4] = {'u', 'u', 'u', 'u'};
  EXPECT_EQ(kport_copy_to_user(user, src, 4), 4u);
  EXPECT_EQ(std::string(user, 4), "uuuu");
  EXPECT_EQ(fault::Calls(Site::kCopyFromUser), 2u);
  EXPECT_EQ(fault::Injected(Site::kCopyToUser), 1u);
}

}  // namespace
