#include "drive/server_space.h"

#include <string>

namespace drive {

namespace {

// Quota answers are a few hundred bytes; anything far larger is not one.
constexpr size_t kMaxAnswerBytes = 64 * 1024;

constexpr const char* kQuotaQuery =
    "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n"
    "<D:propfind xmlns:D=\"DAV:\"><D:prop>"
    "<D:quota-available-bytes/><D:quota-used-bytes/>"
    "</D:prop></D:propfind>\n";

}  // namespace

ServerSpace::ServerSpace(HttpClient* client, bool webdav, std::chrono::milliseconds maxAge)
    : client_(client), webdav_(webdav), maxAge_(maxAge) {}

Quota ServerSpace::Get() {
    if (!webdav_) return Quota();
    std::lock_guard<std::mutex> guard(lock_);
    const auto now = std::chrono::steady_clock::now();
    if (!asked_ || now - askedAt_ >= maxAge_) {
        quota_ = Ask();
        asked_ = true;
        askedAt_ = now;
    }
    return quota_;
}

Quota ServerSpace::Ask() {
    const std::string query = kQuotaQuery;
    size_t sent = 0;
    HttpRequest request;
    request.method = "PROPFIND";
    request.headers = {"Depth: 0", "Content-Type: application/xml; charset=utf-8"};
    request.uploadSize = static_cast<long long>(query.size());
    request.upload = [&](char* buffer, size_t room) -> long long {
        const size_t count = query.copy(buffer, room, sent);
        sent += count;
        return static_cast<long long>(count);
    };
    request.rewind = [&sent] {
        sent = 0;
        return true;
    };
    std::string body;
    const HttpResponse response = client_->SendForText(request, &body, kMaxAnswerBytes);
    if (response.code != CURLE_OK || response.status != 207) return Quota();
    return ParsePropfindQuota(body).value_or(Quota());
}

}  // namespace drive
