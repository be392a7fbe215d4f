#pragma once
// Where the emulated modem's loader puts the firmware it receives.

#include <cstddef>
#include <cstdint>

class IFlashMemory {
public:
    virtual ~IFlashMemory() {}

    // A write command was accepted for `length` bytes at `address`; what an earlier write
    // programmed is replaced.
    virtual void BeginProgramming(uint32_t address, uint32_t length) = 0;

    // The next `count` bytes of the announced range, in order.
    virtual void Program(const uint8_t* data, size_t count) = 0;
};
