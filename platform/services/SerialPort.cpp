#include "SerialPort.h"

#include "BackendSlot.h"

namespace {
CBackendSlot<ISerialPortFactory> sFactory;
}

ISerialPort* ISerialPort::Create(const std::string& device, uint32_t speed, uint32_t flags) {
    ISerialPortFactory* factory = sFactory.Get();
    return factory != nullptr ? factory->Create(device, speed, flags) : nullptr;
}

ISerialPortFactory* ISerialPortFactory::SetFactory(ISerialPortFactory* factory) {
    return sFactory.Exchange(factory);
}
