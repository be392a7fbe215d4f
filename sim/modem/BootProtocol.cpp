#include "BootProtocol.h"

#include <cstdio>
#include <utility>

namespace {

// How many bytes a command occupies, its code included; 0 for a byte that is no command.
size_t CommandLength(uint8_t code) {
    switch (code) {
        case CBootProtocol::kCmdWrite:
        case CBootProtocol::kCmdRead:
        case CBootProtocol::kCmdErase:
            return 1;
        case CBootProtocol::kCmdSetFlowControl:
            return 2;
        case CBootProtocol::kCmdSetBaudrate:
            return 5;
        case CBootProtocol::kCmdSetRange:
        case CBootProtocol::kCmdSetEraseRange:
            return 9;
        default:
            return 0;
    }
}

uint32_t LittleEndian32(const uint8_t* bytes) {
    return static_cast<uint32_t>(bytes[0]) | static_cast<uint32_t>(bytes[1]) << 8 |
           static_cast<uint32_t>(bytes[2]) << 16 | static_cast<uint32_t>(bytes[3]) << 24;
}

std::string Hex(const std::vector<uint8_t>& bytes) {
    std::string text;
    char digits[4];
    for (uint8_t byte : bytes) {
        std::snprintf(digits, sizeof digits, "%02x", byte);
        if (!text.empty()) {
            text += ' ';
        }
        text += digits;
    }
    return text;
}

}  // namespace

CBootProtocol::CBootProtocol(std::vector<uint8_t> loaderImage, TTimings timings,
                             TModemFaults faults, IFlashMemory& flash)
    : m_loaderImage(std::move(loaderImage)),
      m_timings(timings),
      m_faults(std::move(faults)),
      m_flash(flash) {}

void CBootProtocol::PowerOn(TTime now) {
    PowerOff();
    ++m_statistics.powerUps;
    m_state = TState::eBoot;
    m_bootWindowEnd = now + m_timings.bootWindow;
    m_answersSync = !m_faults.noSync && m_statistics.powerUps >= m_faults.syncAfter;
}

void CBootProtocol::StartInFirmware() {
    PowerOff();
    m_state = TState::eFirmware;
}

void CBootProtocol::PowerOff() {
    m_state = TState::eOff;
    m_syncSeenThisPowerUp = false;
    m_loaderReceived = 0;
    m_loaderMismatch = false;
    m_command.clear();
    m_eraseDoneAt.reset();
    m_programDoneAt.reset();
    m_writeLength = 0;
    m_writeReceived = 0;
}

void CBootProtocol::Receive(uint8_t byte, TTime now) {
    if (m_statistics.lineHungUp) {
        return;
    }
    // The boot code hands over to the normal firmware when its window closes unanswered.
    if (m_state == TState::eBoot && now >= m_bootWindowEnd) {
        m_state = TState::eFirmware;
    }
    switch (m_state) {
        case TState::eOff:
        case TState::eHalted:
            return;
        case TState::eFirmware:
        case TState::eBoot:
            if (byte == kSyncByte) {
                ++m_statistics.syncBytesSeen;
                if (m_state == TState::eBoot && !m_syncSeenThisPowerUp) {
                    m_syncSeenThisPowerUp = true;
                    ++m_statistics.syncAttempts;
                }
                if (m_state == TState::eBoot && m_answersSync) {
                    Send(kSyncByte);
                    ++m_statistics.syncEchoes;
                    m_state = TState::eSynced;
                }
            }
            return;
        case TState::eSynced:
            // Sync probes already under way when the echo left keep arriving; the first other
            // byte is the loader's. A loader image that begins with 0x16 cannot be told apart.
            if (byte == kSyncByte) {
                ++m_statistics.syncBytesSeen;
                Send(kSyncByte);
                ++m_statistics.syncEchoes;
                return;
            }
            m_state = TState::eLoader;
            ReceiveLoaderByte(byte);
            return;
        case TState::eLoader:
            ReceiveLoaderByte(byte);
            return;
        case TState::eCommand:
            ReceiveCommandByte(byte, now);
            return;
        case TState::eWriteData:
            ReceiveFirmwareByte(byte, now);
            return;
    }
}

void CBootProtocol::ReceiveLoaderByte(uint8_t byte) {
    if (m_loaderReceived >= m_loaderImage.size() || byte != m_loaderImage[m_loaderReceived]) {
        m_loaderMismatch = true;
    }
    ++m_loaderReceived;
    ++m_statistics.loaderBytes;
    if (m_loaderReceived < m_loaderImage.size()) {
        return;
    }
    m_state = TState::eHalted;
    if (m_faults.loaderSilent) {
        return;
    }
    if (m_faults.loaderStatus) {
        Send(static_cast<uint8_t>(*m_faults.loaderStatus));
        return;
    }
    if (m_loaderMismatch) {
        Send('1');  // checksum error: the boot code does not start a corrupt loader
        return;
    }
    m_statistics.loaderOk = true;
    Send('0');
    m_state = TState::eCommand;
}

void CBootProtocol::ReceiveCommandByte(uint8_t byte, TTime now) {
    if (m_command.empty() && CommandLength(byte) == 0) {
        m_statistics.commands.push_back("unknown " + Hex({byte}));
        return;
    }
    m_command.push_back(byte);
    if (m_command.size() == CommandLength(m_command[0])) {
        ExecuteCommand(now);
        m_command.clear();
    }
}

void CBootProtocol::ExecuteCommand(TTime now) {
    const uint8_t code = m_command[0];
    m_statistics.commands.push_back(Hex(m_command));
    // A refused command is consumed whole but neither acknowledged nor carried out.
    if (m_faults.nakCommands.count(code) != 0) {
        return;
    }
    Send(code);
    switch (code) {
        case kCmdSetRange:
        case kCmdSetEraseRange:
            m_rangeAddress = LittleEndian32(&m_command[1]);
            m_rangeLength = LittleEndian32(&m_command[5]);
            break;
        case kCmdErase:
            if (!m_faults.eraseNeverDone) {
                m_eraseDoneAt = now + m_timings.erase;
            }
            break;
        case kCmdWrite:
            m_flash.BeginProgramming(m_rangeAddress, m_rangeLength);
            m_writeLength = m_rangeLength;
            m_writeReceived = 0;
            m_dropLeft = m_faults.dropBytes;
            m_statistics.bytesFlashed = 0;
            m_statistics.writeComplete = false;
            if (m_writeLength == 0) {
                m_programDoneAt = now + m_timings.program;
            } else {
                m_state = TState::eWriteData;
            }
            break;
        default:  // baud rate, flow control and read are acknowledged only
            break;
    }
}

void CBootProtocol::ReceiveFirmwareByte(uint8_t byte, TTime now) {
    ++m_writeReceived;
    if (m_faults.hangUpAfter && m_writeReceived == *m_faults.hangUpAfter) {
        m_statistics.lineHungUp = true;
    }
    if (m_dropLeft > 0) {
        --m_dropLeft;
    } else {
        m_flash.Program(&byte, 1);
        ++m_statistics.bytesFlashed;
    }
    if (m_statistics.bytesFlashed == m_writeLength) {
        m_state = TState::eCommand;
        m_programDoneAt = now + m_timings.program;
        return;
    }
    // The host sends one chunk per tick and reads one status byte per tick: one "." per chunk
    // keeps its write time-out from running while the data is still coming.
    if (m_writeReceived % kChunkSize == 0 && !m_faults.writeSilent) {
        Send('.');
    }
}

void CBootProtocol::Advance(TTime now) {
    if (m_eraseDoneAt && now >= *m_eraseDoneAt) {
        m_eraseDoneAt.reset();
        Send('0');
    }
    if (m_programDoneAt && now >= *m_programDoneAt) {
        m_programDoneAt.reset();
        m_statistics.writeComplete = true;
        if (!m_faults.writeSilent) {
            Send(static_cast<uint8_t>(m_faults.writeStatus.value_or('0')));
        }
    }
}

std::optional<CBootProtocol::TTime> CBootProtocol::NextDeadline() const {
    std::optional<TTime> earliest = m_eraseDoneAt;
    if (m_programDoneAt && (!earliest || *m_programDoneAt < *earliest)) {
        earliest = m_programDoneAt;
    }
    return earliest;
}

std::vector<uint8_t> CBootProtocol::TakeOutput() { return std::exchange(m_output, {}); }
