#pragma once
// SHA-256, incremental, so the emulator can fingerprint the flash as it is programmed and a test
// can compare it with the firmware file's. The digest is libcrypto's; this class owns its
// context.

#include <openssl/evp.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

class CSha256 {
public:
    CSha256();

    void Update(const uint8_t* data, size_t count);
    // Lowercase hex of the digest of everything given so far; the state is left untouched.
    // Empty only when libcrypto could not make a context (out of memory).
    std::string HexDigest() const;

private:
    struct TContextFree {
        void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
    };

    std::unique_ptr<EVP_MD_CTX, TContextFree> m_context;
};
