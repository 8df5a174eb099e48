// Arbitrary object names through Open, Rehash and Close: whatever the names
// hold ("..", "/", control bytes), nothing appears outside the cache
// directory, and closing every object leaves the directory empty.
#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include "fuzz/fuzz_host.h"
#include "tests/model_remote.h"

namespace {

namespace fs = std::filesystem;

// Every path under `root` but those inside `inside`.
std::vector<std::string> Outside(const std::string& root, const std::string& inside) {
    std::vector<std::string> paths;
    for (const auto& entry : fs::recursive_directory_iterator(root)) {
        const std::string path = entry.path().string();
        if (path != inside && path.rfind(inside + "/", 0) != 0) paths.push_back(path);
    }
    return paths;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzzhost::Host& host = fuzzhost::TheHost();
    static modeltest::ModelRemote remote(modeltest::RandomBytes(70000, 3));
    fuzzhost::Input input(data, size);
    const std::string name = input.Text('\n');
    const std::string newName = input.Text('\n');
    const std::string newFileName = input.Text('\n');
    const char mode = input.Byte() % 2 ? 'w' : 'r';

    std::shared_ptr<ICacheObj> object;
    try {
        object = host.cache->Open(name.c_str(), mode, 70000, &remote);
    } catch (AERROR) {
    }
    if (object) {
        char buffer[100];
        _READDATA request{buffer, 65530, 100, 0, nullptr, 70000, &remote, 2000, RD_NONE};
        object->Read(&request);
    }
    host.cache->Rehash(name.c_str(), newName.c_str(), newFileName.c_str());
    if (object) object->Close();
    host.cache->Close(name.c_str());
    host.cache->Close(newName.c_str());

    const auto outside = Outside(host.dir.path(), host.cachePath);
    if (!outside.empty()) {
        std::fprintf(stderr, "created outside the cache directory: %s\n", outside[0].c_str());
        std::abort();
    }
    if (!fs::is_empty(host.cachePath)) {
        std::fprintf(stderr, "a closed object left a file in the cache directory\n");
        std::abort();
    }
    return 0;
}
