#pragma once
// The host's log sink: each record goes to the trace and then to the next sink (the console).

#include "Logging.h"
#include "Trace.h"

class CTracingLog : public logging::internals::ILog {
public:
    // `next` may be null. Neither is owned.
    CTracingLog(CTrace& trace, logging::internals::ILog* next);
    void Write(const logging::TLogRecord& record) override;

private:
    CTrace& m_trace;
    logging::internals::ILog* m_next;
};
