#include "drive/http_values.h"

#include <curl/curl.h>

#include <string>

namespace drive {

std::string_view TrimHttpSpace(std::string_view text) {
    constexpr std::string_view kSpace = " \t\r\n";
    const size_t first = text.find_first_not_of(kSpace);
    if (first == std::string_view::npos) return {};
    return text.substr(first, text.find_last_not_of(kSpace) - first + 1);
}

long long ParseHttpDate(std::string_view text) {
    const time_t parsed = curl_getdate(std::string(text).c_str(), nullptr);
    return parsed < 0 ? -1 : static_cast<long long>(parsed);
}

bool IsStrongEtag(std::string_view etag) {
    return !etag.empty() && etag.substr(0, 2) != "W/";
}

}  // namespace drive
