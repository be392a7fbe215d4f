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

#include "DurableFiles.h"
#include "PlatformLog.h"
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
    if (copied) {
        copied = SyncDescriptor(output.Get(), destination);
    }
    if (copied && close(output.Release()) != 0) {
        copied = ErrnoFailure("closing " + destination);
    }
    if (copied) {
        copied = SyncFolder(FolderOf(destination));
    }
    if (!copied) {
        // A truncated file on the storage would look like a valid one, and a complete one that
        // is not durable might not be there after a power cut: none is left behind.
        unlink(destination.c_str());
        return copied;
    }
    return CStatus::Ok();
}

bool IsWriteProtected(int error) { return error == EROFS || error == EACCES; }

// A mode that replaces the file's content ("w", "wb", "w+"), except the exclusive "x", which
// must fail on an existing path.
bool ReplacesContent(const std::string& mode) {
    return !mode.empty() && mode[0] == 'w' && mode.find('x') == std::string::npos;
}

bool Writes(const std::string& mode) { return mode.find_first_of("wa+") != std::string::npos; }

// The file a "w" stream writes until FClose renames it over `path`: beside it, so that the
// rename stays in one file system and one folder.
std::string PartialPath(const std::string& path) {
    const std::string folder = FolderOf(path);
    return (folder == "/" ? "" : folder) + "/." + LastPathPart(path) + ".partial";
}
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

int CLinuxFileHandler::Report(const char* call, const CStatus& status, int code) {
    PLATFORM_LOG_FAILURE(call, status);
    return Remember(status, code);
}

int CLinuxFileHandler::Remember(const CStatus& status, int code) {
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
    return Remember(ErrnoFailure("looking for " + Text(path)), 1);
}

int CLinuxFileHandler::FolderExists(const unsigned char* path) {
    struct stat status;
    if (stat(Text(path).c_str(), &status) != 0) {
        Remember(ErrnoFailure("looking for folder " + Text(path)));
        return IFileHandler::kFolderMissing;
    }
    return S_ISDIR(status.st_mode) ? IFileHandler::kFolderPresent : IFileHandler::kNotAFolder;
}

int CLinuxFileHandler::MakeFolder(const unsigned char* path) {
    const std::string folder = Text(path);
    if (mkdir(folder.c_str(), 0755) != 0) {
        const int error = errno;
        struct stat status;
        if (error != EEXIST || stat(folder.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) {
            errno = error;
            return Report("MakeFolder", ErrnoFailure("making folder " + folder));
        }
        // Already there, but perhaps made by someone who did not sync its entry: synced below.
    }
    return Report("MakeFolder",
                  SyncFolder(FolderOf(folder)).WithContext("making folder " + folder));
}

int CLinuxFileHandler::CopyFile(const unsigned char* source, const unsigned char* destination) {
    return Report("CopyFile",
                  CopyRegularFile(Text(source), Text(destination))
                      .WithContext("copying " + Text(source) + " to " + Text(destination)));
}

int CLinuxFileHandler::RemoveFile(const unsigned char* path) {
    if (unlink(Text(path).c_str()) == 0) {
        // Until its folder is synced the removal may be undone by a power cut: not done yet.
        const CStatus synced = SyncFolder(FolderOf(Text(path)));
        return synced ? IFileHandler::kRemoved
                      : Report("RemoveFile", synced.WithContext("removing " + Text(path)),
                               IFileHandler::kRemoveFailed);
    }
    if (errno == ENOENT) {
        // Already gone: the caller counts that as removed.
        Remember(ErrnoFailure("removing " + Text(path)));
        return IFileHandler::kRemoveNoSuchFile;
    }
    return Report("RemoveFile", ErrnoFailure("removing " + Text(path)),
                  IFileHandler::kRemoveFailed);
}

int CLinuxFileHandler::FileSize(const unsigned char* path) {
    struct stat status;
    if (stat(Text(path).c_str(), &status) != 0) {
        return Report("FileSize", ErrnoFailure("measuring " + Text(path)));
    }
    if (status.st_size > INT_MAX) {
        return Report("FileSize", CStatus::Failure("measuring " + Text(path) + ": " +
                                                   std::to_string(status.st_size) +
                                                   " bytes do not fit the result"));
    }
    return static_cast<int>(status.st_size);
}

FILE* CLinuxFileHandler::FOpen(const unsigned char* path, const char* mode) {
    const std::string name = Text(path);
    // A null mode is refused as fopen refuses an empty one, instead of handing fopen a null.
    const std::string modeText = mode != nullptr ? mode : "";
    struct stat existing;
    const bool exists = lstat(name.c_str(), &existing) == 0;
    FILE* file = nullptr;
    CStatus opened = CStatus::Ok();
    bool missingForReading = false;
    if (ReplacesContent(modeText) && (!exists || S_ISREG(existing.st_mode))) {
        file = OpenReplacing(name, modeText.c_str(), exists ? &existing : nullptr, opened);
    } else {
        // Close-on-exec ("e"): another thread of this process may fork a command at any moment,
        // and a child that inherits a descriptor on a mounted storage keeps the storage busy
        // until it exits, so the next unmount fails. An empty mode stays empty, for fopen to
        // refuse.
        const std::string openMode = modeText.empty() ? modeText : modeText + "e";
        file = fopen(name.c_str(), openMode.c_str());
        if (file == nullptr) {
            // A missing file opened for reading answers a question (is a revision stored?);
            // it is not a fault of the storage.
            missingForReading = errno == ENOENT && !Writes(modeText);
            opened = ErrnoFailure("opening " + name + " with mode " + modeText);
        } else if (Writes(modeText)) {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_streams[file] = TWrittenStream{name, std::string(), !exists};
        }
    }
    if (missingForReading) {
        Remember(opened);
    } else {
        Report("FOpen", opened);
    }
    return file;
}

FILE* CLinuxFileHandler::OpenReplacing(const std::string& path, const char* mode,
                                       const struct stat* existing, CStatus& status) {
    const std::string failure = "opening " + path + " with mode " + mode;
    const bool exists = existing != nullptr;
    // fopen refuses a file it may not write; the rename alone would not.
    if (exists && access(path.c_str(), W_OK) != 0) {
        status = ErrnoFailure(failure);
        return nullptr;
    }
    // A partial file is left only by a power cut or a killed writer: it is stale.
    const std::string partial = PartialPath(path);
    unlink(partial.c_str());
    const int readWrite = std::strchr(mode, '+') != nullptr ? O_RDWR : O_WRONLY;
    // Made as fopen makes a file (0666 less the umask); a replaced file's permissions are kept.
    CUniqueFd descriptor(open(partial.c_str(), readWrite | O_CREAT | O_EXCL | O_CLOEXEC, 0666));
    if (!descriptor.IsValid()) {
        status = ErrnoFailure(failure);
        return nullptr;
    }
    FILE* file = nullptr;
    if (exists && fchmod(descriptor.Get(), existing->st_mode & 07777) != 0) {
        status = ErrnoFailure(failure);
    } else if (file = fdopen(descriptor.Get(), mode); file == nullptr) {
        status = ErrnoFailure(failure);
    }
    if (file == nullptr) {
        unlink(partial.c_str());
        return nullptr;
    }
    descriptor.Release();
    std::lock_guard<std::mutex> lock(m_mutex);
    m_streams[file] = TWrittenStream{path, partial, !exists};
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
    bool written = false;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        written = m_streams.count(file) != 0;
    }
    if (written) {
        return Report("FClose", CloseWritten(file), EOF);
    }
    const int result = fclose(file);
    if (result != 0) {
        Report("FClose", ErrnoFailure("closing a stream"));
    }
    return result;
}

CStatus CLinuxFileHandler::CloseWritten(FILE* file) {
    TWrittenStream stream;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        const auto found = m_streams.find(file);
        stream = std::move(found->second);
        m_streams.erase(found);
    }
    const bool replacing = !stream.partialPath.empty();
    const std::string context = "closing " + stream.path;
    CStatus closed = CStatus::Ok();
    if (fflush(file) != 0) {
        closed = ErrnoFailure("writing " + stream.path);
    }
    if (closed) {
        closed = SyncDescriptor(fileno(file), stream.path);
    }
    if (fclose(file) != 0 && closed) {
        closed = ErrnoFailure("closing " + stream.path);
    }
    if (closed && replacing && rename(stream.partialPath.c_str(), stream.path.c_str()) != 0) {
        closed = ErrnoFailure("renaming " + stream.partialPath + " to " + stream.path);
    }
    if (closed && (replacing || stream.created)) {
        closed = SyncFolder(FolderOf(stream.path));
    }
    if (!closed && replacing) {
        // The path keeps its old content (or stays absent); nothing half-written is left.
        unlink(stream.partialPath.c_str());
    }
    return closed.WithContext(context);
}

int CLinuxFileHandler::Mount(const unsigned char* device, const unsigned char* mountPoint,
                             IFileHandler::TFileSystemFormat format) {
    return Report("Mount",
                  MountDevice(Text(device), Text(mountPoint), format)
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
    bool notMounted = false;
    const CStatus unmounted =
        UnmountDevice(Text(mountPoint), notMounted).WithContext("unmounting " + Text(mountPoint));
    // The feature unmounts before every mount, to clear a mount left by an earlier run: finding
    // nothing mounted is the usual answer, which its own record already states.
    return notMounted ? Remember(unmounted) : Report("Umount", unmounted);
}

CStatus CLinuxFileHandler::UnmountDevice(const std::string& mountPoint, bool& notMounted) {
    std::lock_guard<std::mutex> unmounting(m_mountMutex);
    const std::string target = Resolved(mountPoint);
    if (umount2(target.c_str(), 0) != 0) {
        notMounted = errno == EINVAL;
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
    std::vector<std::string> mountPoints;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        for (const auto& mounted : m_mounts) {
            mountPoints.push_back(mounted.first);
        }
    }
    CStatus synced = CStatus::Ok();
    for (const std::string& mountPoint : mountPoints) {
        CUniqueFd root(open(mountPoint.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if (!root.IsValid()) {
            synced = ErrnoFailure("opening " + mountPoint);
        } else if (syncfs(root.Get()) != 0) {
            // Since Linux 5.8 syncfs reports a write-back error of the file system.
            synced = ErrnoFailure("writing back " + mountPoint);
        }
    }
    return Report("Sync", synced.WithContext("syncing the mounted storage"));
}
