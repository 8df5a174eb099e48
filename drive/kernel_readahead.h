// The kernel's read-ahead for the drive's mount. A FUSE mount starts with
// the kernel's default read-ahead (128 KiB), so a program reading a file in
// large blocks reaches the drive in 128 KiB requests, one or two at a time,
// unless files are opened with direct_io. Read-ahead is a property of the
// mount's backing device (/sys/class/bdi/<major:minor>/read_ahead_kb) that
// only root may change. The kernel takes the smaller of that value and the
// max_readahead the drive announces in its answer to INIT, so the value is
// written while INIT is being answered: the device exists by then, and no
// program can open a file on the mount before the answer, so every open
// sees the raised value.
#ifndef DRIVE_KERNEL_READAHEAD_H_
#define DRIVE_KERNEL_READAHEAD_H_

#include <optional>
#include <string>

#include "drive/log.h"

namespace drive {

// The "major:minor" device of the last mount on `mountpoint` (an absolute
// path without a trailing '/') in `mountinfo`, the text of
// /proc/self/mountinfo; nothing when there is none.
std::optional<std::string> DeviceOfMount(const std::string& mountinfo,
                                         const std::string& mountpoint);

// Sets the read-ahead of the mount on `mountpoint` (absolute, resolved
// before mounting: resolving it once mounted would ask the mount itself) to
// `kib` KiB. Where the drive may not (not root, no sysfs), logs why once and
// returns false: reads still work, in smaller requests.
bool RaiseKernelReadahead(const std::string& mountpoint, long kib, DriveLog* log);

// The drive's read-ahead: one request of the largest size (1 MiB) per
// step. More lets the kernel send several at once, which run into the
// library's read-ahead and fetch some ranges twice (up to a tenth more
// bytes for a 100 MiB file with 8 MiB) for no steady gain.
constexpr long kDriveReadaheadKib = 1024;

}  // namespace drive

#endif  // DRIVE_KERNEL_READAHEAD_H_
