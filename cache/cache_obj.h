// CacheObj: what the host holds for one opened remote file.
//
// A cache object owns exactly one store at a time: a sparse ReadonlyCache
// while the file is only read, a dense WritableCache once the host writes to
// it, or none after Close. It does no caching itself; it forwards each
// request to the current store and serialises the switching of stores.
//
// Threads: any host thread may call any operation, and the quota thread calls
// IsReadOnly, GetFileSize and ClearOldCache. `lock` guards only `file`.
// Read and Write hold it just long enough to take their own reference to the
// store and call the store without it, so a long read waiting for a fetch
// never blocks a mode switch; a store replaced meanwhile lives until the last
// such call returns. Every other operation calls the store with `lock` held,
// so reservations, truncation and fills never interleave with a switch. Lock
// order: this object's lock, then the store's.
#ifndef CACHE_CACHE_OBJ_H_
#define CACHE_CACHE_OBJ_H_

#include <atomic>
#include <deque>
#include <memory>
#include <mutex>
#include <string>

#include "cache/cache.h"
#include "cache/cache_directory.h"

namespace cache {

class CacheObj : public ICacheObj {
  public:
    // Builds the first store for remote file `name` in `directory`, which
    // this object and its stores keep open: mode 'r' a ReadonlyCache, 'w' a
    // WritableCache filled through `fetch` (which is not kept). Throws
    // AE_INVALID_MODE for any other mode; a store's own AERROR passes through unchanged. `config`
    // is shared with every store this object creates. `hashIndex` is an opaque text the manager
    // attaches to the object.
    CacheObj(std::shared_ptr<const CacheDirectory> directory, std::string name, char mode,
             long long fileSize, IFetch* fetch, std::shared_ptr<ICacheConfig> config,
             std::string hashIndex);
    CacheObj(const CacheObj&) = delete;
    CacheObj& operator=(const CacheObj&) = delete;

    // The store's result; AE_NOT_FOUND (2) when no store is attached or the
    // request is null. The store is called without `lock`.
    AERROR Read(_READDATA* request) override;
    // As Read. With a store attached, request->fileSize receives the store's
    // size afterwards, whether or not the write succeeded; without one the
    // record is left untouched.
    AERROR Write(_WRITEDATA* request) override;

    // Switches the store to mode 'r' or 'w': a writable store is rebuilt
    // into a read-only one (a null rebuild leaves no store and still returns
    // 0); a read-only store is dropped for a fresh writable one; a closed
    // object gets a fresh store of the mode; a store already of the mode is
    // kept and `fileSize` and `fetch` are ignored. AE_INVALID_MODE for any
    // other mode, with nothing changed. A store constructor's AERROR is
    // thrown, and the object keeps the store it had.
    AERROR SetMode(char mode, long long fileSize, IFetch* fetch) override;

    // Forwarded to the store with `lock` held; AE_NOT_FOUND without a store.
    AERROR Reserve(long long offset, long long length) override;
    AERROR ClearReserved(long long offset, long long length) override;
    AERROR Truncate(long long size) override;
    AERROR FillEmptySectors(IFetch* fetch) override;

    // The hash index text, owned by this object and valid for its lifetime,
    // also after a later SetHashIndex. Takes no lock; may race SetHashIndex.
    const char* GetHashIndex() override;

    // Closes and drops the store; later requests answer as above until a
    // SetMode attaches a new one. Calling it again does nothing.
    void Close() override;

    // Closes the store first.
    virtual ~CacheObj();

    // Replaces the hash index with a copy of `text`. Every earlier text is
    // kept for the object's life, so a pointer from GetHashIndex stays valid
    // and a reader racing a replacement sees either text. Takes no lock.
    // REQUIRES: calls are serialised (the manager holds its table lock).
    virtual void SetHashIndex(const char* text);

    // The store's answers, taken under `lock`: false, 0 and nothing when no
    // store is attached.
    bool IsReadOnly();
    long long GetFileSize();
    void ClearOldCache(bool overLimit);
    // Renames the store for its log lines. The object keeps the name it was
    // opened with: a store created later by SetMode takes that name.
    void ChangeFileName(std::string newName);

  private:
    // A new store of `mode` ('r' or 'w') built from this object's directory,
    // name and configuration.
    std::shared_ptr<ICacheFile> CreateStore(char mode, long long fileSize, IFetch* fetch) const;
    // The current store, or null. Takes `lock` to copy it.
    std::shared_ptr<ICacheFile> CurrentStore();

    const std::shared_ptr<const CacheDirectory> directory;
    const std::string name;
    const std::shared_ptr<ICacheConfig> config;

    // Every hash index this object had, kept for its life; `hashIndex`
    // points into the last one. Only SetHashIndex appends, serialised by
    // its callers.
    std::deque<std::string> hashIndexTexts;
    std::atomic<const char*> hashIndex;

    std::mutex lock;  // guards file
    std::shared_ptr<ICacheFile> file;
};

}  // namespace cache

#endif  // CACHE_CACHE_OBJ_H_
