// The kernel's read-ahead for the drive's mount. A FUSE mount starts with
// the kernel's default read-ahead (128 KiB), so a program reading a file in
// large blocks reaches the drive in 128 KiB requests, one or two at a time,
// unless files are opened with direct_io. Read-ahead is a property of the
// mount's backing device (/sys/class/bdi/<major:minor>/read_ahead_kb) that
// only root may change. The kernel takes the smaller of that value and the
// max_readahead the drive announces in its answer to INIT, and that answer
// can only lower it: the value is written after INIT is answered.
#ifndef DRIVE_KERNEL_READAHEAD_H_
#define DRIVE_KERNEL_READAHEAD_H_

#include <optional>
#include <string>
#include <thread>

#include "drive/log.h"

namespace drive {

// The "major:minor" device of the last mount on `mountpoint` (an absolute
// path without a trailing '/') in `mountinfo`, the text of
// /proc/self/mountinfo; nothing when there is none.
std::optional<std::string> DeviceOfMount(const std::string& mountinfo,
                                         const std::string& mountpoint);

// Sets the read-ahead of the mount on `mountpoint` to `kib` KiB. Where the
// drive may not (not root, no sysfs), logs why once and returns false: reads
// still work, in smaller requests.
bool RaiseKernelReadahead(const std::string& mountpoint, long kib, DriveLog* log);

// The drive's read-ahead: one request of the largest size (1 MiB) per
// step. More lets the kernel send several at once, which run into the
// library's read-ahead and fetch some ranges twice (up to a tenth more
// bytes for a 100 MiB file with 8 MiB) for no steady gain.
constexpr long kDriveReadaheadKib = 1024;

// Raises the mount's read-ahead once the kernel has the drive's answer to
// INIT, from a thread of its own: it waits for a stat of the mount point,
// which the kernel answers only after INIT. Start it once the FUSE session
// is mounted (and after daemonizing); the session's loop answers the stat.
// The destructor waits for the thread, which ends with the mount at the
// latest.
class KernelReadahead {
  public:
    KernelReadahead(std::string mountpoint, long kib, DriveLog* log);
    KernelReadahead(const KernelReadahead&) = delete;
    KernelReadahead& operator=(const KernelReadahead&) = delete;
    ~KernelReadahead();

  private:
    std::thread thread_;
};

}  // namespace drive

#endif  // DRIVE_KERNEL_READAHEAD_H_
