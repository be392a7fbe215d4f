#include "FuzzDevice.h"

#include <thread>

#include "FuzzClock.h"

CFuzzDevice::CFuzzDevice(const CPluginState& pluginState) {
    pluginState.Restore();
    CFuzzClock::Enter();
    m_commands.OnCommand([this](const std::string& line) {
        if (line == std::string("echo 0 > ") + fuzzdevice::kControlPin) {
            m_port.PowerUp();
        } else if (line == std::string("echo 1 > ") + fuzzdevice::kControlPin) {
            m_port.PowerDown();
        }
    });
}

CFuzzDevice::~CFuzzDevice() {
    m_workers.JoinAll();
    CFuzzClock::OnWorkerSleep(nullptr);
    CFuzzClock::Leave();
}

void CFuzzDevice::WatchPower(CModemPower* power) {
    if (power == nullptr) {
        CFuzzClock::OnWorkerSleep(nullptr);
        return;
    }
    CFuzzClock::OnWorkerSleep([this, power] {
        while (power->GetState() == CModemPower::eWaitingForAck && m_port.WillEcho()) {
            std::this_thread::yield();
        }
    });
}
