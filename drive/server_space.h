// The space the server has for the share, as statfs reports it: the quota
// a WebDAV server publishes on the root collection (quota-available-bytes,
// quota-used-bytes), asked for again at most once per `maxAge` since
// statfs is called often.
//
// Thread-safe: callers that find the answer out of date wait for one
// request together.
#ifndef DRIVE_SERVER_SPACE_H_
#define DRIVE_SERVER_SPACE_H_

#include <chrono>
#include <mutex>

#include "drive/http_client.h"
#include "drive/listing.h"

namespace drive {

class ServerSpace {
  public:
    // Asks through `client` (not owned); a server that does not speak
    // WebDAV (`webdav` false) is never asked.
    ServerSpace(HttpClient* client, bool webdav, std::chrono::milliseconds maxAge);
    ServerSpace(const ServerSpace&) = delete;
    ServerSpace& operator=(const ServerSpace&) = delete;

    // The server's quota for the share; a field stays -1 when the server
    // does not publish it or cannot be asked.
    Quota Get();

  private:
    Quota Ask();

    HttpClient* const client_;
    const bool webdav_;
    const std::chrono::milliseconds maxAge_;

    std::mutex lock_;
    Quota quota_;                                    // GUARDED_BY(lock_)
    bool asked_ = false;                             // GUARDED_BY(lock_)
    std::chrono::steady_clock::time_point askedAt_;  // GUARDED_BY(lock_)
};

}  // namespace drive

#endif  // DRIVE_SERVER_SPACE_H_
