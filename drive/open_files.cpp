#include "drive/open_files.h"

#include <algorithm>
#include <atomic>
#include <cerrno>

namespace drive {

namespace {

// The state of an open handle record (above 3 would mean closed).
constexpr int32_t kRecordOpen = 1;

// Bytes read from the local copy per upload step.
constexpr long long kUploadPiece = 1 << 20;

// Passes fetches on and remembers whether any failed: the library's fill
// does not report failures, and an upload must never send bytes it lacks.
class CheckedFetch final : public IFetch {
  public:
    explicit CheckedFetch(IFetch* inner) : inner_(inner) {}
    virtual ~CheckedFetch() = default;
    AERROR Fetch(long long offset, long long length, std::shared_ptr<_FS_HANDLE> handle,
                 IFetchCallback* sink) override {
        const AERROR result = inner_->Fetch(offset, length, std::move(handle), sink);
        if (result != AE_OK) failed_.store(true, std::memory_order_relaxed);
        return result;
    }
    long long GetHostHandle() override { return inner_->GetHostHandle(); }
    bool failed() const { return failed_.load(std::memory_order_relaxed); }

  private:
    IFetch* const inner_;
    std::atomic<bool> failed_{false};
};

std::shared_ptr<_FS_HANDLE> OpenRecord(Inode inode) {
    auto record = std::make_shared<_FS_HANDLE>();
    record->state = kRecordOpen;
    record->hostHandle = static_cast<int64_t>(inode);
    return record;
}

}  // namespace

OpenFiles::OpenFiles(ICache* cache, HttpClient* client, RemoteTree* tree, DriveLog* log,
                     Stats* stats, CacheRoom* room, FetchPolicy policy, size_t maxUnused)
    : cache_(cache),
      client_(client),
      tree_(tree),
      log_(log),
      stats_(stats),
      room_(room),
      policy_(policy),
      maxUnused_(maxUnused) {}

OpenFiles::~OpenFiles() {
    for (std::unique_ptr<OpenHandle>& left : opens_.TakeAll()) ReleaseTaken(std::move(left));
    std::lock_guard<std::mutex> guard(lock_);
    for (auto& [inode, file] : current_) CloseNoLock(file);
    current_.clear();
    unused_.clear();
}

int OpenFiles::Open(const NodeInfo& info, OpenHandle** opened, bool* unchanged) {
    std::lock_guard<std::mutex> guard(lock_);
    auto last = lastOpenedVersion_.find(info.inode);
    *unchanged = last != lastOpenedVersion_.end() && last->second == info.version;
    lastOpenedVersion_[info.inode] = info.version;

    std::shared_ptr<CachedFile>& slot = current_[info.inode];
    if (slot && slot->info.version != info.version && !slot->writing.load()) {
        // A newer version: the old object goes once its last opener leaves.
        // A copy being written stays: its changes win over the server's.
        if (slot->openers == 0) CloseNoLock(slot);
        slot.reset();
    }
    if (!slot) {
        std::shared_ptr<CachedFile> file = MakeFile(info);
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
    handle->record = OpenRecord(info.inode);
    *opened = opens_.Add(std::move(handle));
    return 0;
}

void OpenFiles::Release(OpenHandle* handle) {
    if (std::unique_ptr<OpenHandle> taken = opens_.Take(handle)) ReleaseTaken(std::move(taken));
}

void OpenFiles::ReleaseTaken(std::unique_ptr<OpenHandle> handle) {
    const std::shared_ptr<CachedFile>& file = handle->file;
    if (file->writing.load()) {
        if (handle->writer) {
            if (const int error = Upload(*file); error != 0) {
                log_->Error("Changes to /%s stay in the cache; a flush retries (error %d)",
                            file->info.path.c_str(), error);
            }
        }
        std::lock_guard<std::mutex> writeGuard(file->writeLock);
        if (handle->writer) --file->writers;
        if (file->writers == 0 && !file->dirty && file->writing.load()) {
            // The server holds every byte of the copy: it serves reads again.
            file->object->SetMode('r', file->size.load(), file->fetcher.get());
            file->writing.store(false);
        }
    }
    std::lock_guard<std::mutex> guard(lock_);
    if (--file->openers > 0 || file->writing.load()) return;
    const auto current = current_.find(file->info.inode);
    if (current == current_.end() || current->second != file) {
        CloseNoLock(file);  // an older version nobody reads any more
        return;
    }
    unused_.push_back(file);
    TrimUnusedNoLock();
}

std::shared_ptr<CachedFile> OpenFiles::MakeFile(const NodeInfo& info) {
    auto file = std::make_shared<CachedFile>();
    file->info = info;
    file->size.store(info.size);
    file->path = info.path;
    file->objectName = "i" + std::to_string(info.inode) + "v" + std::to_string(info.version);
    file->fetcher =
        std::make_unique<HttpFetcher>(info, client_, tree_, log_, stats_, policy_, room_);
    return file;
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

int OpenFiles::BeginWrite(OpenHandle* handle, bool truncate) {
    CachedFile& file = *handle->file;
    std::lock_guard<std::mutex> guard(file.writeLock);
    if (!file.writing.load()) {
        const long long size = truncate ? 0 : file.size.load();
        file.object->SetMode('w', size, file.fetcher.get());
        if (size > 0) {
            // Writes and the upload work on a complete copy: fetch the rest
            // of the file now, while the server surely has it.
            CheckedFetch checked(file.fetcher.get());
            file.object->FillEmptySectors(&checked);
            if (checked.failed()) {
                log_->Error("Cannot fetch /%s to change it", file.info.path.c_str());
                return EIO;
            }
        }
        if (!file.dirty) file.etag = file.info.etag;
        file.size.store(size);
        file.writing.store(true);
    } else if (truncate) {
        if (file.object->Truncate(0) != AE_OK) return EIO;
        file.size.store(0);
    }
    if (truncate) file.dirty = true;
    ++file.writers;
    handle->writer = true;
    return 0;
}

long long OpenFiles::Write(OpenHandle* handle, const char* data, size_t size, long long offset) {
    CachedFile& file = *handle->file;
    std::lock_guard<std::mutex> guard(file.writeLock);
    _WRITEDATA request{};
    request.buffer = data;
    request.offset = offset;
    request.length = static_cast<long long>(size);
    request.handle = handle->record;
    request.fileSize = file.size.load();
    if (const AERROR result = file.object->Write(&request); result != AE_OK) {
        log_->Error("Writing /%s bytes %lld+%zu failed: %d", file.info.path.c_str(), offset, size,
                    result);
        return -EIO;
    }
    file.size.store(std::max(file.size.load(), offset + request.transferred));
    file.dirty = true;
    return request.transferred;
}

int OpenFiles::Truncate(OpenHandle* handle, long long size) {
    CachedFile& file = *handle->file;
    std::lock_guard<std::mutex> guard(file.writeLock);
    if (file.object->Truncate(size) != AE_OK) return size < 0 ? EINVAL : EIO;
    file.size.store(size);
    file.dirty = true;
    return 0;
}

int OpenFiles::Upload(CachedFile& file) {
    std::lock_guard<std::mutex> guard(file.writeLock);
    if (!file.dirty || file.path.empty()) return 0;
    const long long size = file.size.load();
    const std::shared_ptr<_FS_HANDLE> record = OpenRecord(file.info.inode);
    long long sent = 0;
    HttpRequest request;
    request.path = file.path;
    request.ifMatch = file.etag;
    request.uploadSize = size;
    // Reads the complete local copy; nothing is fetched.
    request.upload = [&](char* buffer, size_t room) -> long long {
        _READDATA piece{};
        piece.buffer = buffer;
        piece.offset = sent;
        piece.length =
            std::min<long long>({static_cast<long long>(room), size - sent, kUploadPiece});
        piece.handle = record;
        piece.fileSize = size;
        if (piece.length == 0) return 0;
        if (file.object->Read(&piece) != AE_OK || piece.transferred <= 0) return -1;
        sent += piece.transferred;
        return piece.transferred;
    };
    const HttpResponse response = client_->Send(request, {});
    if (response.code != CURLE_OK || response.status / 100 != 2) {
        log_->Error("Uploading /%s failed: %s (HTTP %ld)", file.path.c_str(),
                    response.code != CURLE_OK ? response.error.c_str() : "refused",
                    response.status);
        return response.status == 412 ? EBUSY : EIO;
    }
    file.dirty = false;
    // The next upload of this copy replaces what was just sent.
    file.etag = response.etag.rfind("W/", 0) == 0 ? std::string() : response.etag;
    tree_->MarkChanged(file.info.inode);
    return 0;
}

std::shared_ptr<CachedFile> OpenFiles::DetachNoLock(Inode inode) {
    const auto found = current_.find(inode);
    if (found == current_.end()) return nullptr;
    std::shared_ptr<CachedFile> file = std::move(found->second);
    current_.erase(found);
    lastOpenedVersion_.erase(inode);
    if (file->openers == 0) {
        unused_.remove(file);
        CloseNoLock(file);
    }
    return file;
}

int OpenFiles::UploadPending(Inode inode) {
    std::shared_ptr<CachedFile> file;
    {
        std::lock_guard<std::mutex> guard(lock_);
        const auto found = current_.find(inode);
        if (found == current_.end()) return 0;
        file = found->second;
    }
    return Upload(*file);
}

void OpenFiles::Moved(const NodeInfo& to) {
    std::lock_guard<std::mutex> guard(lock_);
    const auto found = current_.find(to.inode);
    if (found == current_.end()) return;
    std::shared_ptr<CachedFile>& slot = found->second;
    if (slot->writing.load()) {
        std::lock_guard<std::mutex> writeGuard(slot->writeLock);
        slot->path = to.path;
        return;
    }
    if (slot->openers > 0) return;
    std::shared_ptr<CachedFile> file = MakeFile(to);
    if (cache_->Rehash(slot->objectName.c_str(), file->objectName.c_str(), to.path.c_str()) !=
        AE_OK) {
        unused_.remove(slot);
        CloseNoLock(slot);
        current_.erase(found);
        return;
    }
    file->object = std::move(slot->object);
    std::replace(unused_.begin(), unused_.end(), slot, file);
    slot = std::move(file);
    lastOpenedVersion_[to.inode] = to.version;
}

void OpenFiles::Removed(Inode inode) {
    std::shared_ptr<CachedFile> file;
    {
        std::lock_guard<std::mutex> guard(lock_);
        file = DetachNoLock(inode);
    }
    if (!file) return;
    std::lock_guard<std::mutex> writeGuard(file->writeLock);
    file->dirty = false;
    file->path.clear();
}

long long OpenFiles::LocalSize(Inode inode) {
    std::lock_guard<std::mutex> guard(lock_);
    const auto found = current_.find(inode);
    if (found == current_.end() || !found->second->writing.load()) return -1;
    return found->second->size.load();
}

}  // namespace drive
