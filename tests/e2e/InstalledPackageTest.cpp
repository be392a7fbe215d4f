// One complete update through the serial image loader with the programs the Debian packages
// install: modemloader-host, the plug-in from the feature directory and modem-sim, unpacked under
// a temporary root and running with that root's libhostservices. Only the device-tree stand-in
// comes from this build (it is test equipment, not shipped).
//
// Run by the packaging stage of ./run test, which unpacks the packages and sets
//   MODEMLOADER_INSTALLED_ROOT    the temporary root
//   MODEMLOADER_INSTALLED_LIBDIR  the library folder under it, e.g. usr/lib/x86_64-linux-gnu

#include <gtest/gtest.h>

#include <cstdlib>

#include "EndToEndTest.h"
#include "Prerequisite.h"

namespace {

const std::string kWrittenRevision("124\0", 4);

std::string Environment(const char* name) {
    const char* value = std::getenv(name);
    return value != nullptr ? value : "";
}

class InstalledPackageTest : public EndToEndTest {
protected:
    void SetUp() override {
        EndToEndTest::SetUp();
        if (IsSkipped() || HasFailure()) {
            return;
        }
        const std::string root = Environment("MODEMLOADER_INSTALLED_ROOT");
        const std::string libdir = Environment("MODEMLOADER_INSTALLED_LIBDIR");
        if (root.empty() || libdir.empty()) {
            MODEMLOADER_MISSING_PREREQUISITE(
                "no unpacked packages: MODEMLOADER_INSTALLED_ROOT and MODEMLOADER_INSTALLED_LIBDIR "
                "are set by the packaging stage of ./run test");
        }
        m_programs = CSimulatedDevice::BuiltPrograms();
        m_programs.host = root + "/usr/bin/modemloader-host";
        m_programs.plugin = root + "/" + libdir + "/modemloader/features/libmodemloader.so";
        m_programs.modemSim = root + "/usr/bin/modem-sim";
        m_programs.libraryPath = root + "/" + libdir;
        const std::string missing = CSimulatedDevice::MissingPrerequisite(m_programs);
        ASSERT_EQ(missing, "") << "the unpacked packages lack a program";
    }

    TDevicePrograms m_programs;
};

TEST_F(InstalledPackageTest, TheInstalledProgramsFlashTheEmulatedModem) {
    TDeviceSettings settings;
    settings.firmwareBytes = 60000;
    MakeDevice(settings, m_programs);
    ASSERT_NO_FATAL_FAILURE(RunUpdate());

    EXPECT_EQ(m_result.exitCode, 0) << Describe();
    std::string flash;
    ASSERT_TRUE(m_device->ReadFlash(flash).IsOk());
    EXPECT_EQ(flash.size(), settings.firmwareBytes);
    EXPECT_TRUE(flash == m_device->Firmware()) << "the flash differs from the firmware";
    ExpectSummary(
        {{"loader_ok", true}, {"bytes_flashed", settings.firmwareBytes}, {"write_complete", true}});
    EXPECT_EQ(StorageFile("revision"), kWrittenRevision);
    ExpectStorageReleased();
}

}  // namespace
