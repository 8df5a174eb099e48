#include "drive/log.h"

#include <string.h>
#include <time.h>

#include <string>

#include "hostkit/log_text.h"

namespace drive {

DriveLog::DriveLog(FILE* out, int verbosity) : out_(out), verbosity_(verbosity) {}

bool DriveLog::Passes(LOGLEVEL level) const {
    if (verbosity_ < 0) return false;
    if (level & LL_ERROR) return true;
    if (level & LL_INFO) return verbosity_ >= 1;
    return verbosity_ >= 2;
}

void DriveLog::Log(LOGLEVEL level, const char* format, ...) {
    va_list args;
    va_start(args, format);
    LogV(level, format, args);
    va_end(args);
}

void DriveLog::LogW(LOGLEVEL level, const wchar_t* format, ...) {
    if (!Passes(level)) return;
    va_list args;
    va_start(args, format);
    const std::string narrow = hostkit::FormatWide(format, args);
    va_end(args);
    Log(level, "%s", narrow.c_str());
}

void DriveLog::LogV(LOGLEVEL level, const char* format, va_list args) {
    if (!Passes(level)) return;
    Write(hostkit::SeverityName(level), format, args);
}

void DriveLog::Info(const char* format, ...) {
    if (verbosity_ < 0) return;
    va_list args;
    va_start(args, format);
    Write("INFO", format, args);
    va_end(args);
}

void DriveLog::Error(const char* format, ...) {
    va_list args;
    va_start(args, format);
    Write("ERROR", format, args);
    va_end(args);
}

void DriveLog::Write(const char* severity, const char* format, va_list args) {
    char stamp[32];
    const time_t now = time(nullptr);
    struct tm parts;
    gmtime_r(&now, &parts);
    strftime(stamp, sizeof stamp, "%Y-%m-%dT%H:%M:%SZ", &parts);
    std::lock_guard<std::mutex> guard(lock_);
    fprintf(out_, "%s [%s] ", stamp, severity);
    vfprintf(out_, format, args);
    fputc('\n', out_);
    fflush(out_);
}

std::string DescribeErrno(int error) {
    const char* name = strerrorname_np(error);
    char text[128];
    return "error " + std::to_string(error) + " (" + (name != nullptr ? name : "unknown") + ": " +
           strerror_r(error, text, sizeof text) + ")";
}

}  // namespace drive
