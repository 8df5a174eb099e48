#include "drive/webdav.h"

#include <cerrno>
#include <utility>

#include "drive/listing.h"

namespace drive {

int ChangeErrno(long status) {
    switch (status) {
        case 401:
        case 403:
            return EACCES;
        case 404:
        case 409:
            return ENOENT;  // the name, or a directory above it, is not there
        case 405:
            return EEXIST;  // MKCOL of a name in use
        case 412:
            return EBUSY;  // the file changed since the drive learnt its ETag
        case 507:
            return ENOSPC;
        default:
            return EIO;
    }
}

int ChangeResult(const HttpResponse& response) {
    if (Succeeded(response)) return 0;
    return response.code != CURLE_OK ? EIO : ChangeErrno(response.status);
}

WebDavChanges::WebDavChanges(RemoteTree* tree, OpenFiles* files, HttpClient* client, DriveLog* log)
    : tree_(tree), files_(files), client_(client), log_(log) {}

int WebDavChanges::CreateFile(Inode parent, const std::string& name, int mode, bool exclusive,
                              NodeInfo* info, bool* created) {
    NodeInfo directory;
    int error = tree_->Stat(parent, &directory);
    if (error == 0 && !directory.isDirectory) error = ENOTDIR;
    if (error == 0) error = tree_->Created(parent, name, mode, info);
    *created = error == 0;
    // Made meanwhile by another program: opened as it is.
    if (error == EEXIST && !exclusive) error = tree_->Lookup(parent, name, info);
    return error;
}

int WebDavChanges::MakeDirectory(Inode parent, const std::string& name, int mode, NodeInfo* info) {
    if (const int error = SendChange("MKCOL", parent, name, true); error != 0) return error;
    return tree_->MadeDirectory(parent, name, mode, info);
}

int WebDavChanges::Remove(Inode parent, const std::string& name, bool directory) {
    NodeInfo info;
    if (const int error = CheckChild(parent, name, directory, &info); error != 0) return error;
    return files_->Remove(info.inode, [&] {
        // A file not on the server yet needs no DELETE.
        const int removed =
            tree_->IsLocal(info.inode) ? 0 : SendChange("DELETE", parent, name, directory);
        if (removed == 0) tree_->Removed(parent, name);
        return removed;
    });
}

int WebDavChanges::Move(Inode parent, const std::string& name, Inode newParent,
                        const std::string& newName, bool replace) {
    NodeInfo source;
    if (const int error = tree_->Lookup(parent, name, &source); error != 0) return error;
    NodeInfo target;
    const int found = CheckChild(newParent, newName, source.isDirectory, &target);
    if (found == 0 && !replace) return EEXIST;
    if (found != 0 && found != ENOENT) return found;
    std::string targetPath;
    if (const int error = ChildPath(newParent, newName, &targetPath); error != 0) return error;
    if (source.isDirectory) targetPath += '/';
    Inode replaced = 0;
    const int error = files_->Move(source.inode, [&] {
        const int moved = SendChange("MOVE", parent, name, source.isDirectory,
                                     {"Destination: " + client_->baseUrl() + targetPath,
                                      std::string("Overwrite: ") + (replace ? "T" : "F")});
        NodeInfo now;
        if (moved == 0) tree_->Renamed(parent, name, newParent, newName, &now, &replaced);
        return moved;
    });
    // The replaced file is gone from the server with whatever it had pending.
    if (error == 0 && replaced != 0) files_->Remove(replaced, [] { return 0; });
    return error;
}

int WebDavChanges::ChildPath(Inode parent, const std::string& name, std::string* path) {
    NodeInfo directory;
    if (const int error = tree_->Stat(parent, &directory); error != 0) return error;
    if (!directory.isDirectory) return ENOTDIR;
    *path = directory.path + PercentEncode(name);
    return 0;
}

int WebDavChanges::CheckChild(Inode parent, const std::string& name, bool directory,
                              NodeInfo* info) {
    if (const int error = tree_->Lookup(parent, name, info); error != 0) return error;
    if (info->isDirectory != directory) return directory ? ENOTDIR : EISDIR;
    if (!directory) return 0;
    std::vector<DirEntry> entries;
    if (const int error = tree_->List(info->inode, &entries); error != 0) return error;
    return entries.empty() ? 0 : ENOTEMPTY;
}

int WebDavChanges::SendChange(const char* method, Inode parent, const std::string& name,
                              bool directory, std::vector<std::string> headers) {
    HttpRequest request;
    if (const int error = ChildPath(parent, name, &request.path); error != 0) return error;
    if (directory) request.path += '/';
    request.method = method;
    request.headers = std::move(headers);
    const HttpResponse response = client_->Send(request, {});
    const int error = ChangeResult(response);
    if (error != 0) {
        log_->Error("%s /%s failed: %s", method, request.path.c_str(),
                    DescribeFailure(response).c_str());
    }
    return error;
}

}  // namespace drive
