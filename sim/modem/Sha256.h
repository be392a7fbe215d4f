#pragma once
// SHA-256 (FIPS 180-4), incremental, so the emulator can fingerprint the flash as it is
// programmed and a test can compare it with the firmware file's.

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

class CSha256 {
public:
    CSha256();

    void Update(const uint8_t* data, size_t count);
    // Lowercase hex of the digest of everything given so far; the state is left untouched.
    std::string HexDigest() const;

private:
    void Compress(const uint8_t* block);

    std::array<uint32_t, 8> m_hash;
    std::array<uint8_t, 64> m_block{};
    size_t m_blockFill = 0;
    uint64_t m_totalBytes = 0;
};
