#include "FuzzInput.h"

uint8_t CFuzzInput::Byte() { return Exhausted() ? 0 : m_data[m_offset++]; }

uint32_t CFuzzInput::Word() {
    uint32_t value = 0;
    for (unsigned shift = 0; shift < 32; shift += 8) {
        value |= static_cast<uint32_t>(Byte()) << shift;
    }
    return value;
}

std::string CFuzzInput::Bytes(std::size_t count) {
    const std::size_t taken = count < Remaining() ? count : Remaining();
    std::string bytes(reinterpret_cast<const char*>(m_data + m_offset), taken);
    m_offset += taken;
    return bytes;
}
