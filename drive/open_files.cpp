#include "drive/open_files.h"

#include <atomic>
#include <cerrno>

namespace drive {

namespace {

// States of a handle record: open, and closed (above 3, which the library
// and the fetcher watch).
constexpr int32_t kRecordOpen = 1;
constexpr int32_t kRecordClosed = 4;

}  // namespace

OpenFiles::OpenFiles(ICache* cache, HttpClient* client, RemoteTree* tree, DriveLog* log,
                     Stats* stats, FetchPolicy policy, size_t maxUnused)
    : cache_(cache),
      client_(client),
      tree_(tree),
      log_(log),
      stats_(stats),
      policy_(policy),
      maxUnused_(maxUnused) {}

OpenFiles::~OpenFiles() {
    std::lock_guard<std::mutex> guard(lock_);
    for (auto& [inode, file] : current_) CloseNoLock(file);
    current_.clear();
    unused_.clear();
}

int OpenFiles::Open(const NodeInfo& info, std::unique_ptr<OpenHandle>* opened, bool* unchanged) {
    std::lock_guard<std::mutex> guard(lock_);
    auto last = lastOpenedVersion_.find(info.inode);
    *unchanged = last != lastOpenedVersion_.end() && last->second == info.version;
    lastOpenedVersion_[info.inode] = info.version;

    std::shared_ptr<CachedFile>& slot = current_[info.inode];
    if (slot && slot->info.version != info.version) {
        // A newer version: the old object goes once its last opener leaves.
        if (slot->openers == 0) CloseNoLock(slot);
        slot.reset();
    }
    if (!slot) {
        auto file = std::make_shared<CachedFile>();
        file->info = info;
        file->objectName = "i" + std::to_string(info.inode) + "v" + std::to_string(info.version);
        file->fetcher = std::make_unique<HttpFetcher>(info, client_, tree_, log_, stats_, policy_);
        try {
            file->object =
                cache_->Open(file->objectName.c_str(), 'r', info.size, file->fetcher.get());
        } catch (AERROR error) {
            log_->Error("Opening /%s in the cache failed: %d", info.path.c_str(), error);
            cache_->Close(file->objectName.c_str());
            current_.erase(info.inode);
            return EIO;
        }
        slot = std::move(file);
    }
    unused_.remove(slot);
    ++slot->openers;
    auto handle = std::make_unique<OpenHandle>();
    handle->file = slot;
    handle->record = std::make_shared<_FS_HANDLE>();
    handle->record->state = kRecordOpen;
    handle->record->hostHandle = static_cast<int64_t>(info.inode);
    *opened = std::move(handle);
    return 0;
}

void OpenFiles::Release(std::unique_ptr<OpenHandle> handle) {
    std::atomic_ref<int32_t>(handle->record->state).store(kRecordClosed, std::memory_order_relaxed);
    std::lock_guard<std::mutex> guard(lock_);
    const std::shared_ptr<CachedFile>& file = handle->file;
    if (--file->openers > 0) return;
    const auto current = current_.find(file->info.inode);
    if (current == current_.end() || current->second != file) {
        CloseNoLock(file);  // an older version nobody reads any more
        return;
    }
    unused_.push_back(file);
    TrimUnusedNoLock();
}

void OpenFiles::CloseNoLock(const std::shared_ptr<CachedFile>& file) {
    file->object->Close();
    cache_->Close(file->objectName.c_str());
}

void OpenFiles::TrimUnusedNoLock() {
    while (unused_.size() > maxUnused_) {
        std::shared_ptr<CachedFile> oldest = unused_.front();
        unused_.pop_front();
        CloseNoLock(oldest);
        current_.erase(oldest->info.inode);
    }
}

}  // namespace drive
