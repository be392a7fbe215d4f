#pragma once
// Receives the events that match an observer's subscriptions, on the host's event thread.

#include "Event.h"

class IEventObserver {
public:
    virtual ~IEventObserver() {}
    virtual void OnEvent(const TEvent& event) = 0;
};
