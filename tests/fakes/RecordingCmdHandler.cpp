#include "RecordingCmdHandler.h"

CRecordingCmdHandler::CRecordingCmdHandler() {}

CRecordingCmdHandler::~CRecordingCmdHandler() = default;

void CRecordingCmdHandler::SetStatus(const std::string& linePrefix, int status) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_statuses[linePrefix] = status;
}

void CRecordingCmdHandler::OnCommand(std::function<void(const std::string&)> action) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_action = std::move(action);
}

int CRecordingCmdHandler::SystemCmd(const unsigned char* commandLine) {
    const std::string line = reinterpret_cast<const char*>(commandLine);
    std::function<void(const std::string&)> action;
    int status = 0;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_lines.push_back(line);
        for (const auto& [prefix, prefixStatus] : m_statuses) {
            if (line.compare(0, prefix.size(), prefix) == 0) {
                status = prefixStatus;
            }
        }
        action = m_action;
    }
    if (action) {
        action(line);
    }
    return status;
}

std::vector<std::string> CRecordingCmdHandler::Lines() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_lines;
}
