#pragma once
// File and mount operations for the features.
//
// Every static operation forwards to one replaceable backend: the host installs the real one
// (POSIX on Linux), tests install fakes. Without a backend every operation fails.
// Result conventions: 0 means success, except where an operation says otherwise.

#include <cstddef>
#include <cstdio>

class IFileHandlerBackend;

class IFileHandler {
public:
    // File-system types of the host. The numeric meaning belongs to the host's configuration
    // (on Linux "fs.N = type"); the movinand storage is mounted with value 2.
    enum TFileSystemFormat : int {
        eFormat0 = 0,
        eFormat1 = 1,
        eFormatMovinand = 2,
        eFormat3 = 3,
    };

    // Codes of FolderExists.
    static constexpr int kFolderPresent = 0;
    static constexpr int kNotAFolder = 1;
    static constexpr int kFolderMissing = 2;

    // Codes of RemoveFile: exactly kRemoveFailed means the file is still there.
    static constexpr int kRemoved = 0;
    static constexpr int kRemoveFailed = 1;
    static constexpr int kRemoveNoSuchFile = 2;

    static int FileExists(const unsigned char* path);    // 0 when the path exists
    static int FolderExists(const unsigned char* path);  // kFolder... codes
    static int MakeFolder(const unsigned char* path);
    static int CopyFile(const unsigned char* source, const unsigned char* destination);
    static int RemoveFile(const unsigned char* path);  // kRemove... codes
    static int FileSize(const unsigned char* path);    // bytes, negative on failure

    static FILE* FOpen(const unsigned char* path, const char* mode);  // null on failure
    static std::size_t FRead(void* buffer, std::size_t size, std::size_t count, FILE* file);
    static std::size_t FWrite(const void* data, std::size_t size, std::size_t count, FILE* file);
    static char* FGets(char* buffer, int size, FILE* file);  // null when nothing was read
    static int FClose(FILE* file);

    static int Mount(const unsigned char* device, const unsigned char* mountPoint,
                     TFileSystemFormat format);
    static int Umount(const unsigned char* mountPoint);
    static int Sync();

    // Installs `backend` (null removes it) and returns the one installed before.
    static IFileHandlerBackend* SetBackend(IFileHandlerBackend* backend);
};

// What a file-handler backend provides: the operations of IFileHandler, same conventions.
class IFileHandlerBackend {
public:
    virtual ~IFileHandlerBackend() {}
    virtual int FileExists(const unsigned char* path) = 0;
    virtual int FolderExists(const unsigned char* path) = 0;
    virtual int MakeFolder(const unsigned char* path) = 0;
    virtual int CopyFile(const unsigned char* source, const unsigned char* destination) = 0;
    virtual int RemoveFile(const unsigned char* path) = 0;
    virtual int FileSize(const unsigned char* path) = 0;
    virtual FILE* FOpen(const unsigned char* path, const char* mode) = 0;
    virtual std::size_t FRead(void* buffer, std::size_t size, std::size_t count, FILE* file) = 0;
    virtual std::size_t FWrite(const void* data, std::size_t size, std::size_t count,
                               FILE* file) = 0;
    virtual char* FGets(char* buffer, int size, FILE* file) = 0;
    virtual int FClose(FILE* file) = 0;
    virtual int Mount(const unsigned char* device, const unsigned char* mountPoint,
                      IFileHandler::TFileSystemFormat format) = 0;
    virtual int Umount(const unsigned char* mountPoint) = 0;
    virtual int Sync() = 0;
};
