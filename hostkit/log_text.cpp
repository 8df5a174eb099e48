#include "hostkit/log_text.h"

#include <cwchar>
#include <iterator>

namespace hostkit {

const char* SeverityName(LOGLEVEL level) {
    return (level & LL_ERROR) ? "ERROR" : (level & LL_INFO) ? "INFO" : "DETAIL";
}

std::string Narrow(std::wstring_view wide) {
    std::string narrow;
    narrow.reserve(wide.size());
    for (const wchar_t c : wide) {
        narrow += static_cast<unsigned long>(c) < 0x80 ? static_cast<char>(c) : '?';
    }
    return narrow;
}

std::string FormatWide(const wchar_t* format, va_list args) {
    wchar_t wide[1024];
    const int length = vswprintf(wide, std::size(wide), format, args);
    return Narrow(length >= 0 ? std::wstring_view(wide, static_cast<size_t>(length)) : format);
}

}  // namespace hostkit
