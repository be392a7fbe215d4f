#pragma once
// A feature plug-in loaded with dlopen, its two entry points resolved.
//
// The library is opened with RTLD_NODELETE: a feature may leave objects behind on purpose (the
// modem loader never deletes its fake loader), whose code must stay mapped for the life of the
// process. The handle itself is released when the object is destroyed.

#include <memory>
#include <string>

#include "FeatureModule.h"
#include "Status.h"

class CPluginLibrary {
public:
    ~CPluginLibrary();
    CPluginLibrary(const CPluginLibrary&) = delete;
    CPluginLibrary& operator=(const CPluginLibrary&) = delete;

    // Loads `path` and resolves FeatureType and FeatureCreate2; a library that lacks either is
    // not a feature plug-in.
    [[nodiscard]] static CStatus Open(const std::string& path,
                                      std::unique_ptr<CPluginLibrary>& library);

    const std::string& Path() const { return m_path; }
    std::string FeatureType() const;
    IFeatureModule2* Create(const std::string& name, IInterfaceBroker& interfaces,
                            IEventBroker& events, const IFeatureProperties& properties) const;

private:
    CPluginLibrary(std::string path, void* handle, TFeatureTypeFunction featureType,
                   TFeatureCreate2Function create);

    std::string m_path;
    void* m_handle;
    TFeatureTypeFunction m_featureType;
    TFeatureCreate2Function m_create;
};
