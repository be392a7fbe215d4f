#pragma once
// The host's event broker.
//
// Subscribe registers an observer for the events whose type and id match the filter's.
// Publish hands an event to the host; the broker copies whatever it keeps (record and payload)
// before it returns, so callers may publish records that live on their stack.
// All three may be called from inside a delivery (re-entrantly). Results are informative only.

#include "Event.h"
#include "EventObserver.h"

class IEventBroker {
public:
    virtual ~IEventBroker() {}
    virtual bool Subscribe(const TEvent& filter, IEventObserver& observer) = 0;
    virtual bool Unsubscribe(const TEvent& filter, IEventObserver& observer) = 0;
    virtual bool Publish(const TEvent& event) = 0;
};
