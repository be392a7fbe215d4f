// A modem firmware update delivered as a signed RAUC bundle and installed by the real RAUC
// (`rauc service` and `rauc install` on a private D-Bus session bus) through the bundle's hook
// modem-hook, which runs modemloader-host on the simulated device for the modem slot. RAUC runs
// isolated from the machine's own state (CRaucService).

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>

#include "Await.h"
#include "EndToEndTest.h"
#include "MountTable.h"
#include "Prerequisite.h"
#include "RaucService.h"

namespace {

constexpr char kHookStarted[] = "modem-hook: installing revision 124 into modem.0";

}  // namespace

class RaucUpdateTest : public EndToEndTest {
protected:
    void SetUp() override {
        EndToEndTest::SetUp();
        if (IsSkipped() || HasFatalFailure()) {
            return;
        }
        const std::string missing = CRaucService::MissingPrerequisite();
        if (!missing.empty()) {
            MODEMLOADER_MISSING_PREREQUISITE(missing);
        }
    }

    // A device whose own configuration offers the revision it already has: only the bundle's
    // version can make the host flash.
    void MakeDeviceAndService(const std::string& storedRevision = "100",
                              std::vector<std::string> modemOptions = {}) {
        TDeviceSettings settings = DeliveredUpdateSettings(std::move(modemOptions));
        settings.storedRevision = storedRevision;
        MakeDevice(settings);
        ASSERT_FALSE(HasFatalFailure());
        const CStatus made = CRaucService::Create(*m_device, m_rauc);
        ASSERT_TRUE(made.IsOk()) << made.Message();
    }

    std::string MakeBundle(const TBundleRequest& request = TBundleRequest()) {
        std::string bundle;
        const CStatus made = m_rauc->MakeBundle(request, bundle);
        EXPECT_TRUE(made.IsOk()) << made.Message();
        return bundle;
    }

    void Install(const std::string& bundle) {
        m_install = m_rauc->Install(bundle);
        ASSERT_TRUE(m_install.started) << m_install.error;
        ASSERT_FALSE(m_install.timedOut) << Describe();
        const CStatus stopped = m_device->StopModem(m_result.modemSummary);
        ASSERT_TRUE(stopped.IsOk()) << stopped.Message();
        m_serviceLog = m_rauc->ServiceLog();
    }

    std::string Describe() const {
        return ::Describe(m_install) + "\nservice log:\n" + m_serviceLog;
    }

    // The bundle's mount and loop device went with RAUC's namespaces; the device's storage is
    // released.
    void ExpectNothingLeft() const {
        EXPECT_FALSE(IsAnythingMountedUnder(m_rauc->Directory()));
        EXPECT_TRUE(Await([this] { return LoopDevicesBackedUnder(m_rauc->Directory()).empty(); },
                          std::chrono::seconds(10), std::chrono::milliseconds(5)));
        ExpectStorageReleased();
    }

    // RAUC refused the bundle before its hook ran: the modem was never switched on and the device
    // is as it was.
    void ExpectRefusedBeforeTheHook(const std::string& reason) const {
        EXPECT_NE(m_install.exitCode, 0) << Describe();
        EXPECT_NE(m_install.out.find("LastError: " + reason), std::string::npos) << Describe();
        EXPECT_EQ(m_serviceLog.find("Running slot hook"), std::string::npos) << Describe();
        EXPECT_EQ(m_serviceLog.find("modem-hook:"), std::string::npos) << Describe();
        ExpectSummary({{"power_ups", 0}, {"loader_bytes", 0}, {"bytes_flashed", 0}});
        EXPECT_EQ(StorageFile("revision"), "100");
        EXPECT_EQ(m_rauc->InstalledVersion(), "");
        ExpectNothingLeft();
    }

    std::unique_ptr<CRaucService> m_rauc;
    TChildResult m_install;
    std::string m_serviceLog;
};

TEST_F(RaucUpdateTest, InstallRunsTheHookWhichFlashesTheModemAndRecordsTheVersion) {
    MakeDeviceAndService();
    ASSERT_FALSE(HasFatalFailure());
    const std::string bundle = MakeBundle();
    // Only the bundle brings the update files.
    for (const std::string& path :
         {m_device->LoaderSource(), m_device->FirmwareSource(), m_device->ProductConfigSource(),
          m_device->DaemonConfigSource()}) {
        ASSERT_TRUE(std::filesystem::remove(path)) << path;
    }

    Install(bundle);
    ASSERT_FALSE(HasFatalFailure());

    EXPECT_EQ(m_install.exitCode, 0) << Describe();
    EXPECT_NE(m_serviceLog.find("Updating " + m_rauc->PathOf("slots/modem") +
                                " with 'install' slot hook"),
              std::string::npos)
        << Describe();
    EXPECT_NE(m_serviceLog.find(kHookStarted), std::string::npos) << Describe();
    EXPECT_NE(m_serviceLog.find("modem-hook: revision 124 installed"), std::string::npos)
        << Describe();
    ExpectSummary({{"power_ups", 1},
                   {"loader_ok", true},
                   {"bytes_flashed", m_device->Firmware().size()},
                   {"write_complete", true}});
    const CStatus flashed = m_device->CheckFlashHoldsFirmware();
    EXPECT_TRUE(flashed) << flashed.Message();
    EXPECT_EQ(StorageFile("revision"), kWrittenRevision);
    EXPECT_EQ(m_rauc->InstalledVersion(), "124");
    // "removable" is 1: the host removed the update files after the flash.
    EXPECT_TRUE(SourcesGone());
    ExpectNothingLeft();
}

TEST_F(RaucUpdateTest, ModemAlreadyUpToDateInstallsWithoutSwitchingTheModemOn) {
    MakeDeviceAndService("124");
    ASSERT_FALSE(HasFatalFailure());

    Install(MakeBundle());
    ASSERT_FALSE(HasFatalFailure());

    EXPECT_EQ(m_install.exitCode, 0) << Describe();
    EXPECT_TRUE(HasHostLine(m_serviceLog, "Modem already up to date")) << Describe();
    EXPECT_NE(m_serviceLog.find("modem-hook: revision 124 installed"), std::string::npos)
        << Describe();
    ExpectSummary({{"power_ups", 0}, {"loader_bytes", 0}, {"bytes_flashed", 0}});
    EXPECT_FALSE(std::filesystem::exists(m_device->FlashFile()) &&
                 std::filesystem::file_size(m_device->FlashFile()) > 0);
    EXPECT_EQ(StorageFile("revision"), kWrittenRevision);
    EXPECT_EQ(m_rauc->InstalledVersion(), "124");
    ExpectNothingLeft();
}

// A modem that fails the write: the hook fails, so RAUC fails the install and records nothing for
// the slot; RAUC's log holds the host's last lines; the device keeps its revision and the update
// files for the next attempt.
TEST_F(RaucUpdateTest, HostFailureFailsTheInstallWithTheHostsLastLinesInRaucsLog) {
    MakeDeviceAndService("100", {"--fault", "write-status=1"});
    ASSERT_FALSE(HasFatalFailure());

    Install(MakeBundle());
    ASSERT_FALSE(HasFatalFailure());

    EXPECT_NE(m_install.exitCode, 0) << Describe();
    EXPECT_NE(m_install.out.find("LastError: Installation error: Failed updating slot modem.0: "
                                 "failed to run slot hook: Child process exited with code 1"),
              std::string::npos)
        << Describe();
    EXPECT_NE(m_serviceLog.find(kHookStarted), std::string::npos) << Describe();
    EXPECT_TRUE(HasHostLine(m_serviceLog, "Error Write: firmware checksum error")) << Describe();
    EXPECT_NE(m_serviceLog.find("modem-update: modemloader-host exited with status 1; "
                                "revision 124 not installed"),
              std::string::npos)
        << Describe();
    EXPECT_NE(m_serviceLog.find(
                  "modem-hook: revision 124 not installed (modem-update exited with status 1)"),
              std::string::npos)
        << Describe();
    ExpectSummary({{"power_ups", 1}, {"write_complete", true}});
    EXPECT_EQ(StorageFile("revision"), "100");
    EXPECT_EQ(m_rauc->InstalledVersion(), "");
    EXPECT_TRUE(SourcesPresent());
    std::string firmware;
    ASSERT_TRUE(ReadWholeFile(m_device->FirmwareSource(), firmware).IsOk());
    EXPECT_TRUE(firmware == m_device->Firmware());
    ExpectNothingLeft();
}

TEST_F(RaucUpdateTest, BundleForAnotherCompatibleIsRefusedBeforeTheHookRuns) {
    MakeDeviceAndService();
    ASSERT_FALSE(HasFatalFailure());
    TBundleRequest request;
    request.compatible = "another-car";

    Install(MakeBundle(request));
    ASSERT_FALSE(HasFatalFailure());

    ExpectRefusedBeforeTheHook(
        "Installation error: Compatible mismatch: Expected 'modemloader-sim' but bundle manifest "
        "has 'another-car'");
}

TEST_F(RaucUpdateTest, BundleSignedByAnotherCaIsRefusedBeforeTheHookRuns) {
    MakeDeviceAndService();
    ASSERT_FALSE(HasFatalFailure());
    ASSERT_TRUE(m_rauc->MakeSigningKeys("other").IsOk());
    TBundleRequest request;
    request.signer = "other";

    Install(MakeBundle(request));
    ASSERT_FALSE(HasFatalFailure());

    ExpectRefusedBeforeTheHook(
        "signature verification failed: Verify error: unable to get local issuer certificate");
}

TEST_F(RaucUpdateTest, TamperedBundleIsRefusedBeforeTheHookRuns) {
    MakeDeviceAndService();
    ASSERT_FALSE(HasFatalFailure());
    const std::string bundle = MakeBundle();
    // One byte of the signed squashfs (the firmware's blocks lie in its middle) changed.
    {
        std::fstream file(bundle, std::ios::in | std::ios::out | std::ios::binary);
        ASSERT_TRUE(file.is_open()) << bundle;
        file.seekg(static_cast<std::streamoff>(std::filesystem::file_size(bundle) / 2));
        const char original = static_cast<char>(file.peek());
        file.seekp(static_cast<std::streamoff>(std::filesystem::file_size(bundle) / 2));
        file.put(static_cast<char>(original ^ 0x5a));
        ASSERT_TRUE(file.good());
    }

    Install(bundle);
    ASSERT_FALSE(HasFatalFailure());

    ExpectRefusedBeforeTheHook("signature verification failed: ");
}
