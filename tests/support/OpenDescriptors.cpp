#include "OpenDescriptors.h"

#include <dirent.h>
#include <limits.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>

TDescriptors OpenDescriptors() {
    TDescriptors descriptors;
    std::unique_ptr<DIR, int (*)(DIR*)> folder(::opendir("/proc/self/fd"), &::closedir);
    if (!folder) {
        return descriptors;
    }
    const int own = ::dirfd(folder.get());
    while (const dirent* entry = ::readdir(folder.get())) {
        if (entry->d_name[0] == '.') {
            continue;
        }
        const int descriptor = std::atoi(entry->d_name);
        if (descriptor == own) {
            continue;
        }
        char target[PATH_MAX] = {};
        const std::string link = std::string("/proc/self/fd/") + entry->d_name;
        const ssize_t length = ::readlink(link.c_str(), target, sizeof target - 1);
        descriptors[descriptor] =
            length > 0 ? std::string(target, static_cast<std::size_t>(length)) : std::string();
    }
    return descriptors;
}

int DescriptorOpenOn(const std::string& target) {
    for (const auto& [descriptor, openOn] : OpenDescriptors()) {
        if (openOn == target) {
            return descriptor;
        }
    }
    return -1;
}
