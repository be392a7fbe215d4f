#pragma once
// Reads a fuzz input front to back. Past its end every read yields zeros (and Exhausted() is
// true), so a harness never has to check lengths to stay inside the input.

#include <cstddef>
#include <cstdint>
#include <string>

class CFuzzInput {
public:
    CFuzzInput(const uint8_t* data, std::size_t size) : m_data(data), m_size(size) {}

    bool Exhausted() const { return m_offset >= m_size; }
    std::size_t Remaining() const { return Exhausted() ? 0 : m_size - m_offset; }

    uint8_t Byte();
    // Four bytes, little-endian.
    uint32_t Word();
    // Up to `count` bytes (fewer when the input ends first).
    std::string Bytes(std::size_t count);

private:
    const uint8_t* m_data;
    std::size_t m_size;
    std::size_t m_offset = 0;
};
