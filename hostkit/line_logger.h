// A host's logger that formats every line and keeps it, so that tests can
// look for exact formats and texts and tools can print them.
//
// Thread-safe: LogV may be called from any thread at any time.
#ifndef HOSTKIT_LINE_LOGGER_H_
#define HOSTKIT_LINE_LOGGER_H_

#include <cstdio>
#include <mutex>
#include <string>
#include <vector>

#include "cache/cache.h"

namespace hostkit {

struct LogLine {
    LOGLEVEL level;
    std::string format;  // the raw printf-style format the library passed
    std::string text;    // the formatted line
};

class LineLogger final : public ILog {
  public:
    // Lines are kept in memory; when `echo` is non-null they are also
    // written there, one per line, with the level prefixed.
    explicit LineLogger(FILE* echo = nullptr, bool keep = true);
    LineLogger(const LineLogger&) = delete;
    LineLogger& operator=(const LineLogger&) = delete;
    virtual ~LineLogger() = default;

    void Log(LOGLEVEL level, const char* format, ...) override;
    // The library logs narrow text only. A wide line is kept with its format
    // and text in 7-bit ASCII, '?' standing for any other character; a line
    // of more than 1023 characters, or one that cannot be formatted, is kept
    // as its format.
    void LogW(LOGLEVEL level, const wchar_t* format, ...) override;
    void LogV(LOGLEVEL level, const char* format, va_list args) override;

    std::vector<LogLine> Lines() const;
    void Clear();
    // Lines whose raw format equals `format`.
    std::vector<LogLine> WithFormat(const std::string& format) const;
    // True when some formatted line equals `text`.
    bool HasText(const std::string& text) const;
    // True when some formatted line contains `part`.
    bool HasTextContaining(const std::string& part) const;

  private:
    // Echoes and keeps one formatted line.
    void Keep(LOGLEVEL level, std::string format, std::string text);

    FILE* echo_;
    bool keep_;
    mutable std::mutex lock_;
    std::vector<LogLine> lines_;
};

}  // namespace hostkit

#endif  // HOSTKIT_LINE_LOGGER_H_
