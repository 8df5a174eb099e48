#include "drive/cache_dir.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdio>
#include <fstream>

#include "hostkit/scratch.h"

namespace drive {
namespace {

TEST(CacheDirTest, OneDriveAtATimeAndNoLeftoversFromACrash) {
    hostkit::ScratchDir scratch("cachedrive-");
    const std::string path = scratch.Sub("nested/cache");
    std::string error;
    {
        CacheDir first;
        ASSERT_TRUE(first.Take(path, &error)) << error;
        EXPECT_EQ(first.filesPath(), path + "/files/");
        struct stat info;
        ASSERT_EQ(stat(path.c_str(), &info), 0);
        EXPECT_EQ(info.st_mode & 0777, 0700u);
        std::ofstream(first.filesPath() + "i2v1") << "left by a crash";

        CacheDir second;
        EXPECT_FALSE(second.Take(path, &error));
        EXPECT_NE(error.find("in use by another cachedrive"), std::string::npos) << error;
    }
    CacheDir after;
    ASSERT_TRUE(after.Take(path, &error)) << error;
    EXPECT_EQ(hostkit::UsageOf(after.filesPath()).files, 0);

    std::ofstream(scratch.Sub("plain")) << "x";
    CacheDir onFile;
    EXPECT_FALSE(onFile.Take(scratch.Sub("plain"), &error));
}

TEST(CacheDirTest, DefaultsUnderTheUsersCacheDirectory) {
    setenv("XDG_CACHE_HOME", "/xdg", 1);
    const std::string a = DefaultCacheDir("http://a/");
    EXPECT_EQ(a.rfind("/xdg/cachedrive/", 0), 0u) << a;
    EXPECT_EQ(a.size(), std::string("/xdg/cachedrive/").size() + 16);
    EXPECT_NE(a, DefaultCacheDir("http://b/"));
    unsetenv("XDG_CACHE_HOME");
    setenv("HOME", "/home/u", 1);
    EXPECT_EQ(DefaultCacheDir("http://a/").rfind("/home/u/.cache/cachedrive/", 0), 0u);
}

}  // namespace
}  // namespace drive
