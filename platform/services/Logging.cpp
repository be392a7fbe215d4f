#include "Logging.h"

#include "BackendSlot.h"

namespace logging {
namespace {
CBackendSlot<internals::ILog> sLog;
}

namespace internals {

CLogHandle::CLogHandle(categories::TCategory category, TChannel channel, const char* function,
                       const char* file, int line)
    : m_category(category), m_channel(channel), m_function(function), m_file(file), m_line(line) {}

CLogHandle::~CLogHandle() {
    ILog* log = sLog.Get();
    if (log != nullptr) {
        log->Write(TLogRecord{m_category, m_channel, m_function, m_file, m_line, m_stream.str()});
    }
}

}  // namespace internals

internals::ILog* IControl::SetLog(internals::ILog* log) { return sLog.Exchange(log); }

const char* IControl::CategoryName(categories::TCategory category) {
    switch (category) {
        case categories::Error:
            return "Error";
        case categories::Always:
            return "Always";
    }
    return "Unknown";
}

const char* IControl::ChannelName(TChannel channel) {
    switch (channel) {
        case ModemLoader:
            return "ModemLoader";
        case Platform:
            return "Platform";
    }
    return "Unknown";
}

}  // namespace logging
