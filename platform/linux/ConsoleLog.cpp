#include "ConsoleLog.h"

#include <syslog.h>

#include <chrono>
#include <ctime>

std::string LogMessageText(const std::string& recordText) {
    std::string text = recordText;
    if (!text.empty() && text.back() == '\n') {
        text.pop_back();
    }
    if (text.size() >= 2 && text.front() == '(' && text.back() == ')') {
        text = text.substr(1, text.size() - 2);
    }
    return text;
}

CConsoleLog::CConsoleLog(FILE* stream, bool toSyslog) : m_stream(stream), m_toSyslog(toSyslog) {
    if (m_toSyslog) {
        ::openlog("modemloader-host", LOG_PID, LOG_DAEMON);
    }
}

CConsoleLog::~CConsoleLog() {
    if (m_toSyslog) {
        ::closelog();
    }
}

std::string CConsoleLog::FormatLine(const logging::TLogRecord& record) {
    const auto now = std::chrono::system_clock::now();
    const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
    const auto milliseconds =
        std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() %
        1000;
    std::tm local{};
    ::localtime_r(&seconds, &local);
    char clock[32];
    std::snprintf(clock, sizeof clock, "%02d:%02d:%02d.%03d", local.tm_hour, local.tm_min,
                  local.tm_sec, static_cast<int>(milliseconds));
    // A message that ends in a line end of its own (a line read from a file) would leave an empty
    // line behind; people read one record per line.
    std::string message = LogMessageText(record.text);
    while (!message.empty() && (message.back() == '\n' || message.back() == '\r')) {
        message.pop_back();
    }
    return std::string(clock) + " " + logging::IControl::CategoryName(record.category) + " " +
           record.function + ": " + message;
}

void CConsoleLog::Write(const logging::TLogRecord& record) {
    const std::string line = FormatLine(record);
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_stream != nullptr) {
        std::fprintf(m_stream, "%s\n", line.c_str());
        std::fflush(m_stream);
    }
    if (m_toSyslog) {
        const int priority = record.category == logging::categories::Error ? LOG_ERR : LOG_NOTICE;
        ::syslog(priority, "%s %s: %s", logging::IControl::CategoryName(record.category),
                 record.function.c_str(), LogMessageText(record.text).c_str());
    }
}
