#include "drive/kernel_readahead.h"

#include <gtest/gtest.h>

namespace drive {
namespace {

constexpr const char* kMountinfo =
    "22 1 259:1 / / rw,relatime shared:1 - ext4 /dev/nvme0n1p1 rw\n"
    "35 22 0:31 / /mnt/drive rw,nosuid,nodev,relatime shared:17 - fuse.cachedrive cachedrive "
    "rw,user_id=0,group_id=0\n"
    "36 22 0:32 / /mnt/my\\040drive rw - fuse.cachedrive cachedrive rw\n"
    "37 35 0:33 / /mnt/drive rw - fuse.cachedrive cachedrive rw\n"
    "38 22 0:34 / /mnt/back\\134slash rw - fuse.cachedrive cachedrive rw\n";

TEST(KernelReadaheadTest, FindsTheDeviceOfTheLastMountOnAPath) {
    // A mount stacked on another one hides it: the last line counts.
    EXPECT_EQ(DeviceOfMount(kMountinfo, "/mnt/drive"), "0:33");
    EXPECT_EQ(DeviceOfMount(kMountinfo, "/"), "259:1");
}

TEST(KernelReadaheadTest, ReadsEscapedMountPoints) {
    EXPECT_EQ(DeviceOfMount(kMountinfo, "/mnt/my drive"), "0:32");
    EXPECT_EQ(DeviceOfMount(kMountinfo, "/mnt/back\\slash"), "0:34");
    EXPECT_FALSE(DeviceOfMount(kMountinfo, "/mnt/my\\040drive"));
}

TEST(KernelReadaheadTest, FindsNothingForOtherPathsOrBrokenLines) {
    EXPECT_FALSE(DeviceOfMount(kMountinfo, "/mnt"));
    EXPECT_FALSE(DeviceOfMount(kMountinfo, "/mnt/drive/"));
    EXPECT_FALSE(DeviceOfMount("", "/"));
    EXPECT_FALSE(DeviceOfMount("22 1 259:1 /\n", "/"));
}

}  // namespace
}  // namespace drive
