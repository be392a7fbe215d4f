#include "TracingFileHandler.h"

#include <string>

namespace {
std::string Text(const unsigned char* text) {
    return text != nullptr ? reinterpret_cast<const char*>(text) : "";
}
}  // namespace

CTracingFileHandler::CTracingFileHandler(IFileHandlerBackend& handler, CTrace& trace)
    : CForwardingFileHandler(handler), m_trace(trace) {}

int CTracingFileHandler::Mount(const unsigned char* device, const unsigned char* mountPoint,
                               IFileHandler::TFileSystemFormat format) {
    const int status = CForwardingFileHandler::Mount(device, mountPoint, format);
    m_trace.Mount(Text(device), Text(mountPoint), static_cast<int>(format), status);
    return status;
}

int CTracingFileHandler::Umount(const unsigned char* mountPoint) {
    const int status = CForwardingFileHandler::Umount(mountPoint);
    m_trace.Umount(Text(mountPoint), status);
    return status;
}
