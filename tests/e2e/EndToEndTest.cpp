#include "EndToEndTest.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <thread>

#include "Prerequisite.h"
#include "TemporaryDirectory.h"

const std::string kWrittenRevision("124\0", 4);

void EndToEndTest::SetUp() {
    const std::string missing = CSimulatedDevice::MissingPrerequisite();
    if (!missing.empty()) {
        MODEMLOADER_MISSING_PREREQUISITE(missing);
    }
}

void EndToEndTest::MakeDevice(const TDeviceSettings& settings, const TDevicePrograms& programs) {
    const CStatus made = CSimulatedDevice::Create(settings, m_device, programs);
    ASSERT_TRUE(made.IsOk()) << made.Message();
}

void EndToEndTest::RunUpdate(const TUpdateOptions& options) {
    ASSERT_NE(m_device, nullptr);
    const CStatus ran = m_device->RunUpdate(options, m_result);
    ASSERT_TRUE(ran.IsOk()) << ran.Message() << "\n" << Describe();
    ASSERT_FALSE(m_result.timedOut) << "the host outlived its own time-out\n" << Describe();
}

std::vector<std::string> EndToEndTest::Lines() const {
    return UpdateLines(m_result.trace, m_device->Directory());
}

std::vector<std::string> EndToEndTest::Power() const {
    return PowerLines(m_result.trace, m_device->Directory());
}

std::string EndToEndTest::Describe() const {
    std::string text = "host exit code " + std::to_string(m_result.exitCode) + ", signal " +
                       std::to_string(m_result.signal) + ", " + std::to_string(m_result.seconds) +
                       " s\n--- stdout:\n" + m_result.out + "--- stderr:\n" + m_result.err +
                       "--- trace:\n";
    if (m_device != nullptr) {
        for (const nlohmann::json& record : m_result.trace) {
            text += "  " + std::to_string(record.value("t", 0.0)) + " " +
                    RecordLine(record, m_device->Directory()) + "\n";
        }
        std::string modemOutput;
        if (ReadWholeFile(m_device->PathOf("modem-output.txt"), modemOutput)) {
            text += "--- modem-sim output:\n" + modemOutput;
        }
        text += "--- modem-sim summary:\n" + m_result.modemSummary.dump(1) + "\n";
    }
    return text;
}

void EndToEndTest::ExpectSummary(const nlohmann::json& expected) const {
    ASSERT_TRUE(m_result.modemSummary.is_object()) << Describe();
    for (const auto& [key, value] : expected.items()) {
        EXPECT_EQ(m_result.modemSummary.value(key, nlohmann::json()), value)
            << "summary field \"" << key << "\"\n"
            << m_result.modemSummary.dump(1);
    }
}

void EndToEndTest::ExpectFlashedAndRecorded(std::size_t firmwareBytes) const {
    std::string flash;
    ASSERT_TRUE(m_device->ReadFlash(flash).IsOk());
    EXPECT_EQ(flash.size(), firmwareBytes);
    EXPECT_TRUE(flash == m_device->Firmware()) << "the flash differs from the firmware";
    ExpectSummary({{"loader_ok", true},
                   {"commands", expected::CompleteCommands(firmwareBytes)},
                   {"bytes_flashed", firmwareBytes},
                   {"write_complete", true}});
    EXPECT_EQ(StorageFile("revision"), kWrittenRevision);
    ExpectStorageReleased();
    ExpectImageLoaderSourceFile();
}

void EndToEndTest::ExpectImageLoaderSourceFile() const {
    const std::vector<std::string> functions = {"Sync", "PrepareFlash", "Write"};
    std::size_t records = 0;
    for (const nlohmann::json& record : m_result.trace) {
        const std::string function = record.value("function", "");
        if (record.value("kind", "") == "log" &&
            std::find(functions.begin(), functions.end(), function) != functions.end()) {
            ++records;
            EXPECT_EQ(record.value("file", ""), "features/component/ModemLoader/src/ImageLoader")
                << record.dump();
        }
    }
    EXPECT_EQ(records, 3u) << Describe();
}

void EndToEndTest::ExpectCompleteUpdate(std::size_t firmwareBytes) const {
    EXPECT_EQ(m_result.exitCode, 0) << Describe();
    EXPECT_EQ(Lines(), expected::CompleteFlash(firmwareBytes)) << Describe();
    EXPECT_EQ(Power(), (std::vector<std::string>{"cmd echo 0 > control = 0",
                                                 "Always Work: Finished ACK thread"}))
        << Describe();

    ExpectFlashedAndRecorded(firmwareBytes);
    ExpectSummary(
        {{"power_ups", 1}, {"power_offs", 0}, {"sync_attempts", 1}, {"loader_bytes", 1024}});
    EXPECT_GE(m_result.modemSummary.value("sync_echoes", 0), 1);

    // "removable" is 1: the four sources and the flag file are gone.
    EXPECT_TRUE(SourcesGone());
    EXPECT_EQ(m_device->ListStorageFolder(""), (std::vector<std::string>{"revision"}));
}

void EndToEndTest::ExpectStorageReleased() const {
    EXPECT_FALSE(m_device->IsStorageMounted()) << m_device->MountPoint();
    // The host's loop devices clear themselves once unmounted and closed; the kernel may take a
    // moment after the host has gone.
    EXPECT_TRUE(m_device->Storage().AwaitNoLoopDevice())
        << "still attached: " << testing::PrintToString(m_device->AttachedLoopDevices());
}

std::string EndToEndTest::StorageFile(const std::string& relativePath) const {
    std::string content;
    const CStatus read = m_device->ReadStorageFile(relativePath, content);
    EXPECT_TRUE(read.IsOk()) << read.Message();
    return content;
}

namespace {
std::vector<std::string> Sources(const CSimulatedDevice& device) {
    return {device.LoaderSource(), device.FirmwareSource(), device.DaemonConfigSource(),
            device.ProductConfigSource()};
}
}  // namespace

bool EndToEndTest::SourcesPresent() const {
    for (const std::string& path : Sources(*m_device)) {
        if (::access(path.c_str(), F_OK) != 0) {
            return false;
        }
    }
    return true;
}

bool EndToEndTest::SourcesGone() const {
    for (const std::string& path : Sources(*m_device)) {
        if (::access(path.c_str(), F_OK) == 0) {
            return false;
        }
    }
    return true;
}

TDeviceSettings EndToEndTest::DeliveredUpdateSettings(std::vector<std::string> modemOptions) {
    TDeviceSettings settings;
    settings.storedRevision = "100";
    settings.revision = "100";
    settings.modemOptions = std::move(modemOptions);
    return settings;
}

bool HasHostLine(const std::string& systemLog, const std::string& text) {
    std::size_t start = 0;
    while (start < systemLog.size()) {
        std::size_t end = systemLog.find('\n', start);
        if (end == std::string::npos) {
            end = systemLog.size();
        }
        // The system may put its own prefix before the runner's (Mender: level=info msg=...).
        const std::string line = systemLog.substr(start, end - start);
        const std::size_t host = line.find("modemloader-host: ");
        if (host != std::string::npos && line.find(text, host) != std::string::npos) {
            return true;
        }
        start = end + 1;
    }
    return false;
}
