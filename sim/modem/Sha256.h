#pragma once
// SHA-256, incremental, so the emulator can fingerprint the flash as it is programmed and a test
// can compare it with the firmware file's. The digest is nettle's; this class holds its state.

#include <nettle/sha2.h>

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
    sha256_ctx m_context;
};
