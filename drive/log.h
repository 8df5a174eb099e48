// The drive's log: its own messages and the library's lines, one per line
// with a time stamp and a severity, filtered by level.
//
// Thread-safe: lines are written whole under a lock.
#ifndef DRIVE_LOG_H_
#define DRIVE_LOG_H_

#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <string>

#include "cache/cache.h"

namespace drive {

class DriveLog final : public ILog {
  public:
    // Lines go to `out` (not owned). Library lines pass when their level is
    // at least: errors for verbosity 0, info for 1, detail for 2; none for
    // a negative verbosity. The drive's own errors always pass.
    DriveLog(FILE* out, int verbosity);
    DriveLog(const DriveLog&) = delete;
    DriveLog& operator=(const DriveLog&) = delete;
    virtual ~DriveLog() = default;

    void Log(LOGLEVEL level, const char* format, ...) override
        __attribute__((format(printf, 3, 4)));
    void LogW(LOGLEVEL level, const wchar_t* format, ...) override;
    void LogV(LOGLEVEL level, const char* format, va_list args) override;

    // The drive's own lines.
    void Info(const char* format, ...) __attribute__((format(printf, 2, 3)));
    void Error(const char* format, ...) __attribute__((format(printf, 2, 3)));

    FILE* out() const { return out_; }

  private:
    bool Passes(LOGLEVEL level) const;
    void Write(const char* severity, const char* format, va_list args);

    FILE* const out_;
    const int verbosity_;
    std::mutex lock_;
};

// An errno value for a log line, named and explained:
// "error 5 (EIO: Input/output error)".
std::string DescribeErrno(int error);

}  // namespace drive

#endif  // DRIVE_LOG_H_
