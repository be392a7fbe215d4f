// Whole updates through the serial image loader: modemloader-host flashes modem-sim's flash over
// its pseudo-terminal, then records the new revision on the ext4 storage. Also the devices on
// which the image loader is prepared but the fake loader installs (no integrated modem, modem
// already up to date), the modem found switched on, a boot code that answers only on the third
// power-up, and an abort while the firmware goes out.

#include <gtest/gtest.h>

#include <algorithm>

#include "EndToEndTest.h"

namespace {

using nlohmann::json;

// A firmware of three chunks: two full 25600-byte ones and a short last one.
constexpr std::size_t kFirmwareBytes = 60000;

double TimeOf(const std::vector<json>& trace, const std::string& line,
              const std::string& deviceDirectory, int occurrence = 1) {
    for (const json& record : trace) {
        if (RecordLine(record, deviceDirectory) == line && --occurrence == 0) {
            return record.value("t", -1.0);
        }
    }
    return -1.0;
}

using ImageLoaderUpdateTest = EndToEndTest;

TEST_F(ImageLoaderUpdateTest, FlashesTheFirmwareRecordsTheRevisionAndRemovesTheSources) {
    TDeviceSettings settings;
    settings.firmwareBytes = kFirmwareBytes;
    MakeDevice(settings);
    ASSERT_NO_FATAL_FAILURE(RunUpdate());

    ExpectCompleteUpdate(kFirmwareBytes);
}

TEST_F(ImageLoaderUpdateTest, KeepsTheSourcesWhenTheyAreNotRemovable) {
    TDeviceSettings settings;
    settings.firmwareBytes = 25600;  // exactly one chunk: the next tick closes the file
    settings.removable = "0";
    MakeDevice(settings);
    ASSERT_NO_FATAL_FAILURE(RunUpdate());

    EXPECT_EQ(m_result.exitCode, 0) << Describe();
    EXPECT_EQ(Lines(), expected::CompleteFlash(25600)) << Describe();
    ExpectFlashedAndRecorded(25600);
    EXPECT_TRUE(SourcesPresent());
}

TEST_F(ImageLoaderUpdateTest, AModemAlreadyUpToDateGetsTheFakeLoader) {
    TDeviceSettings settings;
    settings.storedRevision = "124";
    MakeDevice(settings);
    ASSERT_NO_FATAL_FAILURE(RunUpdate());

    EXPECT_EQ(m_result.exitCode, 0) << Describe();
    // No device-tree check, no power-up: twenty ticks of the fake loader. The control pin
    // exists, so completion still rewrites the revision and removes the sources.
    EXPECT_EQ(Lines(), expected::Join({{"in 200", "out 201", "in 202", "umount mnt failed",
                                        "Error HandleControllerPrepare: Couldn't umount mnt",
                                        "mount movinand.img on mnt format 2 ok",
                                        "Always HandleControllerPrepare: current version: 124",
                                        "Always HandleControllerPrepare: Modem already up to date",
                                        "umount mnt ok", "out 203 outcome 1", "in 204"},
                                       expected::FakeLoaderProgress(),
                                       expected::CompletionWithRevision()}))
        << Describe();
    EXPECT_EQ(Power(), std::vector<std::string>()) << Describe();
    ExpectSummary({{"power_ups", 0},
                   {"power_offs", 0},
                   {"sync_attempts", 0},
                   {"loader_bytes", 0},
                   {"commands", json::array()},
                   {"bytes_flashed", 0}});
    EXPECT_EQ(StorageFile("revision"), kWrittenRevision);
    EXPECT_TRUE(SourcesGone());
    ExpectStorageReleased();
}

TEST_F(ImageLoaderUpdateTest,
       WithoutAnIntegratedModemPrepareReachesTheImageLoaderAndTheFakeOneInstalls) {
    // The modem is on: the image loader's Prepare shows that it ran by switching it off (the
    // 6 s pulse on the control pin). Install then asks the device tree, which says has-gprs 0.
    TDeviceSettings settings;
    settings.deviceTree = TDeviceTree::eHasGprs0;
    settings.modemOptions = {"--initially-on"};
    MakeDevice(settings);
    ASSERT_NO_FATAL_FAILURE(RunUpdate());

    EXPECT_EQ(m_result.exitCode, 0) << Describe();
    EXPECT_EQ(Lines(),
              expected::Join({expected::PrepareAndInstall("100"), expected::FakeLoaderProgress(),
                              expected::CompletionWithRevision()}))
        << Describe();
    EXPECT_EQ(Power(),
              (std::vector<std::string>{"Always Prepare: Modem was switched on",
                                        "cmd echo 0 > control = 0", "cmd echo 1 > control = 0"}))
        << Describe();
    ExpectSummary({{"power_ups", 0},
                   {"power_offs", 1},
                   {"sync_attempts", 0},
                   {"commands", json::array()},
                   {"bytes_flashed", 0}});
    EXPECT_EQ(StorageFile("revision"), kWrittenRevision);
    EXPECT_TRUE(SourcesGone());
    ExpectStorageReleased();
}

TEST_F(ImageLoaderUpdateTest, ADeviceTreeWithoutFeaturesMeansNoIntegratedModem) {
    TDeviceSettings settings;
    settings.deviceTree = TDeviceTree::eNoFeaturesNode;
    settings.removable = "0";
    MakeDevice(settings);
    ASSERT_NO_FATAL_FAILURE(RunUpdate());

    EXPECT_EQ(m_result.exitCode, 0) << Describe();
    EXPECT_EQ(Lines(), expected::Join({expected::PrepareAndInstall("100"),
                                       {"Error HasIntegratedGPRS: FDT path offset"},
                                       expected::FakeLoaderProgress(),
                                       expected::CompletionWithRevision()}))
        << Describe();
    EXPECT_EQ(Power(), std::vector<std::string>()) << Describe();
    ExpectSummary({{"power_ups", 0}, {"commands", json::array()}});
    EXPECT_EQ(StorageFile("revision"), kWrittenRevision);
    EXPECT_TRUE(SourcesPresent());
    ExpectStorageReleased();
}

TEST_F(ImageLoaderUpdateTest, AModemFoundSwitchedOnIsSwitchedOffFirstThenFlashed) {
    TDeviceSettings settings;
    settings.modemOptions = {"--initially-on"};
    MakeDevice(settings);
    ASSERT_NO_FATAL_FAILURE(RunUpdate());

    EXPECT_EQ(m_result.exitCode, 0) << Describe();
    EXPECT_EQ(Lines(), expected::CompleteFlash(kFirmwareBytes)) << Describe();
    EXPECT_EQ(Power(), (std::vector<std::string>{
                           "Always Prepare: Modem was switched on", "cmd echo 0 > control = 0",
                           "cmd echo 1 > control = 0", "cmd echo 0 > control = 0",
                           "Always Work: Finished ACK thread"}))
        << Describe();
    // The pin is held low for 6 s, then 1 s of settling before the port is opened.
    const std::string directory = m_device->Directory();
    const double pressed = TimeOf(m_result.trace, "cmd echo 0 > control = 0", directory);
    const double released = TimeOf(m_result.trace, "cmd echo 1 > control = 0", directory);
    const double poweredUp = TimeOf(m_result.trace, "cmd echo 0 > control = 0", directory, 2);
    EXPECT_GE(released - pressed, 6.0);
    EXPECT_LT(released - pressed, 7.0);
    EXPECT_GE(poweredUp - released, 1.0);
    EXPECT_GE(m_result.seconds, 7.0);

    ExpectFlashedAndRecorded(kFirmwareBytes);
    ExpectSummary({{"power_ups", 1}, {"power_offs", 1}, {"sync_attempts", 1}});
}

TEST_F(ImageLoaderUpdateTest, ABootCodeThatAnswersOnTheThirdPowerUpIsCaughtThen) {
    // Each unanswered attempt: pin low, 1.25 s, pin high, 1 s, then the modem (now on) is
    // switched off with the 6 s pulse before the next attempt.
    TDeviceSettings settings;
    settings.modemOptions = {"--fault", "sync-after=3"};
    MakeDevice(settings);
    ASSERT_NO_FATAL_FAILURE(RunUpdate());

    EXPECT_EQ(m_result.exitCode, 0) << Describe();
    EXPECT_EQ(Lines(), expected::CompleteFlash(kFirmwareBytes)) << Describe();
    const std::vector<std::string> failedAttempt{"cmd echo 0 > control = 0",
                                                 "cmd echo 1 > control = 0",
                                                 "Always Prepare: Modem was switched on",
                                                 "cmd echo 0 > control = 0",
                                                 "cmd echo 1 > control = 0",
                                                 "Always Work: Finished ACK thread"};
    EXPECT_EQ(Power(),
              expected::Join({failedAttempt,
                              failedAttempt,
                              {"cmd echo 0 > control = 0", "Always Work: Finished ACK thread"}}))
        << Describe();
    ExpectFlashedAndRecorded(kFirmwareBytes);
    ExpectSummary({{"power_ups", 3}, {"power_offs", 2}, {"sync_attempts", 3}});
}

TEST_F(ImageLoaderUpdateTest, AnAbortDuringTheFlashIsAcknowledgedAndTheFlashGoesOnToItsOwnResult) {
    // 48 chunks at one per 25 ms tick: the write runs for more than a second, and the Abort
    // comes 700 ms after Install, when the loader is well into it.
    constexpr std::size_t kLargeFirmware = 48 * 25600;
    TDeviceSettings settings;
    settings.firmwareBytes = kLargeFirmware;
    settings.tickMs = 25;
    MakeDevice(settings);
    TUpdateOptions options;
    options.abortAfterMs = 700;
    ASSERT_NO_FATAL_FAILURE(RunUpdate(options));

    EXPECT_EQ(m_result.exitCode, 0) << Describe();
    std::vector<std::string> lines = Lines();
    const auto abort = std::find(lines.begin(), lines.end(), "in 207");
    const auto aborted = std::find(lines.begin(), lines.end(), "out 208 outcome 1");
    ASSERT_NE(abort, lines.end()) << Describe();
    ASSERT_NE(aborted, lines.end()) << Describe();
    EXPECT_LT(abort, aborted);
    // Both came while the chunks were going out: progress reports of the write before and after.
    const auto writeStarted = std::find(lines.begin(), lines.end(), "out 206 45%");
    const auto lastChunk = std::find(lines.begin(), lines.end(), "out 206 100%");
    EXPECT_LT(writeStarted, abort) << Describe();
    EXPECT_LT(aborted, lastChunk) << Describe();
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "out 208 outcome 1"), 1);
    // Without the two, the update is the complete one, ending in its own success.
    lines.erase(aborted);
    lines.erase(std::find(lines.begin(), lines.end(), "in 207"));
    EXPECT_EQ(lines, expected::CompleteFlash(kLargeFirmware)) << Describe();

    ExpectFlashedAndRecorded(kLargeFirmware);
}

}  // namespace
