#pragma once
// The fixture of the end-to-end tests: one simulated device per test, one or more complete
// modemloader-host runs on it, and the observations every test makes (trace lines, the
// emulator's summary, the storage, nothing left mounted). Skips where a device cannot be made
// (not root, no loop devices, no pseudo-terminal).

#include <gtest/gtest.h>

#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "SimulatedDevice.h"
#include "UpdateRecords.h"

// The revision file the module writes for the update on offer ("124"): its terminator included.
extern const std::string kWrittenRevision;

// Whether a line of an update system's log passes on a line of the host's output (prefixed
// "modemloader-host: " by the update systems' runner) that contains `text`.
bool HasHostLine(const std::string& systemLog, const std::string& text);

class EndToEndTest : public ::testing::Test {
protected:
    void SetUp() override;

    // Makes the device; a harness failure fails the test (check with HasFatalFailure()).
    void MakeDevice(const TDeviceSettings& settings,
                    const TDevicePrograms& programs = CSimulatedDevice::BuiltPrograms());
    // Runs one update on the device made.
    void RunUpdate(const TUpdateOptions& options = TUpdateOptions());

    std::vector<std::string> Lines() const;
    std::vector<std::string> Power() const;
    // Exit status, output, the trace as lines and the emulator's own output, for failures.
    std::string Describe() const;

    // Each key of `expected` has that value in the emulator's summary.
    void ExpectSummary(const nlohmann::json& expected) const;
    // What every complete flash leaves behind: the modem's flash equals the firmware, the
    // emulator saw the whole command sequence and the end of the write, and the storage holds
    // the new revision "124" (exactly four bytes, with its terminator) and is released again.
    void ExpectFlashedAndRecorded(std::size_t firmwareBytes) const;
    // A whole update of `firmwareBytes` from the stored revision "100" with removable sources:
    // exit 0, every trace line, one power-up with its one sync, the flash and the revision as
    // ExpectFlashedAndRecorded, and nothing left but "revision" on the storage.
    void ExpectCompleteUpdate(std::size_t firmwareBytes) const;
    // Nothing of the storage is mounted or attached to a loop device after the run.
    void ExpectStorageReleased() const;
    // The image loader's records ("noticed a reply from modem", "loader source download
    // completed", "firmware download completed") name the class's one source file, whichever of
    // its .cpp files logs them.
    void ExpectImageLoaderSourceFile() const;
    // A device for an update system's tests: its own configuration offers the revision the
    // storage records ("100"), so only the revision the update system delivers makes the host
    // flash.
    static TDeviceSettings DeliveredUpdateSettings(std::vector<std::string> modemOptions = {});
    std::string StorageFile(const std::string& relativePath) const;  // "" with a failure
    bool SourcesPresent() const;  // all four update files still at their paths
    bool SourcesGone() const;     // none of them

    std::unique_ptr<CSimulatedDevice> m_device;
    TUpdateResult m_result;
};
