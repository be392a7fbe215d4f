#include "Sha256.h"

#include <algorithm>
#include <cstdio>

namespace {

constexpr std::array<uint32_t, 64> kRoundConstants = {
    0x428a2f98, 0x71374491, 0xb5c0fbcf, 0xe9b5dba5, 0x3956c25b, 0x59f111f1, 0x923f82a4, 0xab1c5ed5,
    0xd807aa98, 0x12835b01, 0x243185be, 0x550c7dc3, 0x72be5d74, 0x80deb1fe, 0x9bdc06a7, 0xc19bf174,
    0xe49b69c1, 0xefbe4786, 0x0fc19dc6, 0x240ca1cc, 0x2de92c6f, 0x4a7484aa, 0x5cb0a9dc, 0x76f988da,
    0x983e5152, 0xa831c66d, 0xb00327c8, 0xbf597fc7, 0xc6e00bf3, 0xd5a79147, 0x06ca6351, 0x14292967,
    0x27b70a85, 0x2e1b2138, 0x4d2c6dfc, 0x53380d13, 0x650a7354, 0x766a0abb, 0x81c2c92e, 0x92722c85,
    0xa2bfe8a1, 0xa81a664b, 0xc24b8b70, 0xc76c51a3, 0xd192e819, 0xd6990624, 0xf40e3585, 0x106aa070,
    0x19a4c116, 0x1e376c08, 0x2748774c, 0x34b0bcb5, 0x391c0cb3, 0x4ed8aa4a, 0x5b9cca4f, 0x682e6ff3,
    0x748f82ee, 0x78a5636f, 0x84c87814, 0x8cc70208, 0x90befffa, 0xa4506ceb, 0xbef9a3f7, 0xc67178f2};

constexpr uint32_t RotateRight(uint32_t value, unsigned bits) {
    return (value >> bits) | (value << (32 - bits));
}

}  // namespace

CSha256::CSha256()
    : m_hash{0x6a09e667, 0xbb67ae85, 0x3c6ef372, 0xa54ff53a,
             0x510e527f, 0x9b05688c, 0x1f83d9ab, 0x5be0cd19} {}

void CSha256::Update(const uint8_t* data, size_t count) {
    m_totalBytes += count;
    while (count > 0) {
        const size_t take = std::min(count, m_block.size() - m_blockFill);
        std::copy(data, data + take, m_block.begin() + static_cast<std::ptrdiff_t>(m_blockFill));
        m_blockFill += take;
        data += take;
        count -= take;
        if (m_blockFill == m_block.size()) {
            Compress(m_block.data());
            m_blockFill = 0;
        }
    }
}

void CSha256::Compress(const uint8_t* block) {
    std::array<uint32_t, 64> schedule;
    for (size_t i = 0; i < 16; ++i) {
        schedule[i] = static_cast<uint32_t>(block[4 * i]) << 24 |
                      static_cast<uint32_t>(block[4 * i + 1]) << 16 |
                      static_cast<uint32_t>(block[4 * i + 2]) << 8 |
                      static_cast<uint32_t>(block[4 * i + 3]);
    }
    for (size_t i = 16; i < 64; ++i) {
        const uint32_t s0 = RotateRight(schedule[i - 15], 7) ^ RotateRight(schedule[i - 15], 18) ^
                            (schedule[i - 15] >> 3);
        const uint32_t s1 = RotateRight(schedule[i - 2], 17) ^ RotateRight(schedule[i - 2], 19) ^
                            (schedule[i - 2] >> 10);
        schedule[i] = schedule[i - 16] + s0 + schedule[i - 7] + s1;
    }
    uint32_t a = m_hash[0], b = m_hash[1], c = m_hash[2], d = m_hash[3];
    uint32_t e = m_hash[4], f = m_hash[5], g = m_hash[6], h = m_hash[7];
    for (size_t i = 0; i < 64; ++i) {
        const uint32_t s1 = RotateRight(e, 6) ^ RotateRight(e, 11) ^ RotateRight(e, 25);
        const uint32_t choose = (e & f) ^ (~e & g);
        const uint32_t temp1 = h + s1 + choose + kRoundConstants[i] + schedule[i];
        const uint32_t s0 = RotateRight(a, 2) ^ RotateRight(a, 13) ^ RotateRight(a, 22);
        const uint32_t majority = (a & b) ^ (a & c) ^ (b & c);
        const uint32_t temp2 = s0 + majority;
        h = g;
        g = f;
        f = e;
        e = d + temp1;
        d = c;
        c = b;
        b = a;
        a = temp1 + temp2;
    }
    m_hash[0] += a;
    m_hash[1] += b;
    m_hash[2] += c;
    m_hash[3] += d;
    m_hash[4] += e;
    m_hash[5] += f;
    m_hash[6] += g;
    m_hash[7] += h;
}

std::string CSha256::HexDigest() const {
    CSha256 final = *this;
    const uint64_t totalBits = m_totalBytes * 8;
    const uint8_t marker = 0x80;
    final.Update(&marker, 1);
    const uint8_t zero = 0;
    while (final.m_blockFill != 56) {
        final.Update(&zero, 1);
    }
    uint8_t length[8];
    for (int i = 0; i < 8; ++i) {
        length[i] = static_cast<uint8_t>(totalBits >> (56 - 8 * i));
    }
    final.Update(length, sizeof length);

    std::string hex;
    char digits[9];
    for (uint32_t word : final.m_hash) {
        std::snprintf(digits, sizeof digits, "%08x", word);
        hex += digits;
    }
    return hex;
}
