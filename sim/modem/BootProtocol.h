#pragma once
// The modem's side of the serial download protocol, as a pure byte-in/byte-out state machine:
// the boot code's sync echo, the loader download and the boot loader's commands. It knows
// nothing of terminals or files; the caller feeds it received bytes and the current time, and
// takes the reply bytes it produced. Single-threaded.
//
// Wire (host sends -> modem answers):
//   16 (sync, only in the boot window)                 -> 16
//   the loader file, raw                               -> "0" if equal, "1" if not
//   07 + u32 baud rate                                 -> 07
//   05 + 1 byte flow control                           -> 05
//   04 + u32 address + u32 length (set range)          -> 04
//   02 (read)                                          -> 02
//   09 + u32 address + u32 length (set erase range)    -> 09
//   03 (erase)                                         -> 03, then "0" after the erase time
//   01 (write the range last set by 04)                -> 01, then the data:
//      "." each time another 25600 bytes arrived, "0" once every announced byte is programmed
// Every number is little-endian.

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "FlashMemory.h"
#include "ModemFaults.h"

struct TBootStatistics {
    unsigned powerUps = 0;
    unsigned syncAttempts = 0;  // power-ups during which at least one sync byte arrived
    unsigned syncBytesSeen = 0;
    unsigned syncEchoes = 0;
    uint32_t loaderBytes = 0;
    bool loaderOk = false;
    std::vector<std::string> commands;  // each complete command in hex, "07 00 c2 01 00"
    uint32_t bytesFlashed = 0;
    bool writeComplete = false;
    bool lineHungUp = false;  // the "hang-up-after" fault closed the line
};

class CBootProtocol {
public:
    using TTime = std::chrono::steady_clock::time_point;

    static constexpr uint8_t kSyncByte = 0x16;
    static constexpr uint8_t kCmdWrite = 0x01;
    static constexpr uint8_t kCmdRead = 0x02;
    static constexpr uint8_t kCmdErase = 0x03;
    static constexpr uint8_t kCmdSetRange = 0x04;
    static constexpr uint8_t kCmdSetFlowControl = 0x05;
    static constexpr uint8_t kCmdSetBaudrate = 0x07;
    static constexpr uint8_t kCmdSetEraseRange = 0x09;
    static constexpr uint32_t kChunkSize = 25600;

    struct TTimings {
        std::chrono::milliseconds bootWindow{2000};
        std::chrono::milliseconds erase{200};
        std::chrono::milliseconds program{5};
    };

    // `loaderImage` is what the host must download (an empty one is never matched); `flash` is
    // kept, not owned.
    CBootProtocol(std::vector<uint8_t> loaderImage, TTimings timings, TModemFaults faults,
                  IFlashMemory& flash);

    // The modem finished powering up at `now`: its boot code listens for sync bytes.
    void PowerOn(TTime now);
    // The modem runs its normal firmware from the start, without boot code.
    void StartInFirmware();
    // The modem was switched off: everything in progress is forgotten.
    void PowerOff();

    void Receive(uint8_t byte, TTime now);
    // Runs what falls due by `now` (the end of an erase, of programming).
    void Advance(TTime now);
    // The earliest time Advance has something to do, if any.
    std::optional<TTime> NextDeadline() const;

    // The reply bytes produced since the last call, in order.
    std::vector<uint8_t> TakeOutput();

    const TBootStatistics& Statistics() const { return m_statistics; }
    // The line is gone (the "hang-up-after" fault): the owner of the terminal closes it, and
    // every byte received from now on is ignored.
    bool LineHungUp() const { return m_statistics.lineHungUp; }

private:
    enum class TState { eOff, eBoot, eSynced, eLoader, eHalted, eFirmware, eCommand, eWriteData };

    void ReceiveLoaderByte(uint8_t byte);
    void ReceiveCommandByte(uint8_t byte, TTime now);
    void ExecuteCommand(TTime now);
    void ReceiveFirmwareByte(uint8_t byte, TTime now);
    void Send(uint8_t byte) { m_output.push_back(byte); }

    const std::vector<uint8_t> m_loaderImage;
    const TTimings m_timings;
    const TModemFaults m_faults;
    IFlashMemory& m_flash;

    TState m_state = TState::eOff;
    TBootStatistics m_statistics;
    std::vector<uint8_t> m_output;

    // Boot code
    TTime m_bootWindowEnd{};
    bool m_answersSync = false;
    bool m_syncSeenThisPowerUp = false;

    // Loader download
    uint32_t m_loaderReceived = 0;
    bool m_loaderMismatch = false;

    // Boot loader commands
    std::vector<uint8_t> m_command;
    uint32_t m_rangeAddress = 0;
    uint32_t m_rangeLength = 0;
    std::optional<TTime> m_eraseDoneAt;

    // Firmware write
    uint32_t m_writeLength = 0;
    uint32_t m_writeReceived = 0;
    uint32_t m_dropLeft = 0;
    std::optional<TTime> m_programDoneAt;
};
