#include "drive/fuse_ops.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "drive/listing.h"

namespace drive {

namespace {

// The largest read the kernel sends; the session is set up for it.
constexpr unsigned kMaxRead = 1 << 20;

FuseContext& Context(fuse_req_t req) {
    return *static_cast<FuseContext*>(fuse_req_userdata(req));
}

// The attributes of `info`, with the size of a local copy being written.
struct stat AttributesOf(const FuseContext& context, NodeInfo info) {
    if (!info.isDirectory) {
        if (const long long local = context.files->LocalSize(info.inode); local >= 0) {
            info.size = local;
        }
    }
    const mode_t writeBits = context.writable ? 0200 : 0;
    struct stat attributes;
    memset(&attributes, 0, sizeof attributes);
    attributes.st_ino = info.inode;
    attributes.st_mode = info.isDirectory ? S_IFDIR | 0555 | writeBits : S_IFREG | 0444 | writeBits;
    attributes.st_nlink = info.isDirectory ? 2 : 1;
    attributes.st_size = info.size;
    attributes.st_blksize = 64 * 1024;
    attributes.st_blocks = (info.size + 511) / 512;
    attributes.st_mtim.tv_sec = info.mtime;
    attributes.st_ctim.tv_sec = info.mtime;
    attributes.st_atim.tv_sec = info.mtime;
    attributes.st_uid = getuid();
    attributes.st_gid = getgid();
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

OpenHandle* HandleOf(const fuse_file_info* fi) {
    return reinterpret_cast<OpenHandle*>(static_cast<uintptr_t>(fi->fh));
}

Listing* ListingOf(const fuse_file_info* fi) {
    return reinterpret_cast<Listing*>(static_cast<uintptr_t>(fi->fh));
}

void Init(void*, fuse_conn_info* conn) {
    // Reads of up to 1 MiB: libfuse derives the kernel's page limit from
    // max_write.
    conn->max_write = kMaxRead;
    conn->max_read = kMaxRead;
    conn->max_readahead = kMaxRead;
}

void Lookup(fuse_req_t req, fuse_ino_t parent, const char* name) {
    FuseContext& context = Context(req);
    NodeInfo info;
    if (const int error = context.tree->Lookup(parent, name, &info); error != 0) {
        fuse_reply_err(req, error);
        return;
    }
    const fuse_entry_param entry = EntryOf(context, info);
    fuse_reply_entry(req, &entry);
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
    if (const int error = context.files->Open(info, handle, &unchanged); error != 0) return error;
    if (WantsWrite(fi)) {
        if (const int error = context.files->BeginWrite(*handle, fi->flags & O_TRUNC); error != 0) {
            context.files->Release(*handle);
            return error;
        }
        unchanged = false;
    }
    fi->fh = reinterpret_cast<uintptr_t>(*handle);
    fi->direct_io = context.directIo;
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
    int error = context.tree->Stat(inode, &info);
    if (error == 0) error = OpenFile(context, info, fi, &handle);
    if (error != 0) {
        fuse_reply_err(req, error);
    } else if (fuse_reply_open(req, fi) != 0) {
        context.files->Release(handle);
    }
}

// The path on the server of child `name` of directory `parent`.
int ChildPath(FuseContext& context, fuse_ino_t parent, const char* name, std::string* path) {
    NodeInfo directory;
    if (const int error = context.tree->Stat(parent, &directory); error != 0) return error;
    if (!directory.isDirectory) return ENOTDIR;
    *path = directory.path + PercentEncode(name);
    return 0;
}

// Errno value of a change the server answered with `response`.
int ChangeError(const FuseContext& context, const char* what, const std::string& path,
                const HttpResponse& response) {
    if (response.code == CURLE_OK && response.status / 100 == 2) return 0;
    context.log->Error("%s /%s failed: %s (HTTP %ld)", what, path.c_str(),
                       response.code != CURLE_OK ? response.error.c_str() : "refused",
                       response.status);
    switch (response.status) {
        case 403:
            return EACCES;
        case 404:
        case 409:
            return ENOENT;
        case 405:
            return EEXIST;
        case 412:
            return EBUSY;
        case 507:
            return ENOSPC;
        default:
            return EIO;
    }
}

void Create(fuse_req_t req, fuse_ino_t parent, const char* name, mode_t, fuse_file_info* fi) {
    FuseContext& context = Context(req);
    if (!context.writable) {
        fuse_reply_err(req, EROFS);
        return;
    }
    // The empty file exists on the server at once, so that listings show
    // it while it is being written.
    std::string path;
    int error = ChildPath(context, parent, name, &path);
    if (error == 0) {
        HttpRequest request;
        request.path = path;
        request.uploadSize = 0;
        request.upload = [](char*, size_t) -> long long { return 0; };
        if (fi->flags & O_EXCL) request.headers.push_back("If-None-Match: *");
        error = ChangeError(context, "Creating", path, context.client->Send(request, {}));
    }
    NodeInfo info;
    if (error == 0) error = context.tree->Added(parent, name, &info);
    OpenHandle* handle = nullptr;
    fi->flags |= O_TRUNC;
    if (error == 0) error = OpenFile(context, info, fi, &handle);
    if (error != 0) {
        fuse_reply_err(req, error == EBUSY ? EEXIST : error);
        return;
    }
    const fuse_entry_param entry = EntryOf(context, info);
    if (fuse_reply_create(req, &entry, fi) != 0) context.files->Release(handle);
}

// Marks the read's own handle record closed so that the library's wait and
// the fetches it started end.
void OnInterrupt(fuse_req_t, void* data) {
    std::atomic_ref<int32_t>(static_cast<_FS_HANDLE*>(data)->state)
        .store(4, std::memory_order_relaxed);
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
    thread_local std::vector<char> buffer;
    if (buffer.size() < static_cast<size_t>(length)) buffer.resize(length);

    // Every read carries a record of its own. The fetch jobs a read starts
    // (read-ahead among them) keep its record and stop when it is closed,
    // leaving what they had reserved to the readers' time-outs; so only an
    // interrupt of this very read closes it, never the release of the open
    // or an interrupt of another read.
    auto record = std::make_shared<_FS_HANDLE>(*handle->record);
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
    if (interrupted) {
        Stats::Add(context.stats->readErrors, 1);
        fuse_reply_err(req, EINTR);
        return;
    }
    if (result != AE_OK) {
        context.log->Error("Read /%s bytes %lld+%lld failed: %d", file.info.path.c_str(),
                           static_cast<long long>(offset), length, result);
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

void StatFs(fuse_req_t req, fuse_ino_t) {
    struct statvfs info;
    memset(&info, 0, sizeof info);
    info.f_bsize = 64 * 1024;
    info.f_frsize = 64 * 1024;
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
    fuse_reply_err(req, Context(req).files->Upload(*HandleOf(fi)->file));
}
void FSync(fuse_req_t req, fuse_ino_t inode, int, fuse_file_info* fi) {
    Flush(req, inode, fi);
}

// Size changes go to the local copy and, without an open handle (truncate
// by name), straight to the server. Modes, owners and times are not kept
// by the server: they are accepted and left as they are.
void SetAttr(fuse_req_t req, fuse_ino_t inode, struct stat* wanted, int fields,
             fuse_file_info* fi) {
    FuseContext& context = Context(req);
    if (fields & FUSE_SET_ATTR_SIZE) {
        if (!context.writable) {
            fuse_reply_err(req, EROFS);
            return;
        }
        int error = 0;
        if (fi != nullptr && HandleOf(fi)->writer) {
            error = context.files->Truncate(HandleOf(fi), wanted->st_size);
        } else {
            NodeInfo info;
            fuse_file_info own{};
            own.flags = O_WRONLY | (wanted->st_size == 0 ? O_TRUNC : 0);
            OpenHandle* handle = nullptr;
            error = context.tree->Stat(inode, &info);
            if (error == 0) error = OpenFile(context, info, &own, &handle);
            if (error == 0) {
                error = context.files->Truncate(handle, wanted->st_size);
                if (error == 0) error = context.files->Upload(*handle->file);
                context.files->Release(handle);
            }
        }
        if (error != 0) {
            fuse_reply_err(req, error);
            return;
        }
    }
    GetAttr(req, inode, fi);
}
// Sends `method` for the child `name` of `parent` (a directory when
// `directory`), with further `headers`; the parent is listed again
// afterwards. Returns 0 or an errno value.
int ChangeChild(FuseContext& context, const char* method, fuse_ino_t parent, const char* name,
                bool directory, std::vector<std::string> headers = {}) {
    std::string path;
    if (const int error = ChildPath(context, parent, name, &path); error != 0) return error;
    if (directory) path += '/';
    HttpRequest request;
    request.path = path;
    request.method = method;
    request.headers = std::move(headers);
    const int error = ChangeError(context, method, path, context.client->Send(request, {}));
    context.tree->MarkListingStale(parent);
    return error;
}

void MkDir(fuse_req_t req, fuse_ino_t parent, const char* name, mode_t) {
    FuseContext& context = Context(req);
    NodeInfo info;
    int error = context.writable ? 0 : EROFS;
    if (error == 0 && context.tree->Lookup(parent, name, &info) == 0) error = EEXIST;
    if (error == 0) error = ChangeChild(context, "MKCOL", parent, name, true);
    if (error == 0) error = context.tree->Lookup(parent, name, &info);
    if (error != 0) {
        fuse_reply_err(req, error);
        return;
    }
    const fuse_entry_param entry = EntryOf(context, info);
    fuse_reply_entry(req, &entry);
}

// Checks that child `name` of `parent` exists and is a directory exactly
// when `directory`, and (for a directory) that it is empty: the server's
// DELETE and MOVE remove whole trees. Fills `info`.
int CheckChild(FuseContext& context, fuse_ino_t parent, const char* name, bool directory,
               NodeInfo* info) {
    if (const int error = context.tree->Lookup(parent, name, info); error != 0) return error;
    if (info->isDirectory != directory) return directory ? ENOTDIR : EISDIR;
    if (!directory) return 0;
    std::vector<DirEntry> entries;
    if (const int error = context.tree->List(info->inode, &entries); error != 0) return error;
    return entries.empty() ? 0 : ENOTEMPTY;
}

void Remove(fuse_req_t req, fuse_ino_t parent, const char* name, bool directory) {
    FuseContext& context = Context(req);
    NodeInfo info;
    int error = context.writable ? 0 : EROFS;
    if (error == 0) error = CheckChild(context, parent, name, directory, &info);
    if (error == 0) error = ChangeChild(context, "DELETE", parent, name, directory);
    if (error == 0 && !directory) context.files->Removed(info.inode);
    fuse_reply_err(req, error);
}
void Unlink(fuse_req_t req, fuse_ino_t parent, const char* name) {
    Remove(req, parent, name, false);
}
void RmDir(fuse_req_t req, fuse_ino_t parent, const char* name) {
    Remove(req, parent, name, true);
}

// MOVE with the destination's full URL; a file's pending changes are sent
// first, so that the server moves the current bytes.
void Rename(fuse_req_t req, fuse_ino_t parent, const char* name, fuse_ino_t newParent,
            const char* newName, unsigned int flags) {
    FuseContext& context = Context(req);
    NodeInfo source;
    NodeInfo target;
    std::string targetPath;
    int error = context.writable ? 0 : EROFS;
    if (error == 0 && (flags & ~RENAME_NOREPLACE) != 0) error = EINVAL;
    if (error == 0) error = context.tree->Lookup(parent, name, &source);
    if (error == 0) {
        const int found = CheckChild(context, newParent, newName, source.isDirectory, &target);
        if (found == 0 && (flags & RENAME_NOREPLACE)) {
            error = EEXIST;
        } else if (found != ENOENT) {
            error = found;
        }
    }
    if (error == 0) error = ChildPath(context, newParent, newName, &targetPath);
    if (error == 0 && !source.isDirectory) error = context.files->UploadPending(source.inode);
    if (error == 0) {
        const std::string slash = source.isDirectory ? "/" : "";
        error = ChangeChild(context, "MOVE", parent, name, source.isDirectory,
                            {"Destination: " + context.client->baseUrl() + targetPath + slash,
                             std::string("Overwrite: ") + (flags & RENAME_NOREPLACE ? "F" : "T")});
        context.tree->MarkListingStale(newParent);
    }
    NodeInfo moved;
    Inode replaced = 0;
    if (error == 0 &&
        context.tree->Renamed(parent, name, newParent, newName, &moved, &replaced) == 0 &&
        !moved.isDirectory) {
        if (replaced != 0) context.files->Removed(replaced);
        context.files->Moved(moved);
    }
    fuse_reply_err(req, error);
}
void MkNod(fuse_req_t req, fuse_ino_t, const char*, mode_t, dev_t) {
    fuse_reply_err(req, EROFS);
}
void SymLink(fuse_req_t req, const char*, fuse_ino_t, const char*) {
    fuse_reply_err(req, EROFS);
}
void Link(fuse_req_t req, fuse_ino_t, fuse_ino_t, const char*) {
    fuse_reply_err(req, EROFS);
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
