#include "DurableFiles.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "UniqueFd.h"

namespace {
std::string WithoutTrailingSlashes(const std::string& path) {
    const std::size_t end = path.find_last_not_of('/');
    return end == std::string::npos ? path.substr(0, 1) : path.substr(0, end + 1);
}
}  // namespace

std::string FolderOf(const std::string& path) {
    const std::string trimmed = WithoutTrailingSlashes(path);
    const std::size_t slash = trimmed.find_last_of('/');
    if (slash == std::string::npos) {
        return ".";
    }
    const std::size_t end = trimmed.find_last_not_of('/', slash);
    return end == std::string::npos ? "/" : trimmed.substr(0, end + 1);
}

std::string LastPathPart(const std::string& path) {
    const std::string trimmed = WithoutTrailingSlashes(path);
    const std::size_t slash = trimmed.find_last_of('/');
    return slash == std::string::npos ? trimmed : trimmed.substr(slash + 1);
}

CStatus SyncDescriptor(int descriptor, const std::string& name) {
    while (fsync(descriptor) != 0) {
        if (errno == EINTR) {
            continue;
        }
        // EINVAL and EROFS: a descriptor without storage behind it to write back.
        if (errno == EINVAL || errno == EROFS) {
            return CStatus::Ok();
        }
        return CStatus::Failure("syncing " + name + ": " + std::strerror(errno));
    }
    return CStatus::Ok();
}

CStatus SyncFolder(const std::string& folder) {
    CUniqueFd descriptor(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!descriptor.IsValid()) {
        return CStatus::Failure("opening folder " + folder +
                                " to sync it: " + std::strerror(errno));
    }
    return SyncDescriptor(descriptor.Get(), "folder " + folder);
}
