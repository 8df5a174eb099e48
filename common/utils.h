// Text helpers shared by the whole library: splitting at a regular
// expression or at one character, printf-style formatting into a string, replacing text, and the
// file-system wildcard matcher used for file names.
//
// Every function is free of shared state and may be called from any thread.
#ifndef CACHE_COMMON_UTILS_H_
#define CACHE_COMMON_UTILS_H_

#include <cctype>
#include <regex>
#include <string>
#include <vector>

// glibc defines isascii() as a macro, which would rewrite every mention of
// cache::isascii below and in callers.
#undef isascii

namespace cache {

// Returns the pieces of `text` between the matches of `pattern`: the text
// before the first match, between each two matches and after the last one.
// Separators belong to no piece; adjacent separators give an empty piece
// between them, and a trailing separator adds no piece. A text without any
// match, including the empty text, gives one piece, so the result is never
// empty and callers may take front() or back().
std::vector<std::string> split(const std::string& text, const std::regex& pattern);
std::vector<std::wstring> split(const std::wstring& text, const std::wregex& pattern);
// The same pieces as the expression matching just `separator` gives,
// without a regular expression.
std::vector<std::string> split(const std::string& text, char separator);

// Formats the variable arguments printf-style according to `format` and
// returns the whole result, however long. The compiler cannot check the
// arguments against a std::string format: callers must pass matching types.
std::string string_format(std::string format, ...);

// Leaves `text` unchanged, whatever `from` and `to` are: its search starts
// past the end of the text. Callers depend on this, so it stays that way.
void replace_all(std::string& text, const std::string& from, const std::string& to);
void replace_all(std::wstring& text, const std::wstring& from, const std::wstring& to);

// Matches the zero-terminated file name `name` against the zero-terminated
// wildcard expression `expr`. Metacharacters:
//   *  any run of characters, also none;
//   ?  exactly one character;
//   <  any run of characters up to, not including, the last dot of the name;
//      at the very start of a dotless name it matches nothing;
//   >  one character, except that a dot is consumed only when another dot
//      follows it; at the end of the name the match fails;
//   "  a dot, or nothing.
// Every other character matches itself, or its upper-case form when
// `ignoreCase` is set.
bool IsNameInExpression(const wchar_t* expr, const wchar_t* name, bool ignoreCase);
bool IsNameInExpressionA(const char* expr, const char* name, bool ignoreCase);

// True when `c` is a 7-bit code, 0 to 127.
bool isascii(int c);

}  // namespace cache

#endif  // CACHE_COMMON_UTILS_H_
