#pragma once
// Switches the modem off and on through its control pin and watches its ready input.
//
// The control pin is driven by shell commands ("echo 0 > <pin>", "echo 1 > <pin>") run through
// ICmdHandler; the ready input is a file whose first character is '1' while the modem is on.
//
// Threads: the image loader's thread calls Init, Prepare, Start, GetState and SetState. Each
// Start creates one ACK thread that drives the pin to "0" and waits about 1.25 s for the
// loader to report the modem's acknowledge (SetState(eAckReceived)). Only the state is shared
// after Start; every read and write of it takes the state mutex for that single access.
//
// Start only when GetState() is neither eWaitingForAck nor eAckTimedOut, so that at most one ACK
// thread runs. The ACK thread is never joined, detached or cancelled, and the destructor neither
// waits for it nor destroys the mutex: whoever destroys this object must know that no ACK thread
// is still running.

#include <pthread.h>

#include <cstdint>
#include <string>

class CModemPower {
public:
    enum TModemPowerState : int32_t {
        eIdle = 0,           // no power-up attempt made yet
        eWaitingForAck = 1,  // the ACK thread holds the pin at "0" and awaits the acknowledge
        eAckReceived = 2,    // set by the user: the modem answered; the pin stays at "0"
        eAckTimedOut = 3,    // the ACK thread gave up and is releasing the pin
        eRetryReady = 4,     // the ACK thread finished after a time-out; a new Start may follow
    };

    CModemPower();
    virtual ~CModemPower();

    // Ready input first, control pin second; called before Prepare, before any ACK thread.
    void Init(std::string readyPath, std::string controlPinPath);
    // Switches the modem off when the ready input reads '1': pin "0" for 6 s, then "1" and 1 s
    // of settling. Failures are only logged.
    void Prepare();
    // Opens a power-up attempt: state eWaitingForAck, then a new ACK thread.
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
