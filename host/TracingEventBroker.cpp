#include "TracingEventBroker.h"

CTracingEventBroker::CTracingEventBroker(IEventBroker& broker, CTrace& trace)
    : CForwardingEventBroker(broker), m_trace(trace) {}

bool CTracingEventBroker::Publish(const TEvent& event) {
    m_trace.Event(CTrace::TDirection::eOut, event);
    return CForwardingEventBroker::Publish(event);
}
