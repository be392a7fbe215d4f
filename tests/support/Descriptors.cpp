#include "Descriptors.h"

#include <dirent.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <fstream>
#include <vector>

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

namespace {

std::string LinkTarget(const std::string& link) {
    char target[PATH_MAX] = {};
    const ssize_t length = readlink(link.c_str(), target, sizeof target - 1);
    return length < 0 ? std::string() : std::string(target, static_cast<std::size_t>(length));
}

bool IsUnder(const std::string& path, const std::string& folder) {
    return path == folder ||
           (path.size() > folder.size() && path.compare(0, folder.size(), folder) == 0 &&
            path[folder.size()] == '/');
}

std::string CommandOf(const std::string& process) {
    std::ifstream comm(process + "/comm");
    std::string name;
    std::getline(comm, name);
    return name;
}

}  // namespace

std::string DescriptorPath(int descriptor) {
    return LinkTarget("/proc/self/fd/" + std::to_string(descriptor));
}

std::string HoldersOf(const std::string& folder) {
    std::string holders;
    DIR* processes = opendir("/proc");
    if (processes == nullptr) {
        return holders;
    }
    while (const dirent* entry = readdir(processes)) {
        if (entry->d_name[0] < '1' || entry->d_name[0] > '9') {
            continue;
        }
        const std::string process = std::string("/proc/") + entry->d_name;
        std::vector<std::string> held;
        for (const char* place : {"cwd", "root"}) {
            if (const std::string path = LinkTarget(process + "/" + place); IsUnder(path, folder)) {
                held.push_back(std::string(place) + " -> " + path);
            }
        }
        if (DIR* descriptors = opendir((process + "/fd").c_str())) {
            while (const dirent* fd = readdir(descriptors)) {
                const std::string path = LinkTarget(process + "/fd/" + fd->d_name);
                if (fd->d_name[0] != '.' && IsUnder(path, folder)) {
                    held.push_back(std::string("fd ") + fd->d_name + " -> " + path);
                }
            }
            closedir(descriptors);
        }
        for (const std::string& line : held) {
            holders += "pid " + std::string(entry->d_name) + " (" + CommandOf(process) +
                       "): " + line + "\n";
        }
    }
    closedir(processes);
    return holders;
}
