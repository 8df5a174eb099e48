// The texts a host's logger makes of the library's log lines.
#ifndef HOSTKIT_LOG_TEXT_H_
#define HOSTKIT_LOG_TEXT_H_

#include <cstdarg>
#include <string>
#include <string_view>

#include "cache/cache.h"

namespace hostkit {

// "ERROR", "INFO" or "DETAIL", after the level's bits.
const char* SeverityName(LOGLEVEL level);

// `wide` with every character beyond 7-bit ASCII shown as '?'.
std::string Narrow(std::wstring_view wide);

// The wide line made of `format` and `args`, narrowed: the library logs
// narrow text only, so a wide line is kept in 7-bit ASCII. A line that
// cannot be formatted, or is longer than 1023 characters, gives its format.
std::string FormatWide(const wchar_t* format, va_list args);

}  // namespace hostkit

#endif  // HOSTKIT_LOG_TEXT_H_
