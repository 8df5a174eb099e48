#include "drive/listing.h"

#include <jansson.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <memory>
#include <set>

#include "drive/http_values.h"

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

// The child entry a multistatus href names, or nullopt when it is the
// directory itself or lies elsewhere. Compared decoded: servers escape
// names differently than the drive does.
std::optional<ListingEntry> EntryOfHref(std::string href, std::string_view directoryPath) {
    if (const size_t scheme = href.find("://"); scheme != std::string::npos) {
        const size_t path = href.find('/', scheme + 3);
        if (path == std::string::npos) return std::nullopt;
        href = href.substr(path);
    }
    const std::optional<std::string> path = PercentDecode(href);
    const std::optional<std::string> directory = PercentDecode(directoryPath);
    if (!path || !directory || path->compare(0, directory->size(), *directory) != 0) {
        return std::nullopt;
    }
    ListingEntry entry;
    entry.name = path->substr(directory->size());
    if (!entry.name.empty() && entry.name.back() == '/') {
        entry.isDirectory = true;
        entry.name.pop_back();
    }
    if (!UsableName(entry.name)) return std::nullopt;
    return entry;
}

// Collects the entries of a multistatus body, one element event at a time.
// Elements are matched by local name: servers choose their own prefix for
// the "DAV:" namespace.
class MultistatusReader {
  public:
    explicit MultistatusReader(std::string_view directoryPath) : directoryPath_(directoryPath) {}

    void Open(std::string_view name) {
        if (name == "multistatus") {
            sawMultistatus_ = true;
        } else if (name == "response") {
            href_.reset();
            current_ = ListingEntry();
            collection_ = false;
        } else if (name == "propstat") {
            found_ = ListingEntry();
            foundCollection_ = false;
            propstatOk_ = false;
            inPropstat_ = true;
        } else if (name == "collection") {
            foundCollection_ = true;
        }
    }

    void Close(std::string_view name, const std::string& text) {
        if (name == "href" && !href_) {
            href_ = text;
        } else if (name == "getcontentlength") {
            char* end = nullptr;
            const long long size = std::strtoll(text.c_str(), &end, 10);
            if (!text.empty() && *end == '\0' && size >= 0) found_.size = size;
        } else if (name == "getlastmodified") {
            found_.mtime = ParseHttpDate(text);
        } else if (name == "getetag") {
            found_.etag = text;
        } else if (name == "status" && inPropstat_) {
            // "HTTP/1.1 200 OK": only properties found (2xx) count.
            const size_t space = text.find(' ');
            propstatOk_ = space != std::string::npos && text.compare(space + 1, 1, "2") == 0;
        } else if (name == "propstat") {
            inPropstat_ = false;
            if (!propstatOk_) return;
            if (found_.size >= 0) current_.size = found_.size;
            if (found_.mtime >= 0) current_.mtime = found_.mtime;
            if (!found_.etag.empty()) current_.etag = found_.etag;
            collection_ = collection_ || foundCollection_;
        } else if (name == "response") {
            Finish();
        }
    }

    bool sawMultistatus() const { return sawMultistatus_; }
    std::vector<ListingEntry> TakeEntries() { return std::move(entries_); }

  private:
    void Finish() {
        if (!href_) return;
        std::optional<ListingEntry> entry = EntryOfHref(*href_, directoryPath_);
        if (!entry || !seen_.insert(entry->name).second) return;
        entry->isDirectory = entry->isDirectory || collection_;
        if (!entry->isDirectory) entry->size = current_.size;
        entry->mtime = current_.mtime;
        entry->etag = current_.etag;
        entries_.push_back(std::move(*entry));
    }

    const std::string_view directoryPath_;
    bool sawMultistatus_ = false;
    std::vector<ListingEntry> entries_;
    std::set<std::string> seen_;
    // The response being read.
    std::optional<std::string> href_;
    ListingEntry current_;
    bool collection_ = false;
    // The propstat being read.
    ListingEntry found_;
    bool foundCollection_ = false;
    bool propstatOk_ = false;
    bool inPropstat_ = false;
};

std::string_view LocalName(std::string_view tag) {
    const size_t end = tag.find_first_of(" \t\r\n/");
    tag = tag.substr(0, end);
    const size_t colon = tag.find(':');
    return colon == std::string_view::npos ? tag : tag.substr(colon + 1);
}

// Hands the elements of `xml` to `reader` as they open and close, with the
// trimmed, decoded text each one holds (Open(name), Close(name, text));
// names are local, without a namespace prefix. False when the text is not
// well-formed enough to read.
template <typename Reader>
bool ReadElements(std::string_view xml, Reader* reader) {
    std::string text;  // character data since the last tag, decoded
    size_t at = 0;
    for (size_t open; (open = xml.find('<', at)) != std::string_view::npos;) {
        text.append(DecodeEntities(xml.substr(at, open - at)));
        const std::string_view rest = xml.substr(open);
        if (rest.rfind("<![CDATA[", 0) == 0) {
            const size_t end = rest.find("]]>");
            if (end == std::string_view::npos) return false;
            text.append(rest.substr(9, end - 9));
            at = open + end + 3;
            continue;
        }
        const bool comment = rest.rfind("<!--", 0) == 0;
        const size_t close = comment ? rest.find("-->") : rest.find('>');
        if (close == std::string_view::npos) return false;
        at = open + close + (comment ? 3 : 1);
        if (comment || rest[1] == '?' || rest[1] == '!') continue;
        const std::string_view tag = rest.substr(1, close - 1);
        if (!tag.empty() && tag[0] == '/') {
            reader->Close(LocalName(tag.substr(1)), std::string(TrimHttpSpace(text)));
        } else {
            reader->Open(LocalName(tag));
            if (!tag.empty() && tag.back() == '/') reader->Close(LocalName(tag), "");
        }
        text.clear();
    }
    return true;
}

// Picks the quota properties out of the answer to a PROPFIND with
// "Depth: 0"; properties in a propstat with an error status do not count.
class QuotaReader {
  public:
    void Open(std::string_view name) {
        if (name == "propstat") found_ = Quota();
    }

    void Close(std::string_view name, const std::string& text) {
        if (name == "quota-available-bytes") {
            found_.availableBytes = ByteCount(text);
        } else if (name == "quota-used-bytes") {
            found_.usedBytes = ByteCount(text);
        } else if (name == "status") {
            const size_t space = text.find(' ');
            propstatOk_ = space != std::string::npos && text.compare(space + 1, 1, "2") == 0;
        } else if (name == "propstat" && propstatOk_) {
            if (found_.availableBytes >= 0) quota_.availableBytes = found_.availableBytes;
            if (found_.usedBytes >= 0) quota_.usedBytes = found_.usedBytes;
        }
    }

    const Quota& quota() const { return quota_; }

  private:
    static long long ByteCount(const std::string& text) {
        char* end = nullptr;
        errno = 0;
        const long long count = std::strtoll(text.c_str(), &end, 10);
        return text.empty() || *end != '\0' || count < 0 || errno == ERANGE ? -1 : count;
    }

    Quota quota_;
    Quota found_;
    bool propstatOk_ = false;
};

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

std::optional<std::vector<ListingEntry>> ParsePropfindListing(std::string_view xml,
                                                              std::string_view directoryPath) {
    MultistatusReader reader(directoryPath);
    if (!ReadElements(xml, &reader) || !reader.sawMultistatus()) return std::nullopt;
    return reader.TakeEntries();
}

std::optional<Quota> ParsePropfindQuota(std::string_view xml) {
    QuotaReader reader;
    if (!ReadElements(xml, &reader)) return std::nullopt;
    return reader.quota();
}

}  // namespace drive
