#pragma once
// A minimal feature module: a feature of type "hello" that answers the update controller's
// Prepare (202) for its own name with Prepare done (203), outcome 1, and does nothing else.
//
// Created by FeatureCreate2 on the host's thread; the host owns it and deletes it through
// IFeatureModule2 after its event broker has stopped delivering. Events arrive on the host's
// event thread, one at a time.

#include <string>

#include "EventBroker.h"
#include "EventObserver.h"
#include "FeatureModule.h"

class CHelloFeature : public IFeatureModule2, public IEventObserver {
public:
    CHelloFeature(const std::string& name, IEventBroker& events);
    ~CHelloFeature() override;
    CHelloFeature(const CHelloFeature&) = delete;
    CHelloFeature& operator=(const CHelloFeature&) = delete;

    void OnEvent(const TEvent& event) override;

private:
    void ReplyPrepared();

    std::string m_name;
    IEventBroker& m_events;
    TEvent m_prepareFilter;
};
