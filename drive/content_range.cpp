#include "drive/content_range.h"

#include <charconv>

#include "drive/http_values.h"

namespace drive {

namespace {

// A non-negative decimal number that is the whole of `text`.
std::optional<long long> ParseCount(std::string_view text) {
    long long value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (text.empty() || error != std::errc() || end != text.data() + text.size() || value < 0) {
        return std::nullopt;
    }
    return value;
}

}  // namespace

std::optional<ContentRange> ParseContentRange(std::string_view value) {
    value = TrimHttpSpace(value);
    constexpr std::string_view kUnit = "bytes ";
    if (value.substr(0, kUnit.size()) != kUnit) return std::nullopt;
    value = TrimHttpSpace(value.substr(kUnit.size()));
    const size_t dash = value.find('-');
    const size_t slash = value.find('/');
    if (dash == std::string_view::npos || slash == std::string_view::npos || slash < dash) {
        return std::nullopt;
    }
    const auto first = ParseCount(value.substr(0, dash));
    const auto last = ParseCount(value.substr(dash + 1, slash - dash - 1));
    const std::string_view totalText = value.substr(slash + 1);
    const auto total = totalText == "*" ? std::optional<long long>(-1) : ParseCount(totalText);
    if (!first || !last || !total || *last < *first || (*total >= 0 && *last >= *total)) {
        return std::nullopt;
    }
    return ContentRange{*first, *last, *total};
}

bool RangeMatches(const ContentRange& range, long long offset, long long length,
                  long long fileSize) {
    return length > 0 && range.first == offset && range.last == offset + length - 1 &&
           (range.total < 0 || range.total == fileSize);
}

}  // namespace drive
