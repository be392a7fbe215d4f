#pragma once
// The loader that flashes the modem over a serial line, one step per tick.
// (Filled in with the image loader work; construction and ownership are final.)

#include <string>

#include "EventBroker.h"
#include "FeatureProperties.h"
#include "Loader.h"
#include "LoaderCallback.h"
#include "ModemPower.h"
#include "SerialPort.h"

class CImageLoader : public ILoader, public IEventObserver {
public:
    CImageLoader(std::string& name, IEventBroker& eventBroker, const IFeatureProperties& properties,
                 ILoaderCallback& callback);
    ~CImageLoader() override;

    bool Prepare() override;
    void Install() override;
    void Abort() override;
    void OnEvent(const TEvent& event) override;

private:
    std::string m_name;
    IEventBroker& m_eventBroker;
    const IFeatureProperties& m_properties;
    ILoaderCallback& m_callback;
    CModemPower m_power;
    ISerialPort* m_serial = nullptr;
    TEvent m_tickEvent;
};
