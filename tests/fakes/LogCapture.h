#pragma once
// Captures every log record while it is alive (installed as the logging sink on construction,
// the previous sink restored on destruction). Thread-safe: the modem-power worker logs too.

#include <mutex>
#include <ostream>
#include <string>
#include <vector>

#include "InstalledBackend.h"
#include "Logging.h"

// The parts of a record most tests compare: category, function and text.
struct TLogEntry {
    logging::categories::TCategory category;
    std::string function;
    std::string text;

    bool operator==(const TLogEntry& other) const {
        return category == other.category && function == other.function && text == other.text;
    }
};
void PrintTo(const TLogEntry& entry, std::ostream* stream);

// Builds the text a message is logged with: "(" message ")\n".
std::string LogText(const std::string& message);
TLogEntry ErrorEntry(const std::string& function, const std::string& message);
TLogEntry AlwaysEntry(const std::string& function, const std::string& message);

class CLogCapture : public logging::internals::ILog {
public:
    CLogCapture();
    ~CLogCapture() override;
    CLogCapture(const CLogCapture&) = delete;
    CLogCapture& operator=(const CLogCapture&) = delete;

    void Write(const logging::TLogRecord& record) override;

    std::vector<logging::TLogRecord> Records() const;
    std::vector<TLogEntry> Entries() const;
    void Clear();

private:
    mutable std::mutex m_mutex;
    std::vector<logging::TLogRecord> m_records;
    CInstalledLog m_installation{this};  // last: installed once built, removed first
};
