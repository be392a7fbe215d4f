#pragma once
// Records every command line run through ICmdHandler (installed while the object lives) and
// answers with a chosen status: 0 unless a rule for the line's beginning says otherwise.
// Thread-safe: the modem-power worker runs commands on its own thread. An optional action runs
// for each line (for example to play the device that the control pin drives).

#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "CmdHandler.h"
#include "InstalledBackend.h"

class CRecordingCmdHandler : public ICmdHandlerBackend {
public:
    CRecordingCmdHandler();
    ~CRecordingCmdHandler() override;
    CRecordingCmdHandler(const CRecordingCmdHandler&) = delete;
    CRecordingCmdHandler& operator=(const CRecordingCmdHandler&) = delete;

    // Lines that begin with `linePrefix` return `status`.
    void SetStatus(const std::string& linePrefix, int status);
    void OnCommand(std::function<void(const std::string&)> action);

    int SystemCmd(const unsigned char* commandLine) override;
    std::vector<std::string> Lines() const;

private:
    mutable std::mutex m_mutex;
    std::map<std::string, int> m_statuses;
    std::function<void(const std::string&)> m_action;
    std::vector<std::string> m_lines;
    CInstalledCmdHandler m_installation{this};  // last: installed once built, removed first
};
