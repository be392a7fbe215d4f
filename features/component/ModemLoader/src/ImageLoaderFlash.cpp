// The flashing sequence of the image loader after the sync: loader-source download, read, erase,
// firmware write and termination.
//
// Wire (host -> modem, then the modem's answer; numbers little-endian):
//   loader source   the file, raw                 -> "0" ("1" checksum, "2" type, "3" state)
//   read range      04 00 00 00 90 00 00 00 00    -> 04
//   read            02                            -> 02
//   erase range     09 00 00 00 90 <size:4>       -> 09
//   erase           03                            -> 03, later "0"
//   write range     04 00 00 00 90 <size:4>       -> 04
//   write           01                            -> 01
//   firmware data   chunks of up to 25600 bytes   -> "." while busy, then "0" (or "1".."3")

#include <cstdio>
#include <cstdlib>

#include "FileHandler.h"
#include "ImageLoader.h"
#include "ModemLoaderLog.h"

namespace {
using imageloader::kLogSourceFile;

constexpr unsigned char kCmdSetRange = 0x04;
constexpr unsigned char kCmdSetEraseRange = 0x09;
constexpr unsigned char kOpWrite = 0x01;
constexpr unsigned char kOpRead = 0x02;
constexpr unsigned char kOpErase = 0x03;
constexpr uint32_t kModemFlashBase = 0x90000000;

constexpr unsigned int kAckTries = 10;
constexpr uint32_t kChunkSize = 25600;
constexpr int32_t kEraseTicks = 60;
constexpr int32_t kWriteTimeoutTicks = 60;
constexpr unsigned int kProgressTotal = 100;

// The modem's loader answers "0" for success and "1" to "3" for its three errors (checksum, type,
// finite state machine), both after the loader source download and after the firmware write.
constexpr unsigned char kStatusSuccess = '0';
constexpr unsigned char kStatusBusy = '.';
const char* const kLoaderSourceErrors[] = {"Loader source checksum error",
                                           "loader source type error",
                                           "loader source finite state machine error"};
const char* const kFirmwareErrors[] = {"firmware checksum error", "firmware type error",
                                       "firmware finite state machine error"};

bool IsErrorStatus(unsigned char status) { return status >= '1' && status <= '3'; }

// The state of the erase and of the firmware stream is process-wide and never reset: a later run
// in the same process resumes where this one stopped (an erase already started is not sent
// again, bytes already counted are not sent again).
uint32_t sEraseStarted = 0;
uint32_t sWriteStarted = 0;
uint32_t sBytesSent = 0;
FILE* sFirmwareFile = nullptr;
uint32_t sFileDone = 0;
int32_t sWriteTimeoutTicks = kWriteTimeoutTicks;

// A range command: the command byte, the flash base and a length, packed little-endian.
void PutRange(unsigned char (&command)[9], unsigned char code, uint32_t length) {
    command[0] = code;
    for (int byte = 0; byte < 4; ++byte) {
        command[1 + byte] = static_cast<unsigned char>(kModemFlashBase >> (8 * byte));
        command[5 + byte] = static_cast<unsigned char>(length >> (8 * byte));
    }
}
}  // namespace

void CImageLoader::PrepareFlash() {
    if (WriteBuffer(m_loaderImage, static_cast<unsigned int>(m_loaderSize))) {
        // No time-out: the loader source is checked by the modem, which always answers with a
        // status character once it has it.
        for (;;) {
            unsigned char status = 0;
            uint32_t got = 0;
            if (m_serial->Read(&status, 1, got) != 0) {
                MODEMLOADER_LOG(Error, __LINE__, "Unable to read from serial port");
                continue;
            }
            if (got == 0) {
                continue;
            }
            if (status == kStatusSuccess) {
                MODEMLOADER_LOG(Always, __LINE__, "loader source download completed");
                free(m_loaderImage);
                m_loaderImage = nullptr;
                m_step = eStepConfigure;
                m_callback.Progress(90, kProgressTotal);
                m_stepPending = 1;
                return;
            }
            if (IsErrorStatus(status)) {
                MODEMLOADER_LOG(Error, __LINE__, kLoaderSourceErrors[status - '1']);
                break;
            }
        }
    }
    free(m_loaderImage);
    m_loaderImage = nullptr;
    m_error = eLoaderErrorLoaderSource;
    m_step = eStepTerminate;
    m_stepPending = 1;
}

void CImageLoader::Read() {
    unsigned char range[9];
    PutRange(range, kCmdSetRange, 0);
    const unsigned char operation = kOpRead;
    bool acknowledged = false;
    if (!WriteBuffer(range, sizeof range)) {
        MODEMLOADER_LOG(Error, __LINE__, "error writing read to modem");
    } else if (!ReadAck(1, &range[0], kAckTries)) {
        MODEMLOADER_LOG(Error, __LINE__, "modem did not respond to read commandm");
    } else if (!WriteBuffer(&operation, 1)) {
        MODEMLOADER_LOG(Error, __LINE__, "error writing read command to modem");
    } else if (!ReadAck(1, &operation, kAckTries)) {
        MODEMLOADER_LOG(Error, __LINE__, "modem did not return firmware size");
    } else {
        acknowledged = true;
    }
    if (acknowledged) {
        m_step = eStepErase;
        m_callback.Progress(80, kProgressTotal);
    } else {
        m_step = eStepTerminate;
        m_error = eLoaderErrorRead;
    }
    m_stepPending = 1;
}

void CImageLoader::Erase() {
    // Ticks the modem is given to report the erase done; kept across runs like the flags above.
    static int32_t sEraseTicksLeft = kEraseTicks;

    if (sEraseStarted == 0) {
        unsigned char range[9];
        PutRange(range, kCmdSetEraseRange, static_cast<uint32_t>(m_firmwareSize));
        const unsigned char operation = kOpErase;
        if (!WriteBuffer(range, sizeof range) || !ReadAck(1, &range[0], kAckTries) ||
            !WriteBuffer(&operation, 1) || !ReadAck(1, &operation, kAckTries)) {
            m_step = eStepTerminate;
            m_error = eLoaderErrorErase;
            m_stepPending = 1;
            return;
        }
        sEraseStarted = 1;
        m_callback.Progress(75, kProgressTotal);
    }

    const int32_t ticksLeft = --sEraseTicksLeft;
    m_callback.Progress(static_cast<unsigned int>(75 - ((kEraseTicks - ticksLeft) >> 2)),
                        kProgressTotal);
    const unsigned char done = '0';
    if (ReadAck(1, &done, kAckTries)) {
        m_step = eStepWrite;
    } else if (sEraseTicksLeft == 0) {
        m_step = eStepTerminate;
        m_error = eLoaderErrorErase;
    }
    m_stepPending = 1;
}

void CImageLoader::Write() {
    if (sWriteStarted == 0) {
        unsigned char range[9];
        PutRange(range, kCmdSetRange, static_cast<uint32_t>(m_firmwareSize));
        const unsigned char operation = kOpWrite;
        bool started = WriteBuffer(range, sizeof range) && ReadAck(1, &range[0], kAckTries) &&
                       WriteBuffer(&operation, 1) && ReadAck(1, &operation, kAckTries);
        if (started) {
            sFirmwareFile = IFileHandler::FOpen(
                reinterpret_cast<const unsigned char*>(m_firmwarePath.c_str()), "rb");
            started = sFirmwareFile != nullptr;
        }
        if (started) {
            m_chunkBuffer = static_cast<unsigned char*>(malloc(kChunkSize));
            if (m_chunkBuffer == nullptr) {
                IFileHandler::FClose(sFirmwareFile);
                started = false;
            }
        }
        if (!started) {
            m_error = eLoaderErrorWrite;
            m_step = eStepTerminate;
            m_stepPending = 1;
            return;
        }
        sWriteStarted = 1;
        m_callback.Progress(55, kProgressTotal);
    }

    // One chunk per tick, streamed from the file through the one buffer.
    const uint32_t remaining = static_cast<uint32_t>(m_firmwareSize) - sBytesSent;
    const uint32_t chunk = remaining < kChunkSize ? remaining : kChunkSize;
    if (chunk > 0) {
        // A short read or failed write is not counted, and the file position has moved on: that
        // range is lost, not retried.
        if (IFileHandler::FRead(m_chunkBuffer, 1, chunk, sFirmwareFile) == chunk &&
            WriteBuffer(m_chunkBuffer, chunk)) {
            sBytesSent += chunk;
            const double remainingPercent =
                50 + (static_cast<double>(sBytesSent) / static_cast<double>(m_firmwareSize) * 100) *
                         (-0.5);
            m_callback.Progress(static_cast<unsigned int>(static_cast<int64_t>(remainingPercent)),
                                kProgressTotal);
        }
    } else if (sFileDone == 0) {
        IFileHandler::FClose(sFirmwareFile);
        free(m_chunkBuffer);
        m_chunkBuffer = nullptr;
        sFileDone = 1;
    }

    unsigned char status = 0;
    uint32_t got = 0;
    if (m_serial->Read(&status, 1, got) != 0) {
        m_stepPending = 1;
        return;
    }
    // The time-out counts only the ticks after the last chunk went out.
    if (sFileDone != 0) {
        --sWriteTimeoutTicks;
    }
    if (got != 0) {
        if (status == kStatusBusy) {
            // Still busy: the modem has the time-out restarted.
            sWriteTimeoutTicks = kWriteTimeoutTicks;
            m_stepPending = 1;
            return;
        }
        if (status == kStatusSuccess) {
            MODEMLOADER_LOG(Always, __LINE__, "firmware download completed");
            m_error = eLoaderErrorNone;
        } else {
            // An unknown status byte ends the run too, without a record.
            if (IsErrorStatus(status)) {
                MODEMLOADER_LOG(Error, __LINE__, kFirmwareErrors[status - '1']);
            }
            m_error = eLoaderErrorWrite;
        }
        m_step = eStepTerminate;
    }
    // Also after a "0": a success on the very tick the time-out runs out counts as a time-out.
    if (sWriteTimeoutTicks != 0) {
        m_stepPending = 1;
        return;
    }
    MODEMLOADER_LOG(Error, __LINE__, "write timed out");
    m_error = eLoaderErrorWrite;
    m_step = eStepTerminate;
    m_stepPending = 1;
}

void CImageLoader::Terminate() {
    m_eventBroker.Unsubscribe(m_tickEvent, *static_cast<IEventObserver*>(this));
    // The step-specific error stays in the object and the log; the controller learns only
    // success or failure.
    m_callback.Completed(m_error == eLoaderErrorNone ? LOADER_SUCCEEDED : LOADER_FAILED);
}
