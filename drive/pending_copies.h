// The record of local copies with changes the server has not taken yet, kept
// in the cache directory so that no such change disappears without a word.
//
// While a copy is being written, DIR/pending/<object name> holds the remote
// path of its file; the copy itself is the cache object's file in
// DIR/files/ (named after the object, or "[n].<object name>" when that name
// was taken). A drive that was killed leaves records behind: the next one
// moves each copy to DIR/recovered/ before it empties DIR/files/, and
// reports them. An unmount that cannot upload a copy saves it there too.
// Recovered copies are named "<UTC time>-<remote path with '/' as %2F>" and
// are never removed by the drive.
//
// Thread-safe: each record is a file of its own.
#ifndef DRIVE_PENDING_COPIES_H_
#define DRIVE_PENDING_COPIES_H_

#include <functional>
#include <string>
#include <vector>

namespace drive {

// A copy found or saved for the user: the remote file it belongs to and
// where its bytes are now (empty when no copy was found).
struct RecoveredCopy {
    std::string path;
    std::string savedAs;
};

class PendingCopies {
  public:
    // Records live in `pendingDir`, saved copies go to `recoveredDir`;
    // both are created when missing.
    PendingCopies(std::string pendingDir, std::string recoveredDir);
    PendingCopies(const PendingCopies&) = delete;
    PendingCopies& operator=(const PendingCopies&) = delete;

    // Notes that the copy of object `objectName` holds changes to the file
    // at remote `path`; a later call replaces the path.
    void Record(const std::string& objectName, const std::string& path);
    // The copy of `objectName` has no changes left to deliver.
    void Forget(const std::string& objectName);

    // Reads a piece of a copy: fills `buffer` with up to `length` bytes at
    // `offset` and returns how many, or -1.
    using Reader = std::function<long long(char* buffer, long long offset, long long length)>;
    // Saves the `size` bytes `read` gives as the recovered copy of remote
    // `path`. Returns the file's path, or empty when it could not be
    // written (nothing of it is left then).
    std::string Save(const std::string& path, long long size, const Reader& read);

    // At start, before the cache files are removed: moves the copy of each
    // record left in the pending directory from `filesDir` to the recovered
    // directory and drops the record.
    std::vector<RecoveredCopy> RecoverLeftovers(const std::string& filesDir);

  private:
    // A new file name in the recovered directory for remote `path`.
    std::string RecoveredName(const std::string& path) const;

    const std::string pendingDir_;
    const std::string recoveredDir_;
};

}  // namespace drive

#endif  // DRIVE_PENDING_COPIES_H_
