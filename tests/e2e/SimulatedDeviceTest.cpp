// The simulated device itself, which the end-to-end tests, the benchmarks and the demo stand
// on: deterministic update files, a destructor that leaves nothing behind even when a host was
// killed with the storage mounted, and modemloader-demo run as `./run demo` runs it.

#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <iterator>

#include "ChildProcess.h"
#include "EndToEndTest.h"
#include "MountTable.h"

namespace {

bool Exists(const std::string& path) {
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0;
}

// Processes whose command line names something under `folder` (modem-sim names its link there).
int ProcessesNaming(const std::string& folder) {
    int count = 0;
    DIR* processes = ::opendir("/proc");
    if (processes == nullptr) {
        return -1;
    }
    while (const dirent* entry = ::readdir(processes)) {
        std::ifstream file(std::string("/proc/") + entry->d_name + "/cmdline", std::ios::binary);
        std::string commandLine((std::istreambuf_iterator<char>(file)),
                                std::istreambuf_iterator<char>());
        if (commandLine.find(folder + "/") != std::string::npos) {
            ++count;
        }
    }
    ::closedir(processes);
    return count;
}

class SimulatedDeviceTest : public EndToEndTest {};

TEST_F(SimulatedDeviceTest, TheUpdateFilesAreTheSameForTheSameSeed) {
    TDeviceSettings settings;
    settings.controlPin = false;  // no modem needed
    settings.firmwareBytes = 5000;
    std::unique_ptr<CSimulatedDevice> first;
    std::unique_ptr<CSimulatedDevice> second;
    ASSERT_TRUE(CSimulatedDevice::Create(settings, first).IsOk());
    ASSERT_TRUE(CSimulatedDevice::Create(settings, second).IsOk());
    settings.seed = 2;
    std::unique_ptr<CSimulatedDevice> other;
    ASSERT_TRUE(CSimulatedDevice::Create(settings, other).IsOk());

    EXPECT_EQ(first->Firmware().size(), 5000u);
    EXPECT_EQ(first->Loader().size(), 1024u);
    EXPECT_TRUE(first->Firmware() == second->Firmware());
    EXPECT_TRUE(first->Loader() == second->Loader());
    EXPECT_FALSE(first->Firmware() == other->Firmware());
    EXPECT_FALSE(first->Loader() == first->Firmware().substr(0, 1024));
    // The loader download must not be taken for a late sync probe.
    EXPECT_NE(first->Loader()[0], '\x16');

    std::string written;
    ASSERT_TRUE(ReadWholeFile(first->FirmwareSource(), written).IsOk());
    EXPECT_TRUE(written == first->Firmware());
}

TEST_F(SimulatedDeviceTest, DestroyingItUnmountsDetachesStopsTheModemAndRemovesItsDirectory) {
    // As a host killed during Prepare leaves it: the storage mounted through a loop device.
    MakeDevice(TDeviceSettings());
    ASSERT_FALSE(HasFatalFailure());
    const std::string directory = m_device->Directory();
    TChildOptions options;
    options.timeout = std::chrono::seconds(30);
    const TChildResult mounted = CChildProcess::Run(
        {"mount", "-o", "loop", m_device->Image(), m_device->MountPoint()}, options);
    ASSERT_EQ(mounted.exitCode, 0) << ::Describe(mounted);
    ASSERT_TRUE(m_device->IsStorageMounted());
    ASSERT_EQ(m_device->AttachedLoopDevices().size(), 1u);
    ASSERT_TRUE(Exists(m_device->SerialLink())) << "the modem is running";
    ASSERT_EQ(ProcessesNaming(directory), 1) << "modem-sim";

    m_device.reset();

    EXPECT_FALSE(IsAnythingMountedUnder(directory));
    EXPECT_EQ(LoopDevicesBackedUnder(directory), std::vector<std::string>());
    EXPECT_FALSE(Exists(directory));
    EXPECT_EQ(ProcessesNaming(directory), 0) << "modem-sim outlived its device";
}

TEST_F(SimulatedDeviceTest, TheDemoFlashesTheModemChecksAndCleansUp) {
    TChildOptions options;
    options.timeout = std::chrono::seconds(120);
    const TChildResult demo =
        CChildProcess::Run({MODEMLOADER_DEMO, "--firmware-bytes", "60000"}, options);
    ASSERT_EQ(demo.exitCode, 0) << ::Describe(demo);
    for (const char* line :
         {"  [ ok ] modemloader-host exit status 0\n",
          "  [ ok ] the modem's flash equals the firmware, 60000 of 60000 bytes\n",
          "  [ ok ] the storage records revision 124\n", "  [ ok ] nothing mounted under it\n",
          "  [ ok ] no loop device attached to its storage\n",
          "  firmware       60000 bytes in 3 chunks of 25600\n"}) {
        EXPECT_NE(demo.out.find(line), std::string::npos) << line << ::Describe(demo);
    }
    const std::string passed = "\ndemo passed\n";
    EXPECT_EQ(demo.out.substr(demo.out.size() - std::min(demo.out.size(), passed.size())), passed);
    EXPECT_EQ(demo.out.find("FAIL"), std::string::npos) << demo.out;
}

// Needs nothing of a device: runs anywhere.
TEST(DemoProgramTest, ExplainsItselfAndRefusesBadOptions) {
    const TChildResult help = CChildProcess::Run({MODEMLOADER_DEMO, "--help"});
    EXPECT_EQ(help.exitCode, 0) << ::Describe(help);
    EXPECT_EQ(help.out.rfind("Makes a temporary device", 0), 0u) << help.out;
    EXPECT_NE(help.out.find("Usage: modemloader-demo [OPTIONS]"), std::string::npos) << help.out;
    for (const char* option :
         {"--firmware-bytes N", "--tick-ms N", "--baud N", "--seed N", "--timeout S"}) {
        EXPECT_NE(help.out.find(option), std::string::npos) << option << "\n" << help.out;
    }

    const TChildResult bad = CChildProcess::Run({MODEMLOADER_DEMO, "--tick-ms", "fast"});
    EXPECT_EQ(bad.exitCode, 2) << ::Describe(bad);
    EXPECT_EQ(bad.err,
              "modemloader-demo: --tick-ms: 'fast' is not a whole number (see modemloader-demo "
              "--help)\n");
    EXPECT_EQ(bad.out, "");
}

}  // namespace
