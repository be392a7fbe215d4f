// The records that cross the plug-in boundary, laid out as the host lays them out: TEvent as four
// words (four 32-bit words on the 32-bit ARM target), the 68-byte reply and the 65-byte progress
// record with the name first and the host's (little-endian) byte order after it.

#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <string>

#include "Event.h"

namespace {

std::string Bytes(const void* record, std::size_t size) {
    return std::string(static_cast<const char*>(record), size);
}

TEST(EventLayoutTest, EventIsTypeIdSizeDataInThatOrder) {
    EXPECT_EQ(offsetof(TEvent, type), 0u);
    EXPECT_EQ(offsetof(TEvent, id), 4u);
    EXPECT_EQ(offsetof(TEvent, size), 8u);
    // On a 64-bit build the pointer is aligned to 8 after the three 32-bit words.
    EXPECT_EQ(offsetof(TEvent, data), sizeof(void*) == 4 ? 12u : 16u);
    EXPECT_EQ(sizeof(TEvent), sizeof(void*) == 4 ? 16u : 24u);
}

#if defined(__arm__)
TEST(EventLayoutTest, OnTheTargetEventIsFourThirtyTwoBitWords) {
    static_assert(sizeof(TEvent) == 16 && offsetof(TEvent, data) == 12);
    const char payload[] = "modemloader";
    const TEvent event{EVENT_TYPE_USER, EVT_CONTROLLER_PREPARE, 11, payload};
    const std::string bytes = Bytes(&event, sizeof event);
    EXPECT_EQ(bytes.substr(0, 12), std::string("\x03\0\0\0\xca\0\0\0\x0b\0\0\0", 12));
    uint32_t dataWord = 0;
    std::memcpy(&dataWord, bytes.data() + 12, 4);
    EXPECT_EQ(dataWord, reinterpret_cast<uintptr_t>(payload));
}
#endif

TEST(EventLayoutTest, ReplyIsSixtyEightBytesWithTheOutcomeAfterTheName) {
    static_assert(sizeof(TControllerReply) == 68 && offsetof(TControllerReply, outcome) == 64);
    TControllerReply reply;
    std::memset(&reply, 0, sizeof reply);
    std::memcpy(reply.name, "modemloader", 11);
    reply.outcome = 1;
    const std::string expected =
        std::string("modemloader") + std::string(53, '\0') + std::string("\x01\0\0\0", 4);
    EXPECT_EQ(Bytes(&reply, sizeof reply), expected);
}

TEST(EventLayoutTest, ProgressIsSixtyFiveBytesWithThePercentLast) {
    static_assert(sizeof(TControllerProgress) == 65 &&
                  offsetof(TControllerProgress, percent) == 64);
    TControllerProgress progress;
    std::memset(&progress, 0, sizeof progress);
    std::memcpy(progress.name, "modemloader", 11);
    progress.percent = 45;
    const std::string expected = std::string("modemloader") + std::string(53, '\0') + "\x2d";
    EXPECT_EQ(Bytes(&progress, sizeof progress), expected);
}

}  // namespace
