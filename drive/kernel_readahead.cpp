#include "drive/kernel_readahead.h"

#include <cstdlib>
#include <fstream>
#include <sstream>

namespace drive {

namespace {

// mountinfo writes space, tab, newline and backslash in paths as \ooo.
std::string UnescapeMountPath(const std::string& field) {
    std::string path;
    for (size_t i = 0; i < field.size(); ++i) {
        if (field[i] == '\\' && i + 3 < field.size()) {
            const std::string octal = field.substr(i + 1, 3);
            if (octal.find_first_not_of("01234567") == std::string::npos) {
                path.push_back(static_cast<char>(std::strtol(octal.c_str(), nullptr, 8)));
                i += 3;
                continue;
            }
        }
        path.push_back(field[i]);
    }
    return path;
}

}  // namespace

std::optional<std::string> DeviceOfMount(const std::string& mountinfo,
                                         const std::string& mountpoint) {
    // Fields: mount ID, parent ID, major:minor, root, mount point, ...
    std::optional<std::string> device;
    std::istringstream lines(mountinfo);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream fields(line);
        std::string id, parent, majorMinor, root, point;
        if (!(fields >> id >> parent >> majorMinor >> root >> point)) continue;
        if (UnescapeMountPath(point) == mountpoint) device = majorMinor;
    }
    return device;
}

bool RaiseKernelReadahead(const std::string& mountpoint, long kib, DriveLog* log) {
    std::ifstream mountinfoFile("/proc/self/mountinfo");
    std::stringstream mountinfo;
    mountinfo << mountinfoFile.rdbuf();
    const std::optional<std::string> device = DeviceOfMount(mountinfo.str(), mountpoint);
    if (!device) {
        log->Info("Kernel read-ahead stays as it is: %s is not in /proc/self/mountinfo",
                  mountpoint.c_str());
        return false;
    }
    const std::string setting = "/sys/class/bdi/" + *device + "/read_ahead_kb";
    std::ofstream out(setting);
    out << kib << '\n';
    out.flush();
    if (!out) {
        log->Info(
            "Kernel read-ahead stays at its default: %s cannot be written (needs root); "
            "large reads reach the drive in smaller requests",
            setting.c_str());
        return false;
    }
    return true;
}

}  // namespace drive
