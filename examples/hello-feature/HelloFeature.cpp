#include "HelloFeature.h"

#include <cstring>

#include "Logging.h"
#include "PlatSafecopy.h"

CHelloFeature::CHelloFeature(const std::string& name, IEventBroker& events)
    : m_name(name),
      m_events(events),
      m_prepareFilter{EVENT_TYPE_USER, EVT_CONTROLLER_PREPARE, 0, nullptr} {
    m_events.Subscribe(m_prepareFilter, *this);
}

CHelloFeature::~CHelloFeature() { m_events.Unsubscribe(m_prepareFilter, *this); }

void CHelloFeature::OnEvent(const TEvent& event) {
    if (event.type != EVENT_TYPE_USER || event.id != EVT_CONTROLLER_PREPARE) {
        return;
    }
    // Prepare is addressed by name: the payload is the name's characters, nothing more.
    const std::string addressee =
        event.size == 0 ? std::string()
                        : std::string(static_cast<const char*>(event.data), event.size);
    if (addressee == m_name) {
        ReplyPrepared();
    }
}

void CHelloFeature::ReplyPrepared() {
    // The host's logging service has a single channel, which every feature shares.
    logging::internals::CLogHandle(logging::categories::Always, logging::ModemLoader, __func__,
                                   __FILE__, __LINE__)
        << "(Hello from " << m_name << ")\n";
    TControllerReply reply;
    std::memset(&reply, 0, sizeof reply);
    platSafecopy(reply.name, sizeof reply.name, m_name.c_str(), m_name.size() + 1);
    reply.outcome = 1;
    m_events.Publish(TEvent{EVENT_TYPE_USER, EVT_CONTROLLER_PREPARE_DONE, sizeof reply, &reply});
}
