#pragma once
// The host's log sink for people: one line per record on a stream (normally stderr),
//   "09:48:36.123 Error HandleControllerPrepare: Couldn't mount /dev/loop3"
// and, when asked for, the same record to syslog (Error as LOG_ERR, Always as LOG_NOTICE).
// Records come from any thread (the modem-power worker logs too); lines never interleave.

#include <cstdio>
#include <mutex>
#include <string>

#include "Logging.h"

// The message of a record's text: the features stream "(" message ")\n"; the wrapping is
// dropped. Text without that wrapping is returned without its final line end only.
std::string LogMessageText(const std::string& recordText);

class CConsoleLog : public logging::internals::ILog {
public:
    // `stream` may be null (no lines). Not owned.
    CConsoleLog(FILE* stream, bool toSyslog);
    ~CConsoleLog() override;
    CConsoleLog(const CConsoleLog&) = delete;
    CConsoleLog& operator=(const CConsoleLog&) = delete;

    void Write(const logging::TLogRecord& record) override;

    // The line written for `record` (without the line end), at wall-clock time now.
    static std::string FormatLine(const logging::TLogRecord& record);

private:
    FILE* m_stream;
    bool m_toSyslog;
    std::mutex m_mutex;
};
