#pragma once
// The file handler of a Linux host: the IFileHandler operations on the real file system.
//
// Mount takes the file-system type of each IFileHandler::TFileSystemFormat value from the map
// given at construction ({2: "ext4"} for a movinand storage formatted with ext4). A device that is
// a regular file (a file-system image) is attached to a loop device first, and Umount detaches
// it again; a write-protected device or image is mounted read-only, as mount(8) does. The
// handler owns the mounts it made: destroying it unmounts those still in place.
//
// The interface reports only codes; LastError() says what the last failing operation was doing
// and why. Operations may be called from any thread.

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
    CStatus UnmountDevice(const std::string& mountPoint);
    // 0 for success; otherwise records the failure for LastError and returns `code`.
    int Report(const CStatus& status, int code = -1);

    const std::map<int, std::string> m_fileSystemTypes;
    std::mutex m_mountMutex;     // one Mount or Umount at a time, so m_mounts matches the kernel
    mutable std::mutex m_mutex;  // m_mounts and m_lastError
    // Mounts made here, by the mount point's resolved path; the loop device is null when the
    // device was a block device of its own.
    std::map<std::string, std::unique_ptr<CLoopDevice>> m_mounts;
    std::string m_lastError;
};
