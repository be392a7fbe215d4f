#include "TracingCmdHandler.h"

CTracingCmdHandler::CTracingCmdHandler(ICmdHandlerBackend& handler, CTrace& trace)
    : m_handler(handler), m_trace(trace) {}

int CTracingCmdHandler::SystemCmd(const unsigned char* commandLine) {
    const int status = m_handler.SystemCmd(commandLine);
    m_trace.Command(commandLine != nullptr ? reinterpret_cast<const char*>(commandLine) : "",
                    status);
    return status;
}
