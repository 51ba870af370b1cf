// procfs and sysfs: the registry, the handlers' view of reads and writes,
// and removal.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>

#include "kport/errno.h"
#include "kport/procfs.h"
#include "kport/sysfs.h"
#include "kport/uaccess.h"
#include "kport/user/testing.h"

namespace {

namespace vfs = kport::user::vfs;
namespace klog = kport::user::klog;

constexpr char kText[] = "hello, proc";

ssize_t ReadText(file*, char* ubuf, size_t count, kport_loff_t* pos) {
  return kport_simple_read_from_buffer(ubuf, count, pos, kText, sizeof(kText) - 1);
}

std::string g_written;

ssize_t WriteText(file*, const char* ubuf, size_t count, kport_loff_t*) {
  std::string buf(count, '\0');
  if (kport_copy_from_user(buf.data(), ubuf, count) != 0) return -KPORT_EFAULT;
  g_written = buf;
  return static_cast<ssize_t>(count);
}

const kport_proc_ops kReadWrite = {ReadText, WriteText};
const kport_proc_ops kReadOnly = {ReadText, nullptr};

class ProcTest : public ::testing::Test {
 protected:
  void SetUp() override {
    live_before_ = kport::user::LiveAllocations();
    klog::Clear();
    dir_ = kport_proc_mkdir("kptest", nullptr);
    ASSERT_NE(dir_, nullptr);
    ASSERT_NE(kport_proc_create("rw", 0644, dir_, &kReadWrite), nullptr);
    ASSERT_NE(kport_proc_create("ro", 0, dir_, &kReadOnly), nullptr);
  }
  void TearDown() override {
    kport_remove_proc_entry("rw", dir_);
    kport_remove_proc_entry("ro", dir_);
    kport_remove_proc_entry("kptest", nullptr);
    EXPECT_FALSE(vfs::Exists("/proc/kptest"));
    EXPECT_EQ(kport::user::LiveAllocations(), live_before_);
  }

  size_t live_before_ = 0;
  proc_dir_entry* dir_ = nullptr;
};

TEST_F(ProcTest, RegistryShowsPathsAndModes) {
  EXPECT_THAT(vfs::List(),
              ::testing::IsSupersetOf({"/proc/kptest", "/proc/kptest/ro", "/proc/kptest/rw"}));
  EXPECT_EQ(vfs::Mode("/proc/kptest/rw"), 0644);
  EXPECT_EQ(vfs::Mode("/proc/kptest/ro"), 0444) << "no permission bits: read-only for all";
  EXPECT_EQ(vfs::Mode("/proc/kptest"), 0555);
  // What a reader can open: the files, not the directory holding them.
  EXPECT_THAT(vfs::Files(), ::testing::IsSupersetOf({"/proc/kptest/ro", "/proc/kptest/rw"}));
  EXPECT_THAT(vfs::Files(), ::testing::Not(::testing::Contains("/proc/kptest")));
  EXPECT_EQ(kport_proc_create("rw", 0644, dir_, &kReadWrite), nullptr) << "duplicate";
  EXPECT_EQ(kport_proc_create("a/b", 0644, dir_, &kReadWrite), nullptr);
}

TEST_F(ProcTest, ReadsFollowThePositionWritesHandOverTheBytesAndErrorsAreTheKernels) {
  const std::vector<uint8_t> all = vfs::ProcReadAll("/proc/kptest/rw", 3);
  EXPECT_EQ(std::string(all.begin(), all.end()), kText);
  char buf[4];
  int64_t pos = 7;
  EXPECT_EQ(vfs::ProcRead("/proc/kptest/rw", buf, sizeof(buf), &pos), 4);
  EXPECT_EQ(std::string(buf, 4), "proc");
  EXPECT_EQ(pos, 11);
  EXPECT_EQ(vfs::ProcRead("/proc/kptest/rw", buf, sizeof(buf), &pos), 0);
  pos = -1;
  EXPECT_EQ(vfs::ProcRead("/proc/kptest/rw", buf, sizeof(buf), &pos), -22);
  EXPECT_EQ(vfs::ProcWriteAll("/proc/kptest/rw", {'o', 'n', '\n'}), 3);
  EXPECT_EQ(g_written, "on\n");

  pos = 0;
  EXPECT_EQ(vfs::ProcRead("/proc/kptest/none", buf, sizeof(buf), &pos), -2);
  EXPECT_EQ(vfs::ProcWrite("/proc/kptest/ro", "x", 1, &pos), -5);
  EXPECT_LT(vfs::ProcRead("/proc/kptest", buf, sizeof(buf), &pos), 0) << "a directory";
  kport::user::fault::FailAlways(kport::user::fault::Site::kCopyToUser);
  EXPECT_EQ(vfs::ProcRead("/proc/kptest/rw", buf, sizeof(buf), &pos), -14);
  EXPECT_EQ(pos, 0);
  kport::user::fault::ClearAll();
}

TEST_F(ProcTest, NonEmptyDirectoryIsKeptWithAWarning) {
  kport_remove_proc_entry("kptest", nullptr);
  EXPECT_TRUE(vfs::Exists("/proc/kptest"));
  EXPECT_TRUE(vfs::Exists("/proc/kptest/rw"));
  EXPECT_TRUE(klog::ContainsFragment("removing non-empty directory '/proc/kptest'"));
}

std::atomic<bool> g_in_handler{false};
std::atomic<bool> g_remove_returned{false};
std::atomic<bool> g_returned_early{false};

ssize_t SlowRead(file*, char*, size_t, kport_loff_t*) {
  g_in_handler = true;
  while (vfs::Exists("/proc/kptest/slow")) std::this_thread::yield();
  for (int i = 0; i < 1000; ++i) std::this_thread::yield();
  g_returned_early = g_remove_returned.load();
  return 0;
}

TEST_F(ProcTest, RemovalWaitsForARunningHandler) {
  static const kport_proc_ops kSlow = {SlowRead, nullptr};
  g_in_handler = g_remove_returned = g_returned_early = false;
  ASSERT_NE(kport_proc_create("slow", 0444, dir_, &kSlow), nullptr);
  std::thread reader([] {
    char buf[1];
    int64_t pos = 0;
    vfs::ProcRead("/proc/kptest/slow", buf, 1, &pos);
  });
  while (!g_in_handler) std::this_thread::yield();
  kport_remove_proc_entry("slow", dir_);
  g_remove_returned = true;
  reader.join();
  EXPECT_FALSE(g_returned_early);
}

// --- sysfs ---

std::string g_stored;

ssize_t ShowValue(device*, kport_device_attr*, char* page) {
  std::memcpy(page, "42\n", 3);
  return 3;
}

ssize_t StoreValue(device*, kport_device_attr*, const char* buf, size_t count) {
  g_stored.assign(buf, count);
  return static_cast<ssize_t>(count);
}

TEST(Sysfs, AttributesShowAndStoreUntilTheDeviceGoes) {
  const size_t live_before = kport::user::LiveAllocations();
  kport_class* cls = kport_class_create("kpcls");
  ASSERT_NE(cls, nullptr);
  EXPECT_EQ(kport_class_create("kpcls"), nullptr);
  device* dev = kport_device_create(cls, 0x100001, "kpdev");
  ASSERT_NE(dev, nullptr);
  kport_device_attr value = {"value", 0644, ShowValue, StoreValue, {}};
  kport_device_attr wo = {"wo", 0200, nullptr, StoreValue, {}};
  ASSERT_EQ(kport_device_create_file(dev, &value), 0);
  ASSERT_EQ(kport_device_create_file(dev, &wo), 0);
  EXPECT_EQ(kport_device_create_file(dev, &value), -17);

  EXPECT_EQ(vfs::SysfsShow("/sys/class/kpcls/kpdev/value"), "42\n");
  EXPECT_EQ(vfs::SysfsShow("/sys/class/kpcls/kpdev/wo"), std::nullopt);
  EXPECT_EQ(vfs::SysfsStore("/sys/class/kpcls/kpdev/value", "7"), 1);
  EXPECT_EQ(g_stored, "7");
  EXPECT_EQ(vfs::Mode("/sys/class/kpcls/kpdev/wo"), 0200);
  EXPECT_THAT(vfs::Files(), ::testing::IsSupersetOf(
                                {"/sys/class/kpcls/kpdev/value", "/sys/class/kpcls/kpdev/wo"}));
  EXPECT_THAT(vfs::Files(),
              ::testing::AllOf(::testing::Not(::testing::Contains("/sys/class/kpcls")),
                               ::testing::Not(::testing::Contains("/sys/class/kpcls/kpdev"))));

  kport_device_remove_file(dev, &wo);
  EXPECT_FALSE(vfs::Exists("/sys/class/kpcls/kpdev/wo"));

  // Destroying the device takes its remaining attribute with it.
  kport_device_destroy(cls, 0x100001);
  EXPECT_FALSE(vfs::Exists("/sys/class/kpcls/kpdev"));
  EXPECT_EQ(vfs::SysfsShow("/sys/class/kpcls/kpdev/value"), std::nullopt);
  EXPECT_EQ(vfs::SysfsStore("/sys/class/kpcls/kpdev/value", "1"), -2);
  kport_class_destroy(cls);
  EXPECT_FALSE(vfs::Exists("/sys/class/kpcls"));
  EXPECT_EQ(kport::user::LiveAllocations(), live_before);
}

}  // namespace
