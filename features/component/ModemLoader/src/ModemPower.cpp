#include "ModemPower.h"

#include <unistd.h>

#include <cstdio>
#include <sstream>

#include "CmdHandler.h"
#include "ModemLoaderLog.h"

namespace {
constexpr const char* kLogSourceFile = "features/component/ModemLoader/src/ModemPower";

// The host's log analysis knows these records by their line numbers.
constexpr int kLineModemWasSwitchedOn = 50;
constexpr int kLineCouldNotTogglePin = 82;
constexpr int kLineFinishedAckThread = 161;

// A modem found on is switched off by holding its pin low this long, then left to settle.
constexpr unsigned int kPowerOffPulseSeconds = 6;
constexpr unsigned int kSettleSeconds = 1;

// The acknowledge is awaited for kAckPolls polls of kAckPollMicroseconds each (about 1.25 s).
constexpr useconds_t kAckPollMicroseconds = 25000;
constexpr int kAckPolls = 50;

int RunCommand(const std::string& commandLine) {
    return ICmdHandler::SystemCmd(reinterpret_cast<const unsigned char*>(commandLine.c_str()));
}

// The pin path goes into the shell line as it is, unquoted.
void BuildPinCommands(const std::string& pin, std::string& pinLow, std::string& pinHigh) {
    std::ostringstream command;
    command << "echo 0 > " << pin;
    pinLow = command.str();
    command.str("");
    command << "echo 1 > " << pin;
    pinHigh = command.str();
}
}  // namespace

CModemPower::CModemPower() { pthread_mutex_init(&m_stateMutex, nullptr); }

// Neither waits for a running ACK thread nor destroys the mutex: the attempt owns its thread.
CModemPower::~CModemPower() {}

void CModemPower::Init(std::string readyPath, std::string controlPinPath) {
    m_readyPin = readyPath;
    m_controlPin = controlPinPath;
}

void CModemPower::Prepare() {
    FILE* ready = fopen(m_readyPin.c_str(), "r");
    if (ready == nullptr) {
        // No ready input to read: the modem is taken to be off.
        return;
    }
    char level = 0;
    if (fread(&level, 1, 1, ready) != 1 || level != '1') {
        fclose(ready);
        return;
    }
    MODEMLOADER_LOG(Always, kLineModemWasSwitchedOn, "Modem was switched on");
    fclose(ready);

    std::string pinLow;
    std::string pinHigh;
    BuildPinCommands(m_controlPin, pinLow, pinHigh);
    if (RunCommand(pinLow) == 0) {
        sleep(kPowerOffPulseSeconds);
        if (RunCommand(pinHigh) == 0) {
            sleep(kSettleSeconds);
            return;
        }
    }
    MODEMLOADER_LOG(Error, kLineCouldNotTogglePin, "could not toggle control pin");
}

void CModemPower::Start() {
    SetState(eWaitingForAck);
    // A failure to create the thread goes unnoticed: the state stays eWaitingForAck, which keeps
    // the user from starting another attempt.
    pthread_create(&m_thread, nullptr, &CModemPower::start_thread, this);
}

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

void CModemPower::Work() {
    std::string pinLow;
    std::string pinHigh;
    BuildPinCommands(m_controlPin, pinLow, pinHigh);

    usleep(kAckPollMicroseconds);
    // Pin failures here are not acted on: the time-out below recovers from a modem that did not
    // come up.
    RunCommand(pinLow);

    int pollsLeft = kAckPolls;
    TModemPowerState seen;
    do {
        seen = GetState();
        if (seen == eAckReceived) {
            break;
        }
        if (--pollsLeft == 0) {
            SetState(eAckTimedOut);
        }
        usleep(kAckPollMicroseconds);
    } while (seen == eWaitingForAck);

    // An acknowledge, even a late one that overwrote eAckTimedOut, leaves the pin at "0": the
    // modem's boot code is talking to the loader now.
    if (GetState() != eAckReceived) {
        RunCommand(pinHigh);
        sleep(kSettleSeconds);
        Prepare();
        SetState(eRetryReady);
    }
    MODEMLOADER_LOG(Always, kLineFinishedAckThread, "Finished ACK thread");
}
