#include "Sha256.h"

#include <array>

CSha256::CSha256() : m_context(EVP_MD_CTX_new()) {
    if (m_context && EVP_DigestInit_ex(m_context.get(), EVP_sha256(), nullptr) != 1) {
        m_context.reset();
    }
}

void CSha256::Update(const uint8_t* data, size_t count) {
    if (m_context && EVP_DigestUpdate(m_context.get(), data, count) != 1) {
        m_context.reset();
    }
}

std::string CSha256::HexDigest() const {
    if (!m_context) {
        return std::string();
    }
    // Finishing a digest ends its context; a copy is finished instead, so that more data can
    // follow a summary written mid-way.
    std::unique_ptr<EVP_MD_CTX, TContextFree> copy(EVP_MD_CTX_new());
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
    unsigned int length = 0;
    if (!copy || EVP_MD_CTX_copy_ex(copy.get(), m_context.get()) != 1 ||
        EVP_DigestFinal_ex(copy.get(), digest.data(), &length) != 1) {
        return std::string();
    }
    static constexpr char kHexDigits[] = "0123456789abcdef";
    std::string hex;
    hex.reserve(2 * length);
    for (unsigned int index = 0; index < length; ++index) {
        hex.push_back(kHexDigits[digest[index] >> 4]);
        hex.push_back(kHexDigits[digest[index] & 0x0f]);
    }
    return hex;
}
