// The name a store prints as [%s] in its log lines.
//
// A rename runs without the store's lock while other threads format log
// lines with the name, so the text is never changed in place: a rename
// publishes a new string and every reader holds its own reference to the one
// it saw for as long as it formats with it.
#ifndef CACHE_DISPLAY_NAME_H_
#define CACHE_DISPLAY_NAME_H_

#include <memory>
#include <mutex>
#include <string>

#include "cache/bindings.h"
#include "cache/file_io.h"

namespace cache {

class DisplayName {
  public:
    explicit DisplayName(std::string text = std::string())
        : text_(std::make_shared<const std::string>(std::move(text))) {}
    DisplayName(const DisplayName&) = delete;
    DisplayName& operator=(const DisplayName&) = delete;

    // The current name; stays valid for as long as the caller holds it.
    std::shared_ptr<const std::string> Get() const {
        std::lock_guard<std::mutex> guard(lock_);
        return text_;
    }

    // Writes one log line about the store of this name at `level` (the
    // module bit is added): `format` starts with "[%s]", which receives the
    // name, and `args` fill the rest. Costs only a load when no logger is
    // bound.
    template <typename... Args>
    void Log(LOGLEVEL level, const char* format, Args... args) const {
        ILog* log = CurrentLogger();
        if (log == nullptr) return;
        const std::shared_ptr<const std::string> name = Get();
        __LOG__A(log, level | LL_CACHE, format, name->c_str(), args...);
    }

    // Logs the arrival of a host write on the store of this name and, when
    // its range or buffer is invalid (IsValidTransfer), its refusal. True
    // when the store may go on with it.
    bool AcceptWrite(const _WRITEDATA& request) const {
        Log(LL_INFO, "[%s] Write : %p, %lld, %d", static_cast<const void*>(request.buffer),
            request.offset, static_cast<int>(request.length));
        if (IsValidTransfer(request.offset, request.length, request.buffer)) return true;
        Log(LL_ERROR, "[%s] Write failed : invalid request");
        return false;
    }

    void Set(std::string text) {
        auto next = std::make_shared<const std::string>(std::move(text));
        std::lock_guard<std::mutex> guard(lock_);
        text_.swap(next);
    }

  private:
    mutable std::mutex lock_;  // a leaf lock, held only to copy the pointer
    std::shared_ptr<const std::string> text_;
};

}  // namespace cache

#endif  // CACHE_DISPLAY_NAME_H_
