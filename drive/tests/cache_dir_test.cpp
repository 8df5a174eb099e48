#include "drive/cache_dir.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdio>
#include <ctime>
#include <fstream>
#include <iterator>
#include <map>

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

std::string Contents(const std::string& path) {
    std::ifstream in(path);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

TEST(CacheDirTest, KeepsTheCopiesWithChangesThatAKilledDriveLeft) {
    hostkit::ScratchDir scratch("cachedrive-");
    const std::string path = scratch.Sub("cache");
    std::string error;
    {
        CacheDir first;
        ASSERT_TRUE(first.Take(path, &error)) << error;
        PendingCopies pending(first.pendingPath(), first.recoveredPath());
        // The object's read-only file and, written later, its copy under the
        // name the library takes when the first is in use.
        std::ofstream(first.filesPath() + "i2v1") << "old";
        std::ofstream(first.filesPath() + "i3v1") << "no changes";
        pending.Record("i2v1", "dir/a%20b");
        pending.Record("i2v1", "dir/moved");
        pending.Record("i4v2", "lost");
        pending.Record("i5v1", "sent");
        pending.Forget("i5v1");
        struct timespec later[2] = {{0, UTIME_OMIT}, {time(nullptr) + 5, 0}};
        std::ofstream(first.filesPath() + "[0].i2v1") << "changed";
        utimensat(AT_FDCWD, (first.filesPath() + "[0].i2v1").c_str(), later, 0);
    }
    CacheDir next;
    ASSERT_TRUE(next.Take(path, &error)) << error;
    ASSERT_EQ(next.leftovers().size(), 2u);
    std::map<std::string, std::string> saved;
    for (const RecoveredCopy& copy : next.leftovers()) saved[copy.path] = copy.savedAs;
    ASSERT_EQ(saved.count("dir/moved"), 1u);
    EXPECT_EQ(Contents(saved["dir/moved"]), "changed");
    EXPECT_EQ(saved["dir/moved"].rfind(next.recoveredPath(), 0), 0u);
    EXPECT_NE(saved["dir/moved"].find("dir%2Fmoved"), std::string::npos);
    EXPECT_EQ(saved["lost"], "") << "no copy of it was left";
    EXPECT_EQ(hostkit::UsageOf(next.filesPath()).files, 0);
    EXPECT_EQ(hostkit::UsageOf(next.pendingPath()).files, 0);
}

TEST(CacheDirTest, SavesACopyWholeOrNotAtAll) {
    hostkit::ScratchDir scratch("cachedrive-");
    PendingCopies pending(scratch.Sub("pending/"), scratch.Sub("recovered/"));
    const std::string content(3 << 20, 'x');
    const auto reader = [&](char* buffer, long long offset, long long length) -> long long {
        if (offset >= 2 << 20) return -1;  // fails in the third mebibyte
        content.copy(buffer, length, offset);
        return length;
    };
    EXPECT_EQ(pending.Save("f", 2 << 20, reader).empty(), false);
    EXPECT_EQ(pending.Save("g", 3 << 20, reader), "");
    EXPECT_EQ(hostkit::UsageOf(scratch.Sub("recovered")).files, 1);
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
