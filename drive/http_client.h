// HTTP requests to one server over a bounded pool of keep-alive connections
// (libcurl easy handles that are reused, so their connections stay open),
// with the credentials and certificates the server asks for.
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
    std::string method;         // e.g. "PROPFIND"; empty for GET (or HEAD with headOnly)
    bool headOnly = false;      // HEAD instead of GET
    long long rangeFirst = -1;  // with rangeLast: "Range: bytes=first-last"
    long long rangeLast = -1;
    std::string ifMatch;               // sent as If-Match when not empty
    std::vector<std::string> headers;  // further header lines ("Depth: 1")
    // With `uploadSize` >= 0 the request sends a body of that many bytes
    // (PUT unless `method` says otherwise), pulled from `upload`: it fills
    // up to `size` bytes and returns how many, or -1 to abandon the transfer.
    long long uploadSize = -1;
    std::function<long long(char* buffer, size_t size)> upload;
    // Starts the body again from its first byte; returns false when it
    // cannot. A server that asks for credentials again while the body is
    // under way (a digest nonce gone stale) needs the body a second time;
    // without `rewind` such an upload fails.
    std::function<bool()> rewind;
    // Asked while the transfer runs, also when no byte arrives; false
    // abandons it (CURLE_ABORTED_BY_CALLBACK).
    std::function<bool()> keepGoing;
    // A part of a large transfer that others wait for less: it gets a free
    // connection only when no request without `bulk` waits for one, and
    // while bulk transfers hold every connection, a request without `bulk`
    // gets one more.
    bool bulk = false;
};

struct HttpResponse {
    CURLcode code = CURLE_OK;  // transport result; CURLE_WRITE_ERROR when the body sink stopped
    std::string error;         // libcurl's message when `code` is not CURLE_OK
    long status = 0;           // HTTP status; 0 when no response arrived
    std::string contentType;
    std::string contentRange;
    std::string etag;
    std::string dav;  // the DAV header: the WebDAV classes the server supports
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

// Who the client says it is and whom it trusts. Paths are absolute (the
// drive leaves its working directory when it goes to the background); an
// empty path is not used.
struct HttpAccess {
    // Credentials in curl's netrc format, for the server's host; libcurl
    // negotiates basic or digest authentication with them.
    std::string netrcFile;
    std::string caFile;    // CA certificates trusted instead of the system's
    std::string certFile;  // client certificate (PEM)
    std::string keyFile;   // its private key (PEM, unencrypted); empty: in certFile
};

// True when a transfer failed on a certificate: the server's is not trusted,
// or the client's own cannot be used.
bool IsCertificateProblem(CURLcode code);

// True when the server answered with a 2xx status.
bool Succeeded(const HttpResponse& response);

// What went wrong with `response`, for a log line: libcurl's message, or the
// HTTP status with what it means ("HTTP 401: credentials refused"). Empty
// for a 2xx answer.
std::string DescribeFailure(const HttpResponse& response);

// The host and port of `url` ("127.0.0.1:8443"), without any user
// information.
std::string HostOfUrl(const std::string& url);

// True when `url` carries user information ("https://user:pw@host/").
bool HasUserInfo(const std::string& url);

class HttpClient {
  public:
    // Receives the body as it arrives, with the response's status line and
    // headers already known; returns false to abandon the transfer.
    using BodySink = std::function<bool(const HttpResponse& head, const char* data, size_t size)>;

    // `baseUrl` ends in '/'. Keeps up to `connections` connections open,
    // and one more for requests that are not bulk while bulk transfers use
    // all of them. Counts every request in `stats` (not owned).
    HttpClient(std::string baseUrl, int connections, HttpLimits limits, Stats* stats,
               HttpAccess access = {});
    HttpClient(const HttpClient&) = delete;
    HttpClient& operator=(const HttpClient&) = delete;
    ~HttpClient();

    // Sends `request`, streaming the body into `sink` (may be empty for a
    // HEAD). Blocks until the transfer ends.
    HttpResponse Send(const HttpRequest& request, const BodySink& sink);

    // Sends `request` with the body collected into `body`; a body longer
    // than `maxBytes` ends the transfer with CURLE_WRITE_ERROR.
    HttpResponse SendForText(const HttpRequest& request, std::string* body, size_t maxBytes);

    const std::string& baseUrl() const { return baseUrl_; }

  private:
    // A libcurl handle and what it has learnt. The handle is never reset:
    // it keeps the authentication scheme and digest nonce the server gave,
    // so that later requests carry credentials without a 401 round trip.
    struct Connection {
        CURL* handle = nullptr;
        bool answered = false;  // the server has answered one request on it
    };

    Connection Acquire(bool bulk);
    void Release(Connection connection, bool bulk);
    // Sets what every request on `handle` shares: time-outs, credentials,
    // certificates.
    void ConfigureNew(CURL* handle) const;

    const std::string baseUrl_;
    const int connections_;
    const HttpLimits limits_;
    Stats* const stats_;
    const HttpAccess access_;

    std::mutex lock_;
    std::condition_variable freed_;
    std::vector<Connection> idle_;  // GUARDED_BY(lock_)
    int inUse_ = 0;                 // GUARDED_BY(lock_): connections handed out
    int bulkInUse_ = 0;             // GUARDED_BY(lock_): of those, to bulk transfers
    int waitingFirst_ = 0;          // GUARDED_BY(lock_): waiters that are not bulk
};

}  // namespace drive

#endif  // DRIVE_HTTP_CLIENT_H_
