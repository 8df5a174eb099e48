#include "hostkit/scratch.h"

#include <stdlib.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <random>
#include <stdexcept>
#include <system_error>

namespace hostkit {

ScratchDir::ScratchDir(const std::string& prefix, const std::string& parent) {
    const std::filesystem::path base =
        parent.empty() ? std::filesystem::temp_directory_path() : std::filesystem::path(parent);
    std::string pattern = (base / (prefix + "XXXXXX")).string();
    if (mkdtemp(pattern.data()) == nullptr) {
        throw std::system_error(errno, std::generic_category(), "cannot make " + pattern);
    }
    path_ = pattern;
}

ScratchDir::~ScratchDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

std::vector<char> WriteRandomFile(const std::string& path, size_t size, uint64_t seed) {
    std::mt19937_64 random(seed);
    std::vector<char> bytes(size);
    for (char& byte : bytes) byte = static_cast<char>(random() >> 56);
    std::ofstream file(path, std::ios::binary);
    if (!file.write(bytes.data(), static_cast<std::streamsize>(size)).flush()) {
        throw std::runtime_error("cannot write " + path);
    }
    return bytes;
}

DirectoryUsage UsageOf(const std::string& directory) {
    DirectoryUsage usage;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(directory, error)) {
        if (!entry.is_regular_file(error)) continue;
        ++usage.files;
        usage.bytes += static_cast<long long>(entry.file_size(error));
    }
    return usage;
}

}  // namespace hostkit
