// One complete update through the serial image loader with only the files the Debian packages
// install: modemloader-host, the plug-in from the feature directory, modem-sim and the
// device-tree stand-in with its blob, unpacked under a temporary root and running with that
// root's libhostservices. Nothing of the source tree or of a build folder reaches the device, so
// a package that lacks a file (the stand-in, a blob) fails here: without the stand-in the
// plug-in finds no integrated modem and its fake loader "succeeds" without flashing. Then one
// update through each update system's real client with the integration its package installed
// (the client's isolated set-up is the end-to-end tests' own).
//
// Run by the packaging stage of ./run test, which unpacks the packages and sets
//   MODEMLOADER_INSTALLED_ROOT    the temporary root
//   MODEMLOADER_INSTALLED_LIBDIR  the library folder under it, e.g. usr/lib/x86_64-linux-gnu

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "EndToEndTest.h"
#include "MenderClient.h"
#include "Prerequisite.h"
#include "RaucService.h"
#include "SwupdateClient.h"

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
        m_root = root;
        const std::string missing = CSimulatedDevice::MissingPrerequisite(m_programs);
        ASSERT_EQ(missing, "") << "the unpacked packages lack a program";
    }

    std::string Installed(const std::string& path) const { return m_root + path; }
    std::string InstalledRunner() const {
        return Installed("/usr/libexec/modemloader/modem-update");
    }

    // The update system reported success (`succeeded`; `output` is what it printed, for a
    // failure), flashed the modem with the firmware and recorded revision 124, and the host
    // removed the update files ("removable" is 1).
    void ExpectInstalledByTheUpdateSystem(bool succeeded, const std::string& output) {
        nlohmann::json summary;
        const CStatus stopped = m_device->StopModem(summary);
        ASSERT_TRUE(stopped.IsOk()) << stopped.Message();
        EXPECT_TRUE(succeeded) << output;
        const CStatus flashed = m_device->CheckFlashHoldsFirmware();
        EXPECT_TRUE(flashed) << flashed.Message();
        EXPECT_EQ(summary.value("loader_ok", false), true) << summary.dump();
        EXPECT_EQ(StorageFile("revision"), kWrittenRevision);
        EXPECT_TRUE(SourcesGone());
        ExpectStorageReleased();
    }

    TDevicePrograms m_programs;
    std::string m_root;
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

TEST_F(InstalledPackageTest, TheInstalledMenderModuleInstallsAnArtifact) {
    if (const std::string missing = CMenderClient::MissingPrerequisite(); !missing.empty()) {
        MODEMLOADER_MISSING_PREREQUISITE(missing);
    }
    MakeDevice(DeliveredUpdateSettings(), m_programs);
    ASSERT_FALSE(HasFatalFailure());
    TMenderSetup setup;
    setup.module = Installed("/usr/share/mender/modules/v3/modem-firmware");
    setup.runner = InstalledRunner();
    std::unique_ptr<CMenderClient> client;
    const CStatus made = CMenderClient::Create(*m_device, setup, client);
    ASSERT_TRUE(made.IsOk()) << made.Message();
    std::string artifact;
    const CStatus packed = client->MakeArtifact(TArtifactRequest(), artifact);
    ASSERT_TRUE(packed.IsOk()) << packed.Message();

    const TChildResult install = client->Install(artifact);

    ASSERT_TRUE(install.started) << install.error;
    ExpectInstalledByTheUpdateSystem(install.exitCode == 0, ::Describe(install));
    EXPECT_NE(install.err.find("modem-firmware: revision 124 installed"), std::string::npos)
        << ::Describe(install);
    const TChildResult shown = client->ShowArtifact();
    EXPECT_EQ(shown.out, "modem-firmware-124\n") << ::Describe(shown);
}

TEST_F(InstalledPackageTest, TheInstalledSwupdateHandlerInstallsAnImage) {
    if (const std::string missing = CSwupdateClient::MissingPrerequisite(); !missing.empty()) {
        MODEMLOADER_MISSING_PREREQUISITE(missing);
    }
    TDeviceSettings settings = DeliveredUpdateSettings();
    settings.firmwareBytes = CSwupdateClient::kFirmwareBytes;
    MakeDevice(settings, m_programs);
    ASSERT_FALSE(HasFatalFailure());
    TSwupdateSetup setup;
    setup.handlerFolder = Installed("/usr/share/lua/5.3");
    setup.runner = InstalledRunner();
    setup.imageMaker = Installed("/usr/share/modemloader-swupdate/modem-swu");
    std::unique_ptr<CSwupdateClient> client;
    const CStatus made = CSwupdateClient::Create(*m_device, setup, client);
    ASSERT_TRUE(made.IsOk()) << made.Message();
    std::string image;
    const CStatus packed = client->MakeImage(TSwuRequest(), image);
    ASSERT_TRUE(packed.IsOk()) << packed.Message();

    const TChildResult install = client->Install(image);

    ASSERT_TRUE(install.started) << install.error;
    const std::string output = install.out + install.err;
    ExpectInstalledByTheUpdateSystem(install.exitCode == 0, ::Describe(install));
    EXPECT_NE(output.find("modem-firmware: revision 124 installed"), std::string::npos) << output;
}

TEST_F(InstalledPackageTest, TheInstalledRaucHookInstallsABundle) {
    if (const std::string missing = CRaucService::MissingPrerequisite(); !missing.empty()) {
        MODEMLOADER_MISSING_PREREQUISITE(missing);
    }
    MakeDevice(DeliveredUpdateSettings(), m_programs);
    ASSERT_FALSE(HasFatalFailure());
    // The installed bundle maker puts the hook installed beside it into the bundle.
    TRaucSetup setup;
    setup.runner = InstalledRunner();
    setup.bundleMaker = Installed("/usr/share/modemloader-rauc/modem-raucb");
    std::unique_ptr<CRaucService> rauc;
    const CStatus made = CRaucService::Create(*m_device, rauc, setup);
    ASSERT_TRUE(made.IsOk()) << made.Message();
    std::string bundle;
    const CStatus packed = rauc->MakeBundle(TBundleRequest(), bundle);
    ASSERT_TRUE(packed.IsOk()) << packed.Message();

    const TChildResult install = rauc->Install(bundle);

    ASSERT_TRUE(install.started) << install.error;
    const std::string serviceLog = rauc->ServiceLog();
    ExpectInstalledByTheUpdateSystem(install.exitCode == 0,
                                     ::Describe(install) + "\n" + serviceLog);
    EXPECT_NE(serviceLog.find("modem-hook: revision 124 installed"), std::string::npos)
        << serviceLog;
    EXPECT_EQ(rauc->InstalledVersion(), "124");
}

}  // namespace
