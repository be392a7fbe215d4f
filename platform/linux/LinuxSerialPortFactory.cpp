#include "LinuxSerialPortFactory.h"

#include <memory>
#include <utility>

CLinuxSerialPortFactory::CLinuxSerialPortFactory(std::chrono::milliseconds readTimeout,
                                                 TErrorReporter reportError)
    : m_readTimeout(readTimeout), m_reportError(std::move(reportError)) {}

ISerialPort* CLinuxSerialPortFactory::Create(const std::string& device, uint32_t speed,
                                             uint32_t /*flags*/) {
    std::unique_ptr<CLinuxSerialPort> port;
    const CStatus status = CLinuxSerialPort::Open(device, speed, m_readTimeout, port);
    if (!status) {
        if (m_reportError) {
            m_reportError(status.Message());
        }
        return nullptr;
    }
    return port.release();
}
