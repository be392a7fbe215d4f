// A modem firmware update delivered as a Mender artifact and installed by the real Mender client
// (standalone `mender install`) through the update module modem-firmware, which runs
// modemloader-host on the simulated device. The client runs isolated from the machine's own
// Mender state (CMenderClient).

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "EndToEndTest.h"
#include "MenderClient.h"
#include "Prerequisite.h"

namespace {

using nlohmann::json;

constexpr char kOldArtifact[] = "modem-firmware-100";
constexpr char kNewArtifact[] = "modem-firmware-124";

std::string Trimmed(std::string text) {
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) {
        text.pop_back();
    }
    return text;
}

}  // namespace

class MenderUpdateTest : public EndToEndTest {
protected:
    void SetUp() override {
        EndToEndTest::SetUp();
        if (IsSkipped() || HasFatalFailure()) {
            return;
        }
        const std::string missing = CMenderClient::MissingPrerequisite();
        if (!missing.empty()) {
            MODEMLOADER_MISSING_PREREQUISITE(missing);
        }
    }

    static TDeviceSettings Settings(std::vector<std::string> modemOptions = {}) {
        return DeliveredUpdateSettings(std::move(modemOptions));
    }

    void MakeClient(const TMenderSetup& setup = TMenderSetup()) {
        const CStatus made = CMenderClient::Create(*m_device, setup, m_client);
        ASSERT_TRUE(made.IsOk()) << made.Message();
    }

    std::string MakeArtifact(const TArtifactRequest& request = TArtifactRequest()) {
        std::string artifact;
        const CStatus made = m_client->MakeArtifact(request, artifact);
        EXPECT_TRUE(made.IsOk()) << made.Message();
        return artifact;
    }

    // A private EC key (the kind mender-artifact 3.x signs with) and its public half.
    void MakeKey(const std::string& name) {
        const std::string key = m_client->PathOf(name + ".key");
        TChildOptions options;
        options.timeout = std::chrono::seconds(30);
        const TChildResult made = CChildProcess::Run(
            {"openssl", "ecparam", "-genkey", "-name", "prime256v1", "-noout", "-out", key},
            options);
        ASSERT_EQ(made.exitCode, 0) << ::Describe(made);
        const TChildResult extracted = CChildProcess::Run(
            {"openssl", "ec", "-in", key, "-pubout", "-out", m_client->PathOf(name + ".pub")},
            options);
        ASSERT_EQ(extracted.exitCode, 0) << ::Describe(extracted);
    }

    void Install(const std::string& artifact) {
        m_install = m_client->Install(artifact);
        ASSERT_TRUE(m_install.started) << m_install.error;
        ASSERT_FALSE(m_install.timedOut) << ::Describe(m_install);
        const CStatus stopped = m_device->StopModem(m_result.modemSummary);
        ASSERT_TRUE(stopped.IsOk()) << stopped.Message();
    }

    std::string InstalledArtifact() const {
        const TChildResult shown = m_client->ShowArtifact();
        EXPECT_EQ(shown.exitCode, 0) << ::Describe(shown);
        return Trimmed(shown.out);
    }

    // The client refused the artifact before the module ran: the modem was never switched on
    // and the device is as it was.
    void ExpectRefusedBeforeTheModule(const std::string& reason) const {
        EXPECT_NE(m_install.exitCode, 0) << ::Describe(m_install);
        EXPECT_NE(m_install.err.find(reason), std::string::npos) << ::Describe(m_install);
        EXPECT_EQ(m_install.err.find("modem-firmware: installing"), std::string::npos)
            << ::Describe(m_install);
        ExpectSummary({{"power_ups", 0}, {"loader_bytes", 0}, {"bytes_flashed", 0}});
        EXPECT_EQ(StorageFile("revision"), "100");
        EXPECT_EQ(InstalledArtifact(), kOldArtifact);
    }

    void ExpectFlashed() const {
        const CStatus flashed = m_device->CheckFlashHoldsFirmware();
        EXPECT_TRUE(flashed) << flashed.Message();
        EXPECT_EQ(StorageFile("revision"), kWrittenRevision);
        EXPECT_EQ(InstalledArtifact(), kNewArtifact);
    }

    std::unique_ptr<CMenderClient> m_client;
    TChildResult m_install;
};

TEST_F(MenderUpdateTest, InstallWritesTheUpdateFilesFlashesTheModemAndRecordsTheArtifact) {
    MakeDevice(Settings());
    ASSERT_FALSE(HasFatalFailure());
    MakeClient();
    ASSERT_FALSE(HasFatalFailure());
    const std::string artifact = MakeArtifact();
    EXPECT_EQ(InstalledArtifact(), kOldArtifact);
    // Only the artifact brings the update files.
    for (const std::string& path :
         {m_device->LoaderSource(), m_device->FirmwareSource(), m_device->ProductConfigSource(),
          m_device->DaemonConfigSource()}) {
        ASSERT_TRUE(std::filesystem::remove(path)) << path;
    }

    Install(artifact);
    ASSERT_FALSE(HasFatalFailure());

    EXPECT_EQ(m_install.exitCode, 0) << ::Describe(m_install);
    EXPECT_NE(m_install.err.find("modem-firmware: revision 124 installed"), std::string::npos)
        << ::Describe(m_install);
    ExpectSummary({{"power_ups", 1},
                   {"loader_ok", true},
                   {"bytes_flashed", m_device->Firmware().size()},
                   {"write_complete", true}});
    ExpectFlashed();
    // "removable" is 1: the host removed the update files after the flash.
    EXPECT_TRUE(SourcesGone());
    EXPECT_FALSE(m_device->IsStorageMounted());
}

TEST_F(MenderUpdateTest, ModemAlreadyUpToDateInstallsWithoutFlashing) {
    TDeviceSettings settings = Settings();
    settings.storedRevision = "124";
    MakeDevice(settings);
    ASSERT_FALSE(HasFatalFailure());
    MakeClient();
    ASSERT_FALSE(HasFatalFailure());

    Install(MakeArtifact());
    ASSERT_FALSE(HasFatalFailure());

    EXPECT_EQ(m_install.exitCode, 0) << ::Describe(m_install);
    EXPECT_NE(m_install.err.find("Modem already up to date"), std::string::npos)
        << ::Describe(m_install);
    ExpectSummary({{"power_ups", 0}, {"loader_bytes", 0}, {"bytes_flashed", 0}});
    EXPECT_FALSE(std::filesystem::exists(m_device->FlashFile()) &&
                 std::filesystem::file_size(m_device->FlashFile()) > 0);
    EXPECT_EQ(StorageFile("revision"), kWrittenRevision);
    EXPECT_EQ(InstalledArtifact(), kNewArtifact);
}

TEST_F(MenderUpdateTest, WrongDeviceTypeIsRefusedByTheClient) {
    MakeDevice(Settings());
    ASSERT_FALSE(HasFatalFailure());
    MakeClient();
    ASSERT_FALSE(HasFatalFailure());
    TArtifactRequest request;
    request.deviceType = "another-car";

    Install(MakeArtifact(request));
    ASSERT_FALSE(HasFatalFailure());

    ExpectRefusedBeforeTheModule(
        "image (device types [another-car]) not compatible with device modemloader-sim");
}

TEST_F(MenderUpdateTest, MisspeltModuleSettingFailsTheInstallBeforeTheHostRuns) {
    MakeDevice(Settings());
    ASSERT_FALSE(HasFatalFailure());
    MakeClient();
    ASSERT_FALSE(HasFatalFailure());
    std::string settings;
    ASSERT_TRUE(ReadWholeFile(m_client->PathOf("etc/modem-firmware.conf"), settings).IsOk());
    {
        std::ofstream file(m_client->PathOf("etc/modem-firmware.conf"), std::ios::app);
        file << "tickms = 5\n";
    }

    Install(MakeArtifact());
    ASSERT_FALSE(HasFatalFailure());

    EXPECT_NE(m_install.exitCode, 0) << ::Describe(m_install);
    const std::size_t lines =
        static_cast<std::size_t>(std::count(settings.begin(), settings.end(), '\n'));
    EXPECT_NE(m_install.err.find("modem-update: settings /etc/mender/modem-firmware.conf:" +
                                 std::to_string(lines + 1) + ": unknown key 'tickms'"),
              std::string::npos)
        << ::Describe(m_install);
    ExpectSummary({{"power_ups", 0}, {"loader_bytes", 0}, {"bytes_flashed", 0}});
    EXPECT_EQ(StorageFile("revision"), "100");
    EXPECT_EQ(InstalledArtifact(), kOldArtifact);
}

// Signing: the client holds the fleet's public key and installs only what its private half
// signed.
class MenderSigningTest : public MenderUpdateTest {
protected:
    void SetUp() override {
        MenderUpdateTest::SetUp();
        if (IsSkipped() || HasFatalFailure()) {
            return;
        }
        MakeDevice(Settings());
        ASSERT_FALSE(HasFatalFailure());
        // The keys live in a first client's directory; the client under test verifies with the
        // fleet key.
        MakeClient();
        ASSERT_FALSE(HasFatalFailure());
        MakeKey("fleet");
        ASSERT_FALSE(HasFatalFailure());
        MakeKey("other");
        ASSERT_FALSE(HasFatalFailure());
        m_keys = std::move(m_client);
        TMenderSetup setup;
        setup.verifyKey = m_keys->PathOf("fleet.pub");
        MakeClient(setup);
    }

    // Installs an artifact signed with the key `keyName` ("fleet", "other"), or unsigned.
    void InstallSignedWith(const std::string& keyName) {
        TArtifactRequest request;
        if (!keyName.empty()) {
            request.key = m_keys->PathOf(keyName + ".key");
        }
        Install(MakeArtifact(request));
    }

    std::unique_ptr<CMenderClient> m_keys;
};

TEST_F(MenderSigningTest, UnsignedArtifactIsRefusedBeforeTheModuleRuns) {
    InstallSignedWith("");
    ASSERT_FALSE(HasFatalFailure());
    ExpectRefusedBeforeTheModule("expecting signed artifact, but no signature file found");
}

TEST_F(MenderSigningTest, ArtifactSignedWithAnotherKeyIsRefusedBeforeTheModuleRuns) {
    InstallSignedWith("other");
    ASSERT_FALSE(HasFatalFailure());
    ExpectRefusedBeforeTheModule("invalid signature: signer: verification failed");
}

TEST_F(MenderSigningTest, ArtifactSignedWithTheFleetKeyInstalls) {
    InstallSignedWith("fleet");
    ASSERT_FALSE(HasFatalFailure());
    EXPECT_EQ(m_install.exitCode, 0) << ::Describe(m_install);
    ExpectFlashed();
}

// A modem that fails the flash: the client reports a failed installation with the host's last
// log lines, and the device keeps what it had (artifact name, revision) plus the update files
// for the next attempt. The faults are one in each phase: the loader download, the write's
// final status, the write's time-out. (A modem that never syncs is left to ModemFaultTest: its
// last power-up worker can still run when the host deletes the module, which AddressSanitizer
// reports as a use after free inside the host, whoever runs it.)
struct TMenderFaultCase {
    std::string name;
    std::vector<std::string> modemOptions;
    std::string hostLogLine;  // the host's record of the fault, in the client's log
    json summary;
};

void PrintTo(const TMenderFaultCase& fault, std::ostream* stream) { *stream << fault.name; }

class MenderFaultTest : public MenderUpdateTest,
                        public ::testing::WithParamInterface<TMenderFaultCase> {};

TEST_P(MenderFaultTest, InstallFailsAndTheDeviceKeepsItsArtifactRevisionAndUpdateFiles) {
    MakeDevice(Settings(GetParam().modemOptions));
    ASSERT_FALSE(HasFatalFailure());
    MakeClient();
    ASSERT_FALSE(HasFatalFailure());

    Install(MakeArtifact());
    ASSERT_FALSE(HasFatalFailure());

    EXPECT_NE(m_install.exitCode, 0) << ::Describe(m_install);
    EXPECT_TRUE(HasHostLine(m_install.err, GetParam().hostLogLine)) << ::Describe(m_install);
    EXPECT_NE(m_install.err.find("modem-update: modemloader-host exited with status 1; "
                                 "revision 124 not installed"),
              std::string::npos)
        << ::Describe(m_install);
    EXPECT_NE(m_install.err.find("modem-firmware: revision 124 not installed (modem-update exited "
                                 "with status 1)"),
              std::string::npos)
        << ::Describe(m_install);
    ExpectSummary(GetParam().summary);
    EXPECT_EQ(InstalledArtifact(), kOldArtifact);
    EXPECT_EQ(StorageFile("revision"), "100");
    EXPECT_TRUE(SourcesPresent());
    std::string firmware;
    ASSERT_TRUE(ReadWholeFile(m_device->FirmwareSource(), firmware).IsOk());
    EXPECT_TRUE(firmware == m_device->Firmware());
    EXPECT_FALSE(m_device->IsStorageMounted());
}

INSTANTIATE_TEST_SUITE_P(
    Faults, MenderFaultTest,
    ::testing::Values(TMenderFaultCase{"WriteChecksumError",
                                       {"--fault", "write-status=1"},
                                       "Error Write: firmware checksum error",
                                       {{"power_ups", 1}, {"write_complete", true}}},
                      TMenderFaultCase{
                          "LoaderChecksumError",
                          {"--fault", "loader-status=1"},
                          "Error PrepareFlash: Loader source checksum error",
                          {{"power_ups", 1}, {"loader_ok", false}, {"bytes_flashed", 0}}},
                      TMenderFaultCase{"WriteTimeOut",
                                       {"--fault", "write-silent"},
                                       "Error Write: write timed out",
                                       {{"power_ups", 1}, {"write_complete", true}}}),
    [](const ::testing::TestParamInfo<TMenderFaultCase>& testInfo) { return testInfo.param.name; });
