#include "drive/fuse_ops.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "drive/kernel_readahead.h"
#include "hostkit/result_text.h"

namespace drive {

namespace {

// The largest read the kernel sends; the session is set up for it.
constexpr unsigned kMaxRead = 1 << 20;
// An open checks the file with the server unless the drive learnt about it
// more recently: close-to-open consistency, as NFS gives.
constexpr std::chrono::seconds kOpenCheckAge{1};

FuseContext& Context(fuse_req_t req) {
    return *static_cast<FuseContext*>(fuse_req_userdata(req));
}

// The type and permission bits a node shows: those chmod or its creation
// gave it, else the defaults of its kind less the umask (write bits only
// on a writable remote).
mode_t PresentedMode(const FuseContext& context, const NodeInfo& info) {
    const mode_t type = info.isDirectory ? S_IFDIR : S_IFREG;
    if (info.mode >= 0) return type | static_cast<mode_t>(info.mode);
    const mode_t writeBits = context.writable ? 0222 : 0;
    const mode_t bits = (info.isDirectory ? 0555 : 0444) | writeBits;
    return type | (bits & ~context.owner.umask);
}

// The attributes of `info`, with the size of a local copy being written and
// the mode and time the drive keeps.
struct stat AttributesOf(const FuseContext& context, NodeInfo info) {
    if (!info.isDirectory) {
        if (const long long local = context.files->LocalSize(info.inode); local >= 0) {
            info.size = local;
        }
    }
    const timespec modified =
        info.modified.tv_nsec != UTIME_OMIT ? info.modified : timespec{info.mtime, 0};
    struct stat attributes;
    memset(&attributes, 0, sizeof attributes);
    attributes.st_ino = info.inode;
    attributes.st_mode = PresentedMode(context, info);
    attributes.st_nlink = info.isDirectory ? 2 : 1;
    attributes.st_size = info.size;
    attributes.st_blksize = 64 * 1024;
    attributes.st_blocks = (info.size + 511) / 512;
    // Access and change times follow the modification time.
    attributes.st_mtim = modified;
    attributes.st_ctim = modified;
    attributes.st_atim = modified;
    attributes.st_uid = context.owner.uid;
    attributes.st_gid = context.owner.gid;
    return attributes;
}

// The kernel's entry for `info`: its inode and attributes, kept for the
// attribute time-to-live.
fuse_entry_param EntryOf(const FuseContext& context, const NodeInfo& info) {
    fuse_entry_param entry;
    memset(&entry, 0, sizeof entry);
    entry.ino = info.inode;
    entry.attr = AttributesOf(context, info);
    entry.attr_timeout = context.attributeTtl;
    entry.entry_timeout = context.attributeTtl;
    return entry;
}

// Answers a request that names a node: with its entry, or with `error`.
void ReplyEntry(fuse_req_t req, int error, const NodeInfo& info) {
    if (error != 0) {
        fuse_reply_err(req, error);
        return;
    }
    const fuse_entry_param entry = EntryOf(Context(req), info);
    fuse_reply_entry(req, &entry);
}

OpenHandle* HandleOf(const fuse_file_info* fi) {
    return reinterpret_cast<OpenHandle*>(static_cast<uintptr_t>(fi->fh));
}

Listing* ListingOf(const fuse_file_info* fi) {
    return reinterpret_cast<Listing*>(static_cast<uintptr_t>(fi->fh));
}

void Init(void* userdata, fuse_conn_info* conn) {
    // Reads of up to 1 MiB: libfuse derives the kernel's page limit from
    // max_write.
    conn->max_write = kMaxRead;
    conn->max_read = kMaxRead;
    conn->max_readahead = kMaxRead;
    FuseContext& context = *static_cast<FuseContext*>(userdata);
    RaiseKernelReadahead(context.mountpoint, kDriveReadaheadKib, context.log);
    context.writeOnlyDirect =
        conn->proto_major > 7 || (conn->proto_major == 7 && conn->proto_minor >= 39);
}

void Lookup(fuse_req_t req, fuse_ino_t parent, const char* name) {
    NodeInfo info;
    ReplyEntry(req, Context(req).tree->Lookup(parent, name, &info), info);
}

void GetAttr(fuse_req_t req, fuse_ino_t inode, fuse_file_info*) {
    FuseContext& context = Context(req);
    NodeInfo info;
    if (const int error = context.tree->Stat(inode, &info); error != 0) {
        fuse_reply_err(req, error);
        return;
    }
    const struct stat attributes = AttributesOf(context, info);
    fuse_reply_attr(req, &attributes, context.attributeTtl);
}

void OpenDir(fuse_req_t req, fuse_ino_t inode, fuse_file_info* fi) {
    auto entries = std::make_unique<Listing>();
    if (const int error = Context(req).tree->List(inode, entries.get()); error != 0) {
        fuse_reply_err(req, error);
        return;
    }
    // The listing seen at opendir is what readdir pages through.
    Listing* listing = Context(req).listings.Add(std::move(entries));
    fi->fh = reinterpret_cast<uintptr_t>(listing);
    if (fuse_reply_open(req, fi) != 0) Context(req).listings.Take(listing);
}

void ReadDir(fuse_req_t req, fuse_ino_t inode, size_t size, off_t offset, fuse_file_info* fi) {
    const Listing& entries = *ListingOf(fi);
    std::vector<char> buffer(size);
    size_t used = 0;
    // Offsets 0 and 1 are "." and ".."; entry i is at offset i + 2.
    for (off_t next = offset; next < static_cast<off_t>(entries.size()) + 2; ++next) {
        struct stat attributes;
        memset(&attributes, 0, sizeof attributes);
        const char* name = nullptr;
        if (next < 2) {
            name = next == 0 ? "." : "..";
            attributes.st_ino = inode;
            attributes.st_mode = S_IFDIR;
        } else {
            const DirEntry& entry = entries[next - 2];
            name = entry.name.c_str();
            attributes = AttributesOf(Context(req), entry.info);
        }
        const size_t needed =
            fuse_add_direntry(req, buffer.data() + used, size - used, name, &attributes, next + 1);
        if (needed > size - used) break;
        used += needed;
    }
    fuse_reply_buf(req, buffer.data(), used);
}

void ReleaseDir(fuse_req_t req, fuse_ino_t, fuse_file_info* fi) {
    Context(req).listings.Take(ListingOf(fi));
    fuse_reply_err(req, 0);
}

bool WantsWrite(const fuse_file_info* fi) {
    return (fi->flags & O_ACCMODE) != O_RDONLY || (fi->flags & O_TRUNC);
}

// Opens the file `info` for the kernel's open or create. Returns 0 and
// fills `handle` (owned by context.files until released) and `fi`, or an
// errno value.
int OpenFile(FuseContext& context, const NodeInfo& info, fuse_file_info* fi, OpenHandle** handle) {
    if (info.isDirectory) return EISDIR;
    bool unchanged = false;
    const bool emptied = WantsWrite(fi) && (fi->flags & O_TRUNC);
    if (const int error = context.files->Open(info, handle, &unchanged, emptied); error != 0) {
        return error;
    }
    if (WantsWrite(fi)) {
        if (const int error =
                context.files->BeginWrite(*handle, fi->flags & O_TRUNC, fi->flags & O_EXCL);
            error != 0) {
            context.files->Release(*handle);
            return error;
        }
        unchanged = false;
    }
    fi->fh = reinterpret_cast<uintptr_t>(*handle);
    // What a write-only open writes cannot be read or mapped through it:
    // its bytes go straight to the local copy, without a second copy in the
    // kernel's page cache (on this machine, holding that copy made the
    // upload at close take twice as long).
    fi->direct_io =
        context.directIo || (context.writeOnlyDirect.load() && (fi->flags & O_ACCMODE) == O_WRONLY);
    fi->keep_cache = unchanged && !context.directIo;
    return 0;
}

void Open(fuse_req_t req, fuse_ino_t inode, fuse_file_info* fi) {
    FuseContext& context = Context(req);
    if (WantsWrite(fi) && !context.writable) {
        fuse_reply_err(req, EROFS);
        return;
    }
    NodeInfo info;
    OpenHandle* handle = nullptr;
    int error = context.tree->StatFresh(inode, kOpenCheckAge, &info);
    if (error == 0) error = OpenFile(context, info, fi, &handle);
    if (error != 0) {
        fuse_reply_err(req, error);
    } else if (fuse_reply_open(req, fi) != 0) {
        context.files->Release(handle);
    }
}

// A new file exists in the drive at once and reaches the server with its
// first upload (close or fsync): one PUT for a file written at once.
void Create(fuse_req_t req, fuse_ino_t parent, const char* name, mode_t mode, fuse_file_info* fi) {
    FuseContext& context = Context(req);
    NodeInfo info;
    bool created = false;
    int error = context.writable ? 0 : EROFS;
    if (error == 0) {
        error = context.changes->CreateFile(parent, name, mode & 07777, fi->flags & O_EXCL, &info,
                                            &created);
    }
    if (created) fi->flags |= O_TRUNC;
    OpenHandle* handle = nullptr;
    if (error == 0) error = OpenFile(context, info, fi, &handle);
    if (error != 0) {
        if (created) context.tree->DropLocal(info.inode);
        fuse_reply_err(req, error);
        return;
    }
    const fuse_entry_param entry = EntryOf(context, info);
    if (fuse_reply_create(req, &entry, fi) != 0) {
        // The program never got the file: nothing of it goes to the server.
        if (created) context.files->Remove(info.inode, [] { return 0; });
        context.files->Release(handle);
        if (created) context.tree->DropLocal(info.inode);
    }
}

// Marks the read's own handle record closed so that the library's wait and
// the fetches it started end.
void OnInterrupt(fuse_req_t, void* data) {
    CloseRecord(static_cast<_FS_HANDLE*>(data));
}

void Read(fuse_req_t req, fuse_ino_t, size_t size, off_t offset, fuse_file_info* fi) {
    FuseContext& context = Context(req);
    OpenHandle* handle = HandleOf(fi);
    CachedFile& file = *handle->file;
    // The library fails reads past the end: clip them to the file size.
    const long long fileSize = file.size.load();
    const long long length = std::min<long long>(size, fileSize - offset);
    if (length <= 0) {
        fuse_reply_buf(req, nullptr, 0);
        return;
    }
    // A copy spoilt by a failed write holds bytes the server never gets.
    if (file.writing.load() && file.failure.load() != 0) {
        fuse_reply_err(req, EIO);
        return;
    }
    thread_local std::vector<char> buffer;
    if (buffer.size() < static_cast<size_t>(length)) buffer.resize(length);

    // Every read carries a record of its own. The fetch jobs a read starts
    // (read-ahead among them) keep its record and stop when it is closed,
    // leaving what they had reserved to the readers' time-outs; so only an
    // interrupt of this very read, or the end of the mount, closes it, never
    // the release of the open or an interrupt of another read.
    const std::shared_ptr<_FS_HANDLE> record = context.files->BeginRead(*handle);
    _READDATA request{};
    request.buffer = buffer.data();
    request.offset = offset;
    request.length = length;
    request.handle = record;
    request.fileSize = fileSize;
    // A copy being written is complete: nothing to fetch.
    request.fetch = file.writing.load() ? nullptr : file.fetcher.get();

    fuse_req_interrupt_func(req, OnInterrupt, record.get());
    const long long fetchesBefore = file.fetcher->Calls();
    const AERROR result = file.object->Read(&request);
    const bool interrupted = fuse_req_interrupted(req) != 0;
    fuse_req_interrupt_func(req, nullptr, nullptr);
    context.files->EndRead(record);
    if (interrupted) {
        Stats::Add(context.stats->readErrors, 1);
        fuse_reply_err(req, EINTR);
        return;
    }
    if (result != AE_OK) {
        context.log->Error(
            "Read /%s bytes %lld+%lld failed: %s", context.tree->PathOf(file.info.inode).c_str(),
            static_cast<long long>(offset), length, hostkit::DescribeResult(result).c_str());
        Stats::Add(context.stats->readErrors, 1);
        fuse_reply_err(req, EIO);
        return;
    }
    Stats::Add(context.stats->reads, 1);
    Stats::Add(context.stats->bytesServed, request.transferred);
    if (file.fetcher->Calls() == fetchesBefore) Stats::Add(context.stats->cacheHits, 1);
    fuse_reply_buf(req, buffer.data(), request.transferred);
}

void Release(fuse_req_t req, fuse_ino_t, fuse_file_info* fi) {
    Context(req).files->Release(HandleOf(fi));
    fuse_reply_err(req, 0);
}

// The server's quota where it publishes one. Otherwise a petabyte, all of
// it free: programs that check the free space before they write must not
// take an unknown size for a full disk.
void StatFs(fuse_req_t req, fuse_ino_t) {
    constexpr unsigned long kBlock = 4096;
    constexpr long long kUnknownFree = 1LL << 50;
    constexpr fsfilcnt_t kFileSlots = 1 << 30;
    FuseContext& context = Context(req);
    const Quota quota = context.space != nullptr ? context.space->Get() : Quota();
    const long long available = quota.availableBytes >= 0 ? quota.availableBytes : kUnknownFree;
    const long long used = std::max(quota.usedBytes, 0LL);
    struct statvfs info;
    memset(&info, 0, sizeof info);
    info.f_bsize = 64 * 1024;
    info.f_frsize = kBlock;
    info.f_blocks = static_cast<fsblkcnt_t>((available + used) / kBlock);
    info.f_bfree = static_cast<fsblkcnt_t>(available / kBlock);
    info.f_bavail = info.f_bfree;
    info.f_files = kFileSlots;
    info.f_ffree = kFileSlots;
    info.f_favail = kFileSlots;
    info.f_namemax = 255;
    fuse_reply_statfs(req, &info);
}

void Write(fuse_req_t req, fuse_ino_t, const char* data, size_t size, off_t offset,
           fuse_file_info* fi) {
    const long long written = Context(req).files->Write(HandleOf(fi), data, size, offset);
    if (written < 0) {
        fuse_reply_err(req, static_cast<int>(-written));
    } else {
        fuse_reply_write(req, static_cast<size_t>(written));
    }
}

// Every close() and fsync send the file's pending changes, also those an
// earlier failed close left: their errors reach the program.
void Flush(fuse_req_t req, fuse_ino_t, fuse_file_info* fi) {
    fuse_reply_err(req, Context(req).files->Flush(*HandleOf(fi)->file));
}
void FSync(fuse_req_t req, fuse_ino_t, int, fuse_file_info* fi) {
    fuse_reply_err(req, Context(req).files->Upload(*HandleOf(fi)->file));
}

// Sets the size of `inode`: through a writer's handle in its local copy,
// else (truncate by name) in a copy of its own, sent to the server at once.
int Resize(FuseContext& context, fuse_ino_t inode, long long size, fuse_file_info* fi) {
    if (fi != nullptr && HandleOf(fi)->writer) return context.files->Truncate(HandleOf(fi), size);
    NodeInfo info;
    fuse_file_info own{};
    own.flags = O_WRONLY | (size == 0 ? O_TRUNC : 0);
    OpenHandle* handle = nullptr;
    int error = context.tree->StatFresh(inode, kOpenCheckAge, &info);
    if (error == 0) error = OpenFile(context, info, &own, &handle);
    if (error != 0) return error;
    error = context.files->Truncate(handle, size);
    if (error == 0) error = context.files->Upload(*handle->file);
    context.files->Release(handle);
    return error;
}

// Owners are the drive's to present, not the server's to keep: changing
// them answers EPERM, as a local file system does for a user who may not.
int CheckOwner(FuseContext& context, fuse_ino_t inode, const struct stat& wanted, int fields) {
    if (!(fields & (FUSE_SET_ATTR_UID | FUSE_SET_ATTR_GID))) return 0;
    NodeInfo info;
    if (const int error = context.tree->Stat(inode, &info); error != 0) return error;
    const struct stat presented = AttributesOf(context, info);
    if ((fields & FUSE_SET_ATTR_UID) && wanted.st_uid != presented.st_uid) return EPERM;
    if ((fields & FUSE_SET_ATTR_GID) && wanted.st_gid != presented.st_gid) return EPERM;
    return 0;
}

// chmod and utimensat: the drive keeps the mode and the time (see
// RemoteTree::Keep); the access time follows the modification time.
void KeepAttributes(FuseContext& context, fuse_ino_t inode, const struct stat& wanted, int fields) {
    const int mode = fields & FUSE_SET_ATTR_MODE ? static_cast<int>(wanted.st_mode & 07777) : -1;
    timespec modified{0, UTIME_OMIT};
    if (fields & FUSE_SET_ATTR_MTIME_NOW) {
        clock_gettime(CLOCK_REALTIME, &modified);
    } else if (fields & FUSE_SET_ATTR_MTIME) {
        modified = wanted.st_mtim;
    }
    if (mode >= 0 || modified.tv_nsec != UTIME_OMIT) context.tree->Keep(inode, mode, modified);
}

void SetAttr(fuse_req_t req, fuse_ino_t inode, struct stat* wanted, int fields,
             fuse_file_info* fi) {
    FuseContext& context = Context(req);
    int error = context.writable ? 0 : EROFS;
    if (error == 0) error = CheckOwner(context, inode, *wanted, fields);
    if (error == 0 && (fields & FUSE_SET_ATTR_SIZE)) {
        error = Resize(context, inode, wanted->st_size, fi);
    }
    if (error != 0) {
        fuse_reply_err(req, error);
        return;
    }
    KeepAttributes(context, inode, *wanted, fields);
    GetAttr(req, inode, fi);
}

void MkDir(fuse_req_t req, fuse_ino_t parent, const char* name, mode_t mode) {
    FuseContext& context = Context(req);
    NodeInfo info;
    const int error = context.writable
                          ? context.changes->MakeDirectory(parent, name, mode & 07777, &info)
                          : EROFS;
    ReplyEntry(req, error, info);
}

void Unlink(fuse_req_t req, fuse_ino_t parent, const char* name) {
    FuseContext& context = Context(req);
    fuse_reply_err(req, context.writable ? context.changes->Remove(parent, name, false) : EROFS);
}

void RmDir(fuse_req_t req, fuse_ino_t parent, const char* name) {
    FuseContext& context = Context(req);
    fuse_reply_err(req, context.writable ? context.changes->Remove(parent, name, true) : EROFS);
}

void Rename(fuse_req_t req, fuse_ino_t parent, const char* name, fuse_ino_t newParent,
            const char* newName, unsigned int flags) {
    FuseContext& context = Context(req);
    int error = context.writable ? 0 : EROFS;
    if (error == 0 && (flags & ~RENAME_NOREPLACE) != 0) error = EINVAL;
    if (error == 0) {
        error = context.changes->Move(parent, name, newParent, newName,
                                      (flags & RENAME_NOREPLACE) == 0);
    }
    fuse_reply_err(req, error);
}

// A web server keeps files and directories only: links and special files
// are not supported where changes are, and refused as any change where
// they are not.
void ReplyUnsupported(fuse_req_t req) {
    fuse_reply_err(req, Context(req).writable ? ENOTSUP : EROFS);
}
void MkNod(fuse_req_t req, fuse_ino_t, const char*, mode_t, dev_t) {
    ReplyUnsupported(req);
}
void SymLink(fuse_req_t req, const char*, fuse_ino_t, const char*) {
    ReplyUnsupported(req);
}
void Link(fuse_req_t req, fuse_ino_t, fuse_ino_t, const char*) {
    ReplyUnsupported(req);
}

fuse_lowlevel_ops MakeOperations() {
    fuse_lowlevel_ops ops;
    memset(&ops, 0, sizeof ops);
    ops.init = Init;
    ops.lookup = Lookup;
    ops.getattr = GetAttr;
    ops.opendir = OpenDir;
    ops.readdir = ReadDir;
    ops.releasedir = ReleaseDir;
    ops.open = Open;
    ops.read = Read;
    ops.release = Release;
    ops.statfs = StatFs;
    ops.setattr = SetAttr;
    ops.write = Write;
    ops.flush = Flush;
    ops.fsync = FSync;
    ops.create = Create;
    ops.mkdir = MkDir;
    ops.mknod = MkNod;
    ops.unlink = Unlink;
    ops.rmdir = RmDir;
    ops.rename = Rename;
    ops.symlink = SymLink;
    ops.link = Link;
    return ops;
}

}  // namespace

const fuse_lowlevel_ops& DriveOperations() {
    static const fuse_lowlevel_ops ops = MakeOperations();
    return ops;
}

}  // namespace drive
