#pragma once
// Forwards every file operation to the wrapped handler; mounts and unmounts are traced with
// their result.

#include "FileHandler.h"
#include "Trace.h"

class CTracingFileHandler : public IFileHandlerBackend {
public:
    CTracingFileHandler(IFileHandlerBackend& handler, CTrace& trace);

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
    IFileHandlerBackend& m_handler;
    CTrace& m_trace;
};
