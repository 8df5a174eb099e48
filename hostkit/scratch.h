// Scratch space of a host: a private temporary directory, files of
// pseudo-random bytes that stand in for remote files, and what a cache
// directory holds.
#ifndef HOSTKIT_SCRATCH_H_
#define HOSTKIT_SCRATCH_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace hostkit {

// A fresh directory <parent>/<prefix>XXXXXX, removed with everything in it
// when the object goes. The parent is the temporary directory unless one is
// given (a test that needs tmpfs passes /dev/shm).
class ScratchDir {
  public:
    // Throws std::system_error when the directory cannot be made.
    explicit ScratchDir(const std::string& prefix = "cache-", const std::string& parent = "");
    ScratchDir(const ScratchDir&) = delete;
    ScratchDir& operator=(const ScratchDir&) = delete;
    ~ScratchDir();

    const std::string& path() const { return path_; }
    // The path of `name` inside the directory.
    std::string Sub(const std::string& name) const { return path_ + "/" + name; }

  private:
    std::string path_;
};

// Writes `size` pseudo-random bytes, the same ones for the same `seed`, to
// `path` and returns them. Throws std::runtime_error when it cannot.
std::vector<char> WriteRandomFile(const std::string& path, size_t size, uint64_t seed = 42);

struct DirectoryUsage {
    int files = 0;
    long long bytes = 0;  // apparent sizes
};

// The regular files directly in `directory`; none when it cannot be read.
DirectoryUsage UsageOf(const std::string& directory);

}  // namespace hostkit

#endif  // HOSTKIT_SCRATCH_H_
