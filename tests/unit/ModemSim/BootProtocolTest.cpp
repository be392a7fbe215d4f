// The modem's boot code and loader as a byte-in/byte-out state machine: every command's echo,
// the status characters, the timers and every fault, without a terminal.

#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "BootProtocol.h"
#include "RecordingFlash.h"
#include "WireCommands.h"

namespace {

using namespace std::chrono_literals;
using TBytes = std::vector<uint8_t>;

std::string Hex(const TBytes& bytes) {
    std::string text;
    char digits[4];
    for (uint8_t byte : bytes) {
        std::snprintf(digits, sizeof digits, "%02x", byte);
        text += text.empty() ? "" : " ";
        text += digits;
    }
    return text;
}

std::string Join(const std::string& first, const std::string& second) {
    return first.empty() ? second : (second.empty() ? first : first + " " + second);
}

const TBytes kSetBaudrate = wire::BaudrateCommand();
const TBytes kSetFlowControl = wire::FlowControlCommand();
const TBytes kRead = wire::ReadCommand();
const TBytes kErase = wire::EraseCommand();
const TBytes kWrite = wire::WriteCommand();
const TBytes kLoader = {0xa5, 0x5a, 0x00, 0x16, 0xff, 0x30};

TBytes Firmware(size_t size) {
    TBytes firmware(size);
    for (size_t index = 0; index < size; ++index) {
        firmware[index] = static_cast<uint8_t>(index * 7 + index / 251);
    }
    return firmware;
}

class BootProtocolTest : public ::testing::Test {
protected:
    std::unique_ptr<CBootProtocol> Make(const TModemFaults& faults = {}) {
        CBootProtocol::TTimings timings;
        timings.bootWindow = 1000ms;
        timings.erase = 200ms;
        timings.program = 5ms;
        return std::make_unique<CBootProtocol>(kLoader, timings, faults, m_flash);
    }

    std::string Send(CBootProtocol& modem, const TBytes& bytes) {
        for (uint8_t byte : bytes) {
            modem.Receive(byte, m_now);
        }
        return Hex(modem.TakeOutput());
    }

    std::string Wait(CBootProtocol& modem, std::chrono::milliseconds duration) {
        m_now += duration;
        modem.Advance(m_now);
        return Hex(modem.TakeOutput());
    }

    // Brings a freshly powered modem to the point where it takes commands.
    void ToCommands(CBootProtocol& modem) {
        modem.PowerOn(m_now);
        ASSERT_EQ(Send(modem, {0x16}), "16");
        ASSERT_EQ(Send(modem, kLoader), "30");
    }

    CBootProtocol::TTime m_now = CBootProtocol::TTime{} + 1000s;
    CRecordingFlash m_flash;
};

TEST_F(BootProtocolTest, SyncIsEchoedOnlyByPoweredBootCodeInsideItsWindow) {
    auto modem = Make();
    EXPECT_EQ(Send(*modem, {0x16}), "") << "switched off";

    modem->PowerOn(m_now);
    m_now += 999ms;
    EXPECT_EQ(Send(*modem, {0x16}), "16") << "last millisecond of the window";

    auto late = Make();
    late->PowerOn(m_now);
    m_now += 1000ms;
    EXPECT_EQ(Send(*late, {0x16, 0x16}), "") << "the normal firmware runs once the window closed";
    EXPECT_EQ(late->Statistics().syncBytesSeen, 2u);
    EXPECT_EQ(late->Statistics().syncEchoes, 0u);
}

TEST_F(BootProtocolTest, OtherBytesBeforeSyncAreNoise) {
    auto modem = Make();
    modem->PowerOn(m_now);
    EXPECT_EQ(Send(*modem, {0x00, 0x07, 0xa5}), "");
    EXPECT_EQ(Send(*modem, {0x16}), "16");
}

TEST_F(BootProtocolTest, SyncProbesInFlightAreEchoedUntilTheLoadersFirstByte) {
    auto modem = Make();
    modem->PowerOn(m_now);
    EXPECT_EQ(Send(*modem, {0x16, 0x16, 0x16}), "16 16 16");
    EXPECT_EQ(Send(*modem, kLoader), "30") << "the loader's own 0x16 is loader data";
    EXPECT_EQ(modem->Statistics().syncBytesSeen, 3u);
    EXPECT_EQ(modem->Statistics().syncEchoes, 3u);
    EXPECT_EQ(modem->Statistics().syncAttempts, 1u);
    EXPECT_EQ(modem->Statistics().loaderBytes, kLoader.size());
    EXPECT_TRUE(modem->Statistics().loaderOk);
}

TEST_F(BootProtocolTest, CorruptLoaderGetsChecksumErrorAndTheModemIgnoresCommands) {
    auto modem = Make();
    modem->PowerOn(m_now);
    ASSERT_EQ(Send(*modem, {0x16}), "16");
    TBytes corrupt = kLoader;
    corrupt[4] ^= 0x01;
    EXPECT_EQ(Send(*modem, corrupt), "31");
    EXPECT_EQ(Send(*modem, kSetBaudrate), "");
    EXPECT_FALSE(modem->Statistics().loaderOk);
    EXPECT_TRUE(modem->Statistics().commands.empty());
}

TEST_F(BootProtocolTest, ModemStartedInItsFirmwareNeverEchoesSync) {
    auto modem = Make();
    modem->StartInFirmware();
    EXPECT_EQ(Send(*modem, {0x16, 0x16}), "");
    EXPECT_EQ(modem->Statistics().powerUps, 0u);
    EXPECT_EQ(modem->Statistics().syncBytesSeen, 2u);
}

TEST_F(BootProtocolTest, PowerOffForgetsTheLoaderAndTheNextPowerUpNeedsSyncAgain) {
    auto modem = Make();
    ToCommands(*modem);
    modem->PowerOff();
    EXPECT_EQ(Send(*modem, kSetBaudrate), "");
    modem->PowerOn(m_now);
    EXPECT_EQ(Send(*modem, kSetBaudrate), "") << "boot code again, not the loader";
    EXPECT_EQ(Send(*modem, {0x16}), "16");
    EXPECT_EQ(Send(*modem, kLoader), "30");
    EXPECT_EQ(Send(*modem, kSetBaudrate), "07");
    EXPECT_EQ(modem->Statistics().powerUps, 2u);
    EXPECT_EQ(modem->Statistics().syncAttempts, 2u) << "each power-up saw its own sync byte";
}

TEST_F(BootProtocolTest, SyncAfterSecondPowerUpIgnoresTheFirst) {
    TModemFaults faults;
    faults.syncAfter = 2;
    auto modem = Make(faults);
    modem->PowerOn(m_now);
    EXPECT_EQ(Send(*modem, {0x16, 0x16}), "");
    modem->PowerOff();
    modem->PowerOn(m_now);
    EXPECT_EQ(Send(*modem, {0x16}), "16");
    EXPECT_EQ(modem->Statistics().syncAttempts, 2u);
    EXPECT_EQ(modem->Statistics().syncBytesSeen, 3u);
}

TEST_F(BootProtocolTest, WholeUpdateFlashesTheFirmwareAndRecordsEveryCommand) {
    auto modem = Make();
    const TBytes firmware = Firmware(64000);
    ToCommands(*modem);
    EXPECT_EQ(Send(*modem, kSetBaudrate), "07");
    EXPECT_EQ(Send(*modem, kSetFlowControl), "05");
    EXPECT_EQ(Send(*modem, wire::ReadRangeCommand()), "04");
    EXPECT_EQ(Send(*modem, kRead), "02");
    EXPECT_EQ(Send(*modem, wire::EraseRangeCommand(64000)), "09");
    EXPECT_EQ(Send(*modem, kErase), "03");
    ASSERT_TRUE(modem->NextDeadline());
    EXPECT_EQ(*modem->NextDeadline(), m_now + 200ms);
    EXPECT_EQ(Wait(*modem, 199ms), "") << "still erasing";
    EXPECT_EQ(Wait(*modem, 1ms), "30");
    EXPECT_FALSE(modem->NextDeadline());
    EXPECT_EQ(Send(*modem, wire::WriteRangeCommand(64000)), "04");
    EXPECT_EQ(Send(*modem, kWrite), "01");

    EXPECT_EQ(Send(*modem, TBytes(firmware.begin(), firmware.begin() + 25599)), "");
    EXPECT_EQ(Send(*modem, TBytes(firmware.begin() + 25599, firmware.begin() + 25600)), "2e");
    EXPECT_EQ(Send(*modem, TBytes(firmware.begin() + 25600, firmware.begin() + 51200)), "2e");
    EXPECT_EQ(Send(*modem, TBytes(firmware.begin() + 51200, firmware.end())), "")
        << "the last chunk is still being programmed";
    EXPECT_EQ(Wait(*modem, 4ms), "");
    EXPECT_EQ(Wait(*modem, 1ms), "30");

    EXPECT_EQ(m_flash.Contents(), firmware);
    ASSERT_EQ(m_flash.Ranges().size(), 1u);
    EXPECT_EQ(m_flash.Ranges()[0], std::make_pair(0x90000000u, 64000u));
    const TBootStatistics& statistics = modem->Statistics();
    EXPECT_EQ(statistics.commands,
              (std::vector<std::string>{"07 00 c2 01 00", "05 00", "04 00 00 00 90 00 00 00 00",
                                        "02", "09 00 00 00 90 00 fa 00 00", "03",
                                        "04 00 00 00 90 00 fa 00 00", "01"}));
    EXPECT_EQ(statistics.bytesFlashed, 64000u);
    EXPECT_TRUE(statistics.writeComplete);
    EXPECT_EQ(statistics.powerUps, 1u);
}

TEST_F(BootProtocolTest, FirmwareOfWholeChunksEndsWithTheStatusNotADot) {
    auto modem = Make();
    const TBytes firmware = Firmware(51200);
    ToCommands(*modem);
    EXPECT_EQ(Send(*modem, wire::WriteRangeCommand(51200)), "04");
    EXPECT_EQ(Send(*modem, kWrite), "01");
    EXPECT_EQ(Send(*modem, TBytes(firmware.begin(), firmware.begin() + 25600)), "2e");
    EXPECT_EQ(Send(*modem, TBytes(firmware.begin() + 25600, firmware.end())), "");
    EXPECT_EQ(Wait(*modem, 5ms), "30");
    EXPECT_EQ(m_flash.Contents(), firmware);
}

TEST_F(BootProtocolTest, EmptyWriteIsDoneAfterTheProgrammingTime) {
    auto modem = Make();
    ToCommands(*modem);
    EXPECT_EQ(Send(*modem, wire::ReadRangeCommand()), "04");
    EXPECT_EQ(Send(*modem, kWrite), "01");
    EXPECT_EQ(Wait(*modem, 5ms), "30");
    EXPECT_EQ(Send(*modem, kRead), "02") << "the loader takes commands again";
    EXPECT_TRUE(m_flash.Contents().empty());
    EXPECT_TRUE(modem->Statistics().writeComplete);
}

TEST_F(BootProtocolTest, UnknownCommandByteIsRecordedAndNotAnswered) {
    auto modem = Make();
    ToCommands(*modem);
    EXPECT_EQ(Send(*modem, {0xff, 0x00}), "");
    EXPECT_EQ(Send(*modem, kRead), "02");
    EXPECT_EQ(modem->Statistics().commands,
              (std::vector<std::string>{"unknown ff", "unknown 00", "02"}));
}

TEST_F(BootProtocolTest, SecondWriteReplacesWhatTheFirstProgrammed) {
    auto modem = Make();
    ToCommands(*modem);
    EXPECT_EQ(Send(*modem, wire::WriteRangeCommand(3)), "04");
    EXPECT_EQ(Send(*modem, kWrite), "01");
    EXPECT_EQ(Send(*modem, {1, 2, 3}), "");
    EXPECT_EQ(Wait(*modem, 5ms), "30");
    EXPECT_EQ(Send(*modem, wire::WriteRangeCommand(2)), "04");
    EXPECT_EQ(Send(*modem, kWrite), "01");
    EXPECT_EQ(Send(*modem, {9, 8}), "");
    EXPECT_EQ(Wait(*modem, 5ms), "30");
    EXPECT_EQ(m_flash.Contents(), (TBytes{9, 8}));
    EXPECT_EQ(modem->Statistics().bytesFlashed, 2u);
}

TEST_F(BootProtocolTest, HangUpComesWithTheNthFirmwareByteAndTheModemHearsNothingAfter) {
    TModemFaults faults;
    ASSERT_TRUE(AddFault(faults, "hang-up-after=3").IsOk());
    auto modem = Make(faults);
    ToCommands(*modem);
    EXPECT_EQ(Send(*modem, wire::WriteRangeCommand(5)), "04");
    EXPECT_EQ(Send(*modem, kWrite), "01");
    EXPECT_EQ(Send(*modem, {1, 2}), "");
    EXPECT_FALSE(modem->LineHungUp());
    EXPECT_EQ(Send(*modem, {3}), "");
    EXPECT_TRUE(modem->LineHungUp());
    // Neither the rest of the data nor a later command is heard; no status is ever due.
    EXPECT_EQ(Send(*modem, {4, 5}), "");
    EXPECT_EQ(Send(*modem, wire::WriteRangeCommand(2)), "");
    EXPECT_EQ(Wait(*modem, 5s), "");
    EXPECT_EQ(m_flash.Contents(), (TBytes{1, 2, 3}));
    EXPECT_EQ(modem->Statistics().bytesFlashed, 3u);
    EXPECT_FALSE(modem->Statistics().writeComplete);
    EXPECT_TRUE(modem->Statistics().lineHungUp);
}

// A host gone wrong sends anything at any time, across power cycles and timers: whatever the
// fault set, the modem answers only with protocol bytes and never programs beyond the range.
TEST_F(BootProtocolTest, RandomTrafficOnlyEverGetsProtocolBytesBack) {
    const std::string allowed = std::string("\x16\x01\x02\x03\x04\x05\x07\x09") + "0123.X";
    uint32_t state = 12345;
    const auto next = [&state] {
        state = state * 1664525u + 1013904223u;
        return state >> 8;
    };
    const std::vector<std::vector<const char*>> faultSets = {
        {}, {"nak=04"}, {"drop-bytes=3", "write-status=X"}, {"loader-status=2"}, {"sync-after=3"}};
    for (const auto& faultTexts : faultSets) {
        TModemFaults faults;
        for (const char* faultText : faultTexts) {
            ASSERT_TRUE(AddFault(faults, faultText).IsOk());
        }
        auto modem = Make(faults);
        for (int round = 0; round < 20000; ++round) {
            const uint32_t choice = next() % 100;
            if (choice == 0) {
                modem->PowerOn(m_now);
            } else if (choice == 1) {
                modem->PowerOff();
            } else if (choice < 5) {
                m_now += std::chrono::milliseconds(next() % 300);
                modem->Advance(m_now);
            } else if (choice < 40) {
                // Valid-looking traffic keeps the state machine moving past the loader.
                const TBytes* pieces[] = {&kLoader, &kSetBaudrate, &kRead, &kErase, &kWrite};
                const TBytes& piece = *pieces[next() % 5];
                for (uint8_t byte : piece) {
                    modem->Receive(byte, m_now);
                }
                if (next() % 4 == 0) {
                    for (uint8_t byte : wire::WriteRangeCommand(next() % 70000)) {
                        modem->Receive(byte, m_now);
                    }
                }
            } else {
                modem->Receive(choice < 60 ? 0x16 : static_cast<uint8_t>(next()), m_now);
            }
            for (uint8_t byte : modem->TakeOutput()) {
                ASSERT_NE(allowed.find(static_cast<char>(byte)), std::string::npos)
                    << "byte " << static_cast<int>(byte);
            }
        }
        if (!m_flash.Ranges().empty()) {
            EXPECT_LE(m_flash.Contents().size(), m_flash.Ranges().back().second);
        }
        if (faultTexts.empty()) {
            EXPECT_TRUE(modem->Statistics().loaderOk) << "the traffic reached the loader";
            EXPECT_GT(modem->Statistics().commands.size(), 100u);
            EXPECT_GT(modem->Statistics().bytesFlashed, 0u);
        }
    }
}

// One update driven the way the image loader drives it: each step sends its bytes and stops
// when the modem's answer is not the one expected.
struct TSessionResult {
    std::string replies;    // everything the modem sent, in order
    std::string stoppedAt;  // the step whose answer was wrong, empty when all succeeded
};

struct TFaultCase {
    const char* name;
    std::vector<const char*> faults;
    std::string replies;
    std::string stoppedAt;
    uint32_t bytesFlashed;
};

void PrintTo(const TFaultCase& fault, std::ostream* stream) { *stream << fault.name; }

class BootProtocolFaultTest : public BootProtocolTest,
                              public ::testing::WithParamInterface<TFaultCase> {
protected:
    TSessionResult RunSession(CBootProtocol& modem, const TBytes& firmware) {
        TSessionResult result;
        const auto step = [&](const char* name, const std::string& replies,
                              const std::string& expected) {
            result.replies = Join(result.replies, replies);
            if (replies != expected) {
                result.stoppedAt = name;
                return false;
            }
            return true;
        };
        const uint32_t size = static_cast<uint32_t>(firmware.size());
        modem.PowerOn(m_now);
        if (!step("sync", Send(modem, {0x16}), "16") ||
            !step("loader", Send(modem, kLoader), "30") ||
            !step("baud", Send(modem, kSetBaudrate), "07") ||
            !step("flow", Send(modem, kSetFlowControl), "05") ||
            !step("read range", Send(modem, wire::ReadRangeCommand()), "04") ||
            !step("read", Send(modem, kRead), "02") ||
            !step("erase range", Send(modem, wire::EraseRangeCommand(size)), "09") ||
            !step("erase", Send(modem, kErase), "03") ||
            !step("erase done", Wait(modem, 10s), "30") ||
            !step("write range", Send(modem, wire::WriteRangeCommand(size)), "04") ||
            !step("write", Send(modem, kWrite), "01")) {
            return result;
        }
        std::string dataReplies;
        for (size_t offset = 0; offset < firmware.size(); offset += 25600) {
            const size_t end = std::min(firmware.size(), offset + 25600);
            dataReplies =
                Join(dataReplies,
                     Send(modem, TBytes(firmware.begin() + offset, firmware.begin() + end)));
        }
        dataReplies = Join(dataReplies, Wait(modem, 10s));
        step("data", dataReplies, "2e 2e 30");
        return result;
    }
};

TEST_P(BootProtocolFaultTest, UpdateStopsWhereTheFaultBites) {
    const TFaultCase& fault = GetParam();
    TModemFaults faults;
    for (const char* faultText : fault.faults) {
        ASSERT_TRUE(AddFault(faults, faultText).IsOk()) << faultText;
    }
    auto modem = Make(faults);
    const TBytes firmware = Firmware(64000);
    const TSessionResult result = RunSession(*modem, firmware);
    EXPECT_EQ(result.replies, fault.replies);
    EXPECT_EQ(result.stoppedAt, fault.stoppedAt);
    EXPECT_EQ(modem->Statistics().bytesFlashed, fault.bytesFlashed);
    EXPECT_EQ(m_flash.Contents().size(), fault.bytesFlashed);
    if (fault.bytesFlashed == firmware.size()) {
        EXPECT_EQ(m_flash.Contents(), firmware);
    }
}

const char* const kUpToErase = "16 30 07 05 04 02 09 03 30";

INSTANTIATE_TEST_SUITE_P(
    EveryFault, BootProtocolFaultTest,
    ::testing::Values(
        TFaultCase{"none", {}, std::string(kUpToErase) + " 04 01 2e 2e 30", "", 64000},
        TFaultCase{"no_sync", {"no-sync"}, "", "sync", 0},
        TFaultCase{"sync_after_2", {"sync-after=2"}, "", "sync", 0},
        TFaultCase{"sync_after_1",
                   {"sync-after=1"},
                   std::string(kUpToErase) + " 04 01 2e 2e 30",
                   "",
                   64000},
        TFaultCase{"loader_status_1", {"loader-status=1"}, "16 31", "loader", 0},
        TFaultCase{"loader_status_2", {"loader-status=2"}, "16 32", "loader", 0},
        TFaultCase{"loader_status_3", {"loader-status=3"}, "16 33", "loader", 0},
        TFaultCase{"loader_silent", {"loader-silent"}, "16", "loader", 0},
        TFaultCase{"nak_baud_rate", {"nak=07"}, "16 30", "baud", 0},
        TFaultCase{"nak_flow_control", {"nak=0x05"}, "16 30 07", "flow", 0},
        TFaultCase{"nak_set_range", {"nak=04"}, "16 30 07 05", "read range", 0},
        TFaultCase{"nak_read", {"nak=02"}, "16 30 07 05 04", "read", 0},
        TFaultCase{"nak_erase_range", {"nak=09"}, "16 30 07 05 04 02", "erase range", 0},
        TFaultCase{"nak_erase", {"nak=3"}, "16 30 07 05 04 02 09", "erase", 0},
        TFaultCase{"nak_write", {"nak=01"}, std::string(kUpToErase) + " 04", "write", 0},
        TFaultCase{"nak_two", {"nak=02", "nak=07"}, "16 30", "baud", 0},
        TFaultCase{
            "erase_never_done", {"erase-never-done"}, "16 30 07 05 04 02 09 03", "erase done", 0},
        TFaultCase{"write_status_1",
                   {"write-status=1"},
                   std::string(kUpToErase) + " 04 01 2e 2e 31",
                   "data",
                   64000},
        TFaultCase{"write_status_2",
                   {"write-status=2"},
                   std::string(kUpToErase) + " 04 01 2e 2e 32",
                   "data",
                   64000},
        TFaultCase{"write_status_3",
                   {"write-status=3"},
                   std::string(kUpToErase) + " 04 01 2e 2e 33",
                   "data",
                   64000},
        TFaultCase{"write_status_unknown",
                   {"write-status=X"},
                   std::string(kUpToErase) + " 04 01 2e 2e 58",
                   "data",
                   64000},
        TFaultCase{
            "write_silent", {"write-silent"}, std::string(kUpToErase) + " 04 01", "data", 64000},
        TFaultCase{"drop_bytes",
                   {"drop-bytes=10"},
                   std::string(kUpToErase) + " 04 01 2e 2e",
                   "data",
                   63990},
        // The line goes inside the second chunk: its "." never comes, nor anything after.
        TFaultCase{"hang_up_after",
                   {"hang-up-after=30000"},
                   std::string(kUpToErase) + " 04 01 2e",
                   "data",
                   30000}),
    [](const ::testing::TestParamInfo<TFaultCase>& testCase) {
        return std::string(testCase.param.name);
    });

}  // namespace
