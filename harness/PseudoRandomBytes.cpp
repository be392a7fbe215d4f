#include "PseudoRandomBytes.h"

std::string PseudoRandomBytes(std::size_t count, uint64_t seed) {
    // SplitMix64: good enough spread for file contents, and trivially reproducible.
    uint64_t state = seed;
    std::string bytes;
    bytes.reserve(count);
    while (bytes.size() < count) {
        state += 0x9E3779B97F4A7C15ull;
        uint64_t value = state;
        value = (value ^ (value >> 30)) * 0xBF58476D1CE4E5B9ull;
        value = (value ^ (value >> 27)) * 0x94D049BB133111EBull;
        value ^= value >> 31;
        for (int shift = 0; shift < 64 && bytes.size() < count; shift += 8) {
            bytes.push_back(static_cast<char>((value >> shift) & 0xFF));
        }
    }
    return bytes;
}
