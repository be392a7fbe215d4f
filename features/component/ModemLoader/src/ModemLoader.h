#pragma once
// The modem-update feature module: the object the host creates through FeatureCreate2.
//
// Driven only by the controller events Init (200), Prepare (202), Install (204) and Abort (207),
// all delivered on the host's event thread; it answers with 201, 203, 205, 206 and 208. It owns
// the image and archive loaders; the fake loader is created once and never deleted. On
// destruction it removes its Prepare, Install and Abort subscriptions but, deliberately, not the
// Init one.

#include <memory>
#include <string>

#include "EventBroker.h"
#include "FeatureModule.h"
#include "FeatureProperties.h"
#include "InterfaceBroker.h"
#include "Loader.h"
#include "LoaderCallback.h"

class CModemLoader : public IFeatureModule2, public ILoaderCallback, public IEventObserver {
public:
    CModemLoader(const std::string& name, IInterfaceBroker& interfaces, IEventBroker& eventBroker,
                 const IFeatureProperties& properties);
    ~CModemLoader() override;

    // ILoaderCallback
    void Progress(unsigned int remaining, unsigned int total) override;
    void Completed(int result) override;
    void Aborted() override;

    // IEventObserver: the only way the host drives the module.
    void OnEvent(const TEvent& event) override;

    // Reads the module's eleven properties; true when all were found. Logs each missing key.
    bool ParseProperties();

    // Whether the device tree exported at "/dev/fdtexport" announces an integrated GPRS modem.
    // Leaves a descriptor open and the blob mapped on every call that gets that far.
    bool HasIntegratedGPRS();

private:
    void SubscribeEvents();
    void UnsubscribeEvents();

    void HandleControllerInit();
    void HandleControllerPrepare();
    void HandleControllerInstall();
    void HandleControllerAbort();

    void HandleLoaderProgress(unsigned char percent);
    void HandleLoaderFailed();
    void HandleLoaderCompleted();
    void HandleLoaderAborted();

    // The loader that Prepare and Abort address (the fake one once the modem is up to date).
    ILoader& PreparedLoader();
    void PublishReply(int32_t id, int32_t outcome);
    std::string StoragePath(const std::string& name) const;

    std::string m_name;
    const IFeatureProperties& m_properties;
    IEventBroker& m_eventBroker;
    std::unique_ptr<ILoader> m_imageLoader;
    std::unique_ptr<ILoader> m_archiveLoader;
    ILoader* m_fakeLoader = nullptr;  // never deleted
    TEvent m_initFilter{};
    TEvent m_prepareFilter{};
    TEvent m_installFilter{};
    TEvent m_abortFilter{};
    int32_t m_controlPinPresent = 0;  // archive loader until an Init finds the control pin
    int32_t m_updateNeeded = 1;
    std::string m_controlPin;
    std::string m_revision;
    std::string m_removable;
    std::string m_movinand;
    std::string m_mountPoint;
    std::string m_revisionFile;
    std::string m_flagFile;
    std::string m_bootloader;
    std::string m_firmware;
    std::string m_productConfig;
    std::string m_daemonConfig;
    char m_fdtDevice[128];
};

// The module's entry points, exported under their plain names.
extern "C" {
const char* FeatureType();
IFeatureModule2* FeatureCreate2(const std::string& name, IInterfaceBroker& interfaces,
                                IEventBroker& events, const IFeatureProperties& properties);
}
