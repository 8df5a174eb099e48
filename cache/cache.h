// The boundary between a drive client (the host) and the cache library.
//
// A host binds its logger and its job queue, creates one cache per cache
// directory with InitCache, opens one cache object per remote file and
// forwards reads and writes to it. The library calls back into the host's
// fetcher for data it does not hold.
//
// Host and library are built separately and meet only through the tables of
// operations below: the slot order of every interface and the layout of every
// record are fixed. Interfaces have no virtual destructor; nobody deletes an
// object through them. This header compiles on its own as C++17.
#ifndef CACHE_CACHE_H_
#define CACHE_CACHE_H_

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

// Version of this header and of the library built from it. A host may
// compare them at compile time; the library exports no version function.
#define CACHE_VERSION_MAJOR 0
#define CACHE_VERSION_MINOR 1
#define CACHE_VERSION_PATCH 0
#define CACHE_VERSION_STRING "0.1.0"

#if defined(_WIN32)
#define CACHE_EXPORT __declspec(dllexport)
#else
#define CACHE_EXPORT __attribute__((visibility("default")))
#endif

// Result codes. Operations return them; constructors and JSON lookups throw
// them as exception objects.
//
// Which operations return each result code (besides AE_OK):
//   AE_NOT_FOUND          ICacheObj operations without a store (Close
//                         aside); ICache::Open (thrown), Close, Rehash and
//                         SetConfiguration for a null argument; InitCache
//                         and ReleaseCache for a null argument
//   AE_READ_NOT_SERVED    Read: a needed sector vanished, a fetch failed, or
//                         the wait timed out
//   AE_TRUNCATE_FAILED    Truncate of a read-only store
//   AE_HANDLE_CLOSED      Read of a read-only store, the handle closed
//   AE_LIMIT_TOO_SMALL    ICache::SetLimit
//   AE_INVALID_MODE       ICache::Open (thrown), ICacheObj::SetMode
//   AE_CREATE_DIRECTORY_FAILED  InitCache
//   AE_CREATE_FILE_FAILED ICache::Open and ICacheObj::SetMode (thrown)
//   AE_INVALID_HANDLE     Read, Write, Reserve, Truncate on a closed store;
//                         ICache::Rehash of an unknown name
//   AE_NOT_ALIGNED        Reserve; a fetcher's piece refused by FetchWrite
//   AE_WRITE_FAILED       Write (failure, time-out, closed handle, vanished
//                         sector); Truncate of a writable store; FetchWrite
//   AE_READ_FAILED        Read: an invalid request or the cache file
//                         unreadable
//   AE_FETCH_QUEUED       internal only: never returned to a host
//   AE_NOTHING_RESERVED   Reserve
//   AE_INVALID_CONFIG     ICache::SetConfiguration
enum AERROR : int32_t {
    AE_OK = 0,
    // Nothing to act on: a cache object without a store, a null
    // configuration text, a JSON path that names no value.
    AE_NOT_FOUND = 2,
    // A read could not be served: a needed sector vanished or the wait for
    // a fetched sector exceeded the read's time-out.
    AE_READ_NOT_SERVED = 8,
    // Truncating a read-only cache file failed.
    AE_TRUNCATE_FAILED = 9,
    // The host closed the request's handle while the read waited.
    AE_HANDLE_CLOSED = 28,
    // A storage limit below 64 MiB was requested.
    AE_LIMIT_TOO_SMALL = 3001,
    // An open mode other than 'r' or 'w'.
    AE_INVALID_MODE = 3002,
    // The cache directory could not be created.
    AE_CREATE_DIRECTORY_FAILED = 3003,
    // A cache file could not be created.
    AE_CREATE_FILE_FAILED = 3004,
    // The store's cache file is not open; or a name unknown to Rehash.
    AE_INVALID_HANDLE = 3005,
    // A cache offset not aligned to the 64 KiB sector size.
    AE_NOT_ALIGNED = 3006,
    // A write or fetch write failed, timed out or met a closed handle.
    AE_WRITE_FAILED = 3007,
    // Seeking or reading the cache file failed.
    AE_READ_FAILED = 3008,
    // Not cached yet: fetches for the data were queued.
    AE_FETCH_QUEUED = 3013,
    // Reserve reserved nothing new: the range is cached or being fetched.
    AE_NOTHING_RESERVED = 3014,
    // A configuration text that is not JSON, or a failure applying it.
    AE_INVALID_CONFIG = 6001,
};

// Severity of a log line, always united with the module bit LL_CACHE.
enum LOGLEVEL : int32_t {
    LL_DETAIL = 1,
    LL_INFO = 2,
    LL_ERROR = 8,
    LL_CACHE = 512,
};

inline LOGLEVEL operator|(LOGLEVEL a, LOGLEVEL b) {
    return static_cast<LOGLEVEL>(static_cast<int32_t>(a) | static_cast<int32_t>(b));
}

// Flags of a read request.
enum RD_FLAGS : uint64_t {
    RD_NONE = 0,
    // Fetch the whole remote file at once.
    RD_FETCH_ALL = 1,
};

inline RD_FLAGS operator&(RD_FLAGS a, RD_FLAGS b) {
    return static_cast<RD_FLAGS>(static_cast<uint64_t>(a) & static_cast<uint64_t>(b));
}

// The host's handle of an open remote file, shared between host and library.
// A state above 3 means the host closed it (IsClosedState): waiting reads,
// writes and fetch jobs give up when they see it. The host changes `state`
// on its own threads; the library reads it atomically.
struct _FS_HANDLE {
    int32_t state;
    int64_t data;
    int64_t hostHandle;
    int64_t hostReserved1;  // the host's own; never touched by the library
    int64_t hostReserved2;  // the host's own; never touched by the library
};

// The state a host stores in _FS_HANDLE::state to close the handle.
inline constexpr int32_t kHandleClosedState = 4;

// True when a handle in `state` is closed: any state above 3.
inline bool IsClosedState(int32_t state) {
    return state >= kHandleClosedState;
}

class IFetch;

// A read request. Every field is 64 bits wide but the handle (two words).
struct _READDATA {
    char* buffer;                        // destination of the bytes
    long long offset;                    // remote offset of the first byte
    long long length;                    // bytes requested
    long long transferred;               // out: bytes delivered
    std::shared_ptr<_FS_HANDLE> handle;  // passed on to every fetch of the read
    long long fileSize;                  // remote file size as the host knows it
    IFetch* fetch;                       // null: serve only what is cached
    long long timeout;                   // ms; 0 = configured default, < 0 = no limit
    RD_FLAGS flags;
};

// A write request; shared fields stand where they stand in _READDATA.
struct _WRITEDATA {
    const char* buffer;                  // source bytes
    long long offset;                    // remote offset of the first byte
    long long length;                    // bytes to write
    long long transferred;               // out: bytes written
    std::shared_ptr<_FS_HANDLE> handle;  // passed on to the fetches of the write
    long long fileSize;                  // out: store's size after the write
    IFetch* fetch;                       // null: fetch nothing
    long long timeout;                   // ms; 0 = 10000, < 0 = no limit
};

// The configuration a cache applies, one field per configuration key.
struct _CACHECONFIG {
    long long rahit;          // sequential reads before read-ahead starts
    long long ramin;          // smallest read-ahead, bytes
    long long ramax;          // largest read-ahead, bytes
    long long readtimeout;    // default read time-out, ms
    long long readfetchmax;   // largest single fetch of a large read-ahead, bytes
    long long clrperiod;      // interval between eviction passes, ms
    long long clrused;        // age (s) after which a read sector is dropped
    long long clrunused;      // age (s) after which any sector is dropped
    long long clroverused;    // clrused while over the storage limit
    long long clroverunused;  // clrunused while over the storage limit
};

static_assert(sizeof(long long) == 8 && sizeof(void*) == 8, "64-bit platform required");
static_assert(sizeof(std::shared_ptr<_FS_HANDLE>) == 16, "handle must be two words");
static_assert(sizeof(AERROR) == 4 && sizeof(LOGLEVEL) == 4 && sizeof(RD_FLAGS) == 8,
              "enum widths are part of the boundary");
static_assert(offsetof(_FS_HANDLE, state) == 0 && offsetof(_FS_HANDLE, data) == 8 &&
                  offsetof(_FS_HANDLE, hostHandle) == 16 && sizeof(_FS_HANDLE) == 40,
              "_FS_HANDLE layout");
static_assert(offsetof(_READDATA, buffer) == 0 && offsetof(_READDATA, offset) == 8 &&
                  offsetof(_READDATA, length) == 16 && offsetof(_READDATA, transferred) == 24 &&
                  offsetof(_READDATA, handle) == 32 && offsetof(_READDATA, fileSize) == 48 &&
                  offsetof(_READDATA, fetch) == 56 && offsetof(_READDATA, timeout) == 64 &&
                  offsetof(_READDATA, flags) == 72 && sizeof(_READDATA) == 80,
              "_READDATA layout");
static_assert(offsetof(_WRITEDATA, buffer) == 0 && offsetof(_WRITEDATA, offset) == 8 &&
                  offsetof(_WRITEDATA, length) == 16 && offsetof(_WRITEDATA, transferred) == 24 &&
                  offsetof(_WRITEDATA, handle) == 32 && offsetof(_WRITEDATA, fileSize) == 48 &&
                  offsetof(_WRITEDATA, fetch) == 56 && offsetof(_WRITEDATA, timeout) == 64 &&
                  sizeof(_WRITEDATA) == 72,
              "_WRITEDATA layout");
static_assert(sizeof(_CACHECONFIG) == 80 && offsetof(_CACHECONFIG, clroverunused) == 72,
              "_CACHECONFIG layout");

// Receives fetched bytes. FetchWrite stores `length` bytes from `data` at
// remote offset `offset` and reports the count stored through `written`
// (which may be null).
class IFetchCallback {
public:
    virtual AERROR FetchWrite(long long offset, const char* data, long length, long* written) = 0;

protected:
    ~IFetchCallback() = default;
};

// A job posted to the host's queue. Exactly one of Process or Canceled is
// called, with the context the job was queued with; the job destroys itself
// at the end of either.
class IAsyncObj {
public:
    virtual void Process(void* context) = 0;
    virtual void Canceled(void* context) = 0;

protected:
    ~IAsyncObj() = default;
};

// The host's fetcher. Fetch is synchronous: every piece of the range reaches
// sink->FetchWrite before it returns; 0 means everything was delivered.
// Every piece starts on a 64 KiB sector boundary and covers whole sectors,
// except the piece that ends at the end of the remote file. A piece that
// starts inside a sector already cached is stored at its place in that
// sector; a read-only store refuses one that starts inside a sector it lacks
// or past the bytes it holds of it. A sector left short of both 64 KiB and
// the end of the file is fetched again before it is read. Pieces may come
// from any thread, but never two at once: a writable store fills its gaps
// with its lock held by the thread that called Fetch.
class IFetch {
public:
    virtual AERROR Fetch(long long offset, long long length, std::shared_ptr<_FS_HANDLE> handle,
                         IFetchCallback* sink) = 0;
    virtual long long GetHostHandle() = 0;

protected:
    ~IFetch() = default;
};

// The host's job queue. Queue hands the job to a worker, which later calls
// exactly one of its Process or Canceled, with the same context, for every
// job it was given, also while the queue shuts down: a store's Close waits
// until every job it posted has ended, so a job that is dropped silently
// makes it wait forever.
class IAsyncQueue {
public:
    virtual bool Queue(IAsyncObj* job, void* context) = 0;

protected:
    ~IAsyncQueue() = default;
};

// The host's logger. The library calls only LogV, with an unformatted
// printf-style format and its arguments.
class ILog {
public:
    virtual void Log(LOGLEVEL level, const char* format, ...) = 0;
    virtual void LogW(LOGLEVEL level, const wchar_t* format, ...) = 0;
    virtual void LogV(LOGLEVEL level, const char* format, va_list args) = 0;

protected:
    ~ILog() = default;
};

class ICacheIO {
public:
    virtual AERROR Read(_READDATA* request) = 0;
    virtual AERROR Write(_WRITEDATA* request) = 0;

protected:
    ~ICacheIO() = default;
};

// One opened remote file, shared between the host and the cache's table
// (ICache::Open hands out shared ownership). Any host thread may call any
// operation at any time; Close comes last. The object owns one store at a
// time: a sparse read-only one (mode 'r') or a dense writable copy ('w').
class ICacheObj : public ICacheIO {
public:
    // ICacheIO::Read, served by the current store: 0 with
    // request->transferred set; AE_NOT_FOUND without a store or for a null
    // request; otherwise the store's failure (AE_READ_NOT_SERVED,
    // AE_HANDLE_CLOSED, AE_INVALID_HANDLE, AE_READ_FAILED). The record is
    // the caller's and is only used during the call; a read with a fetcher
    // may block until the data arrives or request->timeout passes.
    // ICacheIO::Write, the same way: 0 with request->transferred set, and
    // request->fileSize receives the store's size afterwards (also after a
    // failure); AE_NOT_FOUND without a store; AE_WRITE_FAILED,
    // AE_INVALID_HANDLE.

    // Switches the store to `mode`: 'r' rebuilds a writable copy into a
    // read-only store, 'w' drops a read-only store for a fresh writable one
    // of `fileSize` bytes filled through `fetch` (which is not kept); a
    // closed object gets a fresh store of the mode; a store already of the
    // mode is kept and `fileSize` and `fetch` are ignored. 0, or
    // AE_INVALID_MODE (nothing changed) for any other mode. A store that
    // cannot be created throws its AERROR (AE_CREATE_FILE_FAILED) and the
    // object keeps the store it had.
    virtual AERROR SetMode(char mode, long long fileSize, IFetch* fetch) = 0;
    // Announces that the host will fetch [offset, offset + length) itself:
    // 0 when at least one sector is newly reserved, AE_NOTHING_RESERVED when
    // none (cached, being fetched, or the range invalid or larger than the
    // disk), AE_NOT_ALIGNED when `offset` lies inside an absent sector,
    // AE_INVALID_HANDLE when the store is closed, AE_NOT_FOUND without a
    // store. A writable store reserves nothing and returns 0.
    virtual AERROR Reserve(long long offset, long long length) = 0;
    // Gives up the reservations the range touches: 0 (AE_NOT_FOUND without
    // a store).
    virtual AERROR ClearReserved(long long offset, long long length) = 0;
    // Sets the cache file's size: 0; AE_TRUNCATE_FAILED (read-only) or
    // AE_WRITE_FAILED (writable) when the file system refuses;
    // AE_INVALID_HANDLE when closed; AE_NOT_FOUND without a store.
    virtual AERROR Truncate(long long size) = 0;
    // Fetches every sector a writable copy still lacks, through `fetch`
    // (not kept), before returning: 0 (also for a read-only store, which has
    // nothing to fill); AE_NOT_FOUND without a store.
    virtual AERROR FillEmptySectors(IFetch* fetch) = 0;
    // The object's hash index text (its name, or Rehash's `newName`). The
    // object owns it; it stays valid for the object's life.
    virtual const char* GetHashIndex() = 0;
    // Closes and drops the store; later requests answer AE_NOT_FOUND until
    // SetMode attaches a new one. Calling it again does nothing. The object
    // itself ends with its last shared owner.
    virtual void Close() = 0;

protected:
    ~ICacheObj() = default;
};

// One cache directory, created by InitCache and owned by the library until
// ReleaseCache. Any host thread may call any operation.
class ICache {
public:
    // The storage limit in bytes (at least 64 MiB, at most what the disk
    // gives); negative for a limit set beyond the largest signed value.
    virtual long long GetLimit() = 0;
    // Always 0.
    virtual long long GetUsedBytes() = 0;
    // Sets the storage limit: 0, or AE_LIMIT_TOO_SMALL below 64 MiB with the
    // limit unchanged. A limit beyond what the disk gives is lowered.
    virtual AERROR SetLimit(unsigned long long bytes) = 0;
    // The object of remote file `name` (exact text), shared with the cache's
    // table. When `name` is not open yet a new object is created in `mode`
    // ('r' or 'w') for a file of `fileSize` bytes, a writable one filled
    // through `fetch` (not kept); for an open name the three are ignored.
    // Throws an AERROR when the object cannot be created: AE_INVALID_MODE,
    // AE_CREATE_FILE_FAILED, or AE_NOT_FOUND for a null name. After a
    // failure Open of that name returns null until Close(name).
    virtual std::shared_ptr<ICacheObj> Open(const char* name, char mode, long long fileSize,
                                            IFetch* fetch) = 0;
    // Drops the table's reference to `name`'s object; the host's references
    // keep it working. 0, also for an unknown name; AE_NOT_FOUND for null.
    virtual AERROR Close(const char* name) = 0;
    // After the remote file `name` was renamed: moves its object to the key
    // `newName` (replacing any object there), makes `newName` its hash index
    // and `newFileName` the name its log lines show. 0; AE_INVALID_HANDLE
    // when `name` holds no object; AE_NOT_FOUND when an argument is null.
    virtual AERROR Rehash(const char* name, const char* newName, const char* newFileName) = 0;
    // Applies a JSON configuration text: 0; AE_NOT_FOUND for null;
    // AE_INVALID_CONFIG when it is not JSON (nothing changed) or cannot be
    // applied.
    virtual AERROR SetConfiguration(const char* jsonText) = 0;

protected:
    ~ICache() = default;
};

// Where cache objects and their stores read the storage limit and the
// applied configuration.
class ICacheConfig {
public:
    virtual long long GetQuota() = 0;
    virtual _CACHECONFIG GetConfig() = 0;

protected:
    ~ICacheConfig() = default;
};

// A per-file store: sparse read-only or dense writable.
class ICacheFile {
public:
    virtual AERROR Read(_READDATA* request) = 0;
    virtual AERROR Write(_WRITEDATA* request) = 0;
    // 0 when at least one block of the range is now reserved, 3014 when none.
    virtual AERROR Reserve(long long offset, long long length) = 0;
    virtual AERROR ClearReserved(long long offset, long long length) = 0;
    virtual AERROR Close() = 0;
    virtual AERROR Truncate(long long size) = 0;
    virtual bool IsReadonly() = 0;
    // A new store of the other kind (the caller owns it), or null.
    virtual ICacheFile* RebuildToWritableCache(IFetch* fetch, ICacheConfig* config) = 0;
    virtual ICacheFile* RebuildToReadonlyCache(IFetch* fetch, ICacheConfig* config) = 0;
    virtual void ClearOldCache(bool overLimit) = 0;
    virtual long long GetFileSize() = 0;
    virtual long long GetLargestEmptyOffset(long long offset) = 0;
    virtual AERROR FillEmptySectors(IFetch* fetch) = 0;
    virtual void ChangeFileName(std::string newName) = 0;

protected:
    ~ICacheFile() = default;
};

extern "C" {
// Creates (or finds) the cache of directory `path` and stores it in *cache.
CACHE_EXPORT AERROR InitCache(const char* path, unsigned long long limit, ICache** cache);
// Destroys the cache of directory `path`; objects the host holds live on.
CACHE_EXPORT AERROR ReleaseCache(const char* path);
// Binds the logger that receives every log line; false for null.
CACHE_EXPORT bool Cache_BindLogger(ILog* log);
CACHE_EXPORT void Cache_UnbindLogger();
// Binds the queue that runs fetch jobs; false for null. Without a queue,
// jobs run at once on the posting thread.
CACHE_EXPORT bool Cache_BindAsyncQ(IAsyncQueue* queue);
CACHE_EXPORT void Cache_UnbindAsyncQ();
}

#endif  // CACHE_CACHE_H_
