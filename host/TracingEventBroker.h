#pragma once
// The event broker as the feature sees it: everything forwards to the host's broker, and each
// event the feature publishes is traced as "out" before it is handed on.

#include "ForwardingEventBroker.h"
#include "Trace.h"

class CTracingEventBroker : public CForwardingEventBroker {
public:
    CTracingEventBroker(IEventBroker& broker, CTrace& trace);

    bool Publish(const TEvent& event) override;

private:
    CTrace& m_trace;
};
