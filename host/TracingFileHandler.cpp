#include "TracingFileHandler.h"

#include <string>

namespace {
std::string Text(const unsigned char* text) {
    return text != nullptr ? reinterpret_cast<const char*>(text) : "";
}
}  // namespace

CTracingFileHandler::CTracingFileHandler(IFileHandlerBackend& handler, CTrace& trace)
    : m_handler(handler), m_trace(trace) {}

int CTracingFileHandler::FileExists(const unsigned char* path) {
    return m_handler.FileExists(path);
}

int CTracingFileHandler::FolderExists(const unsigned char* path) {
    return m_handler.FolderExists(path);
}

int CTracingFileHandler::MakeFolder(const unsigned char* path) {
    return m_handler.MakeFolder(path);
}

int CTracingFileHandler::CopyFile(const unsigned char* source, const unsigned char* destination) {
    return m_handler.CopyFile(source, destination);
}

int CTracingFileHandler::RemoveFile(const unsigned char* path) {
    return m_handler.RemoveFile(path);
}

int CTracingFileHandler::FileSize(const unsigned char* path) { return m_handler.FileSize(path); }

FILE* CTracingFileHandler::FOpen(const unsigned char* path, const char* mode) {
    return m_handler.FOpen(path, mode);
}

std::size_t CTracingFileHandler::FRead(void* buffer, std::size_t size, std::size_t count,
                                       FILE* file) {
    return m_handler.FRead(buffer, size, count, file);
}

std::size_t CTracingFileHandler::FWrite(const void* data, std::size_t size, std::size_t count,
                                        FILE* file) {
    return m_handler.FWrite(data, size, count, file);
}

char* CTracingFileHandler::FGets(char* buffer, int size, FILE* file) {
    return m_handler.FGets(buffer, size, file);
}

int CTracingFileHandler::FClose(FILE* file) { return m_handler.FClose(file); }

int CTracingFileHandler::Mount(const unsigned char* device, const unsigned char* mountPoint,
                               IFileHandler::TFileSystemFormat format) {
    const int status = m_handler.Mount(device, mountPoint, format);
    m_trace.Mount(Text(device), Text(mountPoint), static_cast<int>(format), status);
    return status;
}

int CTracingFileHandler::Umount(const unsigned char* mountPoint) {
    const int status = m_handler.Umount(mountPoint);
    m_trace.Umount(Text(mountPoint), status);
    return status;
}

int CTracingFileHandler::Sync() { return m_handler.Sync(); }
