// The target's build doing a whole update: the armhf modemloader-host with the armhf plug-in,
// both run by qemu-arm-static, flash this machine's modem-sim over its pseudo-terminal and
// record the revision on an ext4 storage mounted through a loop device. The device-tree
// interposer preloaded into the host is the armhf one too; the modem emulator and the blobs are
// this build's. The armhf build tree is build/armhf of this source tree, or
// MODEMLOADER_TARGET_BUILD.

#include <gtest/gtest.h>
#include <stdlib.h>

#include "EndToEndTest.h"
#include "Prerequisite.h"

namespace {

constexpr std::size_t kFirmwareBytes = 60000;

std::string TargetBuild() {
    const char* chosen = ::getenv("MODEMLOADER_TARGET_BUILD");
    return chosen != nullptr && *chosen != '\0' ? std::string(chosen)
                                                : std::string(MODEMLOADER_TARGET_BUILD);
}

TDevicePrograms TargetPrograms() {
    TDevicePrograms programs = CSimulatedDevice::BuiltPrograms();
    const std::string build = TargetBuild();
    programs.host = build + "/host/modemloader-host";
    programs.plugin = build + "/features/component/ModemLoader/libmodemloader.so";
    programs.interposer = build + "/sim/fdtexport/libfdtexport_interposer.so";
    // No -L prefix: the armhf loader and libraries are found at their multiarch paths.
    programs.hostLauncher = {"qemu-arm-static"};
    return programs;
}

class TargetUpdateTest : public EndToEndTest {
protected:
    void SetUp() override {
        const std::string missing = CSimulatedDevice::MissingPrerequisite(TargetPrograms());
        if (!missing.empty()) {
            MODEMLOADER_MISSING_PREREQUISITE(missing +
                                             " (build the armhf preset: ./run build armhf)");
        }
    }
};

TEST_F(TargetUpdateTest, TheArmhfHostAndPluginFlashTheModemAndRecordTheRevision) {
    TDeviceSettings settings;
    settings.firmwareBytes = kFirmwareBytes;
    MakeDevice(settings, TargetPrograms());
    ASSERT_NO_FATAL_FAILURE(RunUpdate());

    ExpectCompleteUpdate(kFirmwareBytes);
}

}  // namespace
