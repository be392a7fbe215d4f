#pragma once
// Runs each command line on the wrapped handler and traces the line with its status.

#include "CmdHandler.h"
#include "Trace.h"

class CTracingCmdHandler : public ICmdHandlerBackend {
public:
    CTracingCmdHandler(ICmdHandlerBackend& handler, CTrace& trace);
    int SystemCmd(const unsigned char* commandLine) override;

private:
    ICmdHandlerBackend& m_handler;
    CTrace& m_trace;
};
