#pragma once
// A flash that remembers what it was told: each write's range and every programmed byte.

#include <cstdint>
#include <utility>
#include <vector>

#include "FlashMemory.h"

class CRecordingFlash : public IFlashMemory {
public:
    void BeginProgramming(uint32_t address, uint32_t length) override;
    void Program(const uint8_t* data, size_t count) override;

    const std::vector<std::pair<uint32_t, uint32_t>>& Ranges() const { return m_ranges; }
    const std::vector<uint8_t>& Contents() const { return m_contents; }

private:
    std::vector<std::pair<uint32_t, uint32_t>> m_ranges;
    std::vector<uint8_t> m_contents;
};
