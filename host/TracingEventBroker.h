#pragma once
// The event broker as the feature sees it: everything forwards to the host's broker, and each
// event the feature publishes is traced as "out" before it is handed on.

#include "EventBroker.h"
#include "Trace.h"

class CTracingEventBroker : public IEventBroker {
public:
    CTracingEventBroker(IEventBroker& broker, CTrace& trace);

    bool Subscribe(const TEvent& filter, IEventObserver& observer) override;
    bool Unsubscribe(const TEvent& filter, IEventObserver& observer) override;
    bool Publish(const TEvent& event) override;

private:
    IEventBroker& m_broker;
    CTrace& m_trace;
};
