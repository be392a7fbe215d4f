// A whole update through the archive loader: a device without a control pin (and so without a
// modem to flash) receives the update as files on its movinand storage.

#include <gtest/gtest.h>

#include "EndToEndTest.h"

namespace {

class ArchiveLoaderUpdateTest : public EndToEndTest {};

TEST_F(ArchiveLoaderUpdateTest, CopiesTheUpdateFilesAndAnEmptyFlagFileOntoTheStorage) {
    TDeviceSettings settings;
    settings.controlPin = false;
    MakeDevice(settings);
    ASSERT_NO_FATAL_FAILURE(RunUpdate());

    EXPECT_EQ(m_result.exitCode, 0) << Describe();
    EXPECT_EQ(Lines(), expected::Join({expected::PrepareAndInstall("100"),
                                       expected::ModemInDeviceTree(),
                                       {"mount movinand.img on mnt format 2 ok",
                                        "Always Install: Copied files to movinand", "umount mnt ok",
                                        "out 205 outcome 1"}}))
        << Describe();
    EXPECT_EQ(Power(), std::vector<std::string>()) << Describe();
    EXPECT_TRUE(m_result.modemSummary.is_null()) << "no modem runs without a control pin";

    EXPECT_EQ(m_device->ListStorageFolder(""),
              (std::vector<std::string>{"revision", "update", "update.flag"}));
    EXPECT_EQ(
        m_device->ListStorageFolder("update"),
        (std::vector<std::string>{"daemon.cfg", "firmware.bin", "loader.bin", "product.cfg"}));
    EXPECT_TRUE(StorageFile("update/loader.bin") == m_device->Loader());
    EXPECT_TRUE(StorageFile("update/firmware.bin") == m_device->Firmware());
    EXPECT_EQ(StorageFile("update/daemon.cfg"), CSimulatedDevice::DaemonConfig());
    EXPECT_EQ(StorageFile("update/product.cfg"), CSimulatedDevice::ProductConfig());
    EXPECT_EQ(StorageFile("update.flag"), "");
    // The archive loader's completion neither records a revision nor removes the sources.
    EXPECT_EQ(StorageFile("revision"), "100");
    EXPECT_TRUE(SourcesPresent());
    ExpectStorageReleased();
}

}  // namespace
