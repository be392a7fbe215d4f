#include "Sha256.h"

#include <array>

CSha256::CSha256() { sha256_init(&m_context); }

void CSha256::Update(const uint8_t* data, size_t count) { sha256_update(&m_context, count, data); }

std::string CSha256::HexDigest() const {
    // Finishing a digest resets its state; a copy is finished instead, so that more data can
    // follow a summary written mid-way.
    sha256_ctx copy = m_context;
    std::array<uint8_t, SHA256_DIGEST_SIZE> digest{};
    sha256_digest(&copy, digest.size(), digest.data());
    static constexpr char kHexDigits[] = "0123456789abcdef";
    std::string hex;
    hex.reserve(2 * digest.size());
    for (const uint8_t byte : digest) {
        hex.push_back(kHexDigits[byte >> 4]);
        hex.push_back(kHexDigits[byte & 0x0f]);
    }
    return hex;
}
