#include "hostkit/line_logger.h"

#include <utility>

#include "hostkit/log_text.h"

namespace hostkit {

LineLogger::LineLogger(FILE* echo, bool keep) : echo_(echo), keep_(keep) {}

void LineLogger::Log(LOGLEVEL level, const char* format, ...) {
    va_list args;
    va_start(args, format);
    LogV(level, format, args);
    va_end(args);
}

void LineLogger::LogW(LOGLEVEL level, const wchar_t* format, ...) {
    va_list args;
    va_start(args, format);
    std::string text = FormatWide(format, args);
    va_end(args);
    Keep(level, Narrow(format), std::move(text));
}

void LineLogger::LogV(LOGLEVEL level, const char* format, va_list args) {
    va_list copy;
    va_copy(copy, args);
    const int size = vsnprintf(nullptr, 0, format, copy);
    va_end(copy);
    std::string text(size > 0 ? static_cast<size_t>(size) : 0, '\0');
    if (size > 0) vsnprintf(text.data(), text.size() + 1, format, args);
    Keep(level, format, std::move(text));
}

void LineLogger::Keep(LOGLEVEL level, std::string format, std::string text) {
    std::lock_guard<std::mutex> guard(lock_);
    if (echo_ != nullptr) {
        fprintf(echo_, "[%s] %s\n", SeverityName(level), text.c_str());
    }
    if (keep_) lines_.push_back({level, std::move(format), std::move(text)});
}

std::vector<LogLine> LineLogger::Lines() const {
    std::lock_guard<std::mutex> guard(lock_);
    return lines_;
}

void LineLogger::Clear() {
    std::lock_guard<std::mutex> guard(lock_);
    lines_.clear();
}

std::vector<LogLine> LineLogger::WithFormat(const std::string& format) const {
    std::lock_guard<std::mutex> guard(lock_);
    std::vector<LogLine> found;
    for (const LogLine& line : lines_) {
        if (line.format == format) found.push_back(line);
    }
    return found;
}

bool LineLogger::HasText(const std::string& text) const {
    std::lock_guard<std::mutex> guard(lock_);
    for (const LogLine& line : lines_) {
        if (line.text == text) return true;
    }
    return false;
}

bool LineLogger::HasTextContaining(const std::string& part) const {
    std::lock_guard<std::mutex> guard(lock_);
    for (const LogLine& line : lines_) {
        if (line.text.find(part) != std::string::npos) return true;
    }
    return false;
}

}  // namespace hostkit
