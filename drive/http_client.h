// HTTP requests to one server over a bounded pool of keep-alive connections
// (libcurl easy handles that are reused, so their connections stay open).
//
// Thread-safe: any thread may send requests; a request waits for a free
// connection when all of them are busy.
#ifndef DRIVE_HTTP_CLIENT_H_
#define DRIVE_HTTP_CLIENT_H_

#include <curl/curl.h>

#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "drive/stats.h"

namespace drive {

struct HttpRequest {
    std::string path;           // percent-encoded, relative to the base URL
    bool headOnly = false;      // HEAD instead of GET
    long long rangeFirst = -1;  // with rangeLast: "Range: bytes=first-last"
    long long rangeLast = -1;
    std::string ifMatch;  // sent as If-Match when not empty
    // Asked while the transfer runs, also when no byte arrives; false
    // abandons it (CURLE_ABORTED_BY_CALLBACK).
    std::function<bool()> keepGoing;
};

struct HttpResponse {
    CURLcode code = CURLE_OK;  // transport result; CURLE_WRITE_ERROR when the body sink stopped
    std::string error;         // libcurl's message when `code` is not CURLE_OK
    long status = 0;           // HTTP status; 0 when no response arrived
    std::string contentType;
    std::string contentRange;
    std::string etag;
    long long contentLength = -1;
    long long lastModified = -1;  // seconds since the epoch
};

struct HttpLimits {
    long connectTimeoutMs = 5000;
    // A transfer slower than `lowSpeedBytes` per second for `lowSpeedSeconds`
    // is abandoned (CURLE_OPERATION_TIMEDOUT).
    long lowSpeedBytes = 1024;
    long lowSpeedSeconds = 5;
};

class HttpClient {
  public:
    // Receives the body as it arrives, with the response's status line and
    // headers already known; returns false to abandon the transfer.
    using BodySink = std::function<bool(const HttpResponse& head, const char* data, size_t size)>;

    // `baseUrl` ends in '/'. Counts every request in `stats` (not owned).
    HttpClient(std::string baseUrl, int connections, HttpLimits limits, Stats* stats);
    HttpClient(const HttpClient&) = delete;
    HttpClient& operator=(const HttpClient&) = delete;
    ~HttpClient();

    // Sends `request`, streaming the body into `sink` (may be empty for a
    // HEAD). Blocks until the transfer ends.
    HttpResponse Send(const HttpRequest& request, const BodySink& sink);

    // GET of `path` with the body collected into `body`; a body longer than
    // `maxBytes` ends the transfer with CURLE_WRITE_ERROR.
    HttpResponse GetText(const std::string& path, std::string* body, size_t maxBytes);

    const std::string& baseUrl() const { return baseUrl_; }

  private:
    CURL* Acquire();
    void Release(CURL* handle);

    const std::string baseUrl_;
    const int connections_;
    const HttpLimits limits_;
    Stats* const stats_;

    std::mutex lock_;
    std::condition_variable freed_;
    std::vector<CURL*> idle_;  // GUARDED_BY(lock_)
    int created_ = 0;          // GUARDED_BY(lock_)
};

}  // namespace drive

#endif  // DRIVE_HTTP_CLIENT_H_
