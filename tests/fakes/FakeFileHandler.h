#pragma once
// An in-memory file system behind IFileHandler, installed while the object lives.
//
// Plain files live at their full paths. A storage device (AddStorage) keeps its own files; while
// it is mounted, paths under the mount point reach them, and when it is unmounted they are out
// of sight, as on a real device. Every call is recorded as one line ("Mount /dev/x /mnt 2").
// Streams from FOpen are real stdio streams over memory, so FRead/FWrite/FGets behave as stdio.

#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "FileHandler.h"
#include "InstalledBackend.h"

class CFakeFileHandler : public IFileHandlerBackend {
public:
    CFakeFileHandler();
    ~CFakeFileHandler() override;
    CFakeFileHandler(const CFakeFileHandler&) = delete;
    CFakeFileHandler& operator=(const CFakeFileHandler&) = delete;

    // Test side.
    void AddFile(const std::string& path, const std::string& content);
    void AddFolder(const std::string& path);
    void AddStorage(const std::string& device);
    // A file on `device`'s storage, `relativePath` below its root ("revision.txt", "update/a").
    void AddStorageFile(const std::string& device, const std::string& relativePath,
                        const std::string& content);
    // A folder on `device`'s storage, `relativePath` below its root ("update").
    void AddStorageFolder(const std::string& device, const std::string& relativePath);
    bool HasFile(const std::string& path) const;  // as the plug-in would see it now
    std::string FileContent(const std::string& path) const;
    bool HasStorageFile(const std::string& device, const std::string& relativePath) const;
    std::string StorageFileContent(const std::string& device,
                                   const std::string& relativePath) const;
    bool IsMounted(const std::string& mountPoint) const;
    std::vector<std::string> Calls() const;
    std::size_t OpenStreams() const;

    // IFileHandlerBackend
    int FileExists(const unsigned char* path) override;
    int FolderExists(const unsigned char* path) override;
    int MakeFolder(const unsigned char* path) override;
    int CopyFile(const unsigned char* source, const unsigned char* destination) override;
    int RemoveFile(const unsigned char* path) override;
    int FileSize(const unsigned char* path) override;
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
    // Held on the heap so that the buffers stdio points into keep their addresses.
    struct TStream {
        std::string path;
        bool writing = false;
        std::string readBytes;        // what a reading stream reads
        char* writeBuffer = nullptr;  // open_memstream's buffer of a writing stream
        std::size_t writeSize = 0;
    };
    // The map that holds `path`, and the key within it; null when the path is not reachable.
    std::map<std::string, std::string>* Locate(const std::string& path, std::string& key);
    const std::map<std::string, std::string>* Locate(const std::string& path,
                                                     std::string& key) const;
    bool FolderReachable(const std::string& path) const;
    void Record(const std::string& call);

    mutable std::recursive_mutex m_mutex;
    std::map<std::string, std::string> m_files;
    std::set<std::string> m_folders;
    std::map<std::string, std::map<std::string, std::string>> m_storages;  // device -> files
    std::map<std::string, std::set<std::string>> m_storageFolders;         // device -> folders
    std::map<std::string, std::string> m_mounts;                           // mount point -> device
    std::map<FILE*, std::unique_ptr<TStream>> m_streams;
    std::vector<std::string> m_calls;
    CInstalledFileHandler m_installation{this};  // last: installed once built, removed first
};
