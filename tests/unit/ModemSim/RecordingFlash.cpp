#include "RecordingFlash.h"

void CRecordingFlash::BeginProgramming(uint32_t address, uint32_t length) {
    m_ranges.emplace_back(address, length);
    m_contents.clear();
}

void CRecordingFlash::Program(const uint8_t* data, size_t count) {
    m_contents.insert(m_contents.end(), data, data + count);
}
