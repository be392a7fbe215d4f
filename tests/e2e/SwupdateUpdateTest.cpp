// A modem firmware update delivered as a signed SWUpdate image and installed by the real
// `swupdate -i` through the Lua handler modem-firmware, which runs modemloader-host on the
// simulated device through the shared runner. SWUpdate runs isolated from the machine's own
// (CSwupdateClient): own configuration, TMPDIR and sockets, a private mount namespace.

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <sstream>
#include <thread>

#include "EndToEndTest.h"
#include "Prerequisite.h"
#include "SwupdateClient.h"

namespace {

using nlohmann::json;

// One message of SWUpdate 2022.12's progress socket (its progress_ipc.h), as it is sent: the
// structure in this machine's layout.
struct TProgressMessage {
    std::uint32_t magic;
    std::uint32_t status;
    std::uint32_t downloadPercent;
    std::uint64_t downloadBytes;
    std::uint32_t steps;
    std::uint32_t step;
    std::uint32_t percent;  // of the current step
    char image[256];
    char handler[64];
    std::int32_t source;
    std::uint32_t infoLength;
    char info[2048];
};
static_assert(sizeof(TProgressMessage) == 2416, "SWUpdate 2022.12's struct progress_msg");

// What the listener saw of one message, and how much of the firmware the modem held then (the
// length of the flash's first part that equals the firmware).
struct TProgressSeen {
    std::string image;
    unsigned percent;
    std::size_t flashBytes;
};

// Connects to SWUpdate's progress socket as soon as it exists and records every message of the
// step `image` until SWUpdate closes the connection (it exits) or Stop().
class CProgressListener {
public:
    CProgressListener(std::string socketPath, std::string flashFile, std::string firmware)
        : m_socketPath(std::move(socketPath)),
          m_flashFile(std::move(flashFile)),
          m_firmware(std::move(firmware)) {
        m_thread = std::thread([this] { Listen(); });
    }
    ~CProgressListener() { Stop(); }

    void Stop() {
        m_stop = true;
        if (m_thread.joinable()) {
            m_thread.join();
        }
    }
    std::vector<TProgressSeen> Seen() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_seen;
    }
    bool Connected() const { return m_connected; }

private:
    void Listen() {
        const int connection = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (connection < 0) {
            return;
        }
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, m_socketPath.c_str(), sizeof(address.sun_path) - 1);
        // SWUpdate makes the socket at start-up and starts the install at once: try until it
        // is there. (A connection refused is a socket file that nobody listens on yet.)
        while (!m_stop &&
               ::connect(connection, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
            ::usleep(1000);
        }
        m_connected = !m_stop;
        timeval interval{0, 100000};
        ::setsockopt(connection, SOL_SOCKET, SO_RCVTIMEO, &interval, sizeof(interval));
        TProgressMessage message;
        std::size_t filled = 0;
        while (m_connected) {
            const ssize_t count = ::recv(connection, reinterpret_cast<char*>(&message) + filled,
                                         sizeof(message) - filled, 0);
            if (count == 0) {
                break;
            }
            if (count < 0) {
                if (m_stop) {
                    break;
                }
                continue;
            }
            filled += static_cast<std::size_t>(count);
            if (filled < sizeof(message)) {
                continue;
            }
            filled = 0;
            message.image[sizeof(message.image) - 1] = '\0';
            const std::size_t flashBytes = WrittenBytes();
            std::lock_guard<std::mutex> lock(m_mutex);
            m_seen.push_back({message.image, message.percent, flashBytes});
        }
        ::close(connection);
    }

    std::size_t WrittenBytes() const {
        std::string flash;
        if (!ReadWholeFile(m_flashFile, flash).IsOk()) {
            return 0;
        }
        std::size_t count = 0;
        while (count < flash.size() && count < m_firmware.size() &&
               flash[count] == m_firmware[count]) {
            ++count;
        }
        return count;
    }

    std::string m_socketPath;
    std::string m_flashFile;
    std::string m_firmware;
    std::atomic<bool> m_stop{false};
    std::atomic<bool> m_connected{false};
    std::mutex m_mutex;
    std::vector<TProgressSeen> m_seen;
    std::thread m_thread;
};

}  // namespace

class SwupdateUpdateTest : public EndToEndTest {
protected:
    void SetUp() override {
        EndToEndTest::SetUp();
        if (IsSkipped() || HasFatalFailure()) {
            return;
        }
        const std::string missing = CSwupdateClient::MissingPrerequisite();
        if (!missing.empty()) {
            MODEMLOADER_MISSING_PREREQUISITE(missing);
        }
    }

    static TDeviceSettings Settings(std::vector<std::string> modemOptions = {}) {
        TDeviceSettings settings = DeliveredUpdateSettings(std::move(modemOptions));
        settings.firmwareBytes = CSwupdateClient::kFirmwareBytes;
        return settings;
    }

    void MakeClient() {
        const CStatus made = CSwupdateClient::Create(*m_device, TSwupdateSetup(), m_client);
        ASSERT_TRUE(made.IsOk()) << made.Message();
    }

    std::string MakeImage(const TSwuRequest& request = TSwuRequest()) {
        std::string image;
        const CStatus made = m_client->MakeImage(request, image);
        EXPECT_TRUE(made.IsOk()) << made.Message();
        return image;
    }

    void Install(const std::string& image) {
        m_install = m_client->Install(image);
        ASSERT_TRUE(m_install.started) << m_install.error;
        ASSERT_FALSE(m_install.timedOut) << ::Describe(m_install);
        m_output = m_install.out + m_install.err;
        const CStatus stopped = m_device->StopModem(m_result.modemSummary);
        ASSERT_TRUE(stopped.IsOk()) << stopped.Message();
    }

    bool Printed(const std::string& text) const { return m_output.find(text) != std::string::npos; }

    // The device as it was: the modem never switched on, the old revision, the update files.
    void ExpectUntouched() const {
        ExpectSummary({{"power_ups", 0}, {"loader_bytes", 0}, {"bytes_flashed", 0}});
        EXPECT_EQ(StorageFile("revision"), "100");
        EXPECT_TRUE(SourcesPresent());
        EXPECT_FALSE(m_device->IsStorageMounted());
    }

    std::unique_ptr<CSwupdateClient> m_client;
    TChildResult m_install;
    std::string m_output;
};

TEST_F(SwupdateUpdateTest, InstallWritesTheUpdateFilesFlashesTheModemAndRecordsTheRevision) {
    MakeDevice(Settings());
    ASSERT_FALSE(HasFatalFailure());
    MakeClient();
    ASSERT_FALSE(HasFatalFailure());
    const std::string image = MakeImage();
    // Only the image brings the update files.
    for (const std::string& path :
         {m_device->LoaderSource(), m_device->FirmwareSource(), m_device->ProductConfigSource(),
          m_device->DaemonConfigSource()}) {
        ASSERT_TRUE(std::filesystem::remove(path)) << path;
    }

    Install(image);
    ASSERT_FALSE(HasFatalFailure());

    EXPECT_EQ(m_install.exitCode, 0) << ::Describe(m_install);
    EXPECT_TRUE(Printed("modem-firmware: installing revision 124")) << ::Describe(m_install);
    EXPECT_TRUE(Printed("modem-firmware: revision 124 installed")) << ::Describe(m_install);
    ExpectSummary({{"power_ups", 1},
                   {"loader_ok", true},
                   {"bytes_flashed", m_device->Firmware().size()},
                   {"write_complete", true}});
    const CStatus flashed = m_device->CheckFlashHoldsFirmware();
    EXPECT_TRUE(flashed) << flashed.Message();
    EXPECT_EQ(StorageFile("revision"), kWrittenRevision);
    // "removable" is 1: the host removed the update files after the flash.
    EXPECT_TRUE(SourcesGone());
    EXPECT_FALSE(m_device->IsStorageMounted());
}

TEST_F(SwupdateUpdateTest, ModemAlreadyUpToDateInstallsWithoutSwitchingTheModemOn) {
    TDeviceSettings settings = Settings();
    settings.storedRevision = "124";
    MakeDevice(settings);
    ASSERT_FALSE(HasFatalFailure());
    MakeClient();
    ASSERT_FALSE(HasFatalFailure());

    Install(MakeImage());
    ASSERT_FALSE(HasFatalFailure());

    EXPECT_EQ(m_install.exitCode, 0) << ::Describe(m_install);
    EXPECT_TRUE(HasHostLine(m_output, "Modem already up to date")) << ::Describe(m_install);
    ExpectSummary({{"power_ups", 0}, {"loader_bytes", 0}, {"bytes_flashed", 0}});
    EXPECT_EQ(StorageFile("revision"), kWrittenRevision);
}

TEST_F(SwupdateUpdateTest, HostFailureFailsTheInstallAndKeepsRevisionAndUpdateFiles) {
    MakeDevice(Settings({"--fault", "write-status=1"}));
    ASSERT_FALSE(HasFatalFailure());
    MakeClient();
    ASSERT_FALSE(HasFatalFailure());

    Install(MakeImage());
    ASSERT_FALSE(HasFatalFailure());

    EXPECT_EQ(m_install.exitCode, 1) << ::Describe(m_install);
    EXPECT_TRUE(Printed("SWUPDATE failed")) << ::Describe(m_install);
    EXPECT_TRUE(HasHostLine(m_output, "Error Write: firmware checksum error"))
        << ::Describe(m_install);
    EXPECT_TRUE(
        Printed("modem-update: modemloader-host exited with status 1; revision 124 not "
                "installed"))
        << ::Describe(m_install);
    EXPECT_TRUE(
        Printed("modem-firmware: revision 124 not installed (modem-update exited with "
                "status 1)"))
        << ::Describe(m_install);
    ExpectSummary({{"power_ups", 1}, {"write_complete", true}});
    EXPECT_EQ(StorageFile("revision"), "100");
    EXPECT_TRUE(SourcesPresent());
    std::string firmware;
    ASSERT_TRUE(ReadWholeFile(m_device->FirmwareSource(), firmware).IsOk());
    EXPECT_TRUE(firmware == m_device->Firmware());
    EXPECT_FALSE(m_device->IsStorageMounted());
}

TEST_F(SwupdateUpdateTest, ProgressRisesToOneHundredWhileTheModemIsWritten) {
    // The firmware takes the modem about a second to write, long beside the way of a progress
    // report from the host to this listener, also on a loaded machine.
    MakeDevice(Settings());
    ASSERT_FALSE(HasFatalFailure());
    MakeClient();
    ASSERT_FALSE(HasFatalFailure());
    const std::string image = MakeImage();

    CProgressListener listener(m_client->ProgressSocket(), m_device->FlashFile(),
                               m_device->Firmware());
    Install(image);
    ASSERT_FALSE(HasFatalFailure());
    listener.Stop();

    EXPECT_EQ(m_install.exitCode, 0) << ::Describe(m_install);
    ASSERT_TRUE(listener.Connected());
    // The step in which the handler runs the host: every percentage there is the modem's.
    std::vector<TProgressSeen> update;
    for (const TProgressSeen& seen : listener.Seen()) {
        if (seen.image == "modem.update") {
            update.push_back(seen);
        }
    }
    ASSERT_FALSE(update.empty());
    std::size_t whileWriting = 0;
    for (std::size_t index = 1; index < update.size(); ++index) {
        EXPECT_LE(update[index - 1].percent, update[index].percent) << "message " << index;
    }
    for (const TProgressSeen& seen : update) {
        if (seen.percent > 0 && seen.percent < 100 &&
            seen.flashBytes < m_device->Firmware().size()) {
            ++whileWriting;
        }
    }
    std::ostringstream seenText;
    for (const TProgressSeen& seen : update) {
        seenText << seen.percent << "% at " << seen.flashBytes << " bytes; ";
    }
    EXPECT_EQ(update.back().percent, 100u) << seenText.str();
    // Percentages between 0 and 100 arrived while the modem held part of the firmware.
    EXPECT_GE(whileWriting, 1u) << seenText.str();
    const CStatus flashed = m_device->CheckFlashHoldsFirmware();
    EXPECT_TRUE(flashed) << flashed.Message();
}

// Images SWUpdate must refuse before the handler runs: the modem is never switched on and the
// device keeps its revision and update files.
struct TSwuRefusalCase {
    std::string name;
    TSwuRequest request;
    std::string tamperedMember;  // non-empty: this member's first byte inverted after signing
    std::string reason;          // SWUpdate's words
};

void PrintTo(const TSwuRefusalCase& refusal, std::ostream* stream) { *stream << refusal.name; }

class SwupdateRefusalTest : public SwupdateUpdateTest,
                            public ::testing::WithParamInterface<TSwuRefusalCase> {};

TEST_P(SwupdateRefusalTest, RefusedBeforeTheHandlerRuns) {
    MakeDevice(Settings());
    ASSERT_FALSE(HasFatalFailure());
    MakeClient();
    ASSERT_FALSE(HasFatalFailure());
    std::string image = MakeImage(GetParam().request);
    if (!GetParam().tamperedMember.empty()) {
        std::string tampered;
        const CStatus made = m_client->Tamper(image, GetParam().tamperedMember, tampered);
        ASSERT_TRUE(made.IsOk()) << made.Message();
        image = tampered;
    }

    Install(image);
    ASSERT_FALSE(HasFatalFailure());

    EXPECT_EQ(m_install.exitCode, 1) << ::Describe(m_install);
    EXPECT_TRUE(Printed("SWUPDATE failed")) << ::Describe(m_install);
    EXPECT_TRUE(Printed(GetParam().reason)) << ::Describe(m_install);
    EXPECT_FALSE(Printed("modem-firmware: installing")) << ::Describe(m_install);
    ExpectUntouched();
}

namespace {
TSwuRequest SignedBy(const std::string& signer) {
    TSwuRequest request;
    request.signer = signer;
    return request;
}
TSwuRequest ForBoard(const std::string& board) {
    TSwuRequest request;
    request.board = board;
    return request;
}
}  // namespace

INSTANTIATE_TEST_SUITE_P(
    Refusals, SwupdateRefusalTest,
    ::testing::Values(
        TSwuRefusalCase{"Unsigned", SignedBy(""), "", "sw-description.sig"},
        TSwuRefusalCase{"SignedByAnotherCertificate", SignedBy("other"), "",
                        "Authentication of all signatures failed"},
        TSwuRefusalCase{"TamperedFirmware", TSwuRequest(), "firmware.bin", "HASH mismatch"},
        TSwuRefusalCase{"TamperedDescription", TSwuRequest(), "sw-description",
                        "Signature verification failed"},
        TSwuRefusalCase{"AnotherBoard", ForBoard("another-car"), "", "HW compatibility not found"}),
    [](const ::testing::TestParamInfo<TSwuRefusalCase>& testInfo) { return testInfo.param.name; });
