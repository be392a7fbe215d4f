// A feature plug-in of another type: the modem-loader host must refuse to drive it. Built a
// second time (OTHER_TYPE_PLUGIN_WITHOUT_TYPE) with a FeatureType that names no type at all.

#include "FeatureModule.h"

#ifdef OTHER_TYPE_PLUGIN_WITHOUT_TYPE
extern "C" const char* FeatureType() { return nullptr; }
#else
extern "C" const char* FeatureType() { return "navigation"; }
#endif

extern "C" IFeatureModule2* FeatureCreate2(const std::string&, IInterfaceBroker&, IEventBroker&,
                                           const IFeatureProperties&) {
    return nullptr;
}
