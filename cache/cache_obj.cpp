#include "cache/cache_obj.h"

#include <utility>

#include "cache/readonly_cache.h"
#include "cache/writable_cache.h"

namespace cache {

CacheObj::CacheObj(std::shared_ptr<const CacheDirectory> directory, std::string name, char mode,
                   long long fileSize, IFetch* fetch, std::shared_ptr<ICacheConfig> config,
                   std::string hashIndex)
    : directory(std::move(directory)), name(std::move(name)), config(std::move(config)) {
    hashIndexTexts.push_back(std::move(hashIndex));
    this->hashIndex.store(hashIndexTexts.back().c_str(), std::memory_order_release);
    if (mode != 'r' && mode != 'w') throw AE_INVALID_MODE;
    file = CreateStore(mode, fileSize, fetch);
}

CacheObj::~CacheObj() {
    Close();
}

std::shared_ptr<ICacheFile> CacheObj::CreateStore(char mode, long long fileSize,
                                                  IFetch* fetch) const {
    if (mode == 'r') return std::make_shared<ReadonlyCache>(directory, name, fileSize, config);
    return std::make_shared<WritableCache>(directory, name, fileSize, fetch, config);
}

std::shared_ptr<ICacheFile> CacheObj::CurrentStore() {
    std::lock_guard<std::mutex> guard(lock);
    return file;
}

AERROR CacheObj::Read(_READDATA* request) {
    const std::shared_ptr<ICacheFile> store = CurrentStore();
    if (!store || request == nullptr) return AE_NOT_FOUND;
    return store->Read(request);
}

AERROR CacheObj::Write(_WRITEDATA* request) {
    const std::shared_ptr<ICacheFile> store = CurrentStore();
    if (!store || request == nullptr) return AE_NOT_FOUND;
    const AERROR result = store->Write(request);
    request->fileSize = store->GetFileSize();
    return result;
}

AERROR CacheObj::SetMode(char mode, long long fileSize, IFetch* fetch) {
    if (mode != 'r' && mode != 'w') return AE_INVALID_MODE;
    std::shared_ptr<ICacheFile> replaced;  // released after `lock`
    std::lock_guard<std::mutex> guard(lock);
    if (!file) {
        file = CreateStore(mode, fileSize, fetch);
        return AE_OK;
    }
    const bool readonly = file->IsReadonly();
    if (!readonly && mode == 'r') {
        // The rebuild hands back a ReadonlyCache that took over the writable
        // store's file. ICacheFile has no virtual destructor, so ownership
        // is taken through the concrete type.
        std::shared_ptr<ICacheFile> rebuilt(
            static_cast<ReadonlyCache*>(file->RebuildToReadonlyCache(fetch, config.get())));
        replaced = std::exchange(file, std::move(rebuilt));
    } else if (readonly && mode == 'w') {
        // The sectors of the read-only store are not carried over: the
        // writable store fills itself from the remote.
        std::shared_ptr<ICacheFile> writable = CreateStore('w', fileSize, fetch);
        replaced = std::exchange(file, std::move(writable));
    }
    return AE_OK;
}

AERROR CacheObj::Reserve(long long offset, long long length) {
    std::lock_guard<std::mutex> guard(lock);
    if (!file) return AE_NOT_FOUND;
    return file->Reserve(offset, length);
}

AERROR CacheObj::ClearReserved(long long offset, long long length) {
    std::lock_guard<std::mutex> guard(lock);
    if (!file) return AE_NOT_FOUND;
    return file->ClearReserved(offset, length);
}

AERROR CacheObj::Truncate(long long size) {
    std::lock_guard<std::mutex> guard(lock);
    if (!file) return AE_NOT_FOUND;
    return file->Truncate(size);
}

AERROR CacheObj::FillEmptySectors(IFetch* fetch) {
    std::lock_guard<std::mutex> guard(lock);
    if (!file) return AE_NOT_FOUND;
    return file->FillEmptySectors(fetch);
}

const char* CacheObj::GetHashIndex() {
    return hashIndex.load(std::memory_order_acquire);
}

void CacheObj::SetHashIndex(const char* text) {
    hashIndexTexts.emplace_back(text);
    hashIndex.store(hashIndexTexts.back().c_str(), std::memory_order_release);
}

void CacheObj::Close() {
    std::shared_ptr<ICacheFile> closed;  // released after `lock`
    std::lock_guard<std::mutex> guard(lock);
    if (!file) return;
    file->Close();
    closed = std::move(file);
}

bool CacheObj::IsReadOnly() {
    std::lock_guard<std::mutex> guard(lock);
    return file && file->IsReadonly();
}

long long CacheObj::GetFileSize() {
    std::lock_guard<std::mutex> guard(lock);
    return file ? file->GetFileSize() : 0;
}

void CacheObj::ClearOldCache(bool overLimit) {
    std::lock_guard<std::mutex> guard(lock);
    if (file) file->ClearOldCache(overLimit);
}

void CacheObj::ChangeFileName(std::string newName) {
    std::lock_guard<std::mutex> guard(lock);
    if (file) file->ChangeFileName(std::move(newName));
}

}  // namespace cache
