#pragma once
// The host's registry of further services. Handed to every feature module at creation.

class IInterfaceBroker {
public:
    virtual ~IInterfaceBroker() {}
};
