#pragma once
// The loader that installs an update by copying the update files onto the movinand storage,
// synchronously inside Install. (Filled in with the archive loader work; construction is final.)

#include <string>

#include "EventBroker.h"
#include "FeatureProperties.h"
#include "Loader.h"
#include "LoaderCallback.h"

class CArchiveLoader : public ILoader {
public:
    CArchiveLoader(std::string& name, IEventBroker& eventBroker,
                   const IFeatureProperties& properties, ILoaderCallback& callback);
    ~CArchiveLoader() override;

    bool Prepare() override;
    void Install() override;
    void Abort() override;

private:
    std::string m_name;
    const IFeatureProperties& m_properties;
    ILoaderCallback& m_callback;
};
