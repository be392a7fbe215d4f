#include "FileHandler.h"

#include "BackendSlot.h"

namespace {
CBackendSlot<IFileHandlerBackend> sBackend;

// Calls `operation` on the installed backend, or gives `failure` when none is installed.
template <typename TResult, typename... TParameters, typename... TArguments>
TResult Forward(TResult (IFileHandlerBackend::*operation)(TParameters...), TResult failure,
                TArguments... arguments) {
    IFileHandlerBackend* backend = sBackend.Get();
    return backend != nullptr ? (backend->*operation)(arguments...) : failure;
}
}  // namespace

int IFileHandler::FileExists(const unsigned char* path) {
    return Forward(&IFileHandlerBackend::FileExists, -1, path);
}

int IFileHandler::FolderExists(const unsigned char* path) {
    return Forward(&IFileHandlerBackend::FolderExists, -1, path);
}

int IFileHandler::MakeFolder(const unsigned char* path) {
    return Forward(&IFileHandlerBackend::MakeFolder, -1, path);
}

int IFileHandler::CopyFile(const unsigned char* source, const unsigned char* destination) {
    return Forward(&IFileHandlerBackend::CopyFile, -1, source, destination);
}

int IFileHandler::RemoveFile(const unsigned char* path) {
    return Forward(&IFileHandlerBackend::RemoveFile, kRemoveFailed, path);
}

int IFileHandler::FileSize(const unsigned char* path) {
    return Forward(&IFileHandlerBackend::FileSize, -1, path);
}

FILE* IFileHandler::FOpen(const unsigned char* path, const char* mode) {
    return Forward(&IFileHandlerBackend::FOpen, static_cast<FILE*>(nullptr), path, mode);
}

std::size_t IFileHandler::FRead(void* buffer, std::size_t size, std::size_t count, FILE* file) {
    return Forward(&IFileHandlerBackend::FRead, std::size_t{0}, buffer, size, count, file);
}

std::size_t IFileHandler::FWrite(const void* data, std::size_t size, std::size_t count,
                                 FILE* file) {
    return Forward(&IFileHandlerBackend::FWrite, std::size_t{0}, data, size, count, file);
}

char* IFileHandler::FGets(char* buffer, int size, FILE* file) {
    return Forward(&IFileHandlerBackend::FGets, static_cast<char*>(nullptr), buffer, size, file);
}

int IFileHandler::FClose(FILE* file) { return Forward(&IFileHandlerBackend::FClose, EOF, file); }

int IFileHandler::Mount(const unsigned char* device, const unsigned char* mountPoint,
                        TFileSystemFormat format) {
    return Forward(&IFileHandlerBackend::Mount, -1, device, mountPoint, format);
}

int IFileHandler::Umount(const unsigned char* mountPoint) {
    return Forward(&IFileHandlerBackend::Umount, -1, mountPoint);
}

int IFileHandler::Sync() { return Forward(&IFileHandlerBackend::Sync, -1); }

IFileHandlerBackend* IFileHandler::SetBackend(IFileHandlerBackend* backend) {
    return sBackend.Exchange(backend);
}
