#pragma once
// A test event broker: keeps every subscription with its filter, every Subscribe/Unsubscribe
// call in order, and every published event with a copy of its payload. Deliveries are made by
// the test (controller events, ticks); publishes and (un)subscriptions from inside a delivery
// are safe. Thread-safe, so a worker thread may publish too.

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "EventBroker.h"

struct TRecordedEvent {
    int32_t type;
    int32_t id;
    uint32_t size;
    std::vector<uint8_t> payload;

    std::string PayloadText() const { return std::string(payload.begin(), payload.end()); }
    // For 203, 205 and 208: the reply's name field (up to its NUL) and outcome.
    std::string ReplyName() const;
    int32_t ReplyOutcome() const;
    // For 206: the percent byte.
    uint8_t ProgressPercent() const;
};

struct TSubscription {
    TEvent filter;  // copied; data is kept as the word it was, never dereferenced
    IEventObserver* observer;
};

struct TSubscriptionCall {
    enum TKind { eSubscribe, eUnsubscribe } kind;
    TSubscription subscription;
};

class CRecordingEventBroker : public IEventBroker {
public:
    bool Subscribe(const TEvent& filter, IEventObserver& observer) override;
    bool Unsubscribe(const TEvent& filter, IEventObserver& observer) override;
    bool Publish(const TEvent& event) override;

    // Delivers a controller event (type 3) with `payload` to every observer subscribed to `id`.
    void DeliverController(int32_t id, const std::string& payload = std::string());
    // Delivers `event` to every observer whose filter has the event's type and id.
    void Deliver(const TEvent& event);
    // Delivers `count` ticks, one at a time, to the observers subscribed to the tick.
    void Tick(unsigned count = 1);

    std::vector<TSubscription> Subscriptions() const;
    std::vector<TSubscriptionCall> SubscriptionCalls() const;
    std::vector<TRecordedEvent> Published() const;
    std::vector<int32_t> PublishedIds() const;
    // Registrations of `observer` with this type and id.
    std::size_t CountSubscriptions(const IEventObserver& observer, int32_t type, int32_t id) const;
    bool HasTickSubscribers() const;

private:
    bool IsSubscribed(const IEventObserver* observer, int32_t type, int32_t id) const;

    mutable std::mutex m_mutex;
    std::vector<TSubscription> m_subscriptions;
    std::vector<TSubscriptionCall> m_calls;
    std::vector<TRecordedEvent> m_published;
};
