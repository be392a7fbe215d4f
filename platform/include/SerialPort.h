#pragma once
// A serial line to a device.
//
// Ports are made by ISerialPort::Create, which forwards to one replaceable factory: the host
// installs the real one, tests install fakes. The caller owns the port it gets.

#include <cstdint>
#include <string>

class ISerialPort {
public:
    virtual ~ISerialPort() {}

    // Writes `length` bytes; `written` tells how many went out. 0 on success, non-zero on a port
    // error.
    virtual int Write(const unsigned char* data, uint32_t length, uint32_t& written) = 0;

    // Reads up to `length` bytes into `buffer`; `got` tells how many arrived, which may be fewer
    // than asked, including none. Returns within a short bounded time. 0 on success, non-zero on
    // a port error.
    virtual int Read(unsigned char* buffer, uint32_t length, uint32_t& got) = 0;

    // Opens `device` at `speed` baud; `flags` is reserved and 0. Null when the port cannot be
    // opened or no factory is installed.
    static ISerialPort* Create(const std::string& device, uint32_t speed, uint32_t flags);
};

class ISerialPortFactory {
public:
    virtual ~ISerialPortFactory() {}
    virtual ISerialPort* Create(const std::string& device, uint32_t speed, uint32_t flags) = 0;

    // Installs `factory` (null removes it) and returns the one installed before.
    static ISerialPortFactory* SetFactory(ISerialPortFactory* factory);
};
