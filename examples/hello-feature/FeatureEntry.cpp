// The plug-in's two entry points, the only symbols the host looks up (under these plain names).

#include "HelloFeature.h"

#define HELLO_EXPORT __attribute__((visibility("default")))

extern "C" HELLO_EXPORT const char* FeatureType() { return "hello"; }

extern "C" HELLO_EXPORT IFeatureModule2* FeatureCreate2(const std::string& name,
                                                        IInterfaceBroker& /*interfaces*/,
                                                        IEventBroker& events,
                                                        const IFeatureProperties& /*properties*/) {
    // No exception may cross into the host: a failed allocation yields no module.
    try {
        return new CHelloFeature(name, events);
    } catch (...) {
        return nullptr;
    }
}
