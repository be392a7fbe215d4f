// Faults a device meets in the field, each in a whole modemloader-host run on a simulated device:
// the serial adapter pulled while the firmware goes out, a storage too full for the archive
// loader's copies, a storage that mounts only read-only when the new revision is written. Each
// run ends in the outcome the feature gives the step that meets the fault; the stored revision
// does not advance; and once the fault is taken away, the next start finishes the update.
//
// The platform may add records of its own (channel "Platform") that say why a service call
// failed; the feature's records and events are compared without them, and those present must
// name the cause.

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <sstream>

#include "EndToEndTest.h"

namespace {

using nlohmann::json;

constexpr std::size_t kFirmwareBytes = 60000;  // three chunks: 25600, 25600, 8800
// The pulled adapter's firmware: five whole chunks. The line goes inside the second one, and the
// line's buffers (some 64 KiB in the kernel) can take at most two more chunks before it goes.
constexpr std::size_t kHangUpFirmwareBytes = 5 * 25600;
constexpr std::size_t kHangUpAfter = 30000;
constexpr double kHungHostTimeoutSeconds = 10;

class FieldFaultTest : public EndToEndTest {
protected:
    // The run's records without the platform's own.
    std::vector<nlohmann::json> FeatureTrace() const {
        std::vector<nlohmann::json> trace;
        std::copy_if(m_result.trace.begin(), m_result.trace.end(), std::back_inserter(trace),
                     [](const nlohmann::json& record) { return !IsPlatformRecord(record); });
        return trace;
    }
    std::vector<std::string> FeatureLines() const {
        return UpdateLines(FeatureTrace(), m_device->Directory());
    }
    // Every platform record of the run about `call` names `cause` (the errno text).
    void ExpectPlatformRecordsName(const std::string& call, const std::string& cause) const {
        for (const nlohmann::json& record : m_result.trace) {
            if (IsPlatformRecord(record) && record.value("function", "") == call) {
                EXPECT_NE(record.value("text", "").find(cause), std::string::npos) << record.dump();
            }
        }
    }
    void ExpectRevisionNotAdvanced() const { EXPECT_EQ(StorageFile("revision"), "100"); }

    // The update files, delivered again (an update system places them for each attempt).
    void DeliverSourcesAgain() const {
        const std::pair<std::string, std::string> files[] = {
            {m_device->LoaderSource(), m_device->Loader()},
            {m_device->FirmwareSource(), m_device->Firmware()},
            {m_device->DaemonConfigSource(), CSimulatedDevice::DaemonConfig()},
            {m_device->ProductConfigSource(), CSimulatedDevice::ProductConfig()}};
        for (const auto& [path, content] : files) {
            std::ofstream(path, std::ios::binary) << content;
        }
    }

private:
    static bool IsPlatformRecord(const nlohmann::json& record) {
        return record.value("kind", "") == "log" && record.value("channel", "") == "Platform";
    }
};

// The host's last words on standard error end with `text`.
testing::AssertionResult EndsWith(const std::string& err, const std::string& text) {
    if (err.size() >= text.size() &&
        err.compare(err.size() - text.size(), text.size(), text) == 0) {
        return testing::AssertionSuccess();
    }
    return testing::AssertionFailure() << "stderr does not end with \"" << text << "\"";
}

// The serial adapter vanishes while the second chunk goes out. The chunks that the line's
// buffers took before it went count as written; the first write after it fails ("encountered a
// problem writing to serial port"), and so does each later one, as the file position moves on
// whatever the write did. From then on every status read of the write step is a port error,
// which ends the tick before the write time-out is counted: the step never ends, no result is
// published, and the host gives up at its own time-out (exit 3). Nothing is recorded on the
// storage. With the adapter back (a fresh line to a reset modem) the next start flashes the whole
// firmware.
TEST_F(FieldFaultTest, SerialAdapterPulledMidWriteLeavesTheUpdateUnfinishedUntilTheNextStart) {
    TDeviceSettings settings;
    settings.firmwareBytes = kHangUpFirmwareBytes;
    settings.modemOptions = {"--fault", "hang-up-after=" + std::to_string(kHangUpAfter)};
    MakeDevice(settings);
    TUpdateOptions options;
    options.timeoutSeconds = kHungHostTimeoutSeconds;
    ASSERT_NO_FATAL_FAILURE(RunUpdate(options));

    EXPECT_EQ(m_result.exitCode, 3) << Describe();
    std::ostringstream timedOut;
    timedOut << "modemloader-host: timed out after " << kHungHostTimeoutSeconds
             << " s waiting for Install done (205)\n";
    EXPECT_TRUE(EndsWith(m_result.err, timedOut.str())) << Describe();
    // `written` chunks went out, each of the others met the missing line.
    const std::vector<std::string> lines = FeatureLines();
    const std::vector<std::string> progress = expected::ChunkProgress(kHangUpFirmwareBytes);
    const std::size_t written =
        static_cast<std::size_t>(std::count_if(lines.begin(), lines.end(), [&](const auto& line) {
            return std::find(progress.begin(), progress.end(), line) != progress.end();
        }));
    EXPECT_GE(written, 1u) << Describe();
    EXPECT_LE(written, 3u) << Describe();
    EXPECT_EQ(lines,
              expected::Join(
                  {expected::PrepareAndInstall("100"),
                   expected::ModemInDeviceTree(),
                   expected::SyncAndLoader(),
                   {"out 206 15%", "out 206 20%", "out 206 25%", "out 206 25%", "out 206 45%"},
                   std::vector<std::string>(progress.begin(), progress.begin() + written),
                   std::vector<std::string>(progress.size() - written,
                                            "Error WriteBuffer: encountered a problem writing to "
                                            "serial port")}))
        << Describe();
    ExpectPlatformRecordsName("Write", "Input/output error");
    ExpectSummary({{"line_hung_up", true},
                   {"commands", expected::CompleteCommands(kHangUpFirmwareBytes)},
                   {"bytes_flashed", kHangUpAfter},
                   {"write_complete", false}});
    std::string flash;
    ASSERT_TRUE(m_device->ReadFlash(flash).IsOk());
    EXPECT_TRUE(flash == m_device->Firmware().substr(0, kHangUpAfter))
        << "the flash holds " << flash.size() << " bytes, not the firmware's first "
        << kHangUpAfter;
    ExpectRevisionNotAdvanced();
    EXPECT_TRUE(SourcesPresent());
    ExpectStorageReleased();

    ASSERT_TRUE(m_device->RestartModem({}).IsOk());
    ASSERT_NO_FATAL_FAILURE(RunUpdate());
    ExpectCompleteUpdate(kHangUpFirmwareBytes);
}

// The archive loader's copies meet a storage that other data has nearly filled: the firmware's
// copy fails with ENOSPC (the platform removes the partial copy, so the small files after it
// still fit), no flag file is made, the storage is unmounted and the result is a failure (exit
// 1). With the other data gone, the next start copies everything and makes the flag file.
TEST_F(FieldFaultTest, StorageFullDuringTheArchiveCopyFailsWithoutAFlagFileUntilThereIsRoom) {
    TDeviceSettings settings;
    settings.controlPin = false;
    settings.storageBytes = 16u << 20;
    settings.firmwareBytes = 4u << 20;
    settings.storageFillerBytes = 12u << 20;
    MakeDevice(settings);
    ASSERT_NO_FATAL_FAILURE(RunUpdate());

    const std::vector<std::string> start =
        expected::Join({expected::PrepareAndInstall("100"),
                        expected::ModemInDeviceTree(),
                        {"mount movinand.img on mnt format 2 ok"}});
    EXPECT_EQ(m_result.exitCode, 1) << Describe();
    EXPECT_EQ(FeatureLines(),
              expected::Join({start,
                              {"Error Install: Unable to copy firmware to mnt/update/firmware.bin",
                               "Error Install: Unable to copy files to movinand", "umount mnt ok",
                               "out 205 outcome 0"}}))
        << Describe();
    ExpectPlatformRecordsName("CopyFile", "No space left on device");
    EXPECT_EQ(m_device->ListStorageFolder(""),
              (std::vector<std::string>{device::kFillerFile, "revision", "update"}));
    EXPECT_EQ(m_device->ListStorageFolder("update"),
              (std::vector<std::string>{"daemon.cfg", "loader.bin", "product.cfg"}));
    ExpectRevisionNotAdvanced();
    EXPECT_TRUE(SourcesPresent());
    ExpectStorageReleased();

    ASSERT_TRUE(m_device->Storage().RemoveFromImage(device::kFillerFile).IsOk());
    ASSERT_NO_FATAL_FAILURE(RunUpdate());
    EXPECT_EQ(m_result.exitCode, 0) << Describe();
    EXPECT_EQ(FeatureLines(), expected::Join({start,
                                              {"Always Install: Copied files to movinand",
                                               "umount mnt ok", "out 205 outcome 1"}}))
        << Describe();
    EXPECT_EQ(m_device->ListStorageFolder(""),
              (std::vector<std::string>{"revision", "update", "update.flag"}));
    EXPECT_TRUE(StorageFile("update/firmware.bin") == m_device->Firmware());
    EXPECT_TRUE(StorageFile("update/loader.bin") == m_device->Loader());
    EXPECT_EQ(StorageFile("update.flag"), "");
    ExpectRevisionNotAdvanced();  // the archive loader records no revision
    EXPECT_TRUE(SourcesPresent());
    ExpectStorageReleased();
}

// The storage mounts only read-only (the ext4 "read-only" feature; the file handler then mounts
// it read-only, as mount(8) does). Prepare still reads the stored revision and the modem is
// flashed, but the revision file cannot be opened for writing, and that step's outcome is a
// success with the revision silently not written: the host's report is exactly that of a
// complete update (exit 0, the same records). The stored revision stays "100", so the next start
// flashes the modem again; once the storage is writable that start records "124".
TEST_F(FieldFaultTest,
       ReadOnlyStorageAtTheRevisionIsASuccessWithoutTheRevisionAndTheNextStartFlashesAgain) {
    TDeviceSettings settings;
    settings.firmwareBytes = kFirmwareBytes;
    settings.removable = "0";
    MakeDevice(settings);
    ASSERT_TRUE(m_device->Storage().MakeReadOnlyFileSystem().IsOk());
    ASSERT_NO_FATAL_FAILURE(RunUpdate());

    EXPECT_EQ(m_result.exitCode, 0) << Describe();
    EXPECT_EQ(FeatureLines(), expected::CompleteFlash(kFirmwareBytes)) << Describe();
    ExpectPlatformRecordsName("FOpen", "Read-only file system");
    std::string flash;
    ASSERT_TRUE(m_device->ReadFlash(flash).IsOk());
    EXPECT_TRUE(flash == m_device->Firmware());
    ExpectRevisionNotAdvanced();
    EXPECT_TRUE(SourcesPresent());
    ExpectStorageReleased();

    // The next start, the storage still read-only: the revision check sees "100" and the modem
    // is flashed again, to the same silent end.
    ASSERT_TRUE(m_device->RestartModem({}).IsOk());
    ASSERT_NO_FATAL_FAILURE(RunUpdate());
    EXPECT_EQ(m_result.exitCode, 0) << Describe();
    EXPECT_EQ(FeatureLines(), expected::CompleteFlash(kFirmwareBytes)) << Describe();
    ExpectSummary({{"bytes_flashed", kFirmwareBytes}, {"write_complete", true}});
    ExpectRevisionNotAdvanced();

    // Writable again: the next start flashes once more and records the revision.
    ASSERT_TRUE(m_device->Storage().MakeWritableFileSystem().IsOk());
    ASSERT_TRUE(m_device->RestartModem({}).IsOk());
    ASSERT_NO_FATAL_FAILURE(RunUpdate());
    EXPECT_EQ(m_result.exitCode, 0) << Describe();
    EXPECT_EQ(FeatureLines(), expected::CompleteFlash(kFirmwareBytes)) << Describe();
    ExpectFlashedAndRecorded(kFirmwareBytes);
    EXPECT_TRUE(SourcesPresent());
}

// The same storage with removable sources: the removal of the flag file on the read-only
// storage fails (unlink answers EROFS even for a file that is not there), which makes the
// result a failure (exit 1), while the update's files on the device, removed after it, are gone.
// The stored revision is still "100": once the update files are delivered again and the storage
// is writable, the next start flashes and records the revision.
TEST_F(FieldFaultTest, ReadOnlyStorageWithRemovableSourcesFailsAtTheFlagFileYetRemovesTheSources) {
    TDeviceSettings settings;
    settings.firmwareBytes = kFirmwareBytes;
    MakeDevice(settings);
    ASSERT_TRUE(m_device->Storage().MakeReadOnlyFileSystem().IsOk());
    ASSERT_NO_FATAL_FAILURE(RunUpdate());

    EXPECT_EQ(m_result.exitCode, 1) << Describe();
    std::vector<std::string> lines = expected::CompleteFlash(kFirmwareBytes);
    lines.erase(lines.end() - 2, lines.end());  // "umount mnt ok", "out 205 outcome 1"
    lines.insert(lines.end(), {"Error HandleLoaderCompleted: Could not remove flagfile",
                               "umount mnt ok", "out 205 outcome 0"});
    EXPECT_EQ(FeatureLines(), lines) << Describe();
    ExpectPlatformRecordsName("FOpen", "Read-only file system");
    ExpectPlatformRecordsName("RemoveFile", "Read-only file system");
    ExpectRevisionNotAdvanced();
    EXPECT_TRUE(SourcesGone());
    ExpectStorageReleased();

    DeliverSourcesAgain();
    ASSERT_TRUE(m_device->Storage().MakeWritableFileSystem().IsOk());
    ASSERT_TRUE(m_device->RestartModem({}).IsOk());
    ASSERT_NO_FATAL_FAILURE(RunUpdate());
    ExpectCompleteUpdate(kFirmwareBytes);
}

}  // namespace
