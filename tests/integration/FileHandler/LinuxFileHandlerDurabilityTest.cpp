// What makes the Linux file handler's writes survive a power cut, as far as a process can see it:
// which fsync, syncfs and rename calls each operation makes and in which order, that a stream
// opened with "w" replaces its file only when it is closed, and that each of those calls failing
// fails the operation without leaving a partial file behind. (Whether the storage really holds
// the writes after a cut is shown on a kernel whose power is cut, not here.)

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "DurableFiles.h"
#include "InstalledBackend.h"
#include "LinuxFileHandler.h"
#include "LogCapture.h"
#include "Prerequisite.h"
#include "StorageImage.h"
#include "SyncCallLog.h"
#include "TemporaryDirectory.h"
#include "TestFiles.h"

namespace {

using TCalls = std::vector<std::string>;

const unsigned char* Bytes(const std::string& text) {
    return reinterpret_cast<const unsigned char*>(text.c_str());
}

std::vector<std::string> FolderNames(const std::string& folder) {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
        names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
}

// Writes `content` through a stream of the file service, as the feature writes its revision.
int WriteThroughStream(const std::string& path, const char* mode, const std::string& content) {
    FILE* file = IFileHandler::FOpen(Bytes(path), mode);
    if (file == nullptr) {
        return -2;
    }
    if (IFileHandler::FWrite(content.data(), 1, content.size(), file) != content.size()) {
        IFileHandler::FClose(file);
        return -3;
    }
    return IFileHandler::FClose(file);
}

class LinuxFileHandlerDurabilityTest : public ::testing::Test {
protected:
    std::string Path(const std::string& name) const { return m_directory.Join(name); }

    CTemporaryDirectory m_directory;
    CLinuxFileHandler m_handler{{{2, "ext4"}}};
    CInstalledFileHandler m_installation{&m_handler};
};

TEST_F(LinuxFileHandlerDurabilityTest, CopyFileSyncsTheCopyAndThenItsFolder) {
    const std::string source = WriteTestFile(m_directory, "boot.bin", std::string(70000, 'b'));
    ASSERT_EQ(mkdir(Path("update").c_str(), 0755), 0);
    CSyncCallLog log;
    EXPECT_EQ(IFileHandler::CopyFile(Bytes(source), Bytes(Path("update/boot.bin"))), 0);
    EXPECT_EQ(log.Calls(), (TCalls{"fsync " + Path("update/boot.bin"), "fsync " + Path("update")}));
    EXPECT_EQ(ReadTestFile(Path("update/boot.bin")), std::string(70000, 'b'));
}

TEST_F(LinuxFileHandlerDurabilityTest, WriteStreamReplacesTheFileAtCloseThroughASyncedRename) {
    const std::string revision = WriteTestFile(m_directory, "revision", "R11");
    ASSERT_EQ(chmod(revision.c_str(), 0640), 0);
    CSyncCallLog log;
    FILE* file = IFileHandler::FOpen(Bytes(revision), "w");
    ASSERT_NE(file, nullptr) << m_handler.LastError();
    EXPECT_EQ(IFileHandler::FWrite("R12", 1, 4, file), 4u);
    // Until the close the path keeps its old content: a cut here leaves the old revision.
    EXPECT_EQ(ReadTestFile(revision), "R11");
    EXPECT_EQ(FolderNames(m_directory.Path()), (TCalls{".revision.partial", "revision"}));
    EXPECT_EQ(IFileHandler::FClose(file), 0) << m_handler.LastError();
    EXPECT_EQ(log.Calls(), (TCalls{"fsync " + Path(".revision.partial"),
                                   "rename " + Path(".revision.partial") + " " + revision,
                                   "fsync " + m_directory.Path()}));
    EXPECT_EQ(ReadTestFile(revision), std::string("R12", 4));
    EXPECT_EQ(FolderNames(m_directory.Path()), TCalls{"revision"});
    struct stat status;
    ASSERT_EQ(stat(revision.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0640u);
}

TEST_F(LinuxFileHandlerDurabilityTest, FlagFileOpenedAndClosedAtOnceExistsEmptyAndDurable) {
    CSyncCallLog log;
    FILE* file = IFileHandler::FOpen(Bytes(Path("flag")), "w");
    ASSERT_NE(file, nullptr) << m_handler.LastError();
    EXPECT_EQ(IFileHandler::FClose(file), 0) << m_handler.LastError();
    EXPECT_EQ(log.Calls(), (TCalls{"fsync " + Path(".flag.partial"),
                                   "rename " + Path(".flag.partial") + " " + Path("flag"),
                                   "fsync " + m_directory.Path()}));
    EXPECT_EQ(FolderNames(m_directory.Path()), TCalls{"flag"});
    EXPECT_EQ(ReadTestFile(Path("flag")), "");
}

TEST_F(LinuxFileHandlerDurabilityTest, NewFileGetsThePermissionsFopenGivesIt) {
    ASSERT_EQ(WriteThroughStream(Path("revision"), "w", "R12"), 0);
    const mode_t mask = umask(0);
    umask(mask);
    struct stat status;
    ASSERT_EQ(stat(Path("revision").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0666u & ~mask);
}

TEST_F(LinuxFileHandlerDurabilityTest, PartialFileLeftByACutIsReplacedByTheNextWrite) {
    WriteTestFile(m_directory, ".revision.partial", "");
    ASSERT_EQ(WriteThroughStream(Path("revision"), "w", "R13"), 0) << m_handler.LastError();
    EXPECT_EQ(ReadTestFile(Path("revision")), "R13");
    EXPECT_EQ(FolderNames(m_directory.Path()), TCalls{"revision"});
}

TEST_F(LinuxFileHandlerDurabilityTest, WritePlusStreamReadsBackWhatItWrote) {
    FILE* file = IFileHandler::FOpen(Bytes(Path("revision")), "w+");
    ASSERT_NE(file, nullptr) << m_handler.LastError();
    EXPECT_EQ(IFileHandler::FWrite("R14", 1, 3, file), 3u);
    rewind(file);
    char read[4] = {};
    EXPECT_EQ(IFileHandler::FRead(read, 1, 3, file), 3u);
    EXPECT_STREQ(read, "R14");
    EXPECT_EQ(IFileHandler::FClose(file), 0);
    EXPECT_EQ(ReadTestFile(Path("revision")), "R14");
}

TEST_F(LinuxFileHandlerDurabilityTest, AppendStreamSyncsTheFileAndTheFolderOnlyWhenItMadeTheFile) {
    CSyncCallLog log;
    ASSERT_EQ(WriteThroughStream(Path("trace"), "a", "one\n"), 0) << m_handler.LastError();
    EXPECT_EQ(log.Calls(), (TCalls{"fsync " + Path("trace"), "fsync " + m_directory.Path()}));
    ASSERT_EQ(WriteThroughStream(Path("trace"), "a", "two\n"), 0) << m_handler.LastError();
    EXPECT_EQ(log.Calls(), (TCalls{"fsync " + Path("trace"), "fsync " + m_directory.Path(),
                                   "fsync " + Path("trace")}));
    EXPECT_EQ(ReadTestFile(Path("trace")), "one\ntwo\n");
}

TEST_F(LinuxFileHandlerDurabilityTest, ReadStreamSyncsNothing) {
    WriteTestFile(m_directory, "revision", "R11");
    CSyncCallLog log;
    FILE* file = IFileHandler::FOpen(Bytes(Path("revision")), "r");
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(IFileHandler::FClose(file), 0);
    EXPECT_EQ(log.Calls(), TCalls{});
}

TEST_F(LinuxFileHandlerDurabilityTest, WriteStreamOnAFolderFailsAsFopenDoes) {
    ASSERT_EQ(mkdir(Path("revision").c_str(), 0755), 0);
    EXPECT_EQ(IFileHandler::FOpen(Bytes(Path("revision")), "w"), nullptr);
    EXPECT_EQ(m_handler.LastError(),
              "opening " + Path("revision") + " with mode w: Is a directory");
    EXPECT_EQ(FolderNames(m_directory.Path()), TCalls{"revision"});
}

TEST_F(LinuxFileHandlerDurabilityTest, WriteStreamInAMissingFolderIsNull) {
    EXPECT_EQ(IFileHandler::FOpen(Bytes(Path("absent/revision")), "w"), nullptr);
    EXPECT_EQ(m_handler.LastError(),
              "opening " + Path("absent/revision") + " with mode w: No such file or directory");
}

TEST_F(LinuxFileHandlerDurabilityTest, ExclusiveWriteStreamRefusesAnExistingFile) {
    WriteTestFile(m_directory, "revision", "R11");
    EXPECT_EQ(IFileHandler::FOpen(Bytes(Path("revision")), "wx"), nullptr);
    EXPECT_EQ(m_handler.LastError(), "opening " + Path("revision") + " with mode wx: File exists");
    EXPECT_EQ(ReadTestFile(Path("revision")), "R11");
}

TEST_F(LinuxFileHandlerDurabilityTest, MakeFolderAndRemoveFileSyncTheFolderThatHoldsTheEntry) {
    const std::string file = WriteTestFile(m_directory, "boot.bin", "b");
    CSyncCallLog log;
    EXPECT_EQ(IFileHandler::MakeFolder(Bytes(Path("update"))), 0);
    EXPECT_EQ(IFileHandler::MakeFolder(Bytes(Path("update/"))), 0);
    EXPECT_EQ(IFileHandler::RemoveFile(Bytes(file)), IFileHandler::kRemoved);
    EXPECT_EQ(log.Calls(), (TCalls{"fsync " + m_directory.Path(), "fsync " + m_directory.Path(),
                                   "fsync " + m_directory.Path()}));
}

TEST_F(LinuxFileHandlerDurabilityTest, SyncWithoutMountedStorageSyncsNothing) {
    CSyncCallLog log;
    EXPECT_EQ(IFileHandler::Sync(), 0);
    EXPECT_EQ(log.Calls(), TCalls{});
}

TEST(DurableFilesTest, FolderOfAndLastPathPartOfEachShapeOfPath) {
    EXPECT_EQ(FolderOf("/mnt/flash/update/boot.bin"), "/mnt/flash/update");
    EXPECT_EQ(FolderOf("/mnt/flash/update/"), "/mnt/flash");
    EXPECT_EQ(FolderOf("/mnt//update"), "/mnt");
    EXPECT_EQ(FolderOf("/revision"), "/");
    EXPECT_EQ(FolderOf("revision"), ".");
    EXPECT_EQ(FolderOf("/"), "/");
    EXPECT_EQ(LastPathPart("/mnt/flash/update/boot.bin"), "boot.bin");
    EXPECT_EQ(LastPathPart("/mnt/flash/update/"), "update");
    EXPECT_EQ(LastPathPart("revision"), "revision");
}

TEST(DurableFilesTest, APipeHasNothingToSync) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const CStatus synced = SyncDescriptor(ends[1], "a pipe");
    EXPECT_TRUE(synced) << synced.Message();
    close(ends[0]);
    close(ends[1]);
}

TEST(DurableFilesTest, AMissingFolderCannotBeSynced) {
    CTemporaryDirectory directory;
    const CStatus synced = SyncFolder(directory.Join("absent"));
    EXPECT_EQ(synced.Message(), "opening folder " + directory.Join("absent") +
                                    " to sync it: No such file or directory");
}

// Sync on a mounted storage: that storage written back, and its write-back error reported.
class LinuxFileHandlerStorageSyncTest : public LinuxFileHandlerDurabilityTest {
protected:
    void SetUp() override {
        const std::string missing = CStorageImage::MissingPrerequisite();
        if (!missing.empty()) {
            MODEMLOADER_MISSING_PREREQUISITE(missing);
        }
        ASSERT_TRUE(m_storage.Made()) << m_storage.Made().Message();
        ASSERT_EQ(IFileHandler::Mount(Bytes(m_storage.Image()), Bytes(m_storage.MountPoint()),
                                      IFileHandler::eFormatMovinand),
                  0)
            << m_handler.LastError();
    }
    void TearDown() override {
        if (m_storage.IsMounted()) {
            EXPECT_EQ(IFileHandler::Umount(Bytes(m_storage.MountPoint())), 0);
        }
        EXPECT_TRUE(m_storage.AwaitNoLoopDevice());
    }

    CStorageImage m_storage{4 * 1024 * 1024};
};

TEST_F(LinuxFileHandlerStorageSyncTest, SyncWritesBackTheMountedStorageOnly) {
    CSyncCallLog log;
    EXPECT_EQ(IFileHandler::Sync(), 0) << m_handler.LastError();
    EXPECT_EQ(log.Calls(), TCalls{"syncfs " + m_storage.MountPoint()});
}

TEST_F(LinuxFileHandlerStorageSyncTest, SyncReportsAWriteBackErrorOfTheStorage) {
    CLogCapture capture;
    CSyncCallLog log;
    log.Fail("syncfs " + m_storage.MountPoint(), EIO);
    EXPECT_EQ(IFileHandler::Sync(), -1);
    const std::string expected = "syncing the mounted storage: writing back " +
                                 m_storage.MountPoint() + ": Input/output error";
    EXPECT_EQ(m_handler.LastError(), expected);
    EXPECT_EQ(capture.Entries(),
              (std::vector<TLogEntry>{{logging::categories::Error, "Sync", expected + "\n"}}));
}

// One durability call failing with EIO (a write-back error of the storage): the operation fails
// with a message naming what it did, and no partial file stays.
struct TSyncFault {
    const char* name;
    const char* call;  // the service call named in the log record
    std::function<std::string(const CTemporaryDirectory&)> failingCall;
    std::function<int(const CTemporaryDirectory&)> operation;  // its result
    int expectedResult;
    std::function<std::string(const CTemporaryDirectory&)> expectedError;
    std::vector<std::string> namesLeft;  // in the folder afterwards
    const char* revisionLeft;            // content of "revision" afterwards
};

std::ostream& operator<<(std::ostream& stream, const TSyncFault& fault) {
    return stream << fault.name;
}

int CopyRevision(const CTemporaryDirectory& directory) {
    return IFileHandler::CopyFile(Bytes(directory.Join("source")), Bytes(directory.Join("copy")));
}

const std::string kIoError = ": Input/output error";

const TSyncFault kSyncFaults[] = {
    {"CopyFileSyncingTheCopy",
     "CopyFile",
     [](auto& d) { return "fsync " + d.Join("copy"); },
     CopyRevision,
     -1,
     [](auto& d) {
         return "copying " + d.Join("source") + " to " + d.Join("copy") + ": syncing " +
                d.Join("copy") + kIoError;
     },
     {"revision", "source"},
     "R11"},
    {"CopyFileSyncingTheFolder",
     "CopyFile",
     [](auto& d) { return "fsync " + d.Path(); },
     CopyRevision,
     -1,
     [](auto& d) {
         return "copying " + d.Join("source") + " to " + d.Join("copy") + ": syncing folder " +
                d.Path() + kIoError;
     },
     {"revision", "source"},
     "R11"},
    {"WriteStreamSyncingThePartialFile",
     "FClose",
     [](auto& d) { return "fsync " + d.Join(".revision.partial"); },
     [](auto& d) { return WriteThroughStream(d.Join("revision"), "w", "R12"); },
     EOF,
     [](auto& d) {
         return "closing " + d.Join("revision") + ": syncing " + d.Join("revision") + kIoError;
     },
     {"revision", "source"},
     "R11"},
    {"WriteStreamRenaming",
     "FClose",
     [](auto& d) { return "rename " + d.Join(".revision.partial") + " " + d.Join("revision"); },
     [](auto& d) { return WriteThroughStream(d.Join("revision"), "w", "R12"); },
     EOF,
     [](auto& d) {
         return "closing " + d.Join("revision") + ": renaming " + d.Join(".revision.partial") +
                " to " + d.Join("revision") + kIoError;
     },
     {"revision", "source"},
     "R11"},
    {"WriteStreamSyncingTheFolder",
     "FClose",
     [](auto& d) { return "fsync " + d.Path(); },
     [](auto& d) { return WriteThroughStream(d.Join("revision"), "w", "R12"); },
     EOF,
     [](auto& d) {
         return "closing " + d.Join("revision") + ": syncing folder " + d.Path() + kIoError;
     },
     {"revision", "source"},
     "R12"},
    {"AppendStreamSyncingTheFile",
     "FClose",
     [](auto& d) { return "fsync " + d.Join("revision"); },
     [](auto& d) { return WriteThroughStream(d.Join("revision"), "a", "+"); },
     EOF,
     [](auto& d) {
         return "closing " + d.Join("revision") + ": syncing " + d.Join("revision") + kIoError;
     },
     {"revision", "source"},
     "R11+"},
    {"MakeFolderSyncingTheParent",
     "MakeFolder",
     [](auto& d) { return "fsync " + d.Path(); },
     [](auto& d) { return IFileHandler::MakeFolder(Bytes(d.Join("update"))); },
     -1,
     [](auto& d) {
         return "making folder " + d.Join("update") + ": syncing folder " + d.Path() + kIoError;
     },
     {"revision", "source", "update"},
     "R11"},
    {"RemoveFileSyncingTheFolder",
     "RemoveFile",
     [](auto& d) { return "fsync " + d.Path(); },
     [](auto& d) { return IFileHandler::RemoveFile(Bytes(d.Join("source"))); },
     IFileHandler::kRemoveFailed,
     [](auto& d) {
         return "removing " + d.Join("source") + ": syncing folder " + d.Path() + kIoError;
     },
     {"revision"},
     "R11"},
};

class LinuxFileHandlerSyncFaultTest : public LinuxFileHandlerDurabilityTest,
                                      public ::testing::WithParamInterface<TSyncFault> {};

TEST_P(LinuxFileHandlerSyncFaultTest, FailsWithTheCallNamedAndLeavesNoPartialFile) {
    const TSyncFault& fault = GetParam();
    WriteTestFile(m_directory, "revision", "R11");
    WriteTestFile(m_directory, "source", "firmware");
    CSyncCallLog log;
    log.Fail(fault.failingCall(m_directory), EIO);
    CLogCapture capture;
    EXPECT_EQ(fault.operation(m_directory), fault.expectedResult);
    const std::string expectedError = fault.expectedError(m_directory);
    EXPECT_EQ(m_handler.LastError(), expectedError);
    EXPECT_EQ(
        capture.Entries(),
        (std::vector<TLogEntry>{{logging::categories::Error, fault.call, expectedError + "\n"}}));
    EXPECT_EQ(FolderNames(m_directory.Path()), fault.namesLeft);
    EXPECT_EQ(ReadTestFile(Path("revision")), fault.revisionLeft);
}

INSTANTIATE_TEST_SUITE_P(EachDurabilityCall, LinuxFileHandlerSyncFaultTest,
                         ::testing::ValuesIn(kSyncFaults),
                         [](const auto& testCase) { return std::string(testCase.param.name); });

}  // namespace
