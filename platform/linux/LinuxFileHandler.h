#pragma once
// The file handler of a Linux host: the IFileHandler operations on the real file system.
//
// Mount takes the file-system type of each IFileHandler::TFileSystemFormat value from the map
// given at construction ({2: "ext4"} for a movinand storage formatted with ext4). A device that is
// a regular file (a file-system image) is attached to a loop device first, and Umount detaches
// it again; a write-protected device or image is mounted read-only, as mount(8) does. The
// handler owns the mounts it made: destroying it unmounts those still in place.
//
// Every write is durable when the call that makes it returns, because the feature creates its
// flag file and its revision file to say that earlier writes are complete, and a power cut may
// come at any moment after that:
// - CopyFile succeeds only once the copy's data (fsync of the copy) and its entry (fsync of its
//   folder) are on the storage.
// - MakeFolder and RemoveFile sync the folder that holds the entry they made or removed.
// - A stream opened for writing is durable when FClose returns: its buffer is flushed and the file
//   synced, and its folder too when the open created the file. A stream opened with "w" (the
//   revision file, the flag file) writes to a file beside the path (".NAME.partial") that FClose
//   syncs and renames over the path, then syncs the folder: a power cut leaves the old content or
//   the new one, never the truncated file between them. Everything the feature sees stays as with
//   fopen: the open yields null when the file cannot be created there (a read-only storage, a
//   missing folder), the file exists after FClose (empty when nothing was written), an existing
//   file keeps its permissions. A failed FClose removes the partial file and leaves the path as it
//   was. One writer per path at a time; a partial file left by a power cut is reused by the next
//   "w" open of the same path. Paths that are not regular files (devices, symbolic links) and
//   the exclusive mode "x" are opened in place, as fopen does.
// - Sync writes back the storages this handler mounted (syncfs on each) and reports a write-back
//   error the kernel recorded for them. It does not sync the whole system: every write made
//   through the handler is already durable when its call returns, and a whole-system sync would
//   only wait for other programs' writes on other storages.
//
// The interface reports only codes; LastError() says what the last failing operation was doing
// and why. A failure is also logged (PlatformLog.h) under the name of the call, except where the
// code answers a question rather than reports a fault: FileExists and FolderExists of a missing
// path, FOpen for reading of a missing file, RemoveFile of a file already gone, Umount of a mount
// point with nothing mounted. Operations may be called from any thread.

#include <sys/stat.h>

#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "FileHandler.h"
#include "LoopDevice.h"
#include "Status.h"

class CLinuxFileHandler : public IFileHandlerBackend {
public:
    explicit CLinuxFileHandler(std::map<int, std::string> fileSystemTypes);
    ~CLinuxFileHandler() override;
    CLinuxFileHandler(const CLinuxFileHandler&) = delete;
    CLinuxFileHandler& operator=(const CLinuxFileHandler&) = delete;

    // What the last failing operation was doing and why ("copying /a to /b: writing /b: No
    // space left on device"); empty while nothing has failed.
    std::string LastError() const;

    int FileExists(const unsigned char* path) override;    // 0 exists, 1 not
    int FolderExists(const unsigned char* path) override;  // 0 folder, 1 not a folder, 2 missing
    int MakeFolder(const unsigned char* path) override;    // 0 made or already a folder
    // 0 when `destination` holds a complete copy; a failed copy leaves no partial file behind.
    int CopyFile(const unsigned char* source, const unsigned char* destination) override;
    int RemoveFile(const unsigned char* path) override;  // 0 removed, 1 still there, 2 no such
    int FileSize(const unsigned char* path) override;    // bytes, -1 on failure
    FILE* FOpen(const unsigned char* path, const char* mode) override;
    std::size_t FRead(void* buffer, std::size_t size, std::size_t count, FILE* file) override;
    std::size_t FWrite(const void* data, std::size_t size, std::size_t count, FILE* file) override;
    char* FGets(char* buffer, int size, FILE* file) override;
    int FClose(FILE* file) override;
    int Mount(const unsigned char* device, const unsigned char* mountPoint,
              IFileHandler::TFileSystemFormat format) override;
    int Umount(const unsigned char* mountPoint) override;
    int Sync() override;

private:
    CStatus MountDevice(const std::string& device, const std::string& mountPoint,
                        IFileHandler::TFileSystemFormat format);
    // `notMounted` is set when the failure is that nothing was mounted there.
    CStatus UnmountDevice(const std::string& mountPoint, bool& notMounted);
    // 0 for success; otherwise logs the failure as one of `call` (PlatformLog.h), records it for
    // LastError and returns `code`.
    int Report(const char* call, const CStatus& status, int code = -1);
    // The same without the log record, for answers that are not faults: a path asked about that
    // is missing, a mount point with nothing mounted on it.
    int Remember(const CStatus& status, int code = -1);
    // Opens a "w" stream on the partial file beside `path`; `existing` is the regular file at
    // `path`, null when there is none.
    FILE* OpenReplacing(const std::string& path, const char* mode, const struct stat* existing,
                        CStatus& status);
    CStatus CloseWritten(FILE* file);

    // A stream opened for writing: what FClose has to make durable.
    struct TWrittenStream {
        std::string path;         // the path the feature opened
        std::string partialPath;  // the file written in its place until FClose; empty if none
        bool created;             // the open created the file: its folder needs a sync
    };

    const std::map<int, std::string> m_fileSystemTypes;
    std::mutex m_mountMutex;     // one Mount or Umount at a time, so m_mounts matches the kernel
    mutable std::mutex m_mutex;  // m_mounts, m_streams and m_lastError
    // Mounts made here, by the mount point's resolved path; the loop device is null when the
    // device was a block device of its own.
    std::map<std::string, std::unique_ptr<CLoopDevice>> m_mounts;
    std::map<FILE*, TWrittenStream> m_streams;  // streams open for writing
    std::string m_lastError;
};
