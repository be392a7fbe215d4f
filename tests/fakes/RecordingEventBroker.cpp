#include "RecordingEventBroker.h"

#include <cstring>

std::string TRecordedEvent::ReplyName() const {
    const std::size_t field = std::min<std::size_t>(payload.size(), kControllerNameSize);
    std::string name(payload.begin(), payload.begin() + static_cast<std::ptrdiff_t>(field));
    return name.substr(0, name.find('\0'));
}

int32_t TRecordedEvent::ReplyOutcome() const {
    int32_t outcome = -1;
    if (payload.size() >= sizeof(TControllerReply)) {
        std::memcpy(&outcome, payload.data() + offsetof(TControllerReply, outcome), sizeof outcome);
    }
    return outcome;
}

uint8_t TRecordedEvent::ProgressPercent() const {
    return payload.size() > offsetof(TControllerProgress, percent)
               ? payload[offsetof(TControllerProgress, percent)]
               : 0;
}

bool CRecordingEventBroker::Subscribe(const TEvent& filter, IEventObserver& observer) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_subscriptions.push_back({filter, &observer});
    m_calls.push_back({TSubscriptionCall::eSubscribe, {filter, &observer}});
    return true;
}

bool CRecordingEventBroker::Unsubscribe(const TEvent& filter, IEventObserver& observer) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_calls.push_back({TSubscriptionCall::eUnsubscribe, {filter, &observer}});
    for (auto it = m_subscriptions.begin(); it != m_subscriptions.end(); ++it) {
        if (it->observer == &observer && it->filter.type == filter.type &&
            it->filter.id == filter.id) {
            m_subscriptions.erase(it);
            return true;
        }
    }
    return false;
}

bool CRecordingEventBroker::Publish(const TEvent& event) {
    TRecordedEvent recorded{event.type, event.id, event.size, {}};
    if (event.size > 0 && event.data != nullptr) {
        const auto* bytes = static_cast<const uint8_t*>(event.data);
        recorded.payload.assign(bytes, bytes + event.size);
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    m_published.push_back(std::move(recorded));
    return true;
}

void CRecordingEventBroker::DeliverController(int32_t id, const std::string& payload) {
    const TEvent event{EVENT_TYPE_USER, id, static_cast<uint32_t>(payload.size()),
                       payload.empty() ? nullptr : payload.data()};
    Deliver(event);
}

void CRecordingEventBroker::Deliver(const TEvent& event) {
    std::vector<IEventObserver*> receivers;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        for (const TSubscription& subscription : m_subscriptions) {
            if (subscription.filter.type == event.type && subscription.filter.id == event.id) {
                receivers.push_back(subscription.observer);
            }
        }
    }
    // An observer unsubscribed by an earlier receiver of this delivery is not called.
    for (IEventObserver* observer : receivers) {
        if (IsSubscribed(observer, event.type, event.id)) {
            observer->OnEvent(event);
        }
    }
}

void CRecordingEventBroker::Tick(unsigned count) {
    const TEvent tick{EVENT_TYPE_TICK, 0, 0, nullptr};
    for (unsigned i = 0; i < count; ++i) {
        Deliver(tick);
    }
}

std::vector<TSubscription> CRecordingEventBroker::Subscriptions() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_subscriptions;
}

std::vector<TSubscriptionCall> CRecordingEventBroker::SubscriptionCalls() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_calls;
}

std::vector<TRecordedEvent> CRecordingEventBroker::Published() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_published;
}

std::vector<int32_t> CRecordingEventBroker::PublishedIds() const {
    std::vector<int32_t> ids;
    for (const TRecordedEvent& event : Published()) {
        ids.push_back(event.id);
    }
    return ids;
}

std::size_t CRecordingEventBroker::CountSubscriptions(const IEventObserver& observer, int32_t type,
                                                      int32_t id) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    std::size_t count = 0;
    for (const TSubscription& subscription : m_subscriptions) {
        count += subscription.observer == &observer && subscription.filter.type == type &&
                 subscription.filter.id == id;
    }
    return count;
}

bool CRecordingEventBroker::HasTickSubscribers() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    for (const TSubscription& subscription : m_subscriptions) {
        if (subscription.filter.type == EVENT_TYPE_TICK) {
            return true;
        }
    }
    return false;
}

bool CRecordingEventBroker::IsSubscribed(const IEventObserver* observer, int32_t type,
                                         int32_t id) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    for (const TSubscription& subscription : m_subscriptions) {
        if (subscription.observer == observer && subscription.filter.type == type &&
            subscription.filter.id == id) {
            return true;
        }
    }
    return false;
}
