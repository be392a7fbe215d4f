#include "MountTable.h"

#include <dirent.h>
#include <stdlib.h>

#include <algorithm>
#include <fstream>
#include <functional>
#include <sstream>

namespace {
// The kernel marks the backing file of a loop device whose file was removed.
constexpr char kDeletedSuffix[] = " (deleted)";

// /proc/self/mountinfo writes blanks and backslashes in paths as octal escapes.
std::string Unescape(const std::string& field) {
    std::string text;
    for (std::size_t index = 0; index < field.size(); ++index) {
        if (field[index] == '\\' && index + 3 < field.size()) {
            text += static_cast<char>(std::stoi(field.substr(index + 1, 3), nullptr, 8));
            index += 3;
        } else {
            text += field[index];
        }
    }
    return text;
}

bool AnyMountPoint(const std::function<bool(const std::string&)>& matches) {
    std::ifstream table("/proc/self/mountinfo");
    std::string line;
    while (std::getline(table, line)) {
        std::istringstream fields(line);
        std::string id, parent, numbers, root, mountPoint;
        fields >> id >> parent >> numbers >> root >> mountPoint;
        if (matches(Unescape(mountPoint))) {
            return true;
        }
    }
    return false;
}

std::vector<std::string> LoopDevices(const std::function<bool(const std::string&)>& matches) {
    std::vector<std::string> devices;
    DIR* block = ::opendir("/sys/block");
    if (block == nullptr) {
        return devices;
    }
    while (const dirent* entry = ::readdir(block)) {
        const std::string name = entry->d_name;
        if (name.compare(0, 4, "loop") != 0) {
            continue;
        }
        std::ifstream backing("/sys/block/" + name + "/loop/backing_file");
        std::string file;
        if (!std::getline(backing, file)) {
            continue;
        }
        const std::size_t suffix = sizeof kDeletedSuffix - 1;
        if (file.size() > suffix &&
            file.compare(file.size() - suffix, suffix, kDeletedSuffix) == 0) {
            file.resize(file.size() - suffix);
        }
        if (matches(file)) {
            devices.push_back("/dev/" + name);
        }
    }
    ::closedir(block);
    std::sort(devices.begin(), devices.end());
    return devices;
}

bool IsBelow(const std::string& path, const std::string& folder) {
    return path.compare(0, folder.size() + 1, folder + "/") == 0;
}
}  // namespace

std::string ResolvedPath(const std::string& path) {
    char* resolved = ::realpath(path.c_str(), nullptr);
    if (resolved == nullptr) {
        return path;
    }
    std::string result = resolved;
    ::free(resolved);
    return result;
}

bool IsMountPoint(const std::string& path) {
    const std::string target = ResolvedPath(path);
    return AnyMountPoint([&](const std::string& mountPoint) { return mountPoint == target; });
}

bool IsAnythingMountedUnder(const std::string& folder) {
    const std::string target = ResolvedPath(folder);
    return AnyMountPoint(
        [&](const std::string& mountPoint) { return IsBelow(mountPoint, target); });
}

std::vector<std::string> LoopDevicesBackedBy(const std::string& file) {
    const std::string target = ResolvedPath(file);
    return LoopDevices([&](const std::string& backing) { return backing == target; });
}

std::vector<std::string> LoopDevicesBackedUnder(const std::string& folder) {
    const std::string target = ResolvedPath(folder);
    return LoopDevices([&](const std::string& backing) { return IsBelow(backing, target); });
}
