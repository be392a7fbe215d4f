// A feature plug-in of type "modemloader" that is not whole, built twice: without FeatureCreate2
// (INCOMPLETE_PLUGIN_WITHOUT_CREATE), and with a FeatureCreate2 that makes no module. The host
// must refuse the first before it starts anything, and give up on the second with its reason.

#include "FeatureModule.h"

extern "C" const char* FeatureType() { return "modemloader"; }

#ifndef INCOMPLETE_PLUGIN_WITHOUT_CREATE
extern "C" IFeatureModule2* FeatureCreate2(const std::string&, IInterfaceBroker&, IEventBroker&,
                                           const IFeatureProperties&) {
    return nullptr;
}
#endif
