// The changes the drive makes to the server's tree: new files, new
// directories, removals and moves. Each checks the names against the
// remote tree, sends its WebDAV request (MKCOL, DELETE or MOVE) and tells
// the tree and the open files what changed. A new file is the drive's
// alone until its first upload (OpenFiles::Upload): creating it sends
// nothing.
//
// A request the server refuses is logged ("MOVE /a failed: HTTP 412:
// precondition failed") and answered with the errno value of its status.
//
// Thread-safe: every part it uses is. Removals and moves of a file run
// under the file's writeLock (OpenFiles::Remove, OpenFiles::Move), so
// they never overlap its upload; see LOCKING.md.
#ifndef DRIVE_WEBDAV_H_
#define DRIVE_WEBDAV_H_

#include <string>
#include <vector>

#include "drive/http_client.h"
#include "drive/log.h"
#include "drive/open_files.h"
#include "drive/remote_tree.h"

namespace drive {

// The errno value of a change (PUT, MKCOL, DELETE, MOVE) that the server
// refused with HTTP status `status`.
int ChangeErrno(long status);

// 0 when the server took a change, else its errno value: EIO when no
// answer arrived, else ChangeErrno of the status.
int ChangeResult(const HttpResponse& response);

class WebDavChanges {
  public:
    // Uses the parts given (not owned).
    WebDavChanges(RemoteTree* tree, OpenFiles* files, HttpClient* client, DriveLog* log);
    WebDavChanges(const WebDavChanges&) = delete;
    WebDavChanges& operator=(const WebDavChanges&) = delete;

    // Creates the empty file `name` with permission bits `mode` in
    // directory `parent`. Where a file of that name exists it is taken
    // instead, unless `exclusive` (EEXIST). Returns 0 and fills `info`, or
    // an errno value; `*created` tells whether the file is new.
    int CreateFile(Inode parent, const std::string& name, int mode, bool exclusive, NodeInfo* info,
                   bool* created);
    // MKCOL of directory `name` in `parent`. Returns 0 and fills `info`, or
    // an errno value.
    int MakeDirectory(Inode parent, const std::string& name, int mode, NodeInfo* info);
    // DELETE of child `name` of `parent`, which must be a directory exactly
    // when `directory`, and then empty: the server removes whole trees.
    // The file's pending changes are dropped. Returns 0 or an errno value.
    int Remove(Inode parent, const std::string& name, bool directory);
    // MOVE of child `name` of `parent` to `newName` in `newParent`, after
    // the file's pending changes are uploaded, so that the server moves the
    // current bytes. A node of that name is replaced when `replace`, else
    // the move answers EEXIST. Returns 0 or an errno value.
    int Move(Inode parent, const std::string& name, Inode newParent, const std::string& newName,
             bool replace);

  private:
    // The path on the server of child `name` of directory `parent`.
    // Returns 0 or an errno value.
    int ChildPath(Inode parent, const std::string& name, std::string* path);
    // Checks that child `name` of `parent` exists and is a directory exactly
    // when `directory`, and (for a directory) that it is empty. Returns 0
    // and fills `info`, or an errno value.
    int CheckChild(Inode parent, const std::string& name, bool directory, NodeInfo* info);
    // Sends `method` for child `name` of `parent` (a directory when
    // `directory`), with further `headers`. Returns 0 or an errno value.
    int SendChange(const char* method, Inode parent, const std::string& name, bool directory,
                   std::vector<std::string> headers = {});

    RemoteTree* const tree_;
    OpenFiles* const files_;
    HttpClient* const client_;
    DriveLog* const log_;
};

}  // namespace drive

#endif  // DRIVE_WEBDAV_H_
