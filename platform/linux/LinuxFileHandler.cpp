#include "LinuxFileHandler.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <utility>
#include <vector>

#include "UniqueFd.h"

namespace {
// Large enough that the fallback copy runs at the device's speed, as cp does.
constexpr std::size_t kCopyBufferBytes = 128 * 1024;
// copy_file_range moves at most this much per call; the loop goes on until the end.
constexpr std::size_t kCopyChunkBytes = 64 * 1024 * 1024;

std::string Text(const unsigned char* bytes) {
    return bytes != nullptr ? reinterpret_cast<const char*>(bytes) : "";
}

std::string ErrnoText(int error) { return std::strerror(error); }

CStatus ErrnoFailure(const std::string& what) {
    return CStatus::Failure(what + ": " + ErrnoText(errno));
}

// The mount point as the kernel reports it, so that "/mnt/x" and "/mnt/x/" name one mount.
std::string Resolved(const std::string& path) {
    char* resolved = realpath(path.c_str(), nullptr);
    if (resolved == nullptr) {
        return path;
    }
    std::string result = resolved;
    std::free(resolved);
    return result;
}

// Writes all of `bytes`, across short writes.
CStatus WriteAll(int destination, const std::string& destinationName, const char* bytes,
                 std::size_t size) {
    while (size > 0) {
        const ssize_t written = write(destination, bytes, size);
        if (written < 0) {
            if (errno == EINTR) {
                continue;
            }
            return ErrnoFailure("writing " + destinationName);
        }
        bytes += written;
        size -= static_cast<std::size_t>(written);
    }
    return CStatus::Ok();
}

CStatus CopyByReadWrite(int source, int destination, const std::string& sourceName,
                        const std::string& destinationName) {
    std::vector<char> buffer(kCopyBufferBytes);
    for (;;) {
        const ssize_t count = read(source, buffer.data(), buffer.size());
        if (count < 0) {
            if (errno == EINTR) {
                continue;
            }
            return ErrnoFailure("reading " + sourceName);
        }
        if (count == 0) {
            return CStatus::Ok();
        }
        const CStatus written =
            WriteAll(destination, destinationName, buffer.data(), static_cast<std::size_t>(count));
        if (!written) {
            return written;
        }
    }
}

// In-kernel copy (reflinks or server-side copy where the file system offers them); falls back
// to read and write where the kernel cannot copy between these two files.
CStatus CopyContent(int source, int destination, const std::string& sourceName,
                    const std::string& destinationName) {
    bool copiedAny = false;
    for (;;) {
        const ssize_t count =
            copy_file_range(source, nullptr, destination, nullptr, kCopyChunkBytes, 0);
        if (count > 0) {
            copiedAny = true;
            continue;
        }
        if (count == 0) {
            // Files such as those of /proc report no size and copy nothing in the kernel; they
            // are read the ordinary way. Once something was copied, 0 is the end of the file.
            return copiedAny ? CStatus::Ok()
                             : CopyByReadWrite(source, destination, sourceName, destinationName);
        }
        if (errno == EINTR) {
            continue;
        }
        if (!copiedAny && (errno == EXDEV || errno == ENOSYS || errno == EOPNOTSUPP ||
                           errno == EINVAL || errno == EBADF)) {
            return CopyByReadWrite(source, destination, sourceName, destinationName);
        }
        return ErrnoFailure("writing " + destinationName);
    }
}

CStatus CopyRegularFile(const std::string& source, const std::string& destination) {
    CUniqueFd input(open(source.c_str(), O_RDONLY | O_CLOEXEC));
    if (!input.IsValid()) {
        return ErrnoFailure("opening " + source);
    }
    struct stat sourceStatus;
    if (fstat(input.Get(), &sourceStatus) != 0) {
        return ErrnoFailure("examining " + source);
    }
    if (S_ISDIR(sourceStatus.st_mode)) {
        return CStatus::Failure(source + " is a folder");
    }
    struct stat destinationStatus;
    if (stat(destination.c_str(), &destinationStatus) == 0 &&
        destinationStatus.st_dev == sourceStatus.st_dev &&
        destinationStatus.st_ino == sourceStatus.st_ino) {
        // Truncating the destination would destroy the source.
        return CStatus::Failure(source + " and " + destination + " are the same file");
    }
    CUniqueFd output(open(destination.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC,
                          sourceStatus.st_mode & 0777));
    if (!output.IsValid()) {
        return ErrnoFailure("creating " + destination);
    }
    CStatus copied = CopyContent(input.Get(), output.Get(), source, destination);
    if (copied && close(output.Release()) != 0) {
        copied = ErrnoFailure("closing " + destination);
    }
    if (!copied) {
        // A truncated file on the storage would look like a valid one; none is left behind.
        unlink(destination.c_str());
        return copied;
    }
    return CStatus::Ok();
}

bool IsWriteProtected(int error) { return error == EROFS || error == EACCES; }
}  // namespace

CLinuxFileHandler::CLinuxFileHandler(std::map<int, std::string> fileSystemTypes)
    : m_fileSystemTypes(std::move(fileSystemTypes)) {}

CLinuxFileHandler::~CLinuxFileHandler() {
    // The mounts this handler made go with it; a busy one is detached from the tree now and
    // released by the kernel (with its auto-clearing loop device) when its last user goes.
    for (auto& [mountPoint, loop] : m_mounts) {
        if (umount2(mountPoint.c_str(), 0) != 0 && errno == EBUSY) {
            umount2(mountPoint.c_str(), MNT_DETACH);
        }
        loop.reset();
    }
}

std::string CLinuxFileHandler::LastError() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_lastError;
}

int CLinuxFileHandler::Report(const CStatus& status, int code) {
    if (status) {
        return 0;
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    m_lastError = status.Message();
    return code;
}

int CLinuxFileHandler::FileExists(const unsigned char* path) {
    struct stat status;
    if (stat(Text(path).c_str(), &status) == 0) {
        return 0;
    }
    return Report(ErrnoFailure("looking for " + Text(path)), 1);
}

int CLinuxFileHandler::FolderExists(const unsigned char* path) {
    struct stat status;
    if (stat(Text(path).c_str(), &status) != 0) {
        Report(ErrnoFailure("looking for folder " + Text(path)));
        return IFileHandler::kFolderMissing;
    }
    return S_ISDIR(status.st_mode) ? IFileHandler::kFolderPresent : IFileHandler::kNotAFolder;
}

int CLinuxFileHandler::MakeFolder(const unsigned char* path) {
    if (mkdir(Text(path).c_str(), 0755) == 0) {
        return 0;
    }
    const int error = errno;
    struct stat status;
    if (error == EEXIST && stat(Text(path).c_str(), &status) == 0 && S_ISDIR(status.st_mode)) {
        return 0;
    }
    errno = error;
    return Report(ErrnoFailure("making folder " + Text(path)));
}

int CLinuxFileHandler::CopyFile(const unsigned char* source, const unsigned char* destination) {
    return Report(CopyRegularFile(Text(source), Text(destination))
                      .WithContext("copying " + Text(source) + " to " + Text(destination)));
}

int CLinuxFileHandler::RemoveFile(const unsigned char* path) {
    if (unlink(Text(path).c_str()) == 0) {
        return IFileHandler::kRemoved;
    }
    const bool absent = errno == ENOENT;
    Report(ErrnoFailure("removing " + Text(path)));
    return absent ? IFileHandler::kRemoveNoSuchFile : IFileHandler::kRemoveFailed;
}

int CLinuxFileHandler::FileSize(const unsigned char* path) {
    struct stat status;
    if (stat(Text(path).c_str(), &status) != 0) {
        return Report(ErrnoFailure("measuring " + Text(path)));
    }
    if (status.st_size > INT_MAX) {
        return Report(CStatus::Failure("measuring " + Text(path) + ": " +
                                       std::to_string(status.st_size) +
                                       " bytes do not fit the result"));
    }
    return static_cast<int>(status.st_size);
}

FILE* CLinuxFileHandler::FOpen(const unsigned char* path, const char* mode) {
    FILE* file = fopen(Text(path).c_str(), mode);
    if (file == nullptr) {
        Report(ErrnoFailure("opening " + Text(path) + " with mode " + mode));
    }
    return file;
}

std::size_t CLinuxFileHandler::FRead(void* buffer, std::size_t size, std::size_t count,
                                     FILE* file) {
    return fread(buffer, size, count, file);
}

std::size_t CLinuxFileHandler::FWrite(const void* data, std::size_t size, std::size_t count,
                                      FILE* file) {
    return fwrite(data, size, count, file);
}

char* CLinuxFileHandler::FGets(char* buffer, int size, FILE* file) {
    return fgets(buffer, size, file);
}

int CLinuxFileHandler::FClose(FILE* file) {
    if (file == nullptr) {
        return EOF;
    }
    const int result = fclose(file);
    if (result != 0) {
        Report(ErrnoFailure("closing a stream"));
    }
    return result;
}

int CLinuxFileHandler::Mount(const unsigned char* device, const unsigned char* mountPoint,
                             IFileHandler::TFileSystemFormat format) {
    return Report(MountDevice(Text(device), Text(mountPoint), format)
                      .WithContext("mounting " + Text(device) + " on " + Text(mountPoint)));
}

CStatus CLinuxFileHandler::MountDevice(const std::string& device, const std::string& mountPoint,
                                       IFileHandler::TFileSystemFormat format) {
    const auto type = m_fileSystemTypes.find(static_cast<int>(format));
    if (type == m_fileSystemTypes.end()) {
        return CStatus::Failure("no file-system type is configured for format " +
                                std::to_string(static_cast<int>(format)));
    }
    std::lock_guard<std::mutex> mounting(m_mountMutex);
    const std::string target = Resolved(mountPoint);
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_mounts.count(target) != 0) {
            return CStatus::Failure("a storage is already mounted there");
        }
    }
    struct stat status;
    if (stat(device.c_str(), &status) != 0) {
        return ErrnoFailure("examining the device");
    }
    std::unique_ptr<CLoopDevice> loop;
    std::string source = device;
    if (S_ISREG(status.st_mode)) {
        const CStatus attached = CLoopDevice::Attach(device, loop);
        if (!attached) {
            return attached;
        }
        source = loop->Path();
    }
    const bool readOnlyDevice = loop != nullptr && loop->IsReadOnly();
    unsigned long flags = readOnlyDevice ? MS_RDONLY : 0;
    if (mount(source.c_str(), target.c_str(), type->second.c_str(), flags, nullptr) != 0) {
        // A write-protected storage is still readable: mount it read-only, as mount(8) does.
        if (flags != 0 || !IsWriteProtected(errno)) {
            return ErrnoFailure("mounting " + source + " as " + type->second);
        }
        flags = MS_RDONLY;
        if (mount(source.c_str(), target.c_str(), type->second.c_str(), flags, nullptr) != 0) {
            return ErrnoFailure("mounting " + source + " read-only as " + type->second);
        }
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    m_mounts[target] = std::move(loop);
    return CStatus::Ok();
}

int CLinuxFileHandler::Umount(const unsigned char* mountPoint) {
    return Report(UnmountDevice(Text(mountPoint)).WithContext("unmounting " + Text(mountPoint)));
}

CStatus CLinuxFileHandler::UnmountDevice(const std::string& mountPoint) {
    std::lock_guard<std::mutex> unmounting(m_mountMutex);
    const std::string target = Resolved(mountPoint);
    if (umount2(target.c_str(), 0) != 0) {
        return ErrnoFailure("unmounting");
    }
    std::unique_ptr<CLoopDevice> loop;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        const auto mounted = m_mounts.find(target);
        if (mounted != m_mounts.end()) {
            loop = std::move(mounted->second);
            m_mounts.erase(mounted);
        }
    }
    // `loop` goes here: the image attached for this mount is detached now that nothing holds it.
    return CStatus::Ok();
}

int CLinuxFileHandler::Sync() {
    sync();
    return 0;
}
