// Every way the emulated modem can fail the image loader, each a whole modemloader-host run:
// the step that meets the fault ends the run, with its log record and the host's failure result
// (a loader download that is never answered keeps the loader polling, so the host times out).

#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>

#include "EndToEndTest.h"

namespace {

using nlohmann::json;

constexpr std::size_t kFirmwareBytes = 60000;
constexpr char kSizeBytes[] = "60 ea 00 00";  // kFirmwareBytes, little-endian

// The emulator's commands up to and including the one at `count`.
json Commands(std::size_t count) {
    const std::vector<std::string> all{"07 00 c2 01 00",
                                       "05 00",
                                       "04 00 00 00 90 00 00 00 00",
                                       "02",
                                       std::string("09 00 00 00 90 ") + kSizeBytes,
                                       "03",
                                       std::string("04 00 00 00 90 ") + kSizeBytes,
                                       "01"};
    return json(std::vector<std::string>(all.begin(), all.begin() + count));
}

// The event thread's lines from Init to the device-tree check, with a modem found.
std::vector<std::string> Start() {
    return expected::Join({expected::PrepareAndInstall("100"), expected::ModemInDeviceTree()});
}

std::vector<std::string> UpToWrite() {
    return expected::Join({Start(),
                           expected::SyncAndLoader(),
                           {"out 206 15%", "out 206 20%", "out 206 25%", "out 206 25%"}});
}

std::vector<std::string> AllChunks() {
    return expected::Join({UpToWrite(), {"out 206 45%"}, expected::ChunkProgress(kFirmwareBytes)});
}

// Sixty erase wait ticks without the modem's "0": 75 - ((60 - t) >> 2) still to do.
std::vector<std::string> EraseWaits() {
    std::vector<std::string> lines;
    for (int ticksLeft = 59; ticksLeft >= 0; --ticksLeft) {
        lines.push_back("out 206 " + std::to_string(25 + ((60 - ticksLeft) >> 2)) + "%");
    }
    return lines;
}

const std::vector<std::string> kFailed{"out 205 outcome 0"};

// The power worker's lines of a run whose first power-up is answered, and what it may still
// log before the host exits.
const std::vector<std::string> kAnsweredPowerUp{"cmd echo 0 > control = 0"};
const std::vector<std::string> kAnsweredPowerUpEnd{"Always Work: Finished ACK thread"};

struct TFaultCase {
    std::string name;
    std::vector<std::string> fault;  // modem-sim options
    int exitCode;
    std::vector<std::string> lines;  // the event thread's, complete
    std::vector<std::string> power;  // the power worker's, certain
    std::vector<std::string> powerMayFollow;
    json summary;  // fields of the emulator's summary
    double timeoutSeconds = 120;
};

void PrintTo(const TFaultCase& fault, std::ostream* stream) { *stream << fault.name; }

// The host deletes the module only after the last attempt's worker has ended, so that attempt
// too is seen to its end: the pin released and the modem switched off again.
std::vector<std::string> FiveUnansweredPowerUps() {
    const std::vector<std::string> attempt{"cmd echo 0 > control = 0",
                                           "cmd echo 1 > control = 0",
                                           "Always Prepare: Modem was switched on",
                                           "cmd echo 0 > control = 0",
                                           "cmd echo 1 > control = 0",
                                           "Always Work: Finished ACK thread"};
    return expected::Join({attempt, attempt, attempt, attempt, attempt});
}

std::vector<TFaultCase> FaultCases() {
    const json answered = {{"power_ups", 1}, {"sync_attempts", 1}};
    const auto with = [&](json fields) {
        json merged = answered;
        merged.update(fields);
        return merged;
    };
    std::vector<TFaultCase> cases;
    cases.push_back({"NoSync",
                     {"--fault", "no-sync"},
                     1,
                     expected::Join({Start(), kFailed}),
                     FiveUnansweredPowerUps(),
                     {},
                     {{"power_ups", 5},
                      {"power_offs", 5},
                      {"sync_attempts", 5},
                      {"sync_echoes", 0},
                      {"loader_bytes", 0},
                      {"commands", json::array()}}});
    const char* loaderErrors[] = {"Loader source checksum error", "loader source type error",
                                  "loader source finite state machine error"};
    for (int status = 1; status <= 3; ++status) {
        cases.push_back(
            {"LoaderStatus" + std::to_string(status),
             {"--fault", "loader-status=" + std::to_string(status)},
             1,
             expected::Join({Start(),
                             {"Always Sync: noticed a reply from modem", "out 206 5%",
                              std::string("Error PrepareFlash: ") + loaderErrors[status - 1]},
                             kFailed}),
             kAnsweredPowerUp,
             kAnsweredPowerUpEnd,
             with({{"loader_bytes", 1024}, {"loader_ok", false}, {"commands", json::array()}})});
    }
    cases.push_back(
        {"LoaderSilentKeepsTheLoaderPolling",
         {"--fault", "loader-silent"},
         3,
         expected::Join({Start(), {"Always Sync: noticed a reply from modem", "out 206 5%"}}),
         kAnsweredPowerUp,
         kAnsweredPowerUpEnd,
         with({{"loader_bytes", 1024}, {"commands", json::array()}}),
         3});
    const std::vector<std::string> configured =
        expected::Join({Start(), expected::SyncAndLoader()});
    // A refused command is recorded by the emulator but not answered; the step that waited for
    // its echo ends the run.
    struct TNak {
        const char* name;
        const char* command;
        std::vector<std::string> lines;
        std::size_t commands;
    };
    const TNak naks[] = {
        {"NakSetBaudrate", "07", {"Error Configure: error writing baudrate to modem"}, 1},
        {"NakSetFlowControl", "05", {"Error Configure: error writing flowcontrol to modem"}, 2},
        {"NakSetRange",
         "04",
         {"out 206 15%", "Error Read: modem did not respond to read commandm"},
         3},
        {"NakRead", "02", {"out 206 15%", "Error Read: modem did not return firmware size"}, 4},
        {"NakSetEraseRange", "09", {"out 206 15%", "out 206 20%"}, 5},
        {"NakErase", "03", {"out 206 15%", "out 206 20%"}, 6},
        {"NakWrite", "01", {"out 206 15%", "out 206 20%", "out 206 25%", "out 206 25%"}, 8},
    };
    for (const TNak& nak : naks) {
        cases.push_back({nak.name,
                         {"--fault", std::string("nak=") + nak.command},
                         1,
                         expected::Join({configured, nak.lines, kFailed}),
                         kAnsweredPowerUp,
                         kAnsweredPowerUpEnd,
                         with({{"loader_bytes", 1024},
                               {"loader_ok", true},
                               {"commands", Commands(nak.commands)},
                               {"bytes_flashed", 0}})});
    }
    cases.push_back(
        {"EraseNeverDone",
         {"--fault", "erase-never-done"},
         1,
         expected::Join(
             {configured, {"out 206 15%", "out 206 20%", "out 206 25%"}, EraseWaits(), kFailed}),
         kAnsweredPowerUp,
         kAnsweredPowerUpEnd,
         with({{"loader_ok", true}, {"commands", Commands(6)}, {"bytes_flashed", 0}})});
    const char* writeErrors[] = {"firmware checksum error", "firmware type error",
                                 "firmware finite state machine error"};
    for (int status = 1; status <= 3; ++status) {
        cases.push_back(
            {"WriteStatus" + std::to_string(status),
             {"--fault", "write-status=" + std::to_string(status)},
             1,
             expected::Join(
                 {AllChunks(), {std::string("Error Write: ") + writeErrors[status - 1]}, kFailed}),
             kAnsweredPowerUp,
             kAnsweredPowerUpEnd,
             with({{"commands", Commands(8)},
                   {"bytes_flashed", kFirmwareBytes},
                   {"write_complete", true}})});
    }
    // A status byte the loader does not know ends the write without a log record.
    cases.push_back({"WriteStatusUnknown",
                     {"--fault", "write-status=X"},
                     1,
                     expected::Join({AllChunks(), kFailed}),
                     kAnsweredPowerUp,
                     kAnsweredPowerUpEnd,
                     with({{"commands", Commands(8)},
                           {"bytes_flashed", kFirmwareBytes},
                           {"write_complete", true}})});
    // Sixty ticks after the last chunk without a "." or a status.
    cases.push_back({"WriteSilent",
                     {"--fault", "write-silent"},
                     1,
                     expected::Join({AllChunks(), {"Error Write: write timed out"}, kFailed}),
                     kAnsweredPowerUp,
                     kAnsweredPowerUpEnd,
                     with({{"commands", Commands(8)},
                           {"bytes_flashed", kFirmwareBytes},
                           {"write_complete", true}})});
    // Lost bytes: the modem waits for the rest of the announced length, which never comes.
    cases.push_back({"DropBytes",
                     {"--fault", "drop-bytes=100"},
                     1,
                     expected::Join({AllChunks(), {"Error Write: write timed out"}, kFailed}),
                     kAnsweredPowerUp,
                     kAnsweredPowerUpEnd,
                     with({{"commands", Commands(8)},
                           {"bytes_flashed", kFirmwareBytes - 100},
                           {"write_complete", false}})});
    return cases;
}

class ModemFaultTest : public EndToEndTest, public ::testing::WithParamInterface<TFaultCase> {};

TEST_P(ModemFaultTest, EndsInTheStepsFailureOutcome) {
    const TFaultCase& fault = GetParam();
    TDeviceSettings settings;
    settings.firmwareBytes = kFirmwareBytes;
    settings.modemOptions = fault.fault;
    MakeDevice(settings);
    TUpdateOptions options;
    options.timeoutSeconds = fault.timeoutSeconds;
    ASSERT_NO_FATAL_FAILURE(RunUpdate(options));

    EXPECT_EQ(m_result.exitCode, fault.exitCode) << Describe();
    if (fault.exitCode == 3) {
        // The host gave up waiting; its last words say for what.
        std::ostringstream timedOut;
        timedOut << "modemloader-host: timed out after " << fault.timeoutSeconds
                 << " s waiting for Install done (205)\n";
        const std::string& err = m_result.err;
        const std::size_t tail = std::min(err.size(), timedOut.str().size());
        EXPECT_EQ(err.substr(err.size() - tail), timedOut.str()) << Describe();
    }
    EXPECT_EQ(Lines(), fault.lines) << Describe();
    EXPECT_TRUE(IsCertainThenPrefix(Power(), fault.power, fault.powerMayFollow))
        << "power lines:\n"
        << Listing(Power()) << "expected:\n"
        << Listing(fault.power) << "then a prefix of:\n"
        << Listing(fault.powerMayFollow);
    ExpectSummary(fault.summary);
    // A failed update writes no revision and removes nothing.
    EXPECT_EQ(StorageFile("revision"), "100");
    EXPECT_TRUE(SourcesPresent());
    ExpectStorageReleased();
}

INSTANTIATE_TEST_SUITE_P(Faults, ModemFaultTest, ::testing::ValuesIn(FaultCases()),
                         [](const ::testing::TestParamInfo<TFaultCase>& testCase) {
                             return testCase.param.name;
                         });

}  // namespace
