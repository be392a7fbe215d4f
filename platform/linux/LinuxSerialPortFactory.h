#pragma once
// Makes CLinuxSerialPort objects for ISerialPort::Create, all with the same read time-out.
// A port that cannot be opened yields null; the reason goes to the error reporter.

#include <chrono>
#include <functional>
#include <string>

#include "LinuxSerialPort.h"
#include "SerialPort.h"

class CLinuxSerialPortFactory : public ISerialPortFactory {
public:
    using TErrorReporter = std::function<void(const std::string& message)>;

    explicit CLinuxSerialPortFactory(
        std::chrono::milliseconds readTimeout = CLinuxSerialPort::kDefaultReadTimeout,
        TErrorReporter reportError = nullptr);

    // `flags` is reserved and ignored. The caller owns the port.
    ISerialPort* Create(const std::string& device, uint32_t speed, uint32_t flags) override;

private:
    std::chrono::milliseconds m_readTimeout;
    TErrorReporter m_reportError;
};
