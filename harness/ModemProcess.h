#pragma once
// modem-sim running in the background for the length of one simulated device: started before
// the host, stopped (SIGTERM, then its summary is read) after it. The destructor stops a modem
// that is still running, so no emulator outlives its device.

#include <chrono>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "ChildProcess.h"
#include "Status.h"

class CModemProcess {
public:
    CModemProcess() = default;
    ~CModemProcess();
    CModemProcess(const CModemProcess&) = delete;
    CModemProcess& operator=(const CModemProcess&) = delete;

    // Runs `arguments` (modem-sim and its options) with its output in `logPath`, and waits
    // (bounded) until the serial link `linkPath` exists: modem-sim makes it last, so the modem
    // listens once it is there.
    [[nodiscard]] CStatus Start(const std::vector<std::string>& arguments,
                                const std::string& linkPath, const std::string& logPath);
    bool IsRunning() const { return m_process.IsRunning(); }

    // Ends the modem with SIGTERM (SIGKILL if it does not go within a few seconds) and reads
    // the summary it wrote at `summaryPath` on its way out.
    [[nodiscard]] CStatus Stop(const std::string& summaryPath, nlohmann::json& summary);

private:
    // SIGTERM, then waits; true when it ended by itself.
    bool Terminate();

    CChildProcess m_process;
    std::string m_logPath;
};
