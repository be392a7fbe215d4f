#pragma once
// The loader used when there is nothing real to install: it simulates an installation of twenty
// ticks that always succeeds.
//
// The ticks it has handled are counted process-wide, across all instances and installations,
// and never reset: a second installation in the same process completes on its first tick.

#include <string>

#include "EventBroker.h"
#include "FeatureProperties.h"
#include "Loader.h"
#include "LoaderCallback.h"

class CFakeLoader : public ILoader, public IEventObserver {
public:
    CFakeLoader(std::string& name, IEventBroker& eventBroker, const IFeatureProperties& properties,
                ILoaderCallback& callback);
    ~CFakeLoader() override;

    bool Prepare() override;
    void Install() override;
    void Abort() override;
    void OnEvent(const TEvent& event) override;

private:
    std::string m_name;  // kept, never read
    IEventBroker& m_eventBroker;
    [[maybe_unused]] const IFeatureProperties& m_properties;  // kept, never read
    ILoaderCallback& m_callback;
    TEvent m_tickEvent;
};
