#include "drive/fuse_ops.h"

#include <sys/stat.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <memory>
#include <vector>

namespace drive {

namespace {

// The largest read the kernel sends; the session is set up for it.
constexpr unsigned kMaxRead = 1 << 20;

FuseContext& Context(fuse_req_t req) {
    return *static_cast<FuseContext*>(fuse_req_userdata(req));
}

struct stat AttributesOf(const NodeInfo& info) {
    struct stat attributes;
    memset(&attributes, 0, sizeof attributes);
    attributes.st_ino = info.inode;
    attributes.st_mode = info.isDirectory ? S_IFDIR | 0555 : S_IFREG | 0444;
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

OpenHandle* HandleOf(const fuse_file_info* fi) {
    return reinterpret_cast<OpenHandle*>(static_cast<uintptr_t>(fi->fh));
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
    fuse_entry_param entry;
    memset(&entry, 0, sizeof entry);
    entry.ino = info.inode;
    entry.attr = AttributesOf(info);
    entry.attr_timeout = context.attributeTtl;
    entry.entry_timeout = context.attributeTtl;
    fuse_reply_entry(req, &entry);
}

void GetAttr(fuse_req_t req, fuse_ino_t inode, fuse_file_info*) {
    FuseContext& context = Context(req);
    NodeInfo info;
    if (const int error = context.tree->Stat(inode, &info); error != 0) {
        fuse_reply_err(req, error);
        return;
    }
    const struct stat attributes = AttributesOf(info);
    fuse_reply_attr(req, &attributes, context.attributeTtl);
}

void OpenDir(fuse_req_t req, fuse_ino_t inode, fuse_file_info* fi) {
    auto entries = std::make_unique<std::vector<DirEntry>>();
    if (const int error = Context(req).tree->List(inode, entries.get()); error != 0) {
        fuse_reply_err(req, error);
        return;
    }
    // The listing seen at opendir is what readdir pages through.
    fi->fh = reinterpret_cast<uintptr_t>(entries.get());
    if (fuse_reply_open(req, fi) == 0) entries.release();
}

void ReadDir(fuse_req_t req, fuse_ino_t inode, size_t size, off_t offset, fuse_file_info* fi) {
    const auto& entries = *reinterpret_cast<std::vector<DirEntry>*>(static_cast<uintptr_t>(fi->fh));
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
            attributes = AttributesOf(entry.info);
        }
        const size_t needed =
            fuse_add_direntry(req, buffer.data() + used, size - used, name, &attributes, next + 1);
        if (needed > size - used) break;
        used += needed;
    }
    fuse_reply_buf(req, buffer.data(), used);
}

void ReleaseDir(fuse_req_t req, fuse_ino_t, fuse_file_info* fi) {
    delete reinterpret_cast<std::vector<DirEntry>*>(static_cast<uintptr_t>(fi->fh));
    fuse_reply_err(req, 0);
}

void Open(fuse_req_t req, fuse_ino_t inode, fuse_file_info* fi) {
    FuseContext& context = Context(req);
    if ((fi->flags & O_ACCMODE) != O_RDONLY || (fi->flags & O_TRUNC)) {
        fuse_reply_err(req, EROFS);
        return;
    }
    NodeInfo info;
    if (const int error = context.tree->Stat(inode, &info); error != 0) {
        fuse_reply_err(req, error);
        return;
    }
    if (info.isDirectory) {
        fuse_reply_err(req, EISDIR);
        return;
    }
    std::unique_ptr<OpenHandle> handle;
    bool unchanged = false;
    if (const int error = context.files->Open(info, &handle, &unchanged); error != 0) {
        fuse_reply_err(req, error);
        return;
    }
    fi->fh = reinterpret_cast<uintptr_t>(handle.get());
    fi->direct_io = context.directIo;
    fi->keep_cache = unchanged && !context.directIo;
    if (fuse_reply_open(req, fi) == 0) {
        handle.release();
    } else {
        context.files->Release(std::move(handle));
    }
}

// Marks the read's handle record closed so that the library's wait and the
// fetch behind it end.
void OnInterrupt(fuse_req_t, void* data) {
    std::atomic_ref<int32_t>(static_cast<_FS_HANDLE*>(data)->state)
        .store(4, std::memory_order_relaxed);
}

void Read(fuse_req_t req, fuse_ino_t, size_t size, off_t offset, fuse_file_info* fi) {
    FuseContext& context = Context(req);
    OpenHandle* handle = HandleOf(fi);
    CachedFile& file = *handle->file;
    // The library fails reads past the end: clip them to the file size.
    const long long length = std::min<long long>(size, file.info.size - offset);
    if (length <= 0) {
        fuse_reply_buf(req, nullptr, 0);
        return;
    }
    thread_local std::vector<char> buffer;
    if (buffer.size() < static_cast<size_t>(length)) buffer.resize(length);

    _READDATA request{};
    request.buffer = buffer.data();
    request.offset = offset;
    request.length = length;
    request.handle = handle->record;
    request.fileSize = file.info.size;
    request.fetch = file.fetcher.get();

    fuse_req_interrupt_func(req, OnInterrupt, handle->record.get());
    const long long fetchesBefore = file.fetcher->Calls();
    const AERROR result = file.object->Read(&request);
    const bool interrupted = fuse_req_interrupted(req) != 0;
    fuse_req_interrupt_func(req, nullptr, nullptr);
    if (interrupted) {
        // The open lives on: later reads of it must not find it closed.
        std::atomic_ref<int32_t>(handle->record->state).store(1, std::memory_order_relaxed);
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
    Context(req).files->Release(std::unique_ptr<OpenHandle>(HandleOf(fi)));
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

// Every operation that would change the remote tree.
void SetAttr(fuse_req_t req, fuse_ino_t, struct stat*, int, fuse_file_info*) {
    fuse_reply_err(req, EROFS);
}
void Write(fuse_req_t req, fuse_ino_t, const char*, size_t, off_t, fuse_file_info*) {
    fuse_reply_err(req, EROFS);
}
void Create(fuse_req_t req, fuse_ino_t, const char*, mode_t, fuse_file_info*) {
    fuse_reply_err(req, EROFS);
}
void MkDir(fuse_req_t req, fuse_ino_t, const char*, mode_t) {
    fuse_reply_err(req, EROFS);
}
void MkNod(fuse_req_t req, fuse_ino_t, const char*, mode_t, dev_t) {
    fuse_reply_err(req, EROFS);
}
void Remove(fuse_req_t req, fuse_ino_t, const char*) {
    fuse_reply_err(req, EROFS);
}
void Rename(fuse_req_t req, fuse_ino_t, const char*, fuse_ino_t, const char*, unsigned int) {
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
    ops.create = Create;
    ops.mkdir = MkDir;
    ops.mknod = MkNod;
    ops.unlink = Remove;
    ops.rmdir = Remove;
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
