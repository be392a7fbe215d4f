#include "ScriptedSerialPort.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>

namespace {
constexpr uint8_t kSyncProbe = 0x16;
}

TBytes Bytes(std::initializer_list<int> values) {
    TBytes bytes;
    for (int value : values) {
        bytes.push_back(static_cast<uint8_t>(value));
    }
    return bytes;
}

TBytes Bytes(const std::string& text) { return TBytes(text.begin(), text.end()); }

std::string HexBytes(const TBytes& bytes, std::size_t limit) {
    std::string text;
    char hex[4];
    for (std::size_t index = 0; index < bytes.size() && index < limit; ++index) {
        std::snprintf(hex, sizeof hex, "%02X", bytes[index]);
        text += (index == 0 ? "" : " ") + std::string(hex);
    }
    if (bytes.size() > limit) {
        text += " ... (" + std::to_string(bytes.size()) + " bytes)";
    }
    return text.empty() ? "nothing" : text;
}

CScriptedSerialPort::CScriptedSerialPort() {}

CScriptedSerialPort::~CScriptedSerialPort() = default;

void CScriptedSerialPort::FailCreate() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_failCreate = true;
}

std::vector<TSerialCreateCall> CScriptedSerialPort::CreateCalls() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_createCalls;
}

void CScriptedSerialPort::Expect(const TBytes& written, const TBytes& reply) {
    std::lock_guard<std::mutex> lock(m_mutex);
    TStep step{TStep::eExpect, written, reply};
    m_script.push_back(step);
}

void CScriptedSerialPort::ExpectShortWrite(const TBytes& written, uint32_t accepted) {
    std::lock_guard<std::mutex> lock(m_mutex);
    TStep step{TStep::eShortWrite, written, {}};
    step.accepted = accepted;
    m_script.push_back(step);
}

void CScriptedSerialPort::ExpectWriteError(const TBytes& written, int result) {
    std::lock_guard<std::mutex> lock(m_mutex);
    TStep step{TStep::eWriteError, written, {}};
    step.result = result;
    m_script.push_back(step);
}

void CScriptedSerialPort::ReplyAfterEmptyReads(unsigned emptyReads, const TBytes& reply) {
    std::lock_guard<std::mutex> lock(m_mutex);
    TStep step{TStep::eReplyAfterReads, {}, reply};
    step.count = emptyReads;
    m_script.push_back(step);
    Advance();
}

void CScriptedSerialPort::ReadErrors(unsigned count) {
    std::lock_guard<std::mutex> lock(m_mutex);
    TStep step{TStep::eReadErrors, {}, {}};
    step.count = count;
    m_script.push_back(step);
}

void CScriptedSerialPort::Send(const TBytes& bytes) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_buffered.insert(m_buffered.end(), bytes.begin(), bytes.end());
}

void CScriptedSerialPort::PlayBootCode(unsigned powerUps) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_bootCode = true;
    m_powerUpsNeeded = powerUps;
}

void CScriptedSerialPort::PowerUp() {
    std::lock_guard<std::mutex> lock(m_mutex);
    ++m_powerUps;
    m_powered = true;
}

void CScriptedSerialPort::PowerDown() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_powered = false;
}

bool CScriptedSerialPort::AnswersProbes() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_powered && m_powerUps >= m_powerUpsNeeded;
}

TBytes CScriptedSerialPort::Written() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_written;
}

std::size_t CScriptedSerialPort::ProbesWritten() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_probes;
}

std::size_t CScriptedSerialPort::Reads() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_reads;
}

std::size_t CScriptedSerialPort::WriteCalls() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_writeCalls;
}

std::size_t CScriptedSerialPort::StepsLeft() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_script.size();
}

std::size_t CScriptedSerialPort::Buffered() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_buffered.size();
}

bool CScriptedSerialPort::SawUnexpectedBytes() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_unexpected;
}

bool CScriptedSerialPort::HeadExpectsWrite() const {
    if (m_script.empty()) {
        return false;
    }
    const TStep::TKind kind = m_script.front().kind;
    return kind == TStep::eExpect || kind == TStep::eShortWrite || kind == TStep::eWriteError;
}

void CScriptedSerialPort::Advance() {
    while (!m_script.empty() && m_script.front().kind == TStep::eReplyAfterReads &&
           m_script.front().count == 0) {
        const TBytes& reply = m_script.front().reply;
        m_buffered.insert(m_buffered.end(), reply.begin(), reply.end());
        m_script.pop_front();
    }
}

int CScriptedSerialPort::Write(const unsigned char* data, uint32_t length, uint32_t& written) {
    std::lock_guard<std::mutex> lock(m_mutex);
    ++m_writeCalls;
    const std::size_t callOffset = m_written.size();
    m_written.insert(m_written.end(), data, data + length);
    written = length;
    int result = 0;
    for (uint32_t index = 0; index < length; ++index) {
        const uint8_t byte = data[index];
        if (m_bootCode) {
            if (byte == kSyncProbe) {
                ++m_probes;
                if (m_powered && m_powerUps >= m_powerUpsNeeded) {
                    // The boot code answers and waits for the loader source.
                    m_buffered.push_back(kSyncProbe);
                    m_bootCode = false;
                }
                continue;
            }
        } else if (HeadExpectsWrite()) {
            TStep& step = m_script.front();
            if (step.bytes[step.matched] == byte) {
                if (++step.matched == step.bytes.size()) {
                    if (step.kind == TStep::eShortWrite) {
                        written = step.accepted;
                    } else if (step.kind == TStep::eWriteError) {
                        result = step.result;
                    }
                    m_buffered.insert(m_buffered.end(), step.reply.begin(), step.reply.end());
                    m_script.pop_front();
                    Advance();
                }
                continue;
            }
        }
        m_unexpected = true;
        const TBytes rest(data + index, data + length);
        TBytes expected;
        if (m_bootCode) {
            expected = {kSyncProbe};
        } else if (HeadExpectsWrite()) {
            const TStep& step = m_script.front();
            expected.assign(step.bytes.begin() + static_cast<std::ptrdiff_t>(step.matched),
                            step.bytes.end());
        }
        ADD_FAILURE() << "unexpected byte on the serial line at offset " << callOffset + index
                      << " (byte " << index << " of a " << length << "-byte write): wrote "
                      << HexBytes(rest) << ", the modem expected " << HexBytes(expected);
        break;
    }
    return result;
}

int CScriptedSerialPort::Read(unsigned char* buffer, uint32_t length, uint32_t& got) {
    std::lock_guard<std::mutex> lock(m_mutex);
    ++m_reads;
    got = 0;
    if (!m_buffered.empty()) {
        while (got < length && !m_buffered.empty()) {
            buffer[got++] = m_buffered.front();
            m_buffered.pop_front();
        }
        return 0;
    }
    if (!m_script.empty() && m_script.front().kind == TStep::eReadErrors) {
        if (--m_script.front().count == 0) {
            m_script.pop_front();
            Advance();
        }
        return 1;
    }
    if (!m_script.empty() && m_script.front().kind == TStep::eReplyAfterReads) {
        --m_script.front().count;
        Advance();
    }
    return 0;
}

ISerialPort* CScriptedSerialPort::Create(const std::string& device, uint32_t speed,
                                         uint32_t flags) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_createCalls.push_back({device, speed, flags});
    return m_failCreate ? nullptr : this;
}
