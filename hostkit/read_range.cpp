#include "hostkit/read_range.h"

#include <algorithm>
#include <utility>

namespace hostkit {

std::shared_ptr<_FS_HANDLE> OpenHandle(long long hostHandle) {
    auto handle = std::make_shared<_FS_HANDLE>();
    handle->state = 1;
    handle->hostHandle = hostHandle;
    return handle;
}

ReadResult ReadRange(ICacheIO& io, IFetch* fetch, long long fileSize, long long offset,
                     long long length, long long timeout, std::shared_ptr<_FS_HANDLE> handle) {
    ReadResult result;
    result.bytes.resize(static_cast<size_t>(length));
    _READDATA request{};
    request.buffer = result.bytes.data();
    request.offset = offset;
    request.length = length;
    request.handle = std::move(handle);
    request.fileSize = fileSize;
    request.fetch = fetch;
    request.timeout = timeout;
    result.error = io.Read(&request);
    result.transferred = request.transferred;
    result.bytes.resize(static_cast<size_t>(std::max(0LL, request.transferred)));
    return result;
}

}  // namespace hostkit
