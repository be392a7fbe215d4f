#include "TracingLog.h"

CTracingLog::CTracingLog(CTrace& trace, logging::internals::ILog* next)
    : m_trace(trace), m_next(next) {}

void CTracingLog::Write(const logging::TLogRecord& record) {
    m_trace.Log(record);
    if (m_next != nullptr) {
        m_next->Write(record);
    }
}
