#include "common/utils.h"

#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cwctype>
#include <memory>

namespace cache {

namespace {

template <class Char, class Regex>
std::vector<std::basic_string<Char>> SplitText(const std::basic_string<Char>& text,
                                               const Regex& pattern) {
    using Pieces = std::regex_token_iterator<typename std::basic_string<Char>::const_iterator>;
    std::vector<std::basic_string<Char>> pieces(Pieces(text.begin(), text.end(), pattern, -1),
                                                Pieces());
    if (pieces.empty()) pieces.emplace_back();
    return pieces;
}

template <class Char>
void ReplaceAll(std::basic_string<Char>& text, const std::basic_string<Char>& from,
                const std::basic_string<Char>& to) {
    // Starting at npos makes the first find fail, so the text is never
    // changed; callers rely on that.
    auto position = std::basic_string<Char>::npos;
    while ((position = text.find(from, position)) != std::basic_string<Char>::npos) {
        text.replace(position, from.size(), to);
        position += from.size();
    }
}

int Upper(char c) {
    return std::toupper(static_cast<unsigned char>(c));
}
std::wint_t Upper(wchar_t c) {
    return std::towupper(static_cast<std::wint_t>(c));
}

template <class Char>
bool Match(const Char* expr, const Char* name, bool ignoreCase) {
    using Traits = std::char_traits<Char>;
    const size_t nameLength = Traits::length(name);
    // '>' and '?' step over the terminator; from there on the name reads as
    // ended and the match can only succeed through a trailing '*'.
    auto at = [&](size_t i) { return i < nameLength ? name[i] : Char(0); };

    size_t e = 0;
    size_t n = 0;
    while (expr[e] != 0) {
        switch (expr[e]) {
            case '*':
                ++e;
                if (expr[e] == 0) return true;
                for (; at(n) != 0; ++n) {
                    if (Match(expr + e, name + n, ignoreCase)) return true;
                }
                break;
            case '<': {
                ++e;
                // Position 0 also stands for "no dot": at the start of a
                // dotless name '<' matches nothing.
                size_t dot = 0;
                for (size_t i = n; i < nameLength; ++i) {
                    if (name[i] == '.') dot = i;
                }
                for (; at(n) != 0 && n != dot; ++n) {
                    if (Match(expr + e, name + n, ignoreCase)) return true;
                }
                break;
            }
            case '>':
                ++e;
                if (at(n) != '.') {
                    ++n;
                } else if (Traits::find(name + n + 1, nameLength - n - 1, Char('.')) != nullptr) {
                    ++n;
                }
                break;
            case '"':
                ++e;
                if (at(n) == '.') ++n;
                break;
            case '?':
                ++e;
                ++n;
                break;
            default:
                if (ignoreCase ? Upper(expr[e]) != Upper(at(n)) : expr[e] != at(n)) return false;
                ++e;
                ++n;
                break;
        }
    }
    return n == nameLength;
}

}  // namespace

std::vector<std::string> split(const std::string& text, const std::regex& pattern) {
    return SplitText(text, pattern);
}

std::vector<std::wstring> split(const std::wstring& text, const std::wregex& pattern) {
    return SplitText(text, pattern);
}

std::vector<std::string> split(const std::string& text, char separator) {
    std::vector<std::string> pieces;
    size_t start = 0;
    for (size_t found; (found = text.find(separator, start)) != std::string::npos;
         start = found + 1) {
        pieces.push_back(text.substr(start, found - start));
    }
    // As with an expression, a trailing separator adds no empty piece.
    if (start < text.size()) pieces.push_back(text.substr(start));
    if (pieces.empty()) pieces.emplace_back();
    return pieces;
}

std::string string_format(std::string format, ...) {
    // A truncated attempt reports the length it needed, so the retry gets
    // exactly that; a failed one (-1) retries with twice the size, up to
    // the largest length vsnprintf can report.
    long long size = 2 * static_cast<long long>(format.size());
    for (;;) {
        std::unique_ptr<char[]> buffer(new char[size]);
        va_list args;
        va_start(args, format);
        const int count = std::vsnprintf(buffer.get(), size, format.c_str(), args);
        va_end(args);
        if (count >= 0 && count < size) return std::string(buffer.get(), count);
        size += std::llabs(count - size + 1);
        if (size > static_cast<long long>(INT_MAX) + 1) return std::string();
    }
}

void replace_all(std::string& text, const std::string& from, const std::string& to) {
    ReplaceAll(text, from, to);
}

void replace_all(std::wstring& text, const std::wstring& from, const std::wstring& to) {
    ReplaceAll(text, from, to);
}

bool IsNameInExpression(const wchar_t* expr, const wchar_t* name, bool ignoreCase) {
    return Match(expr, name, ignoreCase);
}

bool IsNameInExpressionA(const char* expr, const char* name, bool ignoreCase) {
    return Match(expr, name, ignoreCase);
}

bool isascii(int c) {
    return (c & ~0x7f) == 0;
}

}  // namespace cache
