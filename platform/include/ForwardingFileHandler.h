#pragma once
// The base of a file-handler decorator: every operation goes to the wrapped backend unchanged.
// A decorator (the host's tracing, a test's fault injection) derives from it and overrides only
// the operations it changes, calling the base's to reach the wrapped backend. The wrapped
// backend must outlive the decorator.

#include "FileHandler.h"

class CForwardingFileHandler : public IFileHandlerBackend {
public:
    explicit CForwardingFileHandler(IFileHandlerBackend& inner) : m_inner(inner) {}

    int FileExists(const unsigned char* path) override { return m_inner.FileExists(path); }
    int FolderExists(const unsigned char* path) override { return m_inner.FolderExists(path); }
    int MakeFolder(const unsigned char* path) override { return m_inner.MakeFolder(path); }
    int CopyFile(const unsigned char* source, const unsigned char* destination) override {
        return m_inner.CopyFile(source, destination);
    }
    int RemoveFile(const unsigned char* path) override { return m_inner.RemoveFile(path); }
    int FileSize(const unsigned char* path) override { return m_inner.FileSize(path); }
    FILE* FOpen(const unsigned char* path, const char* mode) override {
        return m_inner.FOpen(path, mode);
    }
    std::size_t FRead(void* buffer, std::size_t size, std::size_t count, FILE* file) override {
        return m_inner.FRead(buffer, size, count, file);
    }
    std::size_t FWrite(const void* data, std::size_t size, std::size_t count, FILE* file) override {
        return m_inner.FWrite(data, size, count, file);
    }
    char* FGets(char* buffer, int size, FILE* file) override {
        return m_inner.FGets(buffer, size, file);
    }
    int FClose(FILE* file) override { return m_inner.FClose(file); }
    int Mount(const unsigned char* device, const unsigned char* mountPoint,
              IFileHandler::TFileSystemFormat format) override {
        return m_inner.Mount(device, mountPoint, format);
    }
    int Umount(const unsigned char* mountPoint) override { return m_inner.Umount(mountPoint); }
    int Sync() override { return m_inner.Sync(); }

private:
    IFileHandlerBackend& m_inner;
};
