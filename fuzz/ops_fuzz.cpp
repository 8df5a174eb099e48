// Sequences of operations on one cache object with offsets, lengths, sizes
// and limits taken from the input, extreme ones included. A model of the
// remote (and, in mode 'w', of the written copy) checks every byte a
// successful read delivers; other results only need to come back, without
// undefined behaviour. The cache directory is on tmpfs where there is one,
// so that truncations make sparse cache files of nearly 2^63 bytes.
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>

#include "cache/cache_obj.h"
#include "fuzz/fuzz_host.h"
#include "tests/model_remote.h"

namespace {

using modeltest::Bytes;
using modeltest::kSector;

constexpr long long kSizes[] = {0, 1, kSector - 1, kSector, kSector + 1, 100000, 3 * kSector + 3};
constexpr long long kTimeoutMs = 100;
constexpr long long kMaxTransfer = 4 * kSector;  // bytes a write may carry

// The object under test and what its reads must give.
struct Session {
    std::shared_ptr<ICacheObj> object;
    std::unique_ptr<modeltest::ModelRemote> remote;
    char mode = 'r';
    Bytes image;        // the remote, or in mode 'w' the written copy
    bool known = true;  // false while the content cannot be modelled
};

// Offsets and lengths: small ones near sector edges most of the time, any
// 64-bit value otherwise.
long long Number(fuzzhost::Input& input, long long size) {
    switch (input.Byte() % 4) {
        case 0:
            return input.Value<int64_t>();
        case 1:
            return size + input.Value<int16_t>();
        default:
            return static_cast<long long>(input.Value<uint16_t>()) * 7 + input.Byte();
    }
}

// A reservation's length. Lengths up to what the disk holds are served
// sector by sector, so one between 64 MiB and 1 TiB costs seconds and
// gigabytes without reaching new code; it is folded below 64 MiB. Longer
// ones stay: the cache refuses them, and their sums reach the overflow
// checks.
long long ReservationLength(fuzzhost::Input& input) {
    constexpr long long kFolded = 1024 * kSector;
    const long long length = Number(input, 0);
    return length > kFolded && length < (1LL << 40) ? length % kFolded : length;
}

void Fail(const char* what, long long offset, long long length) {
    std::fprintf(stderr, "%s at %lld length %lld\n", what, offset, length);
    std::abort();
}

// SetMode's result, or the AERROR it threw.
AERROR SetModeResult(Session& s, char mode, long long fileSize) {
    try {
        return s.object->SetMode(mode, fileSize, s.remote.get());
    } catch (AERROR error) {
        return error;
    }
}

void CheckedRead(Session& s, long long offset, long long length, RD_FLAGS flags, bool withFetch) {
    const long long size = std::ssize(s.image);
    // A read-only store delivers nothing past the declared size: room for
    // that and a sector more catches an overrun. A writable store delivers up
    // to its file's end, which the model may not know: room for the whole
    // length, and huge lengths are left out.
    long long room =
        std::clamp(offset >= 0 && offset < size ? size - offset : 0LL, 0LL, std::max(0LL, length)) +
        kSector;
    if (s.mode == 'w') {
        if (length > 64 * kSector) return;
        room = length;
    }
    Bytes buffer(static_cast<size_t>(std::max(0LL, std::min(room, std::max(length, 0LL)))));
    _READDATA request{buffer.data(),
                      offset,
                      length,
                      0,
                      hostkit::OpenHandle(),
                      size,
                      withFetch ? s.remote.get() : nullptr,
                      kTimeoutMs,
                      flags};
    const AERROR result = s.object->Read(&request);
    if (result != AE_OK || !s.known) return;
    if (request.transferred < 0 || request.transferred > std::ssize(buffer)) {
        Fail("impossible transferred count", offset, length);
    }
    buffer.resize(static_cast<size_t>(request.transferred));
    const Bytes want = modeltest::SliceOf(s.image, offset, length);
    if (withFetch) {
        if (buffer != want) Fail("wrong bytes", offset, length);
    } else if (s.mode == 'r') {
        // Without a fetcher a read serves the cached prefix of the range.
        if (buffer.size() > want.size() ||
            !std::equal(buffer.begin(), buffer.end(), want.begin())) {
            Fail("wrong cached bytes", offset, length);
        }
    }
}

void Write(Session& s, fuzzhost::Input& input) {
    const long long offset = Number(input, std::ssize(s.image));
    const long long length = std::clamp(Number(input, 0), 0LL, kMaxTransfer);
    const Bytes piece = modeltest::RandomBytes(length, input.Byte());
    _WRITEDATA request{piece.data(),        offset,         length,    0, hostkit::OpenHandle(),
                       std::ssize(s.image), s.remote.get(), kTimeoutMs};
    if (s.object->Write(&request) != AE_OK || length == 0) return;
    // Within the file or just past its end, the written copy stays exact.
    // Past the end the gap's content is not modelled; the size still is.
    const long long size = std::ssize(s.image);
    if (offset > size) s.known = false;
    if (offset <= std::max(size, 16 * kSector)) modeltest::Overlay(s.image, offset, piece);
}

// Back to mode 'r': the written copy becomes the remote's new version, as a
// host that uploaded it would see it.
void SwitchToRead(Session& s) {
    s.object->FillEmptySectors(s.remote.get());
    if (!s.known) {
        // Take what the writable copy holds as the new version.
        s.known = true;
        Bytes held(static_cast<size_t>(std::ssize(s.image)));
        _READDATA request{
            held.data(),      0,       std::ssize(held), 0,      hostkit::OpenHandle(),
            std::ssize(held), nullptr, kTimeoutMs,       RD_NONE};
        if (s.object->Read(&request) != AE_OK) held.clear();
        held.resize(static_cast<size_t>(std::max(0LL, request.transferred)));
        s.image = held;
    }
    s.remote->Replace(s.image);
    if (SetModeResult(s, 'r', std::ssize(s.image)) != AE_OK) Fail("switch to 'r'", 0, 0);
    s.mode = 'r';
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzzhost::Host& host = fuzzhost::TheHost(access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "");
    static std::atomic<long long> sessions{0};
    fuzzhost::Input input(data, size);

    Session s;
    s.image = modeltest::RandomBytes(kSizes[input.Byte() % std::size(kSizes)], input.Byte());
    s.remote = std::make_unique<modeltest::ModelRemote>(s.image, 1 + input.Byte() % 3);
    const std::string name = "object-" + std::to_string(sessions.fetch_add(1));
    s.object = host.cache->Open(name.c_str(), 'r', std::ssize(s.image), s.remote.get());

    for (int step = 0; step < 24 && !input.Empty(); ++step) {
        const long long fileSize = std::ssize(s.image);
        switch (input.Byte() % 12) {
            case 0:
            case 1:
                CheckedRead(s, Number(input, fileSize), Number(input, 0), RD_NONE, true);
                break;
            case 2:
                CheckedRead(s, Number(input, fileSize), Number(input, 0), RD_NONE, false);
                break;
            case 3:
                CheckedRead(s, Number(input, fileSize), Number(input, fileSize), RD_FETCH_ALL,
                            true);
                break;
            case 4:
                if (s.mode == 'r') {
                    // A fresh writable copy of the remote: the model holds
                    // again, unless the copy is declared with another size.
                    const long long declared =
                        input.Byte() % 4 == 0 ? Number(input, fileSize) : fileSize;
                    if (SetModeResult(s, 'w', declared) == AE_OK) {
                        s.mode = 'w';
                        s.known = declared == fileSize;
                    }
                } else {
                    Write(s, input);
                }
                break;
            case 5:
                if (s.mode == 'w') SwitchToRead(s);
                break;
            case 6:
                s.object->Reserve(Number(input, fileSize), ReservationLength(input));
                break;
            case 7:
                s.object->ClearReserved(Number(input, fileSize), Number(input, 0));
                break;
            case 8:
                if (s.mode == 'w') {
                    // Resizing relists sectors in ways the model does not
                    // follow; the copy is taken as it is at the next switch.
                    // Beyond 16 sectors the model keeps its size.
                    const long long target = Number(input, fileSize);
                    if (s.object->Truncate(target) == AE_OK) {
                        if (target <= 16 * kSector) s.image.resize(static_cast<size_t>(target));
                        s.known = false;
                    }
                } else if (s.object->Truncate(Number(input, fileSize)) == AE_OK) {
                    // Cutting a read-only cache file drops cached slots
                    // behind the sector map's back.
                    s.known = false;
                }
                break;
            case 9:
                s.object->FillEmptySectors(s.remote.get());
                break;
            case 10:
                std::static_pointer_cast<cache::CacheObj>(s.object)->ClearOldCache(input.Byte() %
                                                                                   2);
                break;
            case 11:
                // Fits the limit to the disk, adding up every cache file.
                host.cache->SetLimit(input.Value<uint64_t>());
                break;
        }
    }
    s.object->Close();
    host.cache->Close(name.c_str());
    return 0;
}
