#pragma once
// The host's event broker on Linux: one event-delivery thread for everything. (The file is named
// apart from EventBroker.h, the interface it implements.)
//
// Published events (controller requests and replies) and the periodic tick are delivered on the
// one thread that Start() creates, in the order they were published; a tick is delivered between
// events. Publish copies the record and its payload before it returns. Subscribe, Unsubscribe and
// Publish may be called from any thread, including from inside a delivery: a publish made inside
// a delivery is queued and delivered after the current delivery returns.
//
// Subscriptions match on the filter's type and id only (a tick filter {0, 0, 1000, 1} matches
// every tick). An observer is registered at most once per type and id; a second Subscribe of the
// same pair is refused. Once Unsubscribe has returned the observer receives nothing more for that
// pair: called from another thread, Unsubscribe waits for a delivery to that observer that is
// under way.
//
// Ticks come from a timer with the configured period. When a delivery overran one or more periods
// (a long blocking write to a slow serial line), one tick is delivered at once, not after another
// full period, and the ticks missed in between are not replayed.
//
// An exception thrown by an observer's OnEvent is caught and reported through the error reporter;
// delivery goes on with the next observer.

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "EventBroker.h"
#include "Status.h"
#include "UniqueFd.h"

class CEventBroker : public IEventBroker {
public:
    using TErrorReporter = std::function<void(const std::string& message)>;

    // `tickPeriod` must be positive. `reportError` is called on the delivery thread; without one
    // the messages go to stderr.
    CEventBroker(std::chrono::milliseconds tickPeriod, TErrorReporter reportError);
    // Stops the delivery thread (see Stop).
    ~CEventBroker() override;
    CEventBroker(const CEventBroker&) = delete;
    CEventBroker& operator=(const CEventBroker&) = delete;

    // Creates the timer and the delivery thread. Events published before are delivered then.
    [[nodiscard]] CStatus Start();
    // Ends the delivery thread after the delivery under way; queued events are dropped and later
    // publishes refused. Afterwards observers may be destroyed without unsubscribing. Idempotent;
    // must not be called from the delivery thread.
    void Stop();

    bool Subscribe(const TEvent& filter, IEventObserver& observer) override;
    bool Unsubscribe(const TEvent& filter, IEventObserver& observer) override;
    // False once the broker was stopped.
    bool Publish(const TEvent& event) override;

private:
    struct TSubscription {
        int32_t type;
        int32_t id;
        IEventObserver* observer;
        uint64_t serial;
    };
    struct TQueuedEvent {
        int32_t type;
        int32_t id;
        std::vector<uint8_t> payload;
    };

    void Run();
    void Deliver(int32_t type, int32_t id, const std::vector<uint8_t>& payload);
    void Wake();
    void ReportError(const std::string& message) const;

    const std::chrono::milliseconds m_tickPeriod;
    const TErrorReporter m_reportError;

    mutable std::mutex m_mutex;
    std::condition_variable m_deliveryEnded;
    std::vector<TSubscription> m_subscriptions;
    uint64_t m_nextSerial = 1;
    std::deque<TQueuedEvent> m_queue;
    IEventObserver* m_deliveringTo = nullptr;
    std::thread::id m_deliveryThread;  // set by the thread itself, before its first delivery
    bool m_stopping = false;

    CUniqueFd m_wakeFd;
    CUniqueFd m_timerFd;
    std::thread m_thread;
};
