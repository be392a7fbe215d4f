// One complete update through the serial image loader with only the files the Debian packages
// install: modemloader-host, the plug-in from the feature directory, modem-sim and the
// device-tree stand-in with its blob, unpacked under a temporary root and running with that
// root's libhostservices. Nothing of the source tree or of a build folder reaches the device, so
// a package that lacks a file (the stand-in, a blob) fails here: without the stand-in the
// plug-in finds no integrated modem and its fake loader "succeeds" without flashing.
//
// Run by the packaging stage of ./run test, which unpacks the packages and sets
//   MODEMLOADER_INSTALLED_ROOT    the temporary root
//   MODEMLOADER_INSTALLED_LIBDIR  the library folder under it, e.g. usr/lib/x86_64-linux-gnu

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "EndToEndTest.h"
#include "Prerequisite.h"

namespace {

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
        // Every path of the device's programs is an installed one: none is taken from the build.
        m_programs.host = root + "/usr/bin/modemloader-host";
        m_programs.plugin = root + "/" + libdir + "/modemloader/features/libmodemloader.so";
        m_programs.modemSim = root + "/usr/bin/modem-sim";
        m_programs.interposer = root + "/" + libdir + "/modem-sim/libfdtexport_interposer.so";
        m_programs.blobFolder = root + "/usr/share/modem-sim/fdtexport";
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
    ASSERT_FALSE(HasFatalFailure());
    ASSERT_NO_FATAL_FAILURE(RunUpdate());

    // The whole image-loader update, the device tree's "GPRS modem specified in FDT data"
    // included, and the modem's flash equal to the firmware: the fake loader would log neither.
    ExpectCompleteUpdate(settings.firmwareBytes);
}

}  // namespace
