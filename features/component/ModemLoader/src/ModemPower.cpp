#include "ModemPower.h"

CModemPower::CModemPower() { pthread_mutex_init(&m_stateMutex, nullptr); }

CModemPower::~CModemPower() {}

void CModemPower::Init(std::string readyPath, std::string controlPinPath) {
    m_readyPin = readyPath;
    m_controlPin = controlPinPath;
}

void CModemPower::Prepare() {}

void CModemPower::Start() {}

CModemPower::TModemPowerState CModemPower::GetState() {
    pthread_mutex_lock(&m_stateMutex);
    const TModemPowerState state = m_state;
    pthread_mutex_unlock(&m_stateMutex);
    return state;
}

void CModemPower::SetState(TModemPowerState state) {
    pthread_mutex_lock(&m_stateMutex);
    m_state = state;
    pthread_mutex_unlock(&m_stateMutex);
}

void* CModemPower::start_thread(void* argument) {
    static_cast<CModemPower*>(argument)->Work();
    return nullptr;
}

void CModemPower::Work() {}
