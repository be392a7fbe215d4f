// The byte-level primitives of the image loader on the serial line to the modem's boot code.
//
// Wire (host -> modem, then the modem's answer; numbers little-endian):
//   sync probe        16              -> 16
//   set baud rate     07 00 C2 01 00  -> 07   (115200)
//   set flow control  05 00           -> 05   (no flow control)
// A command is acknowledged by the modem echoing its first byte.

#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "ImageLoader.h"
#include "ModemLoaderLog.h"

namespace {
using imageloader::kLogSourceFile;

constexpr unsigned char kSyncByte = 0x16;
constexpr unsigned char kCmdSetBaudrate = 0x07;
constexpr unsigned char kCmdSetFlowControl = 0x05;

constexpr unsigned int kMaximumReply = 128;
constexpr useconds_t kReadRetryMicroseconds = 25000;
constexpr useconds_t kProbeMicroseconds = 1000;
constexpr unsigned int kAckTries = 10;

// Power-up attempts left in this process. Shared by every image loader and never reset, and the
// limit is an equality test: once a later run has taken it below zero, no limit applies.
int32_t sSyncAttemptsLeft = 5;
}  // namespace

// The port is opened by Prepare, which may have failed to open it or never run: the controller
// starts the run whatever Prepare answered. A missing port then fails every transfer like a port
// error, so the sync attempts run out, instead of the host's event thread crashing.
bool CImageLoader::WriteBuffer(const unsigned char* data, unsigned int length) {
    uint32_t written = 0;
    if (m_serial == nullptr || m_serial->Write(data, length, written) != 0 || written != length) {
        MODEMLOADER_LOG(Error, __LINE__, "encountered a problem writing to serial port");
        return false;
    }
    return true;
}

bool CImageLoader::ReadAck(unsigned int length, const unsigned char* expected, unsigned int tries) {
    if (length > kMaximumReply) {
        MODEMLOADER_LOG(Error, __LINE__, "incoming larger than maximum buffer size");
        return false;
    }
    unsigned char* reply = static_cast<unsigned char*>(malloc(length));
    if (reply == nullptr) {
        MODEMLOADER_LOG(Error, __LINE__, "could not allocate buffer memory");
        return false;
    }
    bool matched = false;
    for (unsigned int tried = 0; tried < tries; ++tried) {
        uint32_t got = 0;
        if (m_serial == nullptr || m_serial->Read(reply, length, got) != 0) {
            MODEMLOADER_LOG(Error, __LINE__, "encountered a problem reading serial port");
        } else if (got == length) {
            // A string comparison: it stops at a zero byte of the expected reply.
            if (strncmp(reinterpret_cast<const char*>(expected),
                        reinterpret_cast<const char*>(reply), length) == 0) {
                matched = true;
                break;
            }
        } else if (got != 0) {
            // A reply split across reads never matches; its first part is dropped.
            MODEMLOADER_LOG(Error, __LINE__, "Bytes read did not match the expected value");
        }
        usleep(kReadRetryMicroseconds);
    }
    free(reply);
    return matched;
}

void CImageLoader::FlushSerial() {
    unsigned char scratch = 0;
    uint32_t got = 0;
    do {
        got = 0;
        if (m_serial == nullptr || m_serial->Read(&scratch, 1, got) != 0) {
            return;
        }
    } while (got != 0);
}

void CImageLoader::Sync() {
    // The probe to send and the echo to expect.
    const unsigned char sync[2] = {kSyncByte, kSyncByte};
    const CModemPower::TModemPowerState state = m_power.GetState();
    if (state != CModemPower::eWaitingForAck && state != CModemPower::eAckTimedOut) {
        --sSyncAttemptsLeft;
        FlushSerial();
        m_power.Start();
        // The boot code listens only briefly after power-up, so probe for as long as the power
        // worker holds the pin and waits.
        while (m_power.GetState() == CModemPower::eWaitingForAck) {
            if (!WriteBuffer(&sync[0], 1)) {
                continue;
            }
            usleep(kProbeMicroseconds);
            if (!ReadAck(1, &sync[1], 1)) {
                continue;
            }
            MODEMLOADER_LOG(Always, __LINE__, "noticed a reply from modem");
            m_power.SetState(CModemPower::eAckReceived);
            m_callback.Progress(95, 100);
            m_step = eStepPrepareFlash;
            // The boot code expects the loader source right after its echo.
            PrepareFlash();
        }
    }
    // Checked on every call, also right after a sync on the last attempt, which it overrides.
    if (sSyncAttemptsLeft == 0) {
        m_error = eLoaderErrorSync;
        m_step = eStepTerminate;
    }
    m_stepPending = 1;
}

void CImageLoader::Configure() {
    const unsigned char baudrate[5] = {kCmdSetBaudrate, 0x00, 0xC2, 0x01, 0x00};
    const unsigned char flowControl[2] = {kCmdSetFlowControl, 0x00};
    bool configured = false;
    if (WriteBuffer(baudrate, sizeof baudrate)) {
        if (!ReadAck(1, &baudrate[0], kAckTries)) {
            MODEMLOADER_LOG(Error, __LINE__, "error writing baudrate to modem");
        } else if (WriteBuffer(flowControl, sizeof flowControl)) {
            if (!ReadAck(1, &flowControl[0], kAckTries)) {
                MODEMLOADER_LOG(Error, __LINE__, "error writing flowcontrol to modem");
            } else {
                configured = true;
            }
        }
    }
    if (configured) {
        m_step = eStepRead;
        m_callback.Progress(85, 100);
    } else {
        m_step = eStepTerminate;
        m_error = eLoaderErrorConfigure;
    }
    m_stepPending = 1;
}
