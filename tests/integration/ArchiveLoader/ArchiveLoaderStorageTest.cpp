// The archive loader with the Linux file handler on a real movinand storage: an ext4 image made
// for each test and mounted by the loader through a loop device. Copy failures come from real
// conditions (a missing source, a full or read-only file system); after every test nothing is
// left mounted and no loop device stays attached to the image.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <optional>
#include <random>
#include <stdexcept>

#include "ArchiveInstallRecords.h"
#include "ArchiveLoader.h"
#include "InstalledBackend.h"
#include "LinuxFileHandler.h"
#include "LogCapture.h"
#include "MapProperties.h"
#include "Prerequisite.h"
#include "PseudoRandomBytes.h"
#include "RecordingEventBroker.h"
#include "RecordingLoaderCallback.h"
#include "StorageImage.h"
#include "TemporaryDirectory.h"
#include "TestFiles.h"

namespace {

const std::string kFeature = "modemloader";
constexpr std::size_t kMiB = 1024 * 1024;

class ArchiveLoaderStorageTest : public ::testing::Test {
protected:
    void SetUp() override {
        const std::string missing = CStorageImage::MissingPrerequisite();
        if (!missing.empty()) {
            MODEMLOADER_MISSING_PREREQUISITE(missing);
        }
        m_installation.emplace(&m_handler);
    }

    void TearDown() override { m_installation.reset(); }

    // The four update files in a source folder, and the properties that name them and `storage`.
    void PrepareUpdate(const CStorageImage& storage, std::size_t firmwareBytes = 1 * kMiB) {
        m_sources = {{"boot.bin", PseudoRandomBytes(64 * 1024 + 3, 1)},
                     {"firmware.bin", PseudoRandomBytes(firmwareBytes, 2)},
                     {"daemon.conf", "[daemon]\nlevel=2\n"},
                     {"product.conf", "[product]\nvariant=gprs\n"}};
        for (const auto& [name, content] : m_sources) {
            WriteTestFile(m_sourceFolder, name, content);
        }
        const std::string folder = m_sourceFolder.Path() + "/";
        const std::map<std::string, std::string> values = {
            {"bootloader", folder + "boot.bin"},
            {"firmware", folder + "firmware.bin"},
            {"daemonconfig", folder + "daemon.conf"},
            {"productconfig", folder + "product.conf"},
            {"flagfile", "update.flag"},
            {"mountpoint", storage.MountPoint()},
            {"movinand", storage.Image()},
            {"targetfolder", "update"}};
        for (const auto& [key, value] : values) {
            m_properties.Set(kFeature, key, value);
        }
    }

    void Install() {
        CArchiveLoader loader(m_name, m_broker, m_properties, m_callback);
        ASSERT_TRUE(loader.Prepare());
        loader.Install();
    }

    std::vector<TInstallLine> InstallRecords() const { return ArchiveInstallRecords(m_log); }

    // The records of an installation whose firmware copy alone failed.
    static std::vector<TInstallLine> FirmwareCopyFailed(const CStorageImage& storage) {
        return {
            InstallError(
                "Unable to copy firmware to " + storage.MountPoint() + "/update/firmware.bin", 136),
            InstallError("Unable to copy files to movinand", 190)};
    }

    static void ExpectReleased(const CStorageImage& storage) {
        EXPECT_FALSE(storage.IsMounted()) << storage.MountPoint();
        EXPECT_TRUE(storage.AwaitNoLoopDevice())
            << "still attached: " << ::testing::PrintToString(storage.AttachedLoopDevices());
    }

    // Every source on the image under update/, byte for byte, except those in `absent`.
    void ExpectCopied(const CStorageImage& storage, const std::vector<std::string>& absent = {}) {
        for (const auto& [name, content] : m_sources) {
            std::string onImage;
            const bool present = storage.ReadFromImage("update/" + name, onImage).IsOk();
            if (std::find(absent.begin(), absent.end(), name) != absent.end()) {
                EXPECT_FALSE(present) << name;
            } else {
                ASSERT_TRUE(present) << name;
                EXPECT_EQ(onImage.size(), content.size()) << name;
                EXPECT_TRUE(onImage == content) << name << " differs from its source";
            }
        }
    }

    std::string m_name = kFeature;
    CLinuxFileHandler m_handler{{{2, "ext4"}}};
    std::optional<CInstalledFileHandler> m_installation;
    CTemporaryDirectory m_sourceFolder;
    std::map<std::string, std::string> m_sources;
    CRecordingEventBroker m_broker;
    CMapProperties m_properties;
    CRecordingLoaderCallback m_callback;
    CLogCapture m_log;
};

TEST_F(ArchiveLoaderStorageTest, CopiesTheFourFilesAndLeavesAnEmptyFlagFileBesideTheFolder) {
    CStorageImage storage(16 * kMiB);
    ASSERT_TRUE(storage.Made()) << storage.Made().Message();
    PrepareUpdate(storage);
    Install();

    EXPECT_EQ(m_callback.Calls(), std::vector<std::string>{"Completed(1)"});
    EXPECT_EQ(InstallRecords(),
              std::vector<TInstallLine>{InstallAlways("Copied files to movinand", 169)});
    ExpectReleased(storage);
    ExpectCopied(storage);
    EXPECT_EQ(storage.ListImageFolder(""),
              (std::vector<std::string>{"lost+found", "update", "update.flag"}));
    EXPECT_EQ(
        storage.ListImageFolder("update"),
        (std::vector<std::string>{"boot.bin", "daemon.conf", "firmware.bin", "product.conf"}));
    std::string flag = "not read";
    ASSERT_TRUE(storage.ReadFromImage("update.flag", flag));
    EXPECT_EQ(flag, "");
}

TEST_F(ArchiveLoaderStorageTest, ExistingTargetFolderIsUsedAsItIs) {
    CStorageImage storage(16 * kMiB);
    ASSERT_TRUE(storage.Made()) << storage.Made().Message();
    ASSERT_TRUE(storage.MakeFolderOnImage("update"));
    PrepareUpdate(storage);
    Install();

    EXPECT_EQ(m_callback.Calls(), std::vector<std::string>{"Completed(1)"});
    ExpectReleased(storage);
    ExpectCopied(storage);
}

TEST_F(ArchiveLoaderStorageTest, MissingSourceFailsItsCopyOnlyAndLeavesNoFlagFile) {
    CStorageImage storage(16 * kMiB);
    ASSERT_TRUE(storage.Made()) << storage.Made().Message();
    PrepareUpdate(storage);
    ASSERT_EQ(unlink((m_sourceFolder.Path() + "/firmware.bin").c_str()), 0);
    Install();

    EXPECT_EQ(m_callback.Calls(), std::vector<std::string>{"Completed(0)"});
    EXPECT_EQ(InstallRecords(), FirmwareCopyFailed(storage));
    EXPECT_NE(m_handler.LastError().find("No such file or directory"), std::string::npos)
        << m_handler.LastError();
    ExpectReleased(storage);
    ExpectCopied(storage, {"firmware.bin"});
    EXPECT_EQ(storage.ListImageFolder(""), (std::vector<std::string>{"lost+found", "update"}));
}

TEST_F(ArchiveLoaderStorageTest, FullStorageFailsTheFirmwareCopyAndTheLaterCopiesStillLand) {
    // The firmware is larger than the whole storage; the files after it are small.
    CStorageImage storage(2 * kMiB);
    ASSERT_TRUE(storage.Made()) << storage.Made().Message();
    PrepareUpdate(storage, 3 * kMiB);
    Install();

    EXPECT_EQ(m_callback.Calls(), std::vector<std::string>{"Completed(0)"});
    EXPECT_EQ(InstallRecords(), FirmwareCopyFailed(storage));
    EXPECT_NE(m_handler.LastError().find("No space left on device"), std::string::npos)
        << m_handler.LastError();
    ExpectReleased(storage);
    ExpectCopied(storage, {"firmware.bin"});
    EXPECT_EQ(storage.ListImageFolder(""), (std::vector<std::string>{"lost+found", "update"}));
}

TEST_F(ArchiveLoaderStorageTest, ReadOnlyStorageFailsEveryCopyAndIsStillUnmounted) {
    CStorageImage storage(16 * kMiB);
    ASSERT_TRUE(storage.Made()) << storage.Made().Message();
    ASSERT_TRUE(storage.MakeReadOnlyFileSystem());
    PrepareUpdate(storage);
    Install();

    const std::string target = storage.MountPoint() + "/update";
    EXPECT_EQ(m_callback.Calls(), std::vector<std::string>{"Completed(0)"});
    EXPECT_EQ(
        InstallRecords(),
        (std::vector<TInstallLine>{
            InstallError("Unable to copy bootloader to " + target + "/boot.bin", 125),
            InstallError("Unable to copy firmware to " + target + "/firmware.bin", 136),
            InstallError("Unable to copy daemon config file to " + target + "/daemon.conf", 147),
            InstallError("Unable to copy product config file to " + target + "/product.conf", 158),
            InstallError("Unable to copy files to movinand", 190)}));
    ExpectReleased(storage);
    EXPECT_EQ(storage.ListImageFolder(""), std::vector<std::string>{"lost+found"});
}

TEST_F(ArchiveLoaderStorageTest, StorageWithoutFileSystemIsNotMountedAndNoLoopDeviceRemains) {
    CStorageImage storage(4 * kMiB);
    ASSERT_TRUE(storage.Made()) << storage.Made().Message();
    {
        std::ofstream garbage(storage.Image(), std::ios::binary | std::ios::trunc);
        garbage << PseudoRandomBytes(4 * kMiB, 9);
    }
    PrepareUpdate(storage);
    Install();

    EXPECT_EQ(m_callback.Calls(), std::vector<std::string>{"Completed(0)"});
    EXPECT_EQ(InstallRecords(),
              (std::vector<TInstallLine>{InstallError("Couldn't mount " + storage.Image(), 74),
                                         InstallError("Unable to copy files to movinand", 190)}));
    ExpectReleased(storage);
}

TEST_F(ArchiveLoaderStorageTest, MissingStorageDeviceIsReportedByName) {
    CStorageImage storage(4 * kMiB);
    ASSERT_TRUE(storage.Made()) << storage.Made().Message();
    PrepareUpdate(storage);
    const std::string absent = m_sourceFolder.Path() + "/no-movinand.img";
    m_properties.Set(kFeature, "movinand", absent);
    Install();

    EXPECT_EQ(m_callback.Calls(), std::vector<std::string>{"Completed(0)"});
    EXPECT_EQ(InstallRecords(),
              (std::vector<TInstallLine>{InstallError("Couldn't mount " + absent, 74),
                                         InstallError("Unable to copy files to movinand", 190)}));
    ExpectReleased(storage);
}

TEST_F(ArchiveLoaderStorageTest, SlashlessSourceLeavesTheStorageMountedUntilTheHandlerGoes) {
    CStorageImage storage(16 * kMiB);
    ASSERT_TRUE(storage.Made()) << storage.Made().Message();
    PrepareUpdate(storage);
    m_properties.Set(kFeature, "productconfig", "product.conf");
    {
        CLinuxFileHandler handler({{2, "ext4"}});
        std::optional<CInstalledFileHandler> installed(std::in_place, &handler);
        CArchiveLoader loader(m_name, m_broker, m_properties, m_callback);
        ASSERT_TRUE(loader.Prepare());
        EXPECT_THROW(loader.Install(), std::out_of_range);
        installed.reset();
        EXPECT_TRUE(storage.IsMounted());
        EXPECT_THAT(m_callback.Calls(), ::testing::IsEmpty());
        EXPECT_THAT(m_log.Records(), ::testing::IsEmpty());
    }
    // The handler owned the mount it made: its end released the storage and its loop device.
    ExpectReleased(storage);
    EXPECT_EQ(storage.ListImageFolder("update"), std::vector<std::string>{}) << "no copy was made";
}

}  // namespace
