// The command line of modem-sim and its fault names.

#include <gtest/gtest.h>

#include <ostream>
#include <string>
#include <vector>

#include "Options.h"

namespace {

using namespace std::chrono_literals;

const std::vector<std::string> kRequired = {"--link",      "/tmp/l", "--control", "/tmp/c",
                                            "--ready",     "/tmp/r", "--loader",  "/tmp/b",
                                            "--flash-out", "/tmp/f"};

std::vector<std::string> With(std::vector<std::string> extra) {
    std::vector<std::string> arguments = kRequired;
    arguments.insert(arguments.end(), extra.begin(), extra.end());
    return arguments;
}

TEST(OptionsTest, DefaultsFitInsideTheLoadersFirstAttempt) {
    TOptions options;
    ASSERT_TRUE(ParseOptions(kRequired, options).IsOk());
    EXPECT_EQ(options.link, "/tmp/l");
    EXPECT_EQ(options.control, "/tmp/c");
    EXPECT_EQ(options.ready, "/tmp/r");
    EXPECT_EQ(options.loader, "/tmp/b");
    EXPECT_EQ(options.flashOut, "/tmp/f");
    EXPECT_EQ(options.baud, 0u);
    EXPECT_FALSE(options.initiallyOn);
    // The loader waits 1.25 s after pressing; the modem must be on and listening well before.
    EXPECT_EQ(options.powerOn, 100ms);
    EXPECT_EQ(options.bootWindow, 2000ms);
    EXPECT_EQ(options.erase, 200ms);
    EXPECT_EQ(options.program, 5ms);
    EXPECT_TRUE(options.trace.empty());
    EXPECT_TRUE(options.summary.empty());
}

TEST(OptionsTest, EverythingGiven) {
    TOptions options;
    ASSERT_TRUE(ParseOptions(With({"--baud", "115200", "--initially-on", "--power-on-ms", "7",
                                   "--boot-window-ms", "50", "--erase-ms", "0", "--program-ms", "3",
                                   "--fault", "nak=09", "--fault", "drop-bytes=4", "--trace",
                                   "/tmp/t", "--summary", "/tmp/s"}),
                             options)
                    .IsOk());
    EXPECT_EQ(options.baud, 115200u);
    EXPECT_TRUE(options.initiallyOn);
    EXPECT_EQ(options.powerOn, 7ms);
    EXPECT_EQ(options.bootWindow, 50ms);
    EXPECT_EQ(options.erase, 0ms);
    EXPECT_EQ(options.program, 3ms);
    EXPECT_EQ(options.faults.nakCommands, (std::set<uint8_t>{0x09}));
    EXPECT_EQ(options.faults.dropBytes, 4u);
    EXPECT_EQ(options.trace, "/tmp/t");
    EXPECT_EQ(options.summary, "/tmp/s");
}

TEST(OptionsTest, HelpWinsOverEverythingElse) {
    TOptions options;
    ASSERT_TRUE(ParseOptions({"--bogus", "--help"}, options).IsOk());
    EXPECT_TRUE(options.help);
    EXPECT_NE(UsageText().find("--fault NAME[=ARG]"), std::string::npos);
}

struct TBadArguments {
    const char* name;
    std::vector<std::string> arguments;
    std::string error;
};

void PrintTo(const TBadArguments& bad, std::ostream* stream) { *stream << bad.name; }

class OptionsErrorTest : public ::testing::TestWithParam<TBadArguments> {};

TEST_P(OptionsErrorTest, ClearMessage) {
    TOptions options;
    const CStatus status = ParseOptions(GetParam().arguments, options);
    EXPECT_EQ(status.Message(), GetParam().error);
}

INSTANTIATE_TEST_SUITE_P(
    BadArguments, OptionsErrorTest,
    ::testing::Values(
        TBadArguments{"nothing", {}, "--link is required"},
        TBadArguments{"no_flash_out",
                      {"--link", "l", "--control", "c", "--ready", "r", "--loader", "b"},
                      "--flash-out is required"},
        TBadArguments{"unknown", With({"--speed", "9"}), "unknown argument \"--speed\""},
        TBadArguments{"missing_value", With({"--baud"}), "--baud needs a value"},
        TBadArguments{"empty_path", With({"--trace", ""}), "--trace needs a non-empty path"},
        TBadArguments{"baud_text", With({"--baud", "fast"}),
                      "--baud needs a whole number, not \"fast\""},
        TBadArguments{"baud_zero", With({"--baud", "0"}), "--baud needs a rate of 1 or more"},
        TBadArguments{"negative_delay", With({"--erase-ms", "-1"}),
                      "--erase-ms needs a whole number, not \"-1\""},
        TBadArguments{"unknown_fault", With({"--fault", "explode"}),
                      "fault \"explode\": unknown fault"},
        TBadArguments{"flag_fault_with_argument", With({"--fault", "no-sync=1"}),
                      "fault \"no-sync=1\": takes no argument"},
        TBadArguments{"sync_after_zero", With({"--fault", "sync-after=0"}),
                      "fault \"sync-after=0\": needs a power-up number of 1 or more"},
        TBadArguments{"loader_status_zero", With({"--fault", "loader-status=0"}),
                      "fault \"loader-status=0\": needs 1, 2 or 3"},
        TBadArguments{"write_status_lowercase_x", With({"--fault", "write-status=x"}),
                      "fault \"write-status=x\": needs 1, 2, 3 or X"},
        TBadArguments{"hang_up_after_zero", With({"--fault", "hang-up-after=0"}),
                      "fault \"hang-up-after=0\": needs a firmware byte count of 1 or more"},
        TBadArguments{"nak_not_hex", With({"--fault", "nak=zz"}),
                      "fault \"nak=zz\": needs a command byte in hex, such as 07"},
        TBadArguments{"nak_too_wide", With({"--fault", "nak=107"}),
                      "fault \"nak=107\": needs a command byte in hex, such as 07"},
        TBadArguments{"drop_bytes_missing", With({"--fault", "drop-bytes"}),
                      "fault \"drop-bytes\": needs a byte count"}),
    [](const ::testing::TestParamInfo<TBadArguments>& testCase) {
        return std::string(testCase.param.name);
    });

TEST(ModemFaultsTest, EachNameSetsItsField) {
    TModemFaults faults;
    for (const char* faultText :
         {"no-sync", "sync-after=3", "loader-status=2", "loader-silent", "nak=0x1f",
          "erase-never-done", "write-status=X", "write-silent", "drop-bytes=25600"}) {
        ASSERT_TRUE(AddFault(faults, faultText).IsOk()) << faultText;
    }
    EXPECT_TRUE(faults.noSync);
    EXPECT_EQ(faults.syncAfter, 3u);
    EXPECT_EQ(faults.loaderStatus, '2');
    EXPECT_TRUE(faults.loaderSilent);
    EXPECT_EQ(faults.nakCommands, (std::set<uint8_t>{0x1f}));
    EXPECT_TRUE(faults.eraseNeverDone);
    EXPECT_EQ(faults.writeStatus, 'X');
    EXPECT_TRUE(faults.writeSilent);
    EXPECT_EQ(faults.dropBytes, 25600u);
}

}  // namespace
