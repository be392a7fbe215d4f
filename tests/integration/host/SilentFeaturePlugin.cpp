// A feature plug-in of type "modemloader" that answers Init and Prepare but never reports the
// end of an installation: the host must give up after its time-out. With the property
// `prepare = never` in its section it does not answer Prepare either, which holds the host before
// Install for as long as a test needs.

#include <cstring>

#include "FeatureModule.h"

namespace {
class CSilentFeature : public IFeatureModule2, public IEventObserver {
public:
    CSilentFeature(const std::string& name, IEventBroker& events, bool answersPrepare)
        : m_name(name), m_events(events), m_answersPrepare(answersPrepare) {
        m_events.Subscribe(TEvent{EVENT_TYPE_USER, EVT_CONTROLLER_INIT, 0, nullptr}, *this);
        m_events.Subscribe(TEvent{EVENT_TYPE_USER, EVT_CONTROLLER_PREPARE, 0, nullptr}, *this);
    }
    ~CSilentFeature() override {
        m_events.Unsubscribe(TEvent{EVENT_TYPE_USER, EVT_CONTROLLER_INIT, 0, nullptr}, *this);
        m_events.Unsubscribe(TEvent{EVENT_TYPE_USER, EVT_CONTROLLER_PREPARE, 0, nullptr}, *this);
    }

    void OnEvent(const TEvent& event) override {
        if (event.id == EVT_CONTROLLER_INIT) {
            m_events.Publish(TEvent{EVENT_TYPE_USER, EVT_CONTROLLER_INIT_DONE,
                                    static_cast<uint32_t>(m_name.size()), m_name.data()});
        } else if (event.id == EVT_CONTROLLER_PREPARE && m_answersPrepare) {
            TControllerReply reply{};
            std::strncpy(reply.name, m_name.c_str(), sizeof reply.name - 1);
            reply.outcome = 1;
            m_events.Publish(
                TEvent{EVENT_TYPE_USER, EVT_CONTROLLER_PREPARE_DONE, sizeof reply, &reply});
        }
    }

private:
    std::string m_name;
    IEventBroker& m_events;
    const bool m_answersPrepare;
};
}  // namespace

extern "C" const char* FeatureType() { return "modemloader"; }

extern "C" IFeatureModule2* FeatureCreate2(const std::string& name, IInterfaceBroker&,
                                           IEventBroker& events,
                                           const IFeatureProperties& properties) {
    std::string prepare;
    const bool answersPrepare =
        !properties.GetProperty(name, "prepare", prepare) || prepare != "never";
    return new CSilentFeature(name, events, answersPrepare);
}
