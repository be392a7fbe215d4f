// The update systems' shared runner, modem-update, on its own: the host run on the simulated
// device with its progress on standard output, and the configuration errors it reports itself
// before any host runs.

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <sstream>

#include "EndToEndTest.h"
#include "TemporaryDirectory.h"

namespace {

constexpr char kRunner[] = MODEMLOADER_UPDATE_RUNNER;

TChildResult RunRunner(const std::vector<std::string>& arguments) {
    std::vector<std::string> command{kRunner};
    command.insert(command.end(), arguments.begin(), arguments.end());
    TChildOptions options;
    options.timeout = std::chrono::seconds(150);
    return CChildProcess::Run(command, options);
}

}  // namespace

class UpdateRunnerTest : public EndToEndTest {
protected:
    // Settings that run the device's host; `extra` lines are appended.
    std::string WriteSettings(const std::string& extra = std::string()) {
        std::ostringstream settings;
        settings << "host = " << m_device->Programs().host << "\n"
                 << "config = " << m_device->ConfigFile() << "\n"
                 << "timeout = 120\n";
        for (const std::string& variable : m_device->HostEnvironment()) {
            settings << "environment = " << variable << "\n";
        }
        settings << extra;
        EXPECT_TRUE(m_files.WriteFile("modem-update.conf", settings.str()).IsOk());
        return m_files.Join("modem-update.conf");
    }

    CTemporaryDirectory m_files{"/tmp/modemloader-runner-"};
};

TEST_F(UpdateRunnerTest, PlacesTheFirmwareRunsTheHostAndPrintsItsProgress) {
    MakeDevice(DeliveredUpdateSettings());
    ASSERT_FALSE(HasFatalFailure());
    // The firmware arrives from elsewhere; the configured path holds none.
    const std::string delivered = m_files.Join("firmware.bin");
    std::filesystem::rename(m_device->FirmwareSource(), delivered);

    const TChildResult ran = RunRunner({"--settings", WriteSettings(), "--revision", "124",
                                        "--file", "firmware=" + delivered, "--progress"});
    nlohmann::json summary;
    ASSERT_TRUE(m_device->StopModem(summary).IsOk());
    m_result.modemSummary = summary;

    EXPECT_EQ(ran.exitCode, 0) << ::Describe(ran);
    std::istringstream lines(ran.out);
    std::string line;
    int previous = -1;
    std::size_t reports = 0;
    while (std::getline(lines, line)) {
        ASSERT_EQ(line.rfind("progress ", 0), 0u) << ran.out;
        const int percent = std::stoi(line.substr(9));
        EXPECT_LE(previous, percent) << ran.out;
        EXPECT_LE(percent, 100) << ran.out;
        previous = percent;
        ++reports;
    }
    EXPECT_GE(reports, 3u) << ran.out;
    EXPECT_EQ(previous, 100) << ran.out;
    ExpectSummary({{"power_ups", 1}, {"bytes_flashed", m_device->Firmware().size()}});
    const CStatus flashed = m_device->CheckFlashHoldsFirmware();
    EXPECT_TRUE(flashed) << flashed.Message();
    EXPECT_EQ(StorageFile("revision"), kWrittenRevision);
    // The delivered file stays where it came from; the host removed the configured copy.
    EXPECT_TRUE(std::filesystem::exists(delivered));
    EXPECT_FALSE(std::filesystem::exists(m_device->FirmwareSource()));
}

TEST_F(UpdateRunnerTest, UnknownSettingsKeyIsAConfigurationErrorBeforeTheHostRuns) {
    MakeDevice(DeliveredUpdateSettings());
    ASSERT_FALSE(HasFatalFailure());
    const std::string settings = WriteSettings("tickms = 5\n");
    std::string text;
    ASSERT_TRUE(ReadWholeFile(settings, text).IsOk());
    const std::size_t line = static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n'));

    const TChildResult ran = RunRunner({"--settings", settings, "--revision", "124"});

    EXPECT_EQ(ran.exitCode, 2) << ::Describe(ran);
    EXPECT_EQ(ran.err, "modem-update: settings " + settings + ":" + std::to_string(line) +
                           ": unknown key 'tickms'\n");
    EXPECT_EQ(ran.out, "");
    EXPECT_EQ(StorageFile("revision"), "100");
}

TEST_F(UpdateRunnerTest, FileForAKeyTheConfigurationDoesNotKnowIsRefused) {
    MakeDevice(DeliveredUpdateSettings());
    ASSERT_FALSE(HasFatalFailure());

    const TChildResult ran = RunRunner({"--settings", WriteSettings(), "--revision", "124",
                                        "--file", "loader=" + m_device->LoaderSource()});

    EXPECT_EQ(ran.exitCode, 2) << ::Describe(ran);
    EXPECT_EQ(ran.err, "modem-update: --file loader=" + m_device->LoaderSource() +
                           ": not KEY=PATH with KEY one of bootloader, firmware, productconfig, "
                           "daemonconfig\n");
    EXPECT_EQ(StorageFile("revision"), "100");
}

// A missing second file refuses the update before the first is placed: the device keeps the
// files it had, not a mix of two updates.
TEST_F(UpdateRunnerTest, AMissingFileIsRefusedBeforeAnyFileIsPlaced) {
    MakeDevice(DeliveredUpdateSettings());
    ASSERT_FALSE(HasFatalFailure());
    const std::string newLoader = m_files.Join("loader.bin");
    ASSERT_TRUE(m_files.WriteFile("loader.bin", "a loader of another update"));
    const std::string missing = m_files.Join("firmware.bin");
    std::string loaderBefore;
    ASSERT_TRUE(ReadWholeFile(m_device->LoaderSource(), loaderBefore));

    const TChildResult ran =
        RunRunner({"--settings", WriteSettings(), "--revision", "124", "--file",
                   "bootloader=" + newLoader, "--file", "firmware=" + missing});

    EXPECT_EQ(ran.exitCode, 2) << ::Describe(ran);
    EXPECT_EQ(ran.err, "modem-update: firmware: " + missing + " is not a file\n");
    std::string loaderAfter;
    ASSERT_TRUE(ReadWholeFile(m_device->LoaderSource(), loaderAfter));
    EXPECT_TRUE(loaderAfter == loaderBefore) << "the loader was replaced";
    EXPECT_EQ(StorageFile("revision"), "100");
}

TEST_F(UpdateRunnerTest, MissingHostConfigurationIsAConfigurationError) {
    MakeDevice(DeliveredUpdateSettings());
    ASSERT_FALSE(HasFatalFailure());

    const TChildResult ran = RunRunner(
        {"--settings", WriteSettings("config = /nonexistent/host.ini\n"), "--revision", "124"});

    EXPECT_EQ(ran.exitCode, 2) << ::Describe(ran);
    EXPECT_EQ(ran.err,
              "modem-update: the host's configuration /nonexistent/host.ini is not readable\n");
}
