// A feature plug-in of another type: the modem-loader host must refuse to drive it.

#include "FeatureModule.h"

extern "C" const char* FeatureType() { return "navigation"; }

extern "C" IFeatureModule2* FeatureCreate2(const std::string&, IInterfaceBroker&, IEventBroker&,
                                           const IFeatureProperties&) {
    return nullptr;
}
