#include "drive/http_client.h"

#include <strings.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <string_view>
#include <utility>

#include "drive/http_values.h"

namespace drive {

namespace {

// What one transfer needs inside libcurl's callbacks.
struct Transfer {
    CURL* handle;
    HttpResponse response;
    const HttpClient::BodySink* sink;
    bool statusKnown = false;
};

bool HeaderIs(std::string_view line, std::string_view name, std::string_view* value) {
    if (line.size() <= name.size() || line[name.size()] != ':' ||
        strncasecmp(line.data(), name.data(), name.size()) != 0) {
        return false;
    }
    *value = TrimHttpSpace(line.substr(name.size() + 1));
    return true;
}

size_t OnHeader(char* data, size_t size, size_t count, void* context) {
    auto* transfer = static_cast<Transfer*>(context);
    const std::string_view line(data, size * count);
    HttpResponse& response = transfer->response;
    std::string_view value;
    if (line.rfind("HTTP/", 0) == 0) {
        // A new response (after a redirect or a 100 Continue) starts afresh.
        response = HttpResponse();
    } else if (HeaderIs(line, "Content-Type", &value)) {
        response.contentType = value;
    } else if (HeaderIs(line, "Content-Range", &value)) {
        response.contentRange = value;
    } else if (HeaderIs(line, "ETag", &value)) {
        response.etag = value;
    } else if (HeaderIs(line, "DAV", &value)) {
        response.dav = value;
    } else if (HeaderIs(line, "Content-Length", &value)) {
        response.contentLength = std::strtoll(std::string(value).c_str(), nullptr, 10);
    } else if (HeaderIs(line, "Last-Modified", &value)) {
        response.lastModified = ParseHttpDate(value);
    }
    return size * count;
}

size_t OnBody(char* data, size_t size, size_t count, void* context) {
    auto* transfer = static_cast<Transfer*>(context);
    if (!transfer->statusKnown) {
        curl_easy_getinfo(transfer->handle, CURLINFO_RESPONSE_CODE, &transfer->response.status);
        transfer->statusKnown = true;
    }
    const size_t bytes = size * count;
    if (transfer->sink == nullptr || !*transfer->sink) return bytes;
    return (*transfer->sink)(transfer->response, data, bytes) ? bytes : 0;
}

int OnProgress(void* context, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
    const auto* keepGoing = static_cast<const std::function<bool()>*>(context);
    return (*keepGoing)() ? 0 : 1;
}

size_t OnUpload(char* buffer, size_t size, size_t count, void* context) {
    const auto* request = static_cast<const HttpRequest*>(context);
    const long long filled = request->upload(buffer, size * count);
    return filled < 0 ? CURL_READFUNC_ABORT : static_cast<size_t>(filled);
}

int OnSeek(void* context, curl_off_t offset, int origin) {
    const auto* request = static_cast<const HttpRequest*>(context);
    if (offset != 0 || origin != SEEK_SET || !request->rewind) return CURL_SEEKFUNC_CANTSEEK;
    return request->rewind() ? CURL_SEEKFUNC_OK : CURL_SEEKFUNC_FAIL;
}

const char* StatusMeaning(long status) {
    switch (status) {
        case 401:
            return "credentials refused or missing";
        case 403:
            return "access forbidden";
        case 404:
            return "not found";
        case 405:
            return "method not allowed";
        case 409:
            return "conflict";
        case 412:
            return "precondition failed";
        case 413:
            return "too large for the server";
        case 423:
            return "locked";
        case 507:
            return "no space left on the server";
    }
    if (status / 100 == 5) return "server error";
    return "unexpected answer";
}

}  // namespace

bool IsCertificateProblem(CURLcode code) {
    switch (code) {
        case CURLE_PEER_FAILED_VERIFICATION:
        case CURLE_SSL_CACERT_BADFILE:
        case CURLE_SSL_CERTPROBLEM:
        case CURLE_SSL_ISSUER_ERROR:
        case CURLE_SSL_CRL_BADFILE:
        case CURLE_SSL_PINNEDPUBKEYNOTMATCH:
            return true;
        default:
            return false;
    }
}

bool Succeeded(const HttpResponse& response) {
    return response.code == CURLE_OK && response.status / 100 == 2;
}

std::string DescribeFailure(const HttpResponse& response) {
    if (response.code != CURLE_OK) return response.error;
    if (Succeeded(response)) return {};
    return "HTTP " + std::to_string(response.status) + ": " + StatusMeaning(response.status);
}

std::string HostOfUrl(const std::string& url) {
    const size_t scheme = url.find("://");
    const size_t start = scheme == std::string::npos ? 0 : scheme + 3;
    std::string authority = url.substr(start, url.find_first_of("/?#", start) - start);
    if (const size_t at = authority.rfind('@'); at != std::string::npos) {
        authority.erase(0, at + 1);
    }
    return authority;
}

bool HasUserInfo(const std::string& url) {
    const size_t scheme = url.find("://");
    const size_t start = scheme == std::string::npos ? 0 : scheme + 3;
    const size_t end = url.find_first_of("/?#", start);
    return url.substr(start, end - start).find('@') != std::string::npos;
}

HttpClient::HttpClient(std::string baseUrl, int connections, HttpLimits limits, Stats* stats,
                       HttpAccess access)
    : baseUrl_(std::move(baseUrl)),
      connections_(connections),
      limits_(limits),
      stats_(stats),
      access_(std::move(access)) {}

HttpClient::~HttpClient() {
    for (const Connection& connection : idle_) curl_easy_cleanup(connection.handle);
}

HttpClient::Connection HttpClient::Acquire(bool bulk) {
    std::unique_lock<std::mutex> guard(lock_);
    if (!bulk) ++waitingFirst_;
    // Bulk transfers use at most `connections_`, and only when no other
    // request waits; another request takes one more connection while bulk
    // transfers hold them all, so that a random read waits for no piece of
    // a large fetch.
    freed_.wait(guard, [this, bulk] {
        if (bulk) return waitingFirst_ == 0 && inUse_ < connections_;
        return inUse_ < connections_ || (inUse_ == connections_ && bulkInUse_ > 0);
    });
    if (!bulk) --waitingFirst_;
    ++inUse_;
    if (bulk) ++bulkInUse_;
    if (!idle_.empty()) {
        const Connection connection = idle_.back();
        idle_.pop_back();
        return connection;
    }
    Connection connection;
    connection.handle = curl_easy_init();
    if (connection.handle == nullptr) {
        --inUse_;
        if (bulk) --bulkInUse_;
        return connection;
    }
    ConfigureNew(connection.handle);
    return connection;
}

void HttpClient::Release(Connection connection, bool bulk) {
    {
        std::lock_guard<std::mutex> guard(lock_);
        idle_.push_back(connection);
        --inUse_;
        if (bulk) --bulkInUse_;
    }
    // A bulk waiter woken first would wait on and leave the connection idle.
    freed_.notify_all();
}

void HttpClient::ConfigureNew(CURL* handle) const {
    curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(handle, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(handle, CURLOPT_MAXREDIRS, 5L);
    curl_easy_setopt(handle, CURLOPT_TCP_KEEPALIVE, 1L);
    curl_easy_setopt(handle, CURLOPT_TCP_NODELAY, 1L);
    curl_easy_setopt(handle, CURLOPT_CONNECTTIMEOUT_MS, limits_.connectTimeoutMs);
    curl_easy_setopt(handle, CURLOPT_LOW_SPEED_LIMIT, limits_.lowSpeedBytes);
    curl_easy_setopt(handle, CURLOPT_LOW_SPEED_TIME, limits_.lowSpeedSeconds);
    curl_easy_setopt(handle, CURLOPT_BUFFERSIZE, 512L * 1024);
    // Uploads read the local copy in 1 MiB blocks instead of curl's 64 KiB.
    curl_easy_setopt(handle, CURLOPT_UPLOAD_BUFFERSIZE, 1024L * 1024);
    curl_easy_setopt(handle, CURLOPT_USERAGENT, "cachedrive/1.0");
    curl_easy_setopt(handle, CURLOPT_HEADERFUNCTION, OnHeader);
    curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, OnBody);
    curl_easy_setopt(handle, CURLOPT_XFERINFOFUNCTION, OnProgress);
    curl_easy_setopt(handle, CURLOPT_READFUNCTION, OnUpload);
    curl_easy_setopt(handle, CURLOPT_SEEKFUNCTION, OnSeek);
    if (!access_.netrcFile.empty()) {
        curl_easy_setopt(handle, CURLOPT_NETRC, static_cast<long>(CURL_NETRC_OPTIONAL));
        curl_easy_setopt(handle, CURLOPT_NETRC_FILE, access_.netrcFile.c_str());
        // The first answer tells which of the two the server wants; the
        // handle keeps it from then on.
        curl_easy_setopt(handle, CURLOPT_HTTPAUTH, CURLAUTH_BASIC | CURLAUTH_DIGEST);
    } else {
        curl_easy_setopt(handle, CURLOPT_NETRC, static_cast<long>(CURL_NETRC_IGNORED));
    }
    if (!access_.caFile.empty()) curl_easy_setopt(handle, CURLOPT_CAINFO, access_.caFile.c_str());
    if (!access_.certFile.empty()) {
        curl_easy_setopt(handle, CURLOPT_SSLCERT, access_.certFile.c_str());
    }
    if (!access_.keyFile.empty()) curl_easy_setopt(handle, CURLOPT_SSLKEY, access_.keyFile.c_str());
}

HttpResponse HttpClient::Send(const HttpRequest& request, const BodySink& sink) {
    Connection connection = Acquire(request.bulk);
    CURL* const handle = connection.handle;
    if (handle == nullptr) {
        HttpResponse failed;
        failed.code = CURLE_OUT_OF_MEMORY;
        failed.error = "cannot create a connection";
        return failed;
    }
    // The handle keeps the options of its last request: every option a
    // request may change is set here, to this request's value or back to
    // its default.
    Transfer transfer{handle, HttpResponse(), &sink};
    char error[CURL_ERROR_SIZE] = "";
    const std::string url = baseUrl_ + request.path;
    curl_easy_setopt(handle, CURLOPT_URL, url.c_str());
    curl_easy_setopt(handle, CURLOPT_ERRORBUFFER, error);
    curl_easy_setopt(handle, CURLOPT_HEADERDATA, &transfer);
    curl_easy_setopt(handle, CURLOPT_WRITEDATA, &transfer);
    curl_easy_setopt(handle, CURLOPT_HTTPGET, 1L);
    curl_easy_setopt(handle, CURLOPT_UPLOAD, request.uploadSize >= 0 ? 1L : 0L);
    curl_easy_setopt(handle, CURLOPT_NOBODY, request.headOnly ? 1L : 0L);
    curl_easy_setopt(handle, CURLOPT_CUSTOMREQUEST,
                     request.method.empty() ? nullptr : request.method.c_str());
    curl_easy_setopt(handle, CURLOPT_NOPROGRESS, request.keepGoing ? 0L : 1L);
    curl_easy_setopt(handle, CURLOPT_XFERINFODATA, &request.keepGoing);
    std::string range;
    if (request.rangeFirst >= 0) {
        range = std::to_string(request.rangeFirst) + "-" + std::to_string(request.rangeLast);
    }
    curl_easy_setopt(handle, CURLOPT_RANGE, range.empty() ? nullptr : range.c_str());
    std::unique_ptr<curl_slist, void (*)(curl_slist*)> headers(nullptr, curl_slist_free_all);
    std::vector<std::string> headerLines = request.headers;
    curl_easy_setopt(handle, CURLOPT_INFILESIZE_LARGE,
                     static_cast<curl_off_t>(std::max(request.uploadSize, -1LL)));
    curl_easy_setopt(handle, CURLOPT_READDATA, &request);
    curl_easy_setopt(handle, CURLOPT_SEEKDATA, &request);
    if (request.uploadSize > 0 && !access_.netrcFile.empty() && !connection.answered) {
        // The handle does not know the server's scheme yet: its 401 must
        // come before the body goes, not after.
        headerLines.push_back("Expect: 100-continue");
    } else if (request.uploadSize >= 0) {
        // The body follows at once: waiting for "100 Continue" costs a round trip.
        headerLines.push_back("Expect:");
    }
    if (!request.ifMatch.empty()) headerLines.push_back("If-Match: " + request.ifMatch);
    for (const std::string& line : headerLines) {
        // On failure curl_slist_append returns null and leaves the list as it was.
        if (curl_slist* grown = curl_slist_append(headers.get(), line.c_str())) {
            headers.release();
            headers.reset(grown);
        }
    }
    curl_easy_setopt(handle, CURLOPT_HTTPHEADER, headers.get());
    Stats::Add(stats_->requests, 1);
    transfer.response.code = curl_easy_perform(handle);
    curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &transfer.response.status);
    if (transfer.response.code != CURLE_OK) {
        transfer.response.error =
            error[0] != '\0' ? error : curl_easy_strerror(transfer.response.code);
    }
    // Nothing the handle keeps may point into this call once it returns.
    curl_easy_setopt(handle, CURLOPT_ERRORBUFFER, nullptr);
    curl_easy_setopt(handle, CURLOPT_HTTPHEADER, nullptr);
    curl_easy_setopt(handle, CURLOPT_RANGE, nullptr);
    curl_easy_setopt(handle, CURLOPT_CUSTOMREQUEST, nullptr);
    connection.answered = connection.answered || transfer.response.status != 0;
    Release(connection, request.bulk);
    return std::move(transfer.response);
}

HttpResponse HttpClient::SendForText(const HttpRequest& request, std::string* body,
                                     size_t maxBytes) {
    body->clear();
    const BodySink collect = [body, maxBytes](const HttpResponse&, const char* data, size_t size) {
        if (body->size() + size > maxBytes) return false;
        body->append(data, size);
        return true;
    };
    return Send(request, collect);
}

}  // namespace drive
