#pragma once
// Forwards every file operation to the wrapped handler; mounts and unmounts are traced with
// their result.

#include "ForwardingFileHandler.h"
#include "Trace.h"

class CTracingFileHandler : public CForwardingFileHandler {
public:
    CTracingFileHandler(IFileHandlerBackend& handler, CTrace& trace);

    int Mount(const unsigned char* device, const unsigned char* mountPoint,
              IFileHandler::TFileSystemFormat format) override;
    int Umount(const unsigned char* mountPoint) override;

private:
    CTrace& m_trace;
};
