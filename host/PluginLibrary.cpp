#include "PluginLibrary.h"

#include <dlfcn.h>

namespace {
std::string LastLoaderError() {
    const char* error = ::dlerror();
    return error != nullptr ? error : "unknown error";
}

// Closes a handle on every early return of Open.
struct TCloseHandle {
    void operator()(void* handle) const { ::dlclose(handle); }
};
}  // namespace

CStatus CPluginLibrary::Open(const std::string& path, std::unique_ptr<CPluginLibrary>& library) {
    library.reset();
    const std::string context = "plug-in " + path;
    // Without a slash dlopen would search the library path instead of opening this file.
    const std::string file = path.find('/') == std::string::npos ? "./" + path : path;
    ::dlerror();
    std::unique_ptr<void, TCloseHandle> handle(
        ::dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE));
    if (!handle) {
        return CStatus::Failure(context + ": cannot load: " + LastLoaderError());
    }
    auto* featureType =
        reinterpret_cast<TFeatureTypeFunction>(::dlsym(handle.get(), kFeatureTypeSymbol));
    if (featureType == nullptr) {
        return CStatus::Failure(context + ": not a feature plug-in (no " +
                                std::string(kFeatureTypeSymbol) + ")");
    }
    auto* create =
        reinterpret_cast<TFeatureCreate2Function>(::dlsym(handle.get(), kFeatureCreate2Symbol));
    if (create == nullptr) {
        return CStatus::Failure(context + ": not a feature plug-in (no " +
                                std::string(kFeatureCreate2Symbol) + ")");
    }
    library.reset(new CPluginLibrary(path, handle.release(), featureType, create));
    return CStatus::Ok();
}

CPluginLibrary::CPluginLibrary(std::string path, void* handle, TFeatureTypeFunction featureType,
                               TFeatureCreate2Function create)
    : m_path(std::move(path)), m_handle(handle), m_featureType(featureType), m_create(create) {}

CPluginLibrary::~CPluginLibrary() { ::dlclose(m_handle); }

std::string CPluginLibrary::FeatureType() const {
    const char* type = m_featureType();
    return type != nullptr ? type : "";
}

IFeatureModule2* CPluginLibrary::Create(const std::string& name, IInterfaceBroker& interfaces,
                                        IEventBroker& events,
                                        const IFeatureProperties& properties) const {
    return m_create(name, interfaces, events, properties);
}
