#include "ModemProcess.h"

#include <signal.h>
#include <sys/stat.h>

#include "Await.h"
#include "TemporaryDirectory.h"

namespace {
constexpr auto kStartTimeout = std::chrono::seconds(10);
constexpr auto kStopTimeout = std::chrono::seconds(5);
constexpr auto kPollInterval = std::chrono::milliseconds(2);

std::string LogOf(const std::string& logPath) {
    std::string log;
    if (!ReadWholeFile(logPath, log)) {
        return std::string();
    }
    return log.empty() ? std::string() : " (modem-sim said: " + log + ")";
}
}  // namespace

CModemProcess::~CModemProcess() {
    if (m_process.IsRunning()) {
        Terminate();
    }
}

CStatus CModemProcess::Start(const std::vector<std::string>& arguments, const std::string& linkPath,
                             const std::string& logPath) {
    if (m_process.IsRunning()) {
        return CStatus::Failure("starting modem-sim: it is already running");
    }
    m_logPath = logPath;
    TStartOptions options;
    options.outputPath = logPath;
    if (CStatus status = m_process.Start(arguments, options); !status) {
        return status.WithContext("starting modem-sim");
    }

    // modem-sim makes the link last: once it is there, the modem listens.
    bool ended = false;
    const bool settled = Await(
        [&] {
            struct stat link {};
            if (::lstat(linkPath.c_str(), &link) == 0) {
                return true;
            }
            ended = m_process.TryReap().has_value();
            return ended;
        },
        kStartTimeout, kPollInterval);
    if (ended) {
        return CStatus::Failure("starting modem-sim: it ended before making " + linkPath +
                                LogOf(m_logPath));
    }
    if (!settled) {
        Terminate();
        return CStatus::Failure("starting modem-sim: no " + linkPath + " within 10 s" +
                                LogOf(m_logPath));
    }
    return CStatus::Ok();
}

bool CModemProcess::Terminate() {
    m_process.Signal(SIGTERM);
    if (const std::optional<TChildExit> exit = m_process.Wait(kStopTimeout)) {
        return exit->exitCode == 0;
    }
    m_process.Signal(SIGKILL);
    m_process.WaitToEnd();
    return false;
}

CStatus CModemProcess::Stop(const std::string& summaryPath, nlohmann::json& summary) {
    if (!m_process.IsRunning()) {
        return CStatus::Failure("stopping modem-sim: it is not running");
    }
    if (!Terminate()) {
        return CStatus::Failure("stopping modem-sim: it did not end cleanly on SIGTERM" +
                                LogOf(m_logPath));
    }
    std::string text;
    if (CStatus status = ReadWholeFile(summaryPath, text); !status) {
        return status.WithContext("modem-sim's summary");
    }
    summary = nlohmann::json::parse(text, nullptr, false);
    if (summary.is_discarded()) {
        return CStatus::Failure("modem-sim's summary " + summaryPath + " is not JSON: " + text);
    }
    return CStatus::Ok();
}
