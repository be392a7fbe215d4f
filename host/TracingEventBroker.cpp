#include "TracingEventBroker.h"

CTracingEventBroker::CTracingEventBroker(IEventBroker& broker, CTrace& trace)
    : m_broker(broker), m_trace(trace) {}

bool CTracingEventBroker::Subscribe(const TEvent& filter, IEventObserver& observer) {
    return m_broker.Subscribe(filter, observer);
}

bool CTracingEventBroker::Unsubscribe(const TEvent& filter, IEventObserver& observer) {
    return m_broker.Unsubscribe(filter, observer);
}

bool CTracingEventBroker::Publish(const TEvent& event) {
    m_trace.Event(CTrace::TDirection::eOut, event);
    return m_broker.Publish(event);
}
