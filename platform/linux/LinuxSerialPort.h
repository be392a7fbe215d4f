#pragma once
// A real serial line: a tty opened raw at the requested speed (8 data bits, no parity, one stop
// bit, no flow control, no echo, no line editing).
//
// Read waits at most the read timeout for the first byte and then returns what has arrived, so
// the modem loader's polling loops sleep in the kernel instead of spinning. Write blocks until
// every byte has been handed to the driver, or reports how many were; an interrupted call, a full
// driver buffer (EAGAIN) and a short write are carried on, not reported. A failing Read or Write
// answers with the errno value (EIO when the other end hung up) and leaves one Error record of the
// Platform channel, function "Read" or "Write", naming the device and the errno text. Used by one
// thread at a time (the event-delivery thread). The descriptor is closed when the port is
// destroyed.

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include "SerialPort.h"
#include "Status.h"
#include "UniqueFd.h"

class CLinuxSerialPort : public ISerialPort {
public:
    static constexpr std::chrono::milliseconds kDefaultReadTimeout{10};

    // Opens and configures `device`; on failure `port` stays empty and the status says why.
    [[nodiscard]] static CStatus Open(const std::string& device, uint32_t speed,
                                      std::chrono::milliseconds readTimeout,
                                      std::unique_ptr<CLinuxSerialPort>& port);

    int Write(const unsigned char* data, uint32_t length, uint32_t& written) override;
    int Read(unsigned char* buffer, uint32_t length, uint32_t& got) override;

private:
    CLinuxSerialPort(std::string device, CUniqueFd descriptor,
                     std::chrono::milliseconds readTimeout);
    // Logs the failure of `call` (the port's operation) while doing `what`, with errno's text,
    // and returns errno (EIO when errno says nothing).
    int Failure(const char* call, const char* what) const;

    std::string m_device;
    CUniqueFd m_descriptor;
    std::chrono::milliseconds m_readTimeout;
};
