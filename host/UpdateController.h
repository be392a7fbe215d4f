#pragma once
// The host's update controller: drives one update of a feature and listens for its replies.
//
// Init (200) -> 201; Prepare (202, the feature's name) -> 203; Install (204, the name) -> 205.
// A 203 with outcome 0 ends the update as failed. With an abort delay, Abort (207) is sent that
// long after Install and the controller keeps waiting for 205 (the feature goes on working).
// Progress (206) goes to the display. Requests are published from the calling thread; replies
// arrive on the event-delivery thread.
//
// Stop (SIGINT or SIGTERM, from the host's signal watcher) before Install ends the update with
// eStopped; after Install, with no result yet, Abort is sent (once) and the controller keeps
// waiting for 205 up to its time-out, as with an abort delay.

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <string>

#include "EventBroker.h"
#include "ProgressDisplay.h"
#include "Trace.h"

class CUpdateController : public IEventObserver {
public:
    enum TExitCode { eSucceeded = 0, eFailed = 1, eHostError = 2, eTimedOut = 3, eStopped = 4 };

    struct TSettings {
        std::chrono::duration<double> timeout{600.0};
        std::optional<std::chrono::milliseconds> abortAfter;
    };

    CUpdateController(IEventBroker& broker, std::string feature, CTrace& trace,
                      CProgressDisplay& progress);
    ~CUpdateController() override;
    CUpdateController(const CUpdateController&) = delete;
    CUpdateController& operator=(const CUpdateController&) = delete;

    // Runs the conversation; returns the exit code and says what happened in `summary`.
    TExitCode Run(const TSettings& settings, std::string& summary);

    void OnEvent(const TEvent& event) override;

    // Asks the update to stop because of `signal`; callable from any thread. Returns what the
    // stop does, in a few words, for the line on stderr.
    std::string Stop(int signal);

private:
    TExitCode Converse(const TSettings& settings, std::string& summary);
    void Send(int32_t id, bool withName);

    IEventBroker& m_broker;
    const std::string m_feature;
    CTrace& m_trace;
    CProgressDisplay& m_progress;

    std::mutex m_mutex;
    std::condition_variable m_replied;
    bool m_initDone = false;
    std::optional<int32_t> m_prepareOutcome;
    std::optional<int32_t> m_installOutcome;
    bool m_aborted = false;
    bool m_installSent = false;
    bool m_abortSent = false;
    bool m_ended = false;  // Run has returned
    int m_stopSignal = 0;  // the signal that asked for a stop, else 0
};
