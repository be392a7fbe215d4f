#pragma once
// What the host holds of a loaded feature module, and the module's two C-linkage entry points.

#include <string>

#include "EventBroker.h"
#include "FeatureProperties.h"
#include "InterfaceBroker.h"

class IFeatureModule2 {
public:
    virtual ~IFeatureModule2() {}
};

// Exported by every feature plug-in under these plain names.
extern "C" {
using TFeatureTypeFunction = const char* (*)();
using TFeatureCreate2Function = IFeatureModule2* (*)(const std::string& name,
                                                     IInterfaceBroker& interfaces,
                                                     IEventBroker& events,
                                                     const IFeatureProperties& properties);
}
constexpr const char* kFeatureTypeSymbol = "FeatureType";
constexpr const char* kFeatureCreate2Symbol = "FeatureCreate2";
