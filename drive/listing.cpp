#include "drive/listing.h"

#include <curl/curl.h>
#include <jansson.h>

#include <algorithm>
#include <cctype>
#include <memory>
#include <set>

namespace drive {

namespace {

int HexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

bool UsableName(const std::string& name) {
    return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos &&
           name.find('\0') == std::string::npos;
}

// Seconds since the epoch of an HTTP date; -1 when it does not parse.
long long ParseHttpDate(const char* text) {
    const time_t parsed = curl_getdate(text, nullptr);
    return parsed < 0 ? -1 : static_cast<long long>(parsed);
}

// Appends the UTF-8 encoding of `code` to `out`.
void AppendUtf8(unsigned long code, std::string& out) {
    if (code < 0x80) {
        out += static_cast<char>(code);
    } else if (code < 0x800) {
        out += static_cast<char>(0xC0 | (code >> 6));
        out += static_cast<char>(0x80 | (code & 0x3F));
    } else if (code < 0x10000) {
        out += static_cast<char>(0xE0 | (code >> 12));
        out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (code & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | (code >> 18));
        out += static_cast<char>(0x80 | ((code >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (code & 0x3F));
    }
}

// `text` with the character references an index page uses in attributes
// (&amp; &lt; &gt; &quot; &apos; &#39; &#x27; ...) decoded.
std::string DecodeEntities(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (size_t i = 0; i < text.size(); ++i) {
        const size_t end = text[i] == '&' ? text.find(';', i) : std::string_view::npos;
        if (end == std::string_view::npos || end - i > 10) {
            out += text[i];
            continue;
        }
        const std::string_view entity = text.substr(i + 1, end - i - 1);
        unsigned long code = 0;
        if (entity == "amp") {
            code = '&';
        } else if (entity == "lt") {
            code = '<';
        } else if (entity == "gt") {
            code = '>';
        } else if (entity == "quot") {
            code = '"';
        } else if (entity == "apos") {
            code = '\'';
        } else if (entity.size() > 1 && entity[0] == '#') {
            const bool hex = entity[1] == 'x' || entity[1] == 'X';
            const std::string digits(entity.substr(hex ? 2 : 1));
            char* stop = nullptr;
            code = std::strtoul(digits.c_str(), &stop, hex ? 16 : 10);
            if (digits.empty() || *stop != '\0' || code == 0 || code > 0x10FFFF) code = 0;
        }
        if (code == 0) {
            out += text[i];
            continue;
        }
        AppendUtf8(code, out);
        i = end;
    }
    return out;
}

// The value of the href attribute of the tag starting at `tag` ("<a ..."),
// or nullopt.
std::optional<std::string_view> HrefOf(std::string_view tag) {
    std::string lower(tag);
    for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    for (size_t at = lower.find("href"); at != std::string::npos; at = lower.find("href", at + 4)) {
        if (at == 0 || (tag[at - 1] != ' ' && tag[at - 1] != '\t' && tag[at - 1] != '\n')) {
            continue;
        }
        size_t i = at + 4;
        while (i < tag.size() && tag[i] == ' ') ++i;
        if (i >= tag.size() || tag[i] != '=') continue;
        ++i;
        while (i < tag.size() && tag[i] == ' ') ++i;
        if (i >= tag.size()) return std::nullopt;
        const char quote = tag[i];
        if (quote == '"' || quote == '\'') {
            const size_t close = tag.find(quote, i + 1);
            if (close == std::string_view::npos) return std::nullopt;
            return tag.substr(i + 1, close - i - 1);
        }
        const size_t close = tag.find_first_of(" \t\n>", i);
        return tag.substr(i, close == std::string_view::npos ? tag.size() - i : close - i);
    }
    return std::nullopt;
}

// The child entry a link names, or nullopt when it points elsewhere.
std::optional<ListingEntry> EntryOfLink(std::string link, std::string_view directoryPath) {
    link = DecodeEntities(link);
    if (const size_t cut = link.find_first_of("?#"); cut != std::string::npos) link.resize(cut);
    if (const size_t scheme = link.find("://"); scheme != std::string::npos) {
        const size_t path = link.find('/', scheme + 3);
        if (path == std::string::npos) return std::nullopt;
        link = link.substr(path);
    }
    if (!link.empty() && link[0] == '/') {
        if (link.compare(0, directoryPath.size(), directoryPath) != 0) return std::nullopt;
        link = link.substr(directoryPath.size());
    }
    // Any other scheme (mailto:, javascript:) points elsewhere; a child whose
    // name has a colon is linked as "./name".
    if (const size_t colon = link.find(':'); colon != std::string::npos) {
        if (link.find('/') == std::string::npos || link.find('/') > colon) return std::nullopt;
    }
    if (link.rfind("./", 0) == 0) link = link.substr(2);
    ListingEntry entry;
    if (!link.empty() && link.back() == '/') {
        entry.isDirectory = true;
        link.pop_back();
    }
    std::optional<std::string> name = PercentDecode(link);
    if (!name || !UsableName(*name)) return std::nullopt;
    entry.name = std::move(*name);
    return entry;
}

}  // namespace

std::optional<std::string> PercentDecode(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            out += text[i];
            continue;
        }
        if (i + 2 >= text.size()) return std::nullopt;
        const int high = HexValue(text[i + 1]);
        const int low = HexValue(text[i + 2]);
        if (high < 0 || low < 0) return std::nullopt;
        out += static_cast<char>(high * 16 + low);
        i += 2;
    }
    return out;
}

std::string PercentEncode(std::string_view name) {
    static const char kHex[] = "0123456789ABCDEF";
    std::string out;
    out.reserve(name.size());
    for (const char c : name) {
        const auto byte = static_cast<unsigned char>(c);
        if ((byte >= 'A' && byte <= 'Z') || (byte >= 'a' && byte <= 'z') ||
            (byte >= '0' && byte <= '9') || byte == '-' || byte == '.' || byte == '_' ||
            byte == '~') {
            out += c;
        } else {
            out += '%';
            out += kHex[byte >> 4];
            out += kHex[byte & 0xF];
        }
    }
    return out;
}

std::optional<std::vector<ListingEntry>> ParseJsonListing(std::string_view text) {
    json_error_t error;
    std::unique_ptr<json_t, void (*)(json_t*)> root(json_loadb(text.data(), text.size(), 0, &error),
                                                    json_decref);
    if (!root || !json_is_array(root.get())) return std::nullopt;
    std::vector<ListingEntry> entries;
    size_t index = 0;
    json_t* item = nullptr;
    json_array_foreach(root.get(), index, item) {
        const char* name = json_string_value(json_object_get(item, "name"));
        const char* type = json_string_value(json_object_get(item, "type"));
        if (name == nullptr || type == nullptr) return std::nullopt;
        ListingEntry entry;
        entry.name = std::string(name, json_string_length(json_object_get(item, "name")));
        if (!UsableName(entry.name)) continue;
        entry.isDirectory = std::string_view(type) == "directory";
        if (json_t* size = json_object_get(item, "size"); json_is_integer(size)) {
            entry.size = json_integer_value(size);
        }
        if (const char* mtime = json_string_value(json_object_get(item, "mtime"))) {
            entry.mtime = ParseHttpDate(mtime);
        }
        entries.push_back(std::move(entry));
    }
    return entries;
}

std::vector<ListingEntry> ParseHtmlListing(std::string_view html, std::string_view directoryPath) {
    std::vector<ListingEntry> entries;
    std::set<std::string> seen;
    for (size_t at = 0; (at = html.find('<', at)) != std::string_view::npos; ++at) {
        if (at + 2 >= html.size() || (html[at + 1] != 'a' && html[at + 1] != 'A') ||
            (html[at + 2] != ' ' && html[at + 2] != '\t' && html[at + 2] != '\n')) {
            continue;
        }
        const size_t close = html.find('>', at);
        if (close == std::string_view::npos) break;
        const std::optional<std::string_view> href = HrefOf(html.substr(at, close - at));
        if (!href) continue;
        std::optional<ListingEntry> entry = EntryOfLink(std::string(*href), directoryPath);
        if (entry && seen.insert(entry->name).second) entries.push_back(std::move(*entry));
    }
    return entries;
}

}  // namespace drive
