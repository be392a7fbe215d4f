#include "UpdateController.h"

#include <algorithm>
#include <cstring>

#include "StopSignals.h"

namespace {
constexpr int32_t kRepliesHeard[] = {EVT_CONTROLLER_INIT_DONE, EVT_CONTROLLER_PREPARE_DONE,
                                     EVT_CONTROLLER_INSTALL_DONE, EVT_CONTROLLER_PROGRESS,
                                     EVT_CONTROLLER_ABORTED};

// The name field of a 68- or 65-byte record, up to its terminator.
std::string RecordName(const TEvent& event) {
    if (event.data == nullptr || event.size < kControllerNameSize) {
        return std::string();
    }
    const char* name = static_cast<const char*>(event.data);
    return std::string(name, strnlen(name, kControllerNameSize));
}
}  // namespace

CUpdateController::CUpdateController(IEventBroker& broker, std::string feature, CTrace& trace,
                                     CProgressDisplay& progress)
    : m_broker(broker), m_feature(std::move(feature)), m_trace(trace), m_progress(progress) {
    for (int32_t id : kRepliesHeard) {
        m_broker.Subscribe(TEvent{EVENT_TYPE_USER, id, 0, nullptr}, *this);
    }
}

CUpdateController::~CUpdateController() {
    for (int32_t id : kRepliesHeard) {
        m_broker.Unsubscribe(TEvent{EVENT_TYPE_USER, id, 0, nullptr}, *this);
    }
}

void CUpdateController::OnEvent(const TEvent& event) {
    if (event.type != EVENT_TYPE_USER) {
        return;
    }
    // Replies of other features on the same broker are not ours. 201 carries the bare name.
    const std::string name =
        event.id == EVT_CONTROLLER_INIT_DONE
            ? std::string(static_cast<const char*>(event.data), event.data ? event.size : 0)
            : RecordName(event);
    if (name != m_feature) {
        return;
    }
    if (event.id == EVT_CONTROLLER_PROGRESS) {
        if (event.size >= sizeof(TControllerProgress)) {
            TControllerProgress progress{};
            std::memcpy(&progress, event.data, sizeof progress);
            m_progress.Progress(progress.percent);
        }
        return;
    }
    int32_t outcome = 0;
    if (event.id != EVT_CONTROLLER_INIT_DONE) {
        if (event.size < sizeof(TControllerReply)) {
            return;  // not a reply record
        }
        TControllerReply reply{};
        std::memcpy(&reply, event.data, sizeof reply);
        outcome = reply.outcome;
    }
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        switch (event.id) {
            case EVT_CONTROLLER_INIT_DONE:
                m_initDone = true;
                break;
            case EVT_CONTROLLER_PREPARE_DONE:
                m_prepareOutcome = outcome;
                break;
            case EVT_CONTROLLER_INSTALL_DONE:
                // The first result counts; a feature sends one per Install.
                if (!m_installOutcome) {
                    m_installOutcome = outcome;
                }
                break;
            case EVT_CONTROLLER_ABORTED:
                m_aborted = true;
                break;
            default:
                break;
        }
    }
    m_replied.notify_all();
}

void CUpdateController::Send(int32_t id, bool withName) {
    const TEvent event{EVENT_TYPE_USER, id, withName ? static_cast<uint32_t>(m_feature.size()) : 0u,
                       withName ? m_feature.data() : nullptr};
    m_trace.Event(CTrace::TDirection::eIn, event);
    m_broker.Publish(event);
}

std::string CUpdateController::Stop(int signal) {
    std::string what;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_stopSignal == 0) {
            m_stopSignal = signal;
        }
        if (m_ended || m_installOutcome || (m_prepareOutcome && *m_prepareOutcome == 0)) {
            what = "the update has ended; waiting for the feature's threads";
        } else if (!m_installSent) {
            what = "ending the update before Install";
        } else if (m_abortSent) {
            what = "Abort (207) was sent already; waiting for the feature's result";
        } else {
            what = "sending Abort (207) and waiting for the feature's result";
        }
    }
    m_replied.notify_all();
    return what;
}

CUpdateController::TExitCode CUpdateController::Run(const TSettings& settings,
                                                    std::string& summary) {
    const TExitCode result = Converse(settings, summary);
    std::lock_guard<std::mutex> lock(m_mutex);
    m_ended = true;
    return result;
}

CUpdateController::TExitCode CUpdateController::Converse(const TSettings& settings,
                                                         std::string& summary) {
    const auto start = std::chrono::steady_clock::now();
    const auto deadline =
        start + std::chrono::duration_cast<std::chrono::steady_clock::duration>(settings.timeout);
    const auto timedOut = [&](const char* waitingFor) {
        char seconds[32];
        std::snprintf(seconds, sizeof seconds, "%g", settings.timeout.count());
        summary = std::string("timed out after ") + seconds + " s waiting for " + waitingFor;
        return eTimedOut;
    };
    // Called with m_mutex held.
    const auto stopped = [&] {
        summary = "stopped by " + CStopSignals::Name(m_stopSignal) + " before Install";
        return eStopped;
    };

    Send(EVT_CONTROLLER_INIT, false);
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        if (!m_replied.wait_until(lock, deadline, [&] { return m_initDone || m_stopSignal; })) {
            return timedOut("Init done (201)");
        }
        if (m_stopSignal) {
            return stopped();
        }
    }
    Send(EVT_CONTROLLER_PREPARE, true);
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        if (!m_replied.wait_until(lock, deadline,
                                  [&] { return m_prepareOutcome.has_value() || m_stopSignal; })) {
            return timedOut("Prepare done (203)");
        }
        if (m_prepareOutcome && *m_prepareOutcome == 0) {
            summary = "update failed: Prepare reported failure";
            return eFailed;
        }
        if (m_stopSignal) {
            return stopped();
        }
        // From here a stop aborts the installation instead of ending the update.
        m_installSent = true;
    }
    Send(EVT_CONTROLLER_INSTALL, true);
    const auto installed = std::chrono::steady_clock::now();
    const auto abortAt =
        settings.abortAfter ? std::min(deadline, installed + *settings.abortAfter) : deadline;
    std::unique_lock<std::mutex> lock(m_mutex);
    for (;;) {
        // Abort is sent once: at the abort delay or on a stop, whichever comes first.
        const auto until = settings.abortAfter && !m_abortSent ? abortAt : deadline;
        m_replied.wait_until(lock, until, [&] {
            return m_installOutcome.has_value() || (m_stopSignal && !m_abortSent);
        });
        if (m_installOutcome) {
            break;
        }
        const bool abortDue = settings.abortAfter && std::chrono::steady_clock::now() >= abortAt;
        if (!m_abortSent && (m_stopSignal || abortDue)) {
            m_abortSent = true;
            lock.unlock();
            Send(EVT_CONTROLLER_ABORT, true);
            lock.lock();
        } else if (std::chrono::steady_clock::now() >= deadline) {
            return timedOut("Install done (205)");
        }
    }
    summary = *m_installOutcome != 0 ? "update succeeded" : "update failed";
    if (m_aborted) {
        summary += " (abort acknowledged)";
    }
    return *m_installOutcome != 0 ? eSucceeded : eFailed;
}
