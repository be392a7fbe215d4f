#pragma once
// Switches the modem off and on through its control pin and watches its ready input.
// (Filled in with the modem power work; the shape below is final.)

#include <pthread.h>

#include <string>

class CModemPower {
public:
    enum TModemPowerState : int32_t {
        eIdle = 0,
        eWaitingForAck = 1,
        eAckReceived = 2,
        eAckTimedOut = 3,
        eRetryReady = 4,
    };

    CModemPower();
    virtual ~CModemPower();

    void Init(std::string readyPath, std::string controlPinPath);
    void Prepare();
    void Start();
    TModemPowerState GetState();
    void SetState(TModemPowerState state);

private:
    static void* start_thread(void* argument);
    void Work();

    pthread_t m_thread;
    pthread_mutex_t m_stateMutex;
    std::string m_controlPin;
    std::string m_readyPin;
    TModemPowerState m_state = eIdle;
};
