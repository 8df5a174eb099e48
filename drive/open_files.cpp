#include "drive/open_files.h"

#include <algorithm>
#include <atomic>
#include <cerrno>

#include "drive/http_values.h"
#include "drive/webdav.h"
#include "hostkit/result_text.h"

namespace drive {

namespace {

// The state of an open handle record (kHandleClosedState closes it).
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

void CloseRecord(_FS_HANDLE* record) {
    std::atomic_ref<int32_t>(record->state).store(kHandleClosedState, std::memory_order_relaxed);
}

OpenFiles::OpenFiles(ICache* cache, HttpClient* client, RemoteTree* tree, DriveLog* log,
                     Stats* stats, CacheRoom* room, PendingCopies* pending, FetchPolicy policy,
                     size_t maxUnused)
    : cache_(cache),
      client_(client),
      tree_(tree),
      log_(log),
      stats_(stats),
      room_(room),
      pending_(pending),
      policy_(policy),
      maxUnused_(maxUnused) {}

OpenFiles::~OpenFiles() {
    for (std::unique_ptr<OpenHandle>& left : opens_.TakeAll()) ReleaseTaken(std::move(left));
    std::vector<std::shared_ptr<CachedFile>> files;
    {
        std::lock_guard<std::mutex> guard(lock_);
        for (const auto& [inode, file] : current_) files.push_back(file);
    }
    for (const std::shared_ptr<CachedFile>& file : files) {
        std::lock_guard<std::mutex> writeGuard(file->writeLock);
        if (!file->dirty || file->removed || file->failure.load() != 0) continue;
        if (UploadNoLock(*file) != 0) GiveUpNoLock(*file, "the server did not take them");
    }
    std::lock_guard<std::mutex> guard(lock_);
    for (auto& [inode, file] : current_) CloseNoLock(file);
    current_.clear();
    unused_.clear();
}

int OpenFiles::Open(const NodeInfo& info, OpenHandle** opened, bool* unchanged, bool emptied) {
    std::lock_guard<std::mutex> guard(lock_);
    std::shared_ptr<CachedFile>& slot = current_[info.inode];
    if (slot && slot->version < info.version && !slot->writing.load()) {
        // A newer version: the old object goes once its last opener leaves.
        // A copy being written stays: its changes win over the server's.
        if (slot->openers == 0) {
            RemoveUnusedNoLock(*slot);
            CloseNoLock(slot);
        }
        slot.reset();
    }
    if (!slot) {
        std::shared_ptr<CachedFile> file = MakeFile(info);
        try {
            file->object = cache_->Open(file->objectName.c_str(), emptied ? 'w' : 'r',
                                        emptied ? 0 : info.size, file->fetcher.get());
        } catch (AERROR error) {
            log_->Error("Opening /%s in the cache failed: %s", info.path.c_str(),
                        hostkit::DescribeResult(error).c_str());
            cache_->Close(file->objectName.c_str());
            current_.erase(info.inode);
            return EIO;
        }
        slot = std::move(file);
    }
    const auto last = lastOpenedVersion_.find(info.inode);
    *unchanged = last != lastOpenedVersion_.end() && last->second == slot->version;
    lastOpenedVersion_[info.inode] = slot->version;
    RemoveUnusedNoLock(*slot);
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
    bool spoilt = false;
    if (file->writing.load()) {
        std::lock_guard<std::mutex> writeGuard(file->writeLock);
        if (handle->writer) {
            if (const int error = UploadNoLock(*file); error != 0 && file->failure.load() == 0) {
                log_->Error("Changes to /%s stay in the cache; a flush retries (%s)",
                            tree_->PathOf(file->info.inode).c_str(), DescribeErrno(error).c_str());
            }
            --file->writers;
        }
        if (file->writers == 0 && file->writing.load()) {
            spoilt = file->failure.load() != 0;
            if (spoilt || !file->dirty || file->removed) {
                ForgetPendingNoLock(*file);
            }
            if (!spoilt && (!file->dirty || file->removed)) {
                // The server holds every byte of the copy: it serves reads again.
                file->object->SetMode('r', file->size.load(), file->fetcher.get());
                file->writing.store(false);
            }
        }
    }
    // A new file whose first content was given up never was on the server.
    if (spoilt) tree_->DropLocal(file->info.inode);
    std::lock_guard<std::mutex> guard(lock_);
    if (spoilt) {
        // Its space goes now; a later open starts from the server's file.
        DetachNoLock(file);
        CloseNoLock(file);
        lastOpenedVersion_.erase(file->info.inode);
    }
    if (--file->openers > 0 || (file->writing.load() && !file->closed)) return;
    const auto current = current_.find(file->info.inode);
    if (current == current_.end() || current->second != file) {
        CloseNoLock(file);  // an older version nobody reads any more
        return;
    }
    AddUnusedNoLock(file);
    TrimUnusedNoLock();
}

std::shared_ptr<_FS_HANDLE> OpenFiles::BeginRead(const OpenHandle& handle) {
    auto record = std::make_shared<_FS_HANDLE>(*handle.record);
    std::lock_guard<std::mutex> guard(readsLock_);
    if (readsAborted_) CloseRecord(record.get());
    reads_.insert(record);
    return record;
}

void OpenFiles::EndRead(const std::shared_ptr<_FS_HANDLE>& record) {
    std::lock_guard<std::mutex> guard(readsLock_);
    reads_.erase(record);
}

void OpenFiles::AbortReads() {
    std::lock_guard<std::mutex> guard(readsLock_);
    readsAborted_ = true;
    for (const std::shared_ptr<_FS_HANDLE>& record : reads_) CloseRecord(record.get());
}

std::shared_ptr<CachedFile> OpenFiles::MakeFile(const NodeInfo& info) {
    auto file = std::make_shared<CachedFile>();
    file->info = info;
    file->version = info.version;
    file->size.store(info.size);
    file->objectName = "i" + std::to_string(info.inode) + "v" + std::to_string(info.version);
    file->fetcher =
        std::make_unique<HttpFetcher>(info, client_, tree_, log_, stats_, policy_, room_);
    return file;
}

void OpenFiles::CloseNoLock(const std::shared_ptr<CachedFile>& file) {
    if (file->closed) return;
    file->closed = true;
    file->object->Close();
    cache_->Close(file->objectName.c_str());
}

void OpenFiles::AddUnusedNoLock(const std::shared_ptr<CachedFile>& file) {
    file->unusedEntry = unused_.insert(unused_.end(), file);
}

void OpenFiles::RemoveUnusedNoLock(CachedFile& file) {
    if (!file.unusedEntry) return;
    unused_.erase(*file.unusedEntry);
    file.unusedEntry.reset();
}

void OpenFiles::TrimUnusedNoLock() {
    while (unused_.size() > maxUnused_) {
        std::shared_ptr<CachedFile> oldest = unused_.front();
        RemoveUnusedNoLock(*oldest);
        DetachNoLock(oldest);
    }
}

bool OpenFiles::DropUnused() {
    std::lock_guard<std::mutex> guard(lock_);
    if (unused_.empty()) return false;
    while (!unused_.empty()) {
        const std::shared_ptr<CachedFile> oldest = unused_.front();  // outlives its entry
        DetachNoLock(oldest);
    }
    return true;
}

int OpenFiles::BeginWrite(OpenHandle* handle, bool truncate, bool exclusive) {
    CachedFile& file = *handle->file;
    std::lock_guard<std::mutex> guard(file.writeLock);
    if (const int failure = file.failure.load(); failure != 0) return failure;
    if (!file.writing.load()) {
        const long long size = truncate ? 0 : file.size.load();
        file.object->SetMode('w', size, file.fetcher.get());
        if (size > 0) {
            // Writes and the upload work on a complete copy: fetch the rest
            // of the file now, while the server surely has it.
            CheckedFetch checked(file.fetcher.get());
            file.object->FillEmptySectors(&checked);
            if (checked.failed()) {
                const bool full = room_ != nullptr && room_->LacksSpace(size);
                log_->Error("Cannot fetch /%s to change it%s",
                            tree_->PathOf(file.info.inode).c_str(),
                            full ? ": the cache directory is full" : "");
                return full ? ENOSPC : EIO;
            }
        }
        if (!file.dirty) file.etag = file.fetcher->Etag();
        file.size.store(size);
        file.writing.store(true);
    } else if (truncate) {
        if (file.object->Truncate(0) != AE_OK) return FailNoLock(file, 0);
        file.size.store(0);
    }
    if (truncate) MarkDirtyNoLock(file);
    if (exclusive) file.exclusive = true;
    ++file.writers;
    handle->writer = true;
    return 0;
}

long long OpenFiles::Write(OpenHandle* handle, const char* data, size_t size, long long offset) {
    CachedFile& file = *handle->file;
    std::lock_guard<std::mutex> guard(file.writeLock);
    if (const int failure = file.failure.load(); failure != 0) return -failure;
    _WRITEDATA request{};
    request.buffer = data;
    request.offset = offset;
    request.length = static_cast<long long>(size);
    request.handle = handle->record;
    request.fileSize = file.size.load();
    AERROR result = file.object->Write(&request);
    // Objects nobody uses hold cache space that a write may need.
    if (result != AE_OK && DropUnused()) {
        request.fileSize = file.size.load();
        result = file.object->Write(&request);
    }
    if (result != AE_OK) return -FailNoLock(file, static_cast<long long>(size));
    file.size.store(std::max(file.size.load(), offset + request.transferred));
    MarkWrittenNoLock(file);
    return request.transferred;
}

int OpenFiles::Truncate(OpenHandle* handle, long long size) {
    CachedFile& file = *handle->file;
    std::lock_guard<std::mutex> guard(file.writeLock);
    if (size < 0) return EINVAL;
    if (const int failure = file.failure.load(); failure != 0) return failure;
    if (file.object->Truncate(size) != AE_OK) return FailNoLock(file, size - file.size.load());
    file.size.store(size);
    MarkWrittenNoLock(file);
    return 0;
}

void OpenFiles::MarkDirtyNoLock(CachedFile& file) {
    if (file.dirty) return;
    file.dirty = true;
    RecordPendingNoLock(file, tree_->PathOf(file.info.inode));
}

void OpenFiles::RecordPendingNoLock(CachedFile& file, const std::string& path) {
    if (pending_ == nullptr || file.recordedPath == path) return;
    pending_->Record(file.objectName, path);
    file.recordedPath = path;
}

void OpenFiles::ForgetPendingNoLock(CachedFile& file) {
    if (pending_ == nullptr || file.recordedPath.empty()) return;
    pending_->Forget(file.objectName);
    file.recordedPath.clear();
}

void OpenFiles::MarkWrittenNoLock(CachedFile& file) {
    MarkDirtyNoLock(file);
    file.written = true;
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    tree_->Keep(file.info.inode, -1, now);
}

int OpenFiles::FailNoLock(CachedFile& file, long long bytes) {
    const int error = room_ != nullptr && room_->LacksSpace(bytes) ? ENOSPC : EIO;
    file.failure.store(error);
    log_->Error(
        "Changes to /%s are given up: %s; the server keeps its file as it was",
        tree_->PathOf(file.info.inode).c_str(),
        error == ENOSPC ? "the cache directory is full" : "the local copy cannot be written");
    return error;
}

int OpenFiles::Upload(CachedFile& file) {
    std::lock_guard<std::mutex> guard(file.writeLock);
    return UploadNoLock(file);
}

int OpenFiles::Flush(CachedFile& file) {
    std::lock_guard<std::mutex> guard(file.writeLock);
    if (file.dirty && !file.written && file.failure.load() == 0 &&
        !tree_->IsLocal(file.info.inode)) {
        return 0;
    }
    return UploadNoLock(file);
}

int OpenFiles::UploadNoLock(CachedFile& file) {
    if (const int failure = file.failure.load(); failure != 0) return failure;
    if (!file.dirty || file.removed) return 0;
    const Inode inode = file.info.inode;
    const std::string path = tree_->PathOf(inode);
    RecordPendingNoLock(file, path);
    const long long size = file.size.load();
    const std::shared_ptr<_FS_HANDLE> record = OpenRecord(inode);
    long long sent = 0;
    HttpRequest request;
    request.path = path;
    request.ifMatch = file.etag;
    if (file.exclusive) request.headers.push_back("If-None-Match: *");
    // ownCloud-style servers take the file's time from this header.
    if (const timespec modified = tree_->Known(inode).modified; modified.tv_nsec != UTIME_OMIT) {
        request.headers.push_back("X-OC-Mtime: " + std::to_string(modified.tv_sec));
    }
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
    request.rewind = [&sent] {
        sent = 0;
        return true;
    };
    const HttpResponse response = client_->Send(request, {});
    if (!Succeeded(response)) {
        log_->Error("Uploading /%s failed: %s", path.c_str(), DescribeFailure(response).c_str());
        if (response.status == 412 && file.exclusive) return EEXIST;
        return ChangeResult(response);
    }
    file.dirty = false;
    file.written = false;
    file.exclusive = false;
    ForgetPendingNoLock(file);
    // The next upload of this copy replaces what was just sent.
    file.etag = IsStrongEtag(response.etag) ? response.etag : std::string();
    NodeInfo now = tree_->Uploaded(inode, size);
    now.etag = file.etag;
    file.fetcher->Retarget(now);
    std::lock_guard<std::mutex> guard(lock_);
    file.version = now.version;
    return 0;
}

void OpenFiles::GiveUpNoLock(CachedFile& file, const char* reason) {
    const std::string path = tree_->PathOf(file.info.inode);
    const std::shared_ptr<_FS_HANDLE> record = OpenRecord(file.info.inode);
    std::string saved;
    if (pending_ != nullptr) {
        saved =
            pending_->Save(path, file.size.load(),
                           [&](char* buffer, long long offset, long long length) -> long long {
                               _READDATA piece{};
                               piece.buffer = buffer;
                               piece.offset = offset;
                               piece.length = length;
                               piece.handle = record;
                               piece.fileSize = file.size.load();
                               return file.object->Read(&piece) == AE_OK ? piece.transferred : -1;
                           });
        ForgetPendingNoLock(file);
    }
    if (saved.empty()) {
        log_->Error("Changes to /%s are lost: %s, and no copy could be saved", path.c_str(),
                    reason);
    } else {
        log_->Error("Changes to /%s are not on the server: %s; the changed file is saved as %s",
                    path.c_str(), reason, saved.c_str());
    }
    file.dirty = false;
}

std::shared_ptr<CachedFile> OpenFiles::Find(Inode inode) {
    std::lock_guard<std::mutex> guard(lock_);
    const auto found = current_.find(inode);
    return found == current_.end() ? nullptr : found->second;
}

void OpenFiles::DetachNoLock(const std::shared_ptr<CachedFile>& file) {
    if (const auto found = current_.find(file->info.inode);
        found != current_.end() && found->second == file) {
        current_.erase(found);
    }
    if (file->openers == 0) {
        RemoveUnusedNoLock(*file);
        CloseNoLock(file);
    }
}

int OpenFiles::Move(Inode inode, const std::function<int()>& move) {
    const std::shared_ptr<CachedFile> file = Find(inode);
    if (!file) return move();
    std::lock_guard<std::mutex> writeGuard(file->writeLock);
    if (const int error = UploadNoLock(*file); error != 0) return error;
    return move();
}

int OpenFiles::Remove(Inode inode, const std::function<int()>& remove) {
    const std::shared_ptr<CachedFile> file = Find(inode);
    if (!file) return remove();
    std::lock_guard<std::mutex> writeGuard(file->writeLock);
    if (const int error = remove(); error != 0) return error;
    file->dirty = false;
    file->removed = true;
    ForgetPendingNoLock(*file);
    std::lock_guard<std::mutex> guard(lock_);
    DetachNoLock(file);
    lastOpenedVersion_.erase(inode);
    return 0;
}

long long OpenFiles::LocalSize(Inode inode) {
    std::lock_guard<std::mutex> guard(lock_);
    const auto found = current_.find(inode);
    if (found == current_.end() || !found->second->writing.load()) return -1;
    return found->second->size.load();
}

}  // namespace drive
