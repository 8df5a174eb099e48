#include "drive/pending_copies.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <ctime>
#include <fstream>
#include <sstream>
#include <vector>

namespace drive {

namespace {

// Longest file name most file systems take.
constexpr size_t kMaxName = 255;
constexpr long long kSavePiece = 1 << 20;

// True when `file` is the cache file of object `object`: its name, or the
// "[n].name" the library takes when the name is in use.
bool IsCopyOf(const std::string& file, const std::string& object) {
    if (file == object) return true;
    const std::string suffix = "]." + object;
    if (file.size() <= suffix.size() + 1 || file[0] != '[' ||
        file.compare(file.size() - suffix.size(), suffix.size(), suffix) != 0) {
        return false;
    }
    const std::string digits = file.substr(1, file.size() - suffix.size() - 1);
    return digits.find_first_not_of("0123456789") == std::string::npos;
}

std::vector<std::string> RegularFilesIn(const std::string& directory) {
    std::vector<std::string> names;
    DIR* listing = opendir(directory.c_str());
    if (listing == nullptr) return names;
    const int fd = dirfd(listing);
    while (const dirent* entry = readdir(listing)) {
        struct stat info;
        if (fstatat(fd, entry->d_name, &info, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(info.st_mode)) {
            names.emplace_back(entry->d_name);
        }
    }
    closedir(listing);
    return names;
}

void WriteAll(int fd, const std::string& text) {
    for (size_t done = 0; done < text.size();) {
        const ssize_t wrote = write(fd, text.data() + done, text.size() - done);
        if (wrote <= 0) return;
        done += static_cast<size_t>(wrote);
    }
}

}  // namespace

PendingCopies::PendingCopies(std::string pendingDir, std::string recoveredDir)
    : pendingDir_(std::move(pendingDir)), recoveredDir_(std::move(recoveredDir)) {
    mkdir(pendingDir_.c_str(), 0700);
    mkdir(recoveredDir_.c_str(), 0700);
}

void PendingCopies::Record(const std::string& objectName, const std::string& path) {
    const std::string record = pendingDir_ + objectName;
    // A new record is written in place: one write() call, which a kill
    // does not split. A kill between the open and the write leaves an
    // empty record, whose copy is still recovered.
    const int fd = open(record.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd >= 0) {
        WriteAll(fd, path);
        close(fd);
        return;
    }
    // An older record is replaced by one written aside and renamed, so that
    // a kill leaves the old path or the new one, never half of one.
    const std::string next = record + ".new";
    const int nextFd = open(next.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (nextFd < 0) return;
    WriteAll(nextFd, path);
    close(nextFd);
    rename(next.c_str(), record.c_str());
}

void PendingCopies::Forget(const std::string& objectName) {
    unlink((pendingDir_ + objectName).c_str());
}

std::string PendingCopies::RecoveredName(const std::string& path) const {
    static std::atomic<unsigned> counter{0};
    char stamp[32];
    const time_t now = time(nullptr);
    struct tm parts;
    gmtime_r(&now, &parts);
    strftime(stamp, sizeof stamp, "%Y%m%dT%H%M%SZ", &parts);
    std::string flat;
    for (const char c : path) flat += c == '/' ? std::string("%2F") : std::string(1, c);
    std::string name = std::string(stamp) + "-" + std::to_string(counter++) + "-" + flat;
    if (name.size() > kMaxName) name.erase(0, name.size() - kMaxName);  // keep the file name
    return recoveredDir_ + name;
}

std::string PendingCopies::Save(const std::string& path, long long size, const Reader& read) {
    const std::string target = RecoveredName(path);
    const int fd = open(target.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd < 0) return std::string();
    std::vector<char> buffer(kSavePiece);
    bool complete = true;
    for (long long done = 0; done < size && complete;) {
        const long long got = read(buffer.data(), done, std::min(kSavePiece, size - done));
        complete = got > 0 && write(fd, buffer.data(), got) == got;
        done += got;
    }
    complete = close(fd) == 0 && complete;
    if (!complete) {
        unlink(target.c_str());
        return std::string();
    }
    return target;
}

std::vector<RecoveredCopy> PendingCopies::RecoverLeftovers(const std::string& filesDir) {
    std::vector<RecoveredCopy> found;
    const std::vector<std::string> files = RegularFilesIn(filesDir);
    for (const std::string& object : RegularFilesIn(pendingDir_)) {
        if (object.size() > 4 && object.compare(object.size() - 4, 4, ".new") == 0) {
            Forget(object);  // a record the kill interrupted; the old one stands
            continue;
        }
        std::ifstream in(pendingDir_ + object);
        std::stringstream text;
        text << in.rdbuf();
        RecoveredCopy copy{text.str(), std::string()};
        // The object's read-only file may still be there beside the copy,
        // which was written last.
        std::string newest;
        struct timespec newestTime {};
        for (const std::string& file : files) {
            struct stat info;
            if (!IsCopyOf(file, object) || stat((filesDir + file).c_str(), &info) != 0) continue;
            if (newest.empty() || info.st_mtim.tv_sec > newestTime.tv_sec ||
                (info.st_mtim.tv_sec == newestTime.tv_sec &&
                 info.st_mtim.tv_nsec > newestTime.tv_nsec)) {
                newest = file;
                newestTime = info.st_mtim;
            }
        }
        if (!newest.empty()) {
            const std::string target = RecoveredName(copy.path);
            if (rename((filesDir + newest).c_str(), target.c_str()) == 0) copy.savedAs = target;
        }
        Forget(object);
        found.push_back(std::move(copy));
    }
    return found;
}

}  // namespace drive
