// The image loader's object: its five properties, Prepare (loader source in memory, firmware
// sized, power control, serial port), Install, Abort and destruction.

#include <gtest/gtest.h>

#include "FileHandlerFaults.h"
#include "ImageLoaderTestHost.h"

namespace imageloadertest {
namespace {

class ImageLoaderSetupTest : public ImageLoaderTestHost {};

const std::vector<std::string> kFiveKeys{"control", "ready", "serial", "bootloader", "firmware"};

TEST_F(ImageLoaderSetupTest, FillPropertiesReadsItsFiveKeysInOrderUnderTheFeatureName) {
    CImageLoader& loader = MakeLoader();
    EXPECT_TRUE(loader.FillProperties());
    EXPECT_EQ(m_properties.LookedUpKeys(), kFiveKeys);
    for (const auto& [feature, key] : m_properties.Lookups()) {
        EXPECT_EQ(feature, kName) << key;
    }
}

TEST_F(ImageLoaderSetupTest, MissingReadyFailsButTheKeysAfterItAreStillRead) {
    m_properties.Remove(kName, "ready");
    CImageLoader& loader = MakeLoader();
    EXPECT_FALSE(loader.FillProperties());
    EXPECT_EQ(m_properties.LookedUpKeys(), kFiveKeys);
    EXPECT_TRUE(m_log.Entries().empty()) << "the reader itself logs nothing";
}

TEST_F(ImageLoaderSetupTest, PrepareWithEverythingInPlaceSucceedsSilently) {
    CImageLoader& loader = MakeLoader();
    EXPECT_TRUE(loader.Prepare());
    EXPECT_TRUE(m_log.Entries().empty());
    const auto creates = m_port.CreateCalls();
    ASSERT_EQ(creates.size(), 1u);
    EXPECT_EQ(creates[0].device, kSerialDevice);
    EXPECT_EQ(creates[0].speed, 115200u);
    EXPECT_EQ(creates[0].flags, 0u);
    EXPECT_EQ(m_files.OpenStreams(), 0u) << "the loader source is read and closed";
    EXPECT_TRUE(m_commands.Lines().empty()) << "the modem is off";
    EXPECT_TRUE(m_broker.SubscriptionCalls().empty());
    EXPECT_TRUE(m_callback.Calls().empty());
}

TEST_F(ImageLoaderSetupTest, PrepareHoldsTheLoaderSourceWholeInMemory) {
    CImageLoader& loader = MakeLoader();
    ASSERT_TRUE(loader.Prepare());
    // Gone from the file system, the source still goes out from memory.
    m_files.RemoveFile(reinterpret_cast<const unsigned char*>(kLoaderPath));
    m_port.Expect(Bytes(m_loaderSource), Bytes("0"));
    loader.PrepareFlash();
    EXPECT_EQ(m_port.Written(), Bytes(m_loaderSource));
    EXPECT_EQ(m_port.WriteCalls(), 1u) << "in one write, no framing";
}

TEST_F(ImageLoaderSetupTest, PrepareSwitchesOffAModemThatIsOnBeforeOpeningThePort) {
    WriteTestFile(m_directory, "ready", "1");
    // At each pin command: how many ports had been opened by then.
    std::vector<std::size_t> portsAtCommand;
    m_commands.OnCommand([this, &portsAtCommand](const std::string&) {
        portsAtCommand.push_back(m_port.CreateCalls().size());
    });
    std::size_t portsAtSettle = 0;
    CVirtualClock::OnSleep([this, &portsAtSettle](const TSleep& sleep) {
        if (sleep == Seconds(1)) {
            portsAtSettle = m_port.CreateCalls().size() + 1;  // + 1: seen at all
        }
    });
    CImageLoader& loader = MakeLoader();
    EXPECT_TRUE(loader.Prepare());
    EXPECT_EQ(m_commands.Lines(), (std::vector<std::string>{PinLow(), PinHigh()}));
    EXPECT_EQ(portsAtCommand, (std::vector<std::size_t>{0, 0})) << "the power first";
    EXPECT_EQ(portsAtSettle, 1u) << "the port not even during the settling second";
    EXPECT_EQ(m_port.CreateCalls().size(), 1u) << "then the port";
    EXPECT_EQ(CVirtualClock::SleepsOf(m_mainThread), (std::vector<TSleep>{Seconds(6), Seconds(1)}));
    EXPECT_EQ(m_log.Entries(),
              std::vector<TLogEntry>{AlwaysEntry("Prepare", "Modem was switched on")});
}

TEST_F(ImageLoaderSetupTest, MissingFirmwareKeySkipsTheFilesButStillSetsUpPowerAndPort) {
    m_properties.Remove(kName, "firmware");
    WriteTestFile(m_directory, "ready", "1");
    CImageLoader& loader = MakeLoader();
    EXPECT_FALSE(loader.Prepare());
    EXPECT_EQ(
        m_log.Entries(),
        (std::vector<TLogEntry>{ErrorEntry("Prepare", "error encountered while reading properties"),
                                AlwaysEntry("Prepare", "Modem was switched on")}));
    EXPECT_TRUE(m_files.Calls().empty()) << "no source file is looked at";
    EXPECT_EQ(m_commands.Lines(), (std::vector<std::string>{PinLow(), PinHigh()}));
    ASSERT_EQ(m_port.CreateCalls().size(), 1u);
    EXPECT_EQ(m_port.CreateCalls()[0].device, kSerialDevice);
}

TEST_F(ImageLoaderSetupTest, PortThatCannotBeOpenedFailsPrepare) {
    m_port.FailCreate();
    CImageLoader& loader = MakeLoader();
    EXPECT_FALSE(loader.Prepare());
    EXPECT_EQ(m_log.Entries(),
              std::vector<TLogEntry>{ErrorEntry("Prepare", "Error opening serial port")});
}

struct TSourceCase {
    const char* name;
    std::function<void(CFakeFileHandler&, CFileHandlerFaults&)> arrange;
    std::vector<TLogEntry> log;
};
void PrintTo(const TSourceCase& testCase, std::ostream* stream) { *stream << testCase.name; }

class ImageLoaderSourceTest : public ImageLoaderSetupTest,
                              public ::testing::WithParamInterface<TSourceCase> {};

TEST_P(ImageLoaderSourceTest, FailsPrepareWithItsLogAndStillOpensThePort) {
    CFileHandlerFaults faults(m_files);
    GetParam().arrange(m_files, faults);
    CImageLoader& loader = MakeLoader();
    EXPECT_FALSE(loader.Prepare());
    EXPECT_EQ(m_log.Entries(), GetParam().log);
    EXPECT_EQ(m_port.CreateCalls().size(), 1u);
    for (const logging::TLogRecord& record : m_log.Records()) {
        EXPECT_EQ(record.channel, logging::ModemLoader);
        EXPECT_EQ(record.category, logging::categories::Error);
    }
}

void RemoveFile(CFakeFileHandler& files, const char* path) {
    files.RemoveFile(reinterpret_cast<const unsigned char*>(path));
}

INSTANTIATE_TEST_SUITE_P(
    Sources, ImageLoaderSourceTest,
    ::testing::Values(
        TSourceCase{
            "MissingLoaderSourceStillChecksTheFirmware",
            [](CFakeFileHandler& files, CFileHandlerFaults&) {
                RemoveFile(files, kLoaderPath);
                RemoveFile(files, kFirmwarePath);
            },
            {ErrorEntry("Prepare", "Could not find loader source: /media/update/boot.bin"),
             ErrorEntry("Prepare", "could not find firmware source: /media/update/firmware.bin")}},
        TSourceCase{
            "EmptyLoaderSource",
            [](CFakeFileHandler& files, CFileHandlerFaults&) { files.AddFile(kLoaderPath, ""); },
            {ErrorEntry("Prepare", "could not determine loader size")}},
        TSourceCase{"LoaderSourceShorterThanItsSize",
                    [](CFakeFileHandler&, CFileHandlerFaults& faults) {
                        faults.FailWith("FileSize", 1000, "boot.bin");
                    },
                    {ErrorEntry("Prepare", "could not load file into memory")}},
        TSourceCase{
            "LoaderSourceThatCannotBeOpenedIsNotLogged",
            [](CFakeFileHandler&, CFileHandlerFaults& faults) { faults.FailOpen("boot.bin"); },
            {}},
        TSourceCase{
            "MissingFirmwareSource",
            [](CFakeFileHandler& files, CFileHandlerFaults&) { RemoveFile(files, kFirmwarePath); },
            {ErrorEntry("Prepare", "could not find firmware source: /media/update/firmware.bin")}},
        TSourceCase{
            "EmptyFirmwareSource",
            [](CFakeFileHandler& files, CFileHandlerFaults&) { files.AddFile(kFirmwarePath, ""); },
            {ErrorEntry("Prepare", "could not determine firmware size")}}),
    [](const ::testing::TestParamInfo<TSourceCase>& testInfo) { return testInfo.param.name; });

TEST_F(ImageLoaderSetupTest, InstallSubscribesToTheTickAndTheFirstTickOnlyMovesToSync) {
    CImageLoader& loader = PreparedLoader();
    loader.Install();
    const auto subscriptions = m_broker.Subscriptions();
    ASSERT_EQ(subscriptions.size(), 1u);
    EXPECT_EQ(subscriptions[0].filter.type, 0);
    EXPECT_EQ(subscriptions[0].filter.id, 0);
    EXPECT_EQ(subscriptions[0].filter.size, 1000u);
    EXPECT_EQ(subscriptions[0].filter.data, reinterpret_cast<const void*>(1));
    EXPECT_EQ(subscriptions[0].observer, static_cast<IEventObserver*>(&loader));
    EXPECT_TRUE(loader.StepPending());
    EXPECT_EQ(loader.Step(), eStepStart);

    m_broker.Tick();
    EXPECT_EQ(loader.Step(), eStepSync);
    EXPECT_TRUE(loader.StepPending());
    EXPECT_EQ(m_port.Reads() + m_port.WriteCalls(), 0u) << "no traffic on the first tick";
    EXPECT_TRUE(m_commands.Lines().empty());
}

TEST_F(ImageLoaderSetupTest, TicksBeforeInstallDoNothing) {
    CImageLoader& loader = PreparedLoader();
    const TEvent tick{EVENT_TYPE_TICK, 0, 0, nullptr};
    loader.OnEvent(tick);
    EXPECT_EQ(loader.Step(), eStepStart);
    EXPECT_FALSE(loader.StepPending());
}

TEST_F(ImageLoaderSetupTest, AbortOnlyReportsAbortedAndTheRunGoesOnToItsEnd) {
    CImageLoader& loader = PreparedLoader();
    ScriptSuccessfulModem(1);
    loader.Install();
    m_broker.Tick(3);  // start, sync and loader download, configure
    loader.Abort();
    EXPECT_EQ(m_callback.Calls().back(), "Aborted()");
    EXPECT_TRUE(m_broker.HasTickSubscribers()) << "abort leaves the subscription";
    EXPECT_EQ(loader.Step(), eStepRead);

    TickUntilCompleted();
    const auto calls = m_callback.Calls();
    EXPECT_EQ(std::count(calls.begin(), calls.end(), "Aborted()"), 1);
    EXPECT_EQ(calls.back(), "Completed(1)");
}

TEST_F(ImageLoaderSetupTest, AbortWithoutInstallOnlyReportsAborted) {
    CImageLoader& loader = MakeLoader();
    loader.Abort();
    EXPECT_EQ(m_callback.Calls(), std::vector<std::string>{"Aborted()"});
    EXPECT_TRUE(m_broker.SubscriptionCalls().empty());
}

TEST_F(ImageLoaderSetupTest, DestructionDoesNotUnsubscribeNorReleaseThePort) {
    MakeLoader();
    ASSERT_TRUE(m_loader->Prepare());
    m_loader->Install();
    m_loader.reset();
    EXPECT_EQ(m_broker.SubscriptionCalls().size(), 1u);
    EXPECT_EQ(m_broker.Subscriptions().size(), 1u);
    // The port is still usable: the loader did not delete it.
    m_port.Send(Bytes("x"));
    unsigned char byte = 0;
    uint32_t got = 0;
    EXPECT_EQ(m_port.Read(&byte, 1, got), 0);
    EXPECT_EQ(got, 1u);
}

}  // namespace
}  // namespace imageloadertest
