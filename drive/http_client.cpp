#include "drive/http_client.h"

#include <strings.h>

#include <memory>
#include <string_view>
#include <utility>

namespace drive {

namespace {

// What one transfer needs inside libcurl's callbacks.
struct Transfer {
    CURL* handle;
    HttpResponse response;
    const HttpClient::BodySink* sink;
    bool statusKnown = false;
};

std::string_view TrimLine(std::string_view text) {
    while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
    while (!text.empty() && (text.back() == '\r' || text.back() == '\n' || text.back() == ' ')) {
        text.remove_suffix(1);
    }
    return text;
}

bool HeaderIs(std::string_view line, std::string_view name, std::string_view* value) {
    if (line.size() <= name.size() || line[name.size()] != ':' ||
        strncasecmp(line.data(), name.data(), name.size()) != 0) {
        return false;
    }
    *value = TrimLine(line.substr(name.size() + 1));
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
    } else if (HeaderIs(line, "Content-Length", &value)) {
        response.contentLength = std::strtoll(std::string(value).c_str(), nullptr, 10);
    } else if (HeaderIs(line, "Last-Modified", &value)) {
        const time_t parsed = curl_getdate(std::string(value).c_str(), nullptr);
        response.lastModified = parsed < 0 ? -1 : parsed;
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

}  // namespace

HttpClient::HttpClient(std::string baseUrl, int connections, HttpLimits limits, Stats* stats)
    : baseUrl_(std::move(baseUrl)), connections_(connections), limits_(limits), stats_(stats) {}

HttpClient::~HttpClient() {
    for (CURL* handle : idle_) curl_easy_cleanup(handle);
}

CURL* HttpClient::Acquire() {
    std::unique_lock<std::mutex> guard(lock_);
    freed_.wait(guard, [this] { return !idle_.empty() || created_ < connections_; });
    if (!idle_.empty()) {
        CURL* handle = idle_.back();
        idle_.pop_back();
        return handle;
    }
    CURL* handle = curl_easy_init();
    if (handle != nullptr) ++created_;
    return handle;
}

void HttpClient::Release(CURL* handle) {
    {
        std::lock_guard<std::mutex> guard(lock_);
        idle_.push_back(handle);
    }
    freed_.notify_one();
}

HttpResponse HttpClient::Send(const HttpRequest& request, const BodySink& sink) {
    CURL* handle = Acquire();
    if (handle == nullptr) {
        HttpResponse failed;
        failed.code = CURLE_OUT_OF_MEMORY;
        failed.error = "cannot create a connection";
        return failed;
    }
    // Resetting the options keeps the handle's open connections.
    curl_easy_reset(handle);
    Transfer transfer{handle, HttpResponse(), &sink};
    char error[CURL_ERROR_SIZE] = "";
    const std::string url = baseUrl_ + request.path;
    curl_easy_setopt(handle, CURLOPT_URL, url.c_str());
    curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(handle, CURLOPT_ERRORBUFFER, error);
    curl_easy_setopt(handle, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(handle, CURLOPT_MAXREDIRS, 5L);
    curl_easy_setopt(handle, CURLOPT_TCP_KEEPALIVE, 1L);
    curl_easy_setopt(handle, CURLOPT_TCP_NODELAY, 1L);
    curl_easy_setopt(handle, CURLOPT_CONNECTTIMEOUT_MS, limits_.connectTimeoutMs);
    curl_easy_setopt(handle, CURLOPT_LOW_SPEED_LIMIT, limits_.lowSpeedBytes);
    curl_easy_setopt(handle, CURLOPT_LOW_SPEED_TIME, limits_.lowSpeedSeconds);
    curl_easy_setopt(handle, CURLOPT_BUFFERSIZE, 512L * 1024);
    curl_easy_setopt(handle, CURLOPT_USERAGENT, "cachedrive/1.0");
    curl_easy_setopt(handle, CURLOPT_HEADERFUNCTION, OnHeader);
    curl_easy_setopt(handle, CURLOPT_HEADERDATA, &transfer);
    curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, OnBody);
    curl_easy_setopt(handle, CURLOPT_WRITEDATA, &transfer);
    if (request.headOnly) curl_easy_setopt(handle, CURLOPT_NOBODY, 1L);
    if (request.keepGoing) {
        curl_easy_setopt(handle, CURLOPT_NOPROGRESS, 0L);
        curl_easy_setopt(handle, CURLOPT_XFERINFOFUNCTION, OnProgress);
        curl_easy_setopt(handle, CURLOPT_XFERINFODATA, &request.keepGoing);
    }
    std::string range;
    if (request.rangeFirst >= 0) {
        range = std::to_string(request.rangeFirst) + "-" + std::to_string(request.rangeLast);
        curl_easy_setopt(handle, CURLOPT_RANGE, range.c_str());
    }
    std::unique_ptr<curl_slist, void (*)(curl_slist*)> headers(nullptr, curl_slist_free_all);
    if (!request.ifMatch.empty()) {
        headers.reset(curl_slist_append(nullptr, ("If-Match: " + request.ifMatch).c_str()));
        curl_easy_setopt(handle, CURLOPT_HTTPHEADER, headers.get());
    }
    Stats::Add(stats_->requests, 1);
    transfer.response.code = curl_easy_perform(handle);
    curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &transfer.response.status);
    if (transfer.response.code != CURLE_OK) {
        transfer.response.error =
            error[0] != '\0' ? error : curl_easy_strerror(transfer.response.code);
    }
    Release(handle);
    return std::move(transfer.response);
}

HttpResponse HttpClient::GetText(const std::string& path, std::string* body, size_t maxBytes) {
    body->clear();
    const BodySink collect = [body, maxBytes](const HttpResponse&, const char* data, size_t size) {
        if (body->size() + size > maxBytes) return false;
        body->append(data, size);
        return true;
    };
    HttpRequest request;
    request.path = path;
    return Send(request, collect);
}

}  // namespace drive
