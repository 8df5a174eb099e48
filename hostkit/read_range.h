// Reads through a cache object made the way a host makes them.
#ifndef HOSTKIT_READ_RANGE_H_
#define HOSTKIT_READ_RANGE_H_

#include <memory>
#include <vector>

#include "cache/cache.h"

namespace hostkit {

// An open handle of the host, as it passes one with every request.
std::shared_ptr<_FS_HANDLE> OpenHandle(long long hostHandle = 0x5eed);

struct ReadResult {
    AERROR error = AE_OK;
    long long transferred = 0;
    std::vector<char> bytes;  // what the read delivered: `transferred` bytes
};

// One read of [offset, offset + length) of a remote file of `fileSize`
// bytes through `io`, for `handle`. Missing bytes are fetched through
// `fetch` (null: only cached bytes are served), waiting `timeout` ms at most
// (0: the cache's configured time-out; negative: no limit).
ReadResult ReadRange(ICacheIO& io, IFetch* fetch, long long fileSize, long long offset,
                     long long length, long long timeout = 0,
                     std::shared_ptr<_FS_HANDLE> handle = OpenHandle());

}  // namespace hostkit

#endif  // HOSTKIT_READ_RANGE_H_
