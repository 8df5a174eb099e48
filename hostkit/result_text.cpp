#include "hostkit/result_text.h"

namespace hostkit {

const char* ResultText(AERROR result) {
    switch (result) {
        case AE_OK:
            return "success";
        case AE_NOT_FOUND:
            return "nothing to act on";
        case AE_READ_NOT_SERVED:
            return "the read could not be served in time";
        case AE_TRUNCATE_FAILED:
            return "truncating the cache file failed";
        case AE_HANDLE_CLOSED:
            return "the handle was closed while the read waited";
        case AE_LIMIT_TOO_SMALL:
            return "the storage limit is below 64 MiB";
        case AE_INVALID_MODE:
            return "the open mode is neither 'r' nor 'w'";
        case AE_CREATE_DIRECTORY_FAILED:
            return "the cache directory could not be created";
        case AE_CREATE_FILE_FAILED:
            return "a cache file could not be created";
        case AE_INVALID_HANDLE:
            return "the cache file is not open";
        case AE_NOT_ALIGNED:
            return "an offset is not aligned to the 64 KiB sector size";
        case AE_WRITE_FAILED:
            return "writing to the cache failed";
        case AE_READ_FAILED:
            return "reading the cache file failed";
        case AE_FETCH_QUEUED:
            return "the data is being fetched";
        case AE_NOTHING_RESERVED:
            return "the range is already cached or being fetched";
        case AE_INVALID_CONFIG:
            return "the configuration is not valid JSON";
    }
    return "unknown result code";
}

std::string DescribeResult(AERROR result) {
    return "error " + std::to_string(static_cast<int>(result)) + " (" + ResultText(result) + ")";
}

}  // namespace hostkit
