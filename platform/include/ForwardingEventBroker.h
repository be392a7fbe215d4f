#pragma once
// The base of an event-broker decorator: subscriptions and events go to the wrapped broker
// unchanged. A decorator (the host's tracing) derives from it and overrides only what it
// changes, calling the base's to reach the wrapped broker. The wrapped broker must outlive the
// decorator.

#include "EventBroker.h"

class CForwardingEventBroker : public IEventBroker {
public:
    explicit CForwardingEventBroker(IEventBroker& inner) : m_inner(inner) {}

    bool Subscribe(const TEvent& filter, IEventObserver& observer) override {
        return m_inner.Subscribe(filter, observer);
    }
    bool Unsubscribe(const TEvent& filter, IEventObserver& observer) override {
        return m_inner.Unsubscribe(filter, observer);
    }
    bool Publish(const TEvent& event) override { return m_inner.Publish(event); }

private:
    IEventBroker& m_inner;
};
