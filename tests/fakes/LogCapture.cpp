#include "LogCapture.h"

void PrintTo(const TLogEntry& entry, std::ostream* stream) {
    *stream << "{" << logging::IControl::CategoryName(entry.category) << ", " << entry.function
            << ", \"";
    for (char character : entry.text) {
        if (character == '\n') {
            *stream << "\\n";
        } else {
            *stream << character;
        }
    }
    *stream << "\"}";
}

std::string LogText(const std::string& message) { return "(" + message + ")\n"; }

TLogEntry ErrorEntry(const std::string& function, const std::string& message) {
    return {logging::categories::Error, function, LogText(message)};
}

TLogEntry AlwaysEntry(const std::string& function, const std::string& message) {
    return {logging::categories::Always, function, LogText(message)};
}

CLogCapture::CLogCapture() {}

CLogCapture::~CLogCapture() = default;

void CLogCapture::Write(const logging::TLogRecord& record) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_records.push_back(record);
}

std::vector<logging::TLogRecord> CLogCapture::Records() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_records;
}

std::vector<TLogEntry> CLogCapture::Entries() const {
    std::vector<TLogEntry> entries;
    for (const logging::TLogRecord& record : Records()) {
        entries.push_back({record.category, record.function, record.text});
    }
    return entries;
}

void CLogCapture::Clear() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_records.clear();
}
