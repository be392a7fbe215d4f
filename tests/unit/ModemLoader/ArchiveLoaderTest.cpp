// The archive loader: the update files copied onto the movinand storage inside Install, the flag
// file beside the target folder, the unmount and the outcome, on the in-memory file system.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <stdexcept>

#include "ArchiveInstallRecords.h"
#include "ArchiveLoader.h"
#include "FakeFileHandler.h"
#include "FileHandlerFaults.h"
#include "LogCapture.h"
#include "MapProperties.h"
#include "RecordingEventBroker.h"
#include "RecordingLoaderCallback.h"

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::StartsWith;

const std::string kFeature = "modemloader";
const std::string kDevice = "/dev/movinand";
const std::string kMountPoint = "/mnt/flash";

const std::vector<std::string> kKeyOrder = {"bootloader",    "firmware",    "daemonconfig",
                                            "productconfig", "flagfile",    "mountpoint",
                                            "movinand",      "targetfolder"};

std::map<std::string, std::string> AllProperties() {
    return {{"bootloader", "/media/update/boot.bin"},
            {"firmware", "/media/update/firmware.bin"},
            {"daemonconfig", "/media/update/daemon.conf"},
            {"productconfig", "/media/update/product.conf"},
            {"flagfile", "update.flag"},
            {"mountpoint", kMountPoint},
            {"movinand", kDevice},
            {"targetfolder", "update"}};
}

std::vector<std::string> CopyCalls() {
    return {"CopyFile /media/update/boot.bin /mnt/flash/update/boot.bin",
            "CopyFile /media/update/firmware.bin /mnt/flash/update/firmware.bin",
            "CopyFile /media/update/daemon.conf /mnt/flash/update/daemon.conf",
            "CopyFile /media/update/product.conf /mnt/flash/update/product.conf"};
}

// The calls of an installation that finds the target folder and copies all four files.
std::vector<std::string> CompleteInstallationCalls() {
    std::vector<std::string> calls = {"Mount /dev/movinand /mnt/flash 2",
                                      "FolderExists /mnt/flash/update"};
    const auto copies = CopyCalls();
    calls.insert(calls.end(), copies.begin(), copies.end());
    calls.insert(calls.end(), {"FOpen /mnt/flash/update.flag w", "FClose /mnt/flash/update.flag",
                               "Sync", "Umount /mnt/flash"});
    return calls;
}

class ArchiveLoaderTest : public ::testing::Test {
protected:
    ArchiveLoaderTest() : m_properties(kFeature, AllProperties()) {
        m_files.AddFile("/media/update/boot.bin", "boot image");
        m_files.AddFile("/media/update/firmware.bin", std::string("firmware\0image", 14));
        m_files.AddFile("/media/update/daemon.conf", "daemon=1\n");
        m_files.AddFile("/media/update/product.conf", "product=2\n");
        m_files.AddFolder(kMountPoint);
        m_files.AddStorageFolder(kDevice, "update");
    }

    std::vector<TInstallLine> InstallRecords() const { return ArchiveInstallRecords(m_log); }

    std::string m_name = kFeature;
    CRecordingEventBroker m_broker;
    CMapProperties m_properties;
    CRecordingLoaderCallback m_callback;
    CFakeFileHandler m_files;
    CLogCapture m_log;
};

TEST_F(ArchiveLoaderTest, PrepareReadsTheEightKeysInOrderUnderTheFeatureName) {
    CArchiveLoader loader(m_name, m_broker, m_properties, m_callback);
    EXPECT_TRUE(loader.Prepare());
    std::vector<std::pair<std::string, std::string>> expected;
    for (const std::string& key : kKeyOrder) {
        expected.emplace_back(kFeature, key);
    }
    EXPECT_EQ(m_properties.Lookups(), expected);
    EXPECT_THAT(m_files.Calls(), IsEmpty());
    EXPECT_THAT(m_log.Records(), IsEmpty());
    EXPECT_THAT(m_callback.Calls(), IsEmpty());
}

TEST_F(ArchiveLoaderTest, MissingDaemonConfigStopsTheReadAtOnceAndLaterKeysAreNeverLookedUp) {
    m_properties.Remove(kFeature, "daemonconfig");
    CArchiveLoader loader(m_name, m_broker, m_properties, m_callback);
    EXPECT_FALSE(loader.Prepare());
    // "daemonconfig" is the third key read: the read stops there, so neither "productconfig"
    // and "flagfile" nor "mountpoint", "movinand" and "targetfolder" are ever looked up.
    EXPECT_EQ(m_properties.LookedUpKeys(),
              (std::vector<std::string>{"bootloader", "firmware", "daemonconfig"}));
    EXPECT_THAT(m_log.Records(), IsEmpty());
}

TEST_F(ArchiveLoaderTest, MissingFlagFileFailsAfterFiveLookupsAndTheStorageKeysAreNeverLookedUp) {
    m_properties.Remove(kFeature, "flagfile");
    CArchiveLoader loader(m_name, m_broker, m_properties, m_callback);
    EXPECT_FALSE(loader.Prepare());
    EXPECT_EQ(m_properties.LookedUpKeys(),
              (std::vector<std::string>{"bootloader", "firmware", "daemonconfig", "productconfig",
                                        "flagfile"}));
    EXPECT_THAT(m_log.Records(), IsEmpty());
}

// One missing key: the read stops at it, silently, and a later Install reports failure
// whatever its steps do.
class ArchiveLoaderMissingKeyTest : public ArchiveLoaderTest,
                                    public ::testing::WithParamInterface<std::size_t> {};

TEST_P(ArchiveLoaderMissingKeyTest, PrepareFailsSilentlyAndInstallReportsFailure) {
    const std::size_t missing = GetParam();
    m_properties.Remove(kFeature, kKeyOrder[missing]);
    CArchiveLoader loader(m_name, m_broker, m_properties, m_callback);
    EXPECT_FALSE(loader.Prepare());
    EXPECT_EQ(m_properties.LookedUpKeys(),
              std::vector<std::string>(kKeyOrder.begin(), kKeyOrder.begin() + missing + 1));
    EXPECT_THAT(m_log.Records(), IsEmpty());
    EXPECT_THAT(m_files.Calls(), IsEmpty());

    loader.Install();
    EXPECT_EQ(m_callback.Calls(), std::vector<std::string>{"Completed(0)"});
    EXPECT_FALSE(m_files.IsMounted(kMountPoint));
}

INSTANTIATE_TEST_SUITE_P(EachKey, ArchiveLoaderMissingKeyTest, ::testing::Range<std::size_t>(0, 8),
                         [](const ::testing::TestParamInfo<std::size_t>& param) {
                             return "Missing_" + kKeyOrder[param.param];
                         });

TEST_F(ArchiveLoaderTest, AllCopiesSucceedFlagFileIsCreatedEmptyAndCompletedOne) {
    CArchiveLoader loader(m_name, m_broker, m_properties, m_callback);
    ASSERT_TRUE(loader.Prepare());
    loader.Install();

    EXPECT_EQ(m_files.Calls(), CompleteInstallationCalls());
    EXPECT_EQ(InstallRecords(),
              std::vector<TInstallLine>{InstallAlways("Copied files to movinand", 169)});
    EXPECT_EQ(m_callback.Calls(), std::vector<std::string>{"Completed(1)"});

    EXPECT_FALSE(m_files.IsMounted(kMountPoint));
    EXPECT_EQ(m_files.StorageFileContent(kDevice, "update/boot.bin"), "boot image");
    EXPECT_EQ(m_files.StorageFileContent(kDevice, "update/firmware.bin"),
              std::string("firmware\0image", 14));
    EXPECT_EQ(m_files.StorageFileContent(kDevice, "update/daemon.conf"), "daemon=1\n");
    EXPECT_EQ(m_files.StorageFileContent(kDevice, "update/product.conf"), "product=2\n");
    ASSERT_TRUE(m_files.HasStorageFile(kDevice, "update.flag")) << "directly under the mount point";
    EXPECT_EQ(m_files.StorageFileContent(kDevice, "update.flag"), "");
    EXPECT_FALSE(m_files.HasStorageFile(kDevice, "update/update.flag"));
    EXPECT_EQ(m_files.OpenStreams(), 0u);
    EXPECT_THAT(m_broker.SubscriptionCalls(), IsEmpty()) << "this loader raises no events";
    EXPECT_THAT(m_broker.Published(), IsEmpty());
}

TEST_F(ArchiveLoaderTest, AnExistingFlagFileIsTruncatedToEmpty) {
    m_files.AddStorageFile(kDevice, "update.flag", "left from before");
    CArchiveLoader loader(m_name, m_broker, m_properties, m_callback);
    ASSERT_TRUE(loader.Prepare());
    loader.Install();
    EXPECT_EQ(m_files.StorageFileContent(kDevice, "update.flag"), "");
    EXPECT_EQ(m_callback.Calls(), std::vector<std::string>{"Completed(1)"});
}

TEST_F(ArchiveLoaderTest, AbsentTargetFolderIsCreatedBeforeTheCopies) {
    CFakeFileHandler files;  // a storage without the target folder
    files.AddFile("/media/update/boot.bin", "b");
    files.AddFile("/media/update/firmware.bin", "f");
    files.AddFile("/media/update/daemon.conf", "d");
    files.AddFile("/media/update/product.conf", "p");
    files.AddFolder(kMountPoint);
    files.AddStorage(kDevice);
    CArchiveLoader loader(m_name, m_broker, m_properties, m_callback);
    ASSERT_TRUE(loader.Prepare());
    loader.Install();

    auto expected = CompleteInstallationCalls();
    expected.insert(expected.begin() + 2, "MakeFolder /mnt/flash/update");
    EXPECT_EQ(files.Calls(), expected);
    EXPECT_EQ(files.StorageFileContent(kDevice, "update/product.conf"), "p");
    EXPECT_EQ(m_callback.Calls(), std::vector<std::string>{"Completed(1)"});
}

// Only the answer "missing" (2) makes the folder; any other answer leaves it as it is.
struct TFolderAnswer {
    const char* name;
    int answer;
    bool makesFolder;
};
void PrintTo(const TFolderAnswer& answer, std::ostream* stream) { *stream << answer.name; }

class ArchiveLoaderFolderAnswerTest : public ArchiveLoaderTest,
                                      public ::testing::WithParamInterface<TFolderAnswer> {};

TEST_P(ArchiveLoaderFolderAnswerTest, OnlyAMissingFolderIsMade) {
    CFileHandlerFaults faults(m_files);
    faults.FailWith("FolderExists", GetParam().answer);
    CArchiveLoader loader(m_name, m_broker, m_properties, m_callback);
    ASSERT_TRUE(loader.Prepare());
    loader.Install();

    EXPECT_EQ(faults.ForcedCalls(), std::vector<std::string>{"FolderExists /mnt/flash/update -> " +
                                                             std::to_string(GetParam().answer)});
    const auto calls = m_files.Calls();
    EXPECT_EQ(std::count(calls.begin(), calls.end(), "MakeFolder /mnt/flash/update"),
              GetParam().makesFolder ? 1 : 0);
    EXPECT_EQ(m_callback.Calls(), std::vector<std::string>{"Completed(1)"});
}

INSTANTIATE_TEST_SUITE_P(Answers, ArchiveLoaderFolderAnswerTest,
                         ::testing::Values(TFolderAnswer{"Present", 0, false},
                                           TFolderAnswer{"NotAFolder", 1, false},
                                           TFolderAnswer{"Missing", 2, true},
                                           TFolderAnswer{"Unknown", -1, false},
                                           TFolderAnswer{"Three", 3, false}),
                         [](const ::testing::TestParamInfo<TFolderAnswer>& param) {
                             return std::string(param.param.name);
                         });

TEST_F(ArchiveLoaderTest, FailureToMakeTheTargetFolderIsNotDetectedAndTheCopiesAreAttempted) {
    CFakeFileHandler files;  // no target folder, and making it fails
    files.AddFile("/media/update/boot.bin", "b");
    files.AddFile("/media/update/firmware.bin", "f");
    files.AddFile("/media/update/daemon.conf", "d");
    files.AddFile("/media/update/product.conf", "p");
    files.AddFolder(kMountPoint);
    files.AddStorage(kDevice);
    CFileHandlerFaults faults(files);
    faults.FailWith("MakeFolder", 1);
    CArchiveLoader loader(m_name, m_broker, m_properties, m_callback);
    ASSERT_TRUE(loader.Prepare());
    loader.Install();

    EXPECT_EQ(faults.ForcedCalls(), std::vector<std::string>{"MakeFolder /mnt/flash/update -> 1"});
    std::vector<std::string> expected = {"Mount /dev/movinand /mnt/flash 2",
                                         "FolderExists /mnt/flash/update"};
    const auto copies = CopyCalls();
    expected.insert(expected.end(), copies.begin(), copies.end());
    expected.insert(expected.end(), {"Sync", "Umount /mnt/flash"});
    EXPECT_EQ(files.Calls(), expected);
    EXPECT_EQ(
        InstallRecords(),
        (std::vector<TInstallLine>{
            InstallError("Unable to copy bootloader to /mnt/flash/update/boot.bin", 125),
            InstallError("Unable to copy firmware to /mnt/flash/update/firmware.bin", 136),
            InstallError("Unable to copy daemon config file to /mnt/flash/update/daemon.conf", 147),
            InstallError("Unable to copy product config file to /mnt/flash/update/product.conf",
                         158),
            InstallError("Unable to copy files to movinand", 190)}));
    EXPECT_EQ(m_callback.Calls(), std::vector<std::string>{"Completed(0)"});
}

// A copy that fails for want of its source: its own record, the remaining copies still made,
// then the copy phase's record, no flag file, the unmount and Completed(0).
struct TCopyFailure {
    const char* name;
    std::vector<std::string> absentSources;
    std::vector<TInstallLine> records;
};
void PrintTo(const TCopyFailure& failure, std::ostream* stream) { *stream << failure.name; }

class ArchiveLoaderCopyFailureTest : public ArchiveLoaderTest,
                                     public ::testing::WithParamInterface<TCopyFailure> {};

TEST_P(ArchiveLoaderCopyFailureTest, EveryCopyIsAttemptedAndNoFlagFileIsMade) {
    CFakeFileHandler files;
    const std::map<std::string, std::string> sources = {{"/media/update/boot.bin", "b"},
                                                        {"/media/update/firmware.bin", "f"},
                                                        {"/media/update/daemon.conf", "d"},
                                                        {"/media/update/product.conf", "p"}};
    for (const auto& [path, content] : sources) {
        const auto& absent = GetParam().absentSources;
        if (std::find(absent.begin(), absent.end(), path) == absent.end()) {
            files.AddFile(path, content);
        }
    }
    files.AddFolder(kMountPoint);
    files.AddStorageFolder(kDevice, "update");
    CArchiveLoader loader(m_name, m_broker, m_properties, m_callback);
    ASSERT_TRUE(loader.Prepare());
    loader.Install();

    std::vector<std::string> expected = {"Mount /dev/movinand /mnt/flash 2",
                                         "FolderExists /mnt/flash/update"};
    const auto copies = CopyCalls();
    expected.insert(expected.end(), copies.begin(), copies.end());
    expected.insert(expected.end(), {"Sync", "Umount /mnt/flash"});
    EXPECT_EQ(files.Calls(), expected);

    auto records = GetParam().records;
    records.push_back(InstallError("Unable to copy files to movinand", 190));
    EXPECT_EQ(InstallRecords(), records);
    EXPECT_EQ(m_callback.Calls(), std::vector<std::string>{"Completed(0)"});
    EXPECT_FALSE(files.HasStorageFile(kDevice, "update.flag"));
    EXPECT_FALSE(files.IsMounted(kMountPoint));
    for (const auto& [path, content] : sources) {
        const auto& absent = GetParam().absentSources;
        const std::string copied = "update" + path.substr(path.rfind('/'));
        if (std::find(absent.begin(), absent.end(), path) == absent.end()) {
            EXPECT_EQ(files.StorageFileContent(kDevice, copied), content) << copied;
        } else {
            EXPECT_FALSE(files.HasStorageFile(kDevice, copied)) << copied;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(
    Sources, ArchiveLoaderCopyFailureTest,
    ::testing::Values(
        TCopyFailure{
            "Bootloader",
            {"/media/update/boot.bin"},
            {InstallError("Unable to copy bootloader to /mnt/flash/update/boot.bin", 125)}},
        TCopyFailure{
            "Firmware",
            {"/media/update/firmware.bin"},
            {InstallError("Unable to copy firmware to /mnt/flash/update/firmware.bin", 136)}},
        TCopyFailure{
            "DaemonConfig",
            {"/media/update/daemon.conf"},
            {InstallError("Unable to copy daemon config file to /mnt/flash/update/daemon.conf",
                          147)}},
        TCopyFailure{
            "ProductConfig",
            {"/media/update/product.conf"},
            {InstallError("Unable to copy product config file to /mnt/flash/update/product.conf",
                          158)}},
        TCopyFailure{
            "FirmwareAndProductConfig",
            {"/media/update/firmware.bin", "/media/update/product.conf"},
            {InstallError("Unable to copy firmware to /mnt/flash/update/firmware.bin", 136),
             InstallError("Unable to copy product config file to /mnt/flash/update/product.conf",
                          158)}},
        TCopyFailure{
            "All",
            {"/media/update/boot.bin", "/media/update/firmware.bin", "/media/update/daemon.conf",
             "/media/update/product.conf"},
            {InstallError("Unable to copy bootloader to /mnt/flash/update/boot.bin", 125),
             InstallError("Unable to copy firmware to /mnt/flash/update/firmware.bin", 136),
             InstallError("Unable to copy daemon config file to /mnt/flash/update/daemon.conf",
                          147),
             InstallError("Unable to copy product config file to /mnt/flash/update/product.conf",
                          158)}}),
    [](const ::testing::TestParamInfo<TCopyFailure>& param) {
        return std::string(param.param.name);
    });

TEST_F(ArchiveLoaderTest, MountFailureSkipsFolderCopiesAndUnmount) {
    CFakeFileHandler files;  // no movinand storage at all: Mount fails
    files.AddFile("/media/update/boot.bin", "b");
    files.AddFolder(kMountPoint);
    CArchiveLoader loader(m_name, m_broker, m_properties, m_callback);
    ASSERT_TRUE(loader.Prepare());
    loader.Install();

    EXPECT_EQ(files.Calls(),
              (std::vector<std::string>{"Mount /dev/movinand /mnt/flash 2", "Sync"}));
    EXPECT_EQ(InstallRecords(),
              (std::vector<TInstallLine>{InstallError("Couldn't mount /dev/movinand", 74),
                                         InstallError("Unable to copy files to movinand", 190)}));
    EXPECT_EQ(m_callback.Calls(), std::vector<std::string>{"Completed(0)"});
}

TEST_F(ArchiveLoaderTest, FlagFileThatCannotBeCreatedFailsTheInstallationAfterTheCopies) {
    CFileHandlerFaults faults(m_files);
    faults.FailOpen("update.flag");
    CArchiveLoader loader(m_name, m_broker, m_properties, m_callback);
    ASSERT_TRUE(loader.Prepare());
    loader.Install();

    EXPECT_EQ(faults.ForcedCalls(),
              std::vector<std::string>{"FOpen /mnt/flash/update.flag w -> null"});
    std::vector<std::string> expected = {"Mount /dev/movinand /mnt/flash 2",
                                         "FolderExists /mnt/flash/update"};
    const auto copies = CopyCalls();
    expected.insert(expected.end(), copies.begin(), copies.end());
    expected.insert(expected.end(), {"Sync", "Umount /mnt/flash"});
    EXPECT_EQ(m_files.Calls(), expected) << "no FClose of a stream that was never opened";
    EXPECT_EQ(InstallRecords(),
              (std::vector<TInstallLine>{
                  InstallAlways("Copied files to movinand", 169),
                  InstallError("Unable to create flag file /mnt/flash/update.flag", 180)}));
    EXPECT_EQ(m_callback.Calls(), std::vector<std::string>{"Completed(0)"});
    EXPECT_FALSE(m_files.IsMounted(kMountPoint));
}

TEST_F(ArchiveLoaderTest, UnmountFailureIsLoggedAndLeavesASuccessfulOutcome) {
    CFileHandlerFaults faults(m_files);
    faults.FailWith("Umount", 1);
    CArchiveLoader loader(m_name, m_broker, m_properties, m_callback);
    ASSERT_TRUE(loader.Prepare());
    loader.Install();

    EXPECT_EQ(faults.ForcedCalls(), std::vector<std::string>{"Umount /mnt/flash -> 1"});
    EXPECT_EQ(InstallRecords(),
              (std::vector<TInstallLine>{InstallAlways("Copied files to movinand", 169),
                                         InstallError("Unable to unmount /mnt/flash", 202)}));
    EXPECT_EQ(m_callback.Calls(), std::vector<std::string>{"Completed(1)"});
}

TEST_F(ArchiveLoaderTest, UnmountFailureAfterAFailedCopyLeavesTheFailedOutcome) {
    CFakeFileHandler files;
    files.AddFile("/media/update/boot.bin", "b");
    files.AddFolder(kMountPoint);
    files.AddStorageFolder(kDevice, "update");
    CFileHandlerFaults faults(files);
    faults.FailWith("Umount", 1);
    CArchiveLoader loader(m_name, m_broker, m_properties, m_callback);
    ASSERT_TRUE(loader.Prepare());
    loader.Install();

    const auto records = InstallRecords();
    ASSERT_EQ(records.size(), 5u);
    EXPECT_EQ(records[3], InstallError("Unable to copy files to movinand", 190));
    EXPECT_EQ(records[4], InstallError("Unable to unmount /mnt/flash", 202));
    EXPECT_EQ(m_callback.Calls(), std::vector<std::string>{"Completed(0)"});
}

TEST_F(ArchiveLoaderTest, FailedInstallationMarksEveryLaterInstallOfTheSameLoaderFailed) {
    CFileHandlerFaults faults(m_files);
    faults.FailWith("Mount", 1);
    CArchiveLoader loader(m_name, m_broker, m_properties, m_callback);
    ASSERT_TRUE(loader.Prepare());
    loader.Install();
    EXPECT_EQ(m_callback.Calls(), std::vector<std::string>{"Completed(0)"});

    CFileHandlerFaults healthy(m_files);  // the storage mounts again
    m_log.Clear();
    ASSERT_TRUE(loader.Prepare()) << "a successful Prepare does not clear the mark";
    loader.Install();
    EXPECT_EQ(InstallRecords(),
              std::vector<TInstallLine>{InstallAlways("Copied files to movinand", 169)});
    EXPECT_TRUE(m_files.HasStorageFile(kDevice, "update.flag"));
    EXPECT_EQ(m_callback.Calls(), (std::vector<std::string>{"Completed(0)", "Completed(0)"}));
}

TEST_F(ArchiveLoaderTest, FailedPrepareMakesAnInstallWhoseEveryStepSucceedsReportFailure) {
    // "targetfolder", the last key, is missing: every other value was read, the copies land
    // directly in the mount point's root through a doubled slash, and all of them succeed.
    m_properties.Remove(kFeature, "targetfolder");
    CArchiveLoader loader(m_name, m_broker, m_properties, m_callback);
    EXPECT_FALSE(loader.Prepare());
    loader.Install();

    EXPECT_EQ(m_files.Calls(), (std::vector<std::string>{
                                   "Mount /dev/movinand /mnt/flash 2", "FolderExists /mnt/flash/",
                                   "CopyFile /media/update/boot.bin /mnt/flash//boot.bin",
                                   "CopyFile /media/update/firmware.bin /mnt/flash//firmware.bin",
                                   "CopyFile /media/update/daemon.conf /mnt/flash//daemon.conf",
                                   "CopyFile /media/update/product.conf /mnt/flash//product.conf",
                                   "FOpen /mnt/flash/update.flag w",
                                   "FClose /mnt/flash/update.flag", "Sync", "Umount /mnt/flash"}));
    EXPECT_EQ(InstallRecords(),
              std::vector<TInstallLine>{InstallAlways("Copied files to movinand", 169)});
    EXPECT_EQ(m_callback.Calls(), std::vector<std::string>{"Completed(0)"});
}

TEST_F(ArchiveLoaderTest, FailedPrepareKeepsValuesReadByAnEarlierPrepare) {
    CArchiveLoader loader(m_name, m_broker, m_properties, m_callback);
    ASSERT_TRUE(loader.Prepare());
    m_properties.Remove(kFeature, "bootloader");
    EXPECT_FALSE(loader.Prepare());
    loader.Install();
    // Nothing was cleared: the installation copies what the first Prepare read, and fails.
    EXPECT_EQ(m_files.Calls(), CompleteInstallationCalls());
    EXPECT_EQ(m_callback.Calls(), std::vector<std::string>{"Completed(0)"});
}

TEST_F(ArchiveLoaderTest, InstallWithoutPrepareFailsToMountTheEmptyDevice) {
    CArchiveLoader loader(m_name, m_broker, m_properties, m_callback);
    loader.Install();
    EXPECT_EQ(m_files.Calls(), (std::vector<std::string>{"Mount   2", "Sync"}));
    EXPECT_EQ(InstallRecords(),
              (std::vector<TInstallLine>{InstallError("Couldn't mount ", 74),
                                         InstallError("Unable to copy files to movinand", 190)}));
    EXPECT_EQ(m_callback.Calls(), std::vector<std::string>{"Completed(0)"});
}

TEST_F(ArchiveLoaderTest, MountPointEndingInASlashGivesDoubledSlashes) {
    m_properties.Set(kFeature, "mountpoint", "/mnt/flash/");
    CFakeFileHandler files;
    files.AddFile("/media/update/boot.bin", "b");
    files.AddFile("/media/update/firmware.bin", "f");
    files.AddFile("/media/update/daemon.conf", "d");
    files.AddFile("/media/update/product.conf", "p");
    files.AddFolder("/mnt/flash/");
    files.AddStorageFolder(kDevice, "update");
    CArchiveLoader loader(m_name, m_broker, m_properties, m_callback);
    ASSERT_TRUE(loader.Prepare());
    loader.Install();
    EXPECT_EQ(files.Calls(),
              (std::vector<std::string>{
                  "Mount /dev/movinand /mnt/flash/ 2", "FolderExists /mnt/flash//update",
                  "CopyFile /media/update/boot.bin /mnt/flash//update/boot.bin",
                  "CopyFile /media/update/firmware.bin /mnt/flash//update/firmware.bin",
                  "CopyFile /media/update/daemon.conf /mnt/flash//update/daemon.conf",
                  "CopyFile /media/update/product.conf /mnt/flash//update/product.conf",
                  "FOpen /mnt/flash//update.flag w", "FClose /mnt/flash//update.flag", "Sync",
                  "Umount /mnt/flash/"}));
    EXPECT_EQ(m_callback.Calls(), std::vector<std::string>{"Completed(1)"});
}

TEST_F(ArchiveLoaderTest, OnlyTheLastPathComponentOfASourceIsKept) {
    m_properties.Set(kFeature, "bootloader", "/media/deep/er/boot.bin");
    m_files.AddFile("/media/deep/er/boot.bin", "deep");
    CArchiveLoader loader(m_name, m_broker, m_properties, m_callback);
    ASSERT_TRUE(loader.Prepare());
    loader.Install();
    EXPECT_EQ(m_files.Calls()[2], "CopyFile /media/deep/er/boot.bin /mnt/flash/update/boot.bin");
    EXPECT_EQ(m_files.StorageFileContent(kDevice, "update/boot.bin"), "deep");
    EXPECT_EQ(m_callback.Calls(), std::vector<std::string>{"Completed(1)"});
}

// A source path without "/" leaves Install with the string library's out-of-range error after
// the folder step and before any copy: still mounted, nothing logged, no completion.
struct TSlashlessSource {
    const char* name;
    const char* key;
    const char* path;
};
void PrintTo(const TSlashlessSource& source, std::ostream* stream) { *stream << source.name; }

class ArchiveLoaderSlashlessSourceTest : public ArchiveLoaderTest,
                                         public ::testing::WithParamInterface<TSlashlessSource> {};

TEST_P(ArchiveLoaderSlashlessSourceTest, LeavesInstallWithOutOfRangeBeforeAnyCopy) {
    m_properties.Set(kFeature, GetParam().key, GetParam().path);
    CArchiveLoader loader(m_name, m_broker, m_properties, m_callback);
    ASSERT_TRUE(loader.Prepare());
    try {
        loader.Install();
        FAIL() << "Install returned";
    } catch (const std::out_of_range& error) {
        EXPECT_THAT(error.what(), StartsWith("basic_string::substr"));
    }
    EXPECT_EQ(m_files.Calls(), (std::vector<std::string>{"Mount /dev/movinand /mnt/flash 2",
                                                         "FolderExists /mnt/flash/update"}));
    EXPECT_TRUE(m_files.IsMounted(kMountPoint));
    EXPECT_THAT(m_log.Records(), IsEmpty());
    EXPECT_THAT(m_callback.Calls(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    Sources, ArchiveLoaderSlashlessSourceTest,
    ::testing::Values(TSlashlessSource{"Bootloader", "bootloader", "boot.bin"},
                      TSlashlessSource{"Firmware", "firmware", "firmware.bin"},
                      TSlashlessSource{"DaemonConfig", "daemonconfig", "daemon.conf"},
                      TSlashlessSource{"ProductConfig", "productconfig", "product.conf"},
                      TSlashlessSource{"EmptyBootloader", "bootloader", ""}),
    [](const ::testing::TestParamInfo<TSlashlessSource>& param) {
        return std::string(param.param.name);
    });

TEST_F(ArchiveLoaderTest, AbortBeforeInstallOnlyAnswersAborted) {
    CArchiveLoader loader(m_name, m_broker, m_properties, m_callback);
    loader.Abort();
    EXPECT_EQ(m_callback.Calls(), std::vector<std::string>{"Aborted()"});
    EXPECT_THAT(m_files.Calls(), IsEmpty());
    EXPECT_THAT(m_log.Records(), IsEmpty());
}

TEST_F(ArchiveLoaderTest, AbortAfterInstallAnswersAbortedOncePerAbortWithoutFileOperations) {
    CArchiveLoader loader(m_name, m_broker, m_properties, m_callback);
    ASSERT_TRUE(loader.Prepare());
    loader.Install();
    const auto callsAfterInstall = m_files.Calls();
    loader.Abort();
    loader.Abort();
    EXPECT_EQ(m_callback.Calls(),
              (std::vector<std::string>{"Completed(1)", "Aborted()", "Aborted()"}));
    EXPECT_EQ(m_files.Calls(), callsAfterInstall);
}

}  // namespace
