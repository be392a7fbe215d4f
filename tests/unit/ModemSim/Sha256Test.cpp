// The flash fingerprint in the summary: SHA-256 against the published test vectors.

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "Sha256.h"

namespace {

std::string Digest(const std::string& text) {
    CSha256 digest;
    digest.Update(reinterpret_cast<const uint8_t*>(text.data()), text.size());
    return digest.HexDigest();
}

TEST(Sha256Test, EmptyInput) {
    EXPECT_EQ(Digest(""), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
}

TEST(Sha256Test, Abc) {
    EXPECT_EQ(Digest("abc"), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
}

TEST(Sha256Test, TwoBlockMessage) {
    EXPECT_EQ(Digest("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq"),
              "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1");
}

TEST(Sha256Test, MillionAsFedInUnevenPiecesAndDigestLeavesStateUntouched) {
    CSha256 digest;
    const std::string piece(997, 'a');
    size_t fed = 0;
    bool peeked = false;
    while (fed < 1000000) {
        const size_t count = std::min(piece.size() - (fed % 7), 1000000 - fed);
        digest.Update(reinterpret_cast<const uint8_t*>(piece.data()), count);
        fed += count;
        if (!peeked && fed > 500000) {
            (void)digest.HexDigest();  // a summary written mid-way must not disturb the digest
            peeked = true;
        }
    }
    EXPECT_EQ(digest.HexDigest(),
              "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
    EXPECT_EQ(digest.HexDigest(),
              "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
}

TEST(Sha256Test, FiftyFiveAndFiftySixBytesPadIntoOneAndTwoBlocks) {
    EXPECT_EQ(Digest(std::string(55, 'a')),
              "9f4390f8d30c2dd92ec9f095b65e2b9ae9b0a925a5258e241c9f1e910f734318");
    EXPECT_EQ(Digest(std::string(56, 'a')),
              "b35439a4ac6f0948b6d6f9e3c6af0f5f590ce20f1bde7090ef7970686ec6738a");
}

}  // namespace
