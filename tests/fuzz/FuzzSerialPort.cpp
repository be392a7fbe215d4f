#include "FuzzSerialPort.h"

namespace {
constexpr unsigned char kSyncProbe = 0x16;
constexpr unsigned char kSilence = 0xFF;
constexpr unsigned char kReadErrors = 0xFE;
constexpr int kPortError = -1;
}  // namespace

CFuzzSerialPort::CFuzzSerialPort() {}

CFuzzSerialPort::~CFuzzSerialPort() = default;

void CFuzzSerialPort::AnswerOnPowerUp(unsigned powerUp) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_answeringPowerUp = powerUp;
}

void CFuzzSerialPort::SetReplies(const std::string& replies) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_replies = replies;
    m_replyOffset = 0;
}

void CFuzzSerialPort::SetWriteFault(unsigned call, bool shortWrite) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_faultyWrite = call;
    m_shortWrite = shortWrite;
}

void CFuzzSerialPort::PowerUp() {
    std::lock_guard<std::mutex> lock(m_mutex);
    ++m_powerUps;
    m_powered = true;
}

void CFuzzSerialPort::PowerDown() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_powered = false;
}

bool CFuzzSerialPort::WillEcho() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_powered && !m_synced && m_powerUps == m_answeringPowerUp;
}

int CFuzzSerialPort::Write(const unsigned char* data, uint32_t length, uint32_t& written) {
    std::lock_guard<std::mutex> lock(m_mutex);
    // Counted from the echo on: how many probes go out before it depends on timing.
    if (m_synced && ++m_writeCalls == m_faultyWrite) {
        written = m_shortWrite && length > 0 ? length - 1 : 0;
        return m_shortWrite ? 0 : kPortError;
    }
    written = length;
    const bool answering = m_powered && m_powerUps == m_answeringPowerUp;
    if (!m_synced && answering && length == 1 && data[0] == kSyncProbe) {
        m_echoPending = true;
    }
    return 0;
}

int CFuzzSerialPort::Read(unsigned char* buffer, uint32_t length, uint32_t& got) {
    std::lock_guard<std::mutex> lock(m_mutex);
    got = 0;
    if (length == 0) {
        return 0;
    }
    if (!m_synced) {
        if (m_echoPending) {
            m_echoPending = false;
            m_synced = true;
            buffer[0] = kSyncProbe;
            got = 1;
        }
        return 0;
    }
    if (m_silentReads > 0) {
        --m_silentReads;
        return 0;
    }
    if (m_failingReads > 0) {
        --m_failingReads;
        return kPortError;
    }
    if (m_replyOffset >= m_replies.size()) {
        // Used up: "3" on every other read, nothing in between.
        if (m_readsAfterEnd++ % 2 == 0) {
            buffer[0] = '3';
            got = 1;
        }
        return 0;
    }
    const unsigned char byte = static_cast<unsigned char>(m_replies[m_replyOffset++]);
    if (byte == kSilence || byte == kReadErrors) {
        const unsigned count = m_replyOffset < m_replies.size()
                                   ? static_cast<unsigned char>(m_replies[m_replyOffset++]) + 1u
                                   : 1u;
        if (byte == kSilence) {
            m_silentReads = count - 1;
            return 0;
        }
        m_failingReads = count - 1;
        return kPortError;
    }
    buffer[0] = byte;
    got = 1;
    return 0;
}

ISerialPort* CFuzzSerialPort::Create(const std::string&, uint32_t, uint32_t) { return this; }
