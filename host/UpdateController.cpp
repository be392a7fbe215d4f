#include "UpdateController.h"

#include <cstring>

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

template <typename TPredicate>
bool CUpdateController::WaitUntil(std::chrono::steady_clock::time_point deadline, TPredicate done) {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_replied.wait_until(lock, deadline, done);
}

CUpdateController::TExitCode CUpdateController::Run(const TSettings& settings,
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

    Send(EVT_CONTROLLER_INIT, false);
    if (!WaitUntil(deadline, [&] { return m_initDone; })) {
        return timedOut("Init done (201)");
    }
    Send(EVT_CONTROLLER_PREPARE, true);
    if (!WaitUntil(deadline, [&] { return m_prepareOutcome.has_value(); })) {
        return timedOut("Prepare done (203)");
    }
    bool prepared = false;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        prepared = *m_prepareOutcome != 0;
    }
    if (!prepared) {
        summary = "update failed: Prepare reported failure";
        return eFailed;
    }
    Send(EVT_CONTROLLER_INSTALL, true);
    const auto installed = std::chrono::steady_clock::now();
    if (settings.abortAfter) {
        const auto abortAt = std::min(deadline, installed + *settings.abortAfter);
        if (!WaitUntil(abortAt, [&] { return m_installOutcome.has_value(); })) {
            Send(EVT_CONTROLLER_ABORT, true);
        }
    }
    if (!WaitUntil(deadline, [&] { return m_installOutcome.has_value(); })) {
        return timedOut("Install done (205)");
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    summary = *m_installOutcome != 0 ? "update succeeded" : "update failed";
    if (m_aborted) {
        summary += " (abort acknowledged)";
    }
    return *m_installOutcome != 0 ? eSucceeded : eFailed;
}
