#include "Descriptors.h"

#include <dirent.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>

std::set<int> OpenDescriptors() {
    std::set<int> descriptors;
    DIR* folder = opendir("/proc/self/fd");
    if (folder == nullptr) {
        return descriptors;
    }
    const int own = dirfd(folder);
    while (const dirent* entry = readdir(folder)) {
        if (entry->d_name[0] != '.' && std::atoi(entry->d_name) != own) {
            descriptors.insert(std::atoi(entry->d_name));
        }
    }
    closedir(folder);
    return descriptors;
}

std::string DescriptorPath(int descriptor) {
    char target[PATH_MAX] = {};
    const std::string link = "/proc/self/fd/" + std::to_string(descriptor);
    const ssize_t length = readlink(link.c_str(), target, sizeof target - 1);
    return length < 0 ? std::string() : std::string(target, static_cast<std::size_t>(length));
}
