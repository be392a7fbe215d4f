// The harness's own pieces: temporary directories, Await, the boot protocol's bytes and the
// ext4 storage image that the tests, the demo and the benchmarks stand on, also beside another
// process's private mount namespace (and the release the update systems' isolations run in
// theirs).

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "Await.h"
#include "ChildProcess.h"
#include "Prerequisite.h"
#include "StorageImage.h"
#include "TemporaryDirectory.h"
#include "WireCommands.h"

namespace {

using namespace std::chrono_literals;

TEST(TemporaryDirectoryTest, IsMadeUnderItsPrefixAndRemovedWithItsContents) {
    std::string path;
    {
        CTemporaryDirectory directory("/tmp/modemloader-harness-");
        ASSERT_TRUE(directory.Made()) << directory.Made().Message();
        path = directory.Path();
        EXPECT_EQ(path.rfind("/tmp/modemloader-harness-", 0), 0u);
        EXPECT_EQ(path.size(), std::string("/tmp/modemloader-harness-").size() + 6);
        ASSERT_TRUE(directory.WriteFile("note.txt", "kept\n"));
        std::string content;
        ASSERT_TRUE(ReadWholeFile(directory.Join("note.txt"), content));
        EXPECT_EQ(content, "kept\n");
    }
    EXPECT_FALSE(std::filesystem::exists(path));
}

TEST(TemporaryDirectoryTest, OneThatCouldNotBeMadeSaysWhyAndWritesNothing) {
    CTemporaryDirectory directory("/nonexistent-modemloader-folder/x-");
    EXPECT_FALSE(directory.Made());
    EXPECT_EQ(directory.Made().Message(),
              "making a directory from /nonexistent-modemloader-folder/x-XXXXXX: No such file or "
              "directory");
    EXPECT_EQ(directory.Path(), "");
    const CStatus written = directory.WriteFile("note.txt", "x");
    EXPECT_FALSE(written);
    EXPECT_EQ(written.Message(), "writing note.txt: " + directory.Made().Message());
    EXPECT_FALSE(std::filesystem::exists("/note.txt"));
}

TEST(ReadWholeFileTest, AMissingFileFailsWithItsPath) {
    std::string content = "unchanged";
    const CStatus read = ReadWholeFile("/nonexistent-modemloader-file", content);
    EXPECT_EQ(read.Message(), "reading /nonexistent-modemloader-file: No such file or directory");
    EXPECT_EQ(content, "unchanged");
}

TEST(AwaitTest, ReturnsOnceTheConditionHolds) {
    int asked = 0;
    EXPECT_TRUE(Await([&] { return ++asked == 3; }, 10s));
    EXPECT_EQ(asked, 3);
}

TEST(AwaitTest, GivesUpWhenTheTimeOutHasPassed) {
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(Await([] { return false; }, 30ms));
    EXPECT_GE(std::chrono::steady_clock::now() - start, 30ms);
}

TEST(WireCommandsTest, RangeCommandsNameTheFlashBaseAndTheLengthLittleEndian) {
    EXPECT_EQ(wire::WriteRangeCommand(0x01020304),
              (wire::TBytes{0x04, 0x00, 0x00, 0x00, 0x90, 0x04, 0x03, 0x02, 0x01}));
    EXPECT_EQ(wire::EraseRangeCommand(64000),
              (wire::TBytes{0x09, 0x00, 0x00, 0x00, 0x90, 0x00, 0xFA, 0x00, 0x00}));
    EXPECT_EQ(wire::ReadRangeCommand(), (wire::TBytes{0x04, 0x00, 0x00, 0x00, 0x90, 0, 0, 0, 0}));
}

TEST(WireCommandsTest, TheLineIsSetTo115200BaudWithoutFlowControl) {
    EXPECT_EQ(wire::BaudrateCommand(), (wire::TBytes{0x07, 0x00, 0xC2, 0x01, 0x00}));
    EXPECT_EQ(wire::FlowControlCommand(), (wire::TBytes{0x05, 0x00}));
}

class StorageImageTest : public testing::Test {
protected:
    void SetUp() override {
        if (const std::string missing = CStorageImage::MissingPrerequisite(); !missing.empty()) {
            MODEMLOADER_MISSING_PREREQUISITE(missing);
        }
    }
};

TEST_F(StorageImageTest, HoldsTheContentFolderAndHasAnEmptyMountPoint) {
    CTemporaryDirectory folder;
    ASSERT_TRUE(folder.Made());
    ASSERT_EQ(::mkdir(folder.Join("content").c_str(), 0755), 0);
    ASSERT_TRUE(folder.WriteFile("content/revision", "100"));
    CStorageImage storage(folder.Path());
    const CStatus made = storage.Make(8 << 20, folder.Join("content"));
    ASSERT_TRUE(made) << made.Message();

    EXPECT_EQ(storage.Image(), folder.Join("movinand.img"));
    EXPECT_EQ(std::filesystem::file_size(storage.Image()), 8u << 20);
    EXPECT_TRUE(std::filesystem::is_empty(storage.MountPoint()));
    EXPECT_EQ(storage.ListImageFolder(""), (std::vector<std::string>{"lost+found", "revision"}));
    std::string revision;
    ASSERT_TRUE(storage.ReadFromImage("revision", revision));
    EXPECT_EQ(revision, "100");
    EXPECT_FALSE(storage.IsMounted());
    EXPECT_TRUE(storage.AttachedLoopDevices().empty());
}

TEST_F(StorageImageTest, AFileThatIsNotOnTheImageCannotBeRead) {
    CStorageImage storage(4u << 20);
    ASSERT_TRUE(storage.Made()) << storage.Made().Message();
    std::string content;
    const CStatus read = storage.ReadFromImage("revision", content);
    EXPECT_EQ(read.Message(), "no revision on " + storage.Image());
    const CStatus folder = storage.MakeFolderOnImage("update");
    ASSERT_TRUE(folder) << folder.Message();
    EXPECT_EQ(storage.ListImageFolder(""), (std::vector<std::string>{"lost+found", "update"}));
}

TEST_F(StorageImageTest, AFileIsRemovedFromTheImage) {
    CTemporaryDirectory folder;
    ASSERT_TRUE(folder.Made());
    ASSERT_EQ(::mkdir(folder.Join("content").c_str(), 0755), 0);
    ASSERT_TRUE(folder.WriteFile("content/filler", std::string(100000, 'f')));
    CStorageImage storage(folder.Path());
    ASSERT_TRUE(storage.Make(8 << 20, folder.Join("content")));

    const CStatus removed = storage.RemoveFromImage("filler");
    ASSERT_TRUE(removed) << removed.Message();
    EXPECT_EQ(storage.ListImageFolder(""), (std::vector<std::string>{"lost+found"}));
}

// The ext4 "read-only" feature, set and cleared: dumpe2fs lists it among the features.
TEST_F(StorageImageTest, TheReadOnlyFeatureIsSetAndClearedAgain) {
    CStorageImage storage(4u << 20);
    ASSERT_TRUE(storage.Made()) << storage.Made().Message();
    const auto features = [&] {
        const TChildResult dump = CChildProcess::Run({"dumpe2fs", "-h", storage.Image()});
        const std::size_t line = dump.out.find("Filesystem features:");
        return line == std::string::npos ? std::string()
                                         : dump.out.substr(line, dump.out.find('\n', line) - line);
    };
    ASSERT_FALSE(features().empty());
    EXPECT_EQ(features().find(" read-only"), std::string::npos) << features();
    ASSERT_TRUE(storage.MakeReadOnlyFileSystem());
    EXPECT_NE(features().find(" read-only"), std::string::npos) << features();
    const CStatus writable = storage.MakeWritableFileSystem();
    ASSERT_TRUE(writable) << writable.Message();
    EXPECT_EQ(features().find(" read-only"), std::string::npos) << features();
}

// Another process's private mount namespace, made while a storage is mounted here, as an update
// system's isolation in a test running beside this one makes it: the namespace holds a copy of
// the mount, and with it the file system, after the unmount here.
class ForeignNamespaceTest : public StorageImageTest {
protected:
    void SetUp() override {
        StorageImageTest::SetUp();
        if (IsSkipped() || HasFatalFailure()) {
            return;
        }
        if (!IsInPath("unshare")) {
            MODEMLOADER_MISSING_PREREQUISITE("unshare is not installed (util-linux)");
        }
        ASSERT_TRUE(m_folder.Made());
        ASSERT_EQ(::mkdir(m_folder.Join("content").c_str(), 0755), 0);
        ASSERT_TRUE(m_folder.WriteFile("content/revision", "123\n"));
        ASSERT_TRUE(m_storage.Make(8 << 20, m_folder.Join("content")));
        // An auto-clear loop device, as the file handler attaches.
        const TChildResult mounted =
            CChildProcess::Run({"mount", "-o", "loop", m_storage.Image(), m_storage.MountPoint()});
        ASSERT_EQ(mounted.exitCode, 0) << Describe(mounted);
        std::ofstream(m_storage.MountPoint() + "/revision", std::ios::trunc) << "124\n";
    }

    void TearDown() override {
        if (m_namespace.IsRunning()) {
            m_namespace.Signal(SIGKILL);
            m_namespace.WaitToEnd();
        }
    }

    // Runs the shell script `script` ($0: `argument`) in a private mount namespace and returns
    // once it has written its marker, that is once the namespace holds its copies.
    void StartNamespace(const std::string& script, const std::string& argument) {
        const std::string marker = m_folder.Join("namespace-ready");
        const CStatus started =
            m_namespace.Start({"unshare", "--mount", "--propagation", "private", "sh", "-c",
                               script + " && : >\"" + marker + "\" && exec sleep \"$1\"", argument,
                               std::to_string(NamespaceSeconds())});
        ASSERT_TRUE(started) << started.Message();
        ASSERT_TRUE(Await([&] { return std::filesystem::exists(marker); }, 10s))
            << "the namespace never got ready";
    }

    virtual int NamespaceSeconds() const { return 4; }

    // The namespace's script that keeps the copy of this test's storage only: the copies of
    // other tests' storages go at once, so that this namespace does not hold them.
    std::string KeepingOnlyThisStorage() const {
        return "{ awk -v keep=\"" + m_storage.MountPoint() +
               "\" '$1 ~ /^\\/dev\\/loop/ && $2 != keep { print $2 }' /proc/self/mounts | "
               "while read -r point; do umount -l \"$point\"; done; }";
    }

    void UnmountHere() {
        ASSERT_EQ(::umount2(m_storage.MountPoint().c_str(), 0), 0) << std::strerror(errno);
        ASSERT_FALSE(m_storage.IsMounted());
    }

    CTemporaryDirectory m_folder;
    CStorageImage m_storage{m_folder.Path()};
    CChildProcess m_namespace;
};

TEST_F(ForeignNamespaceTest, AnImageUnmountedHereIsReadOnceTheOtherNamespacesCopyHasGone) {
    StartNamespace(KeepingOnlyThisStorage(), "");
    UnmountHere();
    // What makes the case: the copy keeps the loop device, and the revision's new bytes are not
    // in the image yet.
    ASSERT_FALSE(m_storage.AttachedLoopDevices().empty());

    std::string revision;
    const CStatus read = m_storage.ReadFromImage("revision", revision);
    ASSERT_TRUE(read) << read.Message();
    EXPECT_EQ(revision, "124\n");
    EXPECT_TRUE(m_storage.AttachedLoopDevices().empty());
}

class LoopMountReleaseTest : public ForeignNamespaceTest {
protected:
    // Long enough that only the release can free the storage within the test.
    int NamespaceSeconds() const override { return 600; }
};

TEST_F(LoopMountReleaseTest, ANamespaceThatRunsItLetsGoOfOtherStoragesAtOnce) {
    StartNamespace("\"$0\"", MODEMLOADER_RELEASE_LOOP_MOUNTS);
    UnmountHere();
    EXPECT_TRUE(m_storage.AwaitNoLoopDevice(10s))
        << "still attached: " << ::testing::PrintToString(m_storage.AttachedLoopDevices());
    std::string revision;
    ASSERT_TRUE(m_storage.ReadFromImage("revision", revision));
    EXPECT_EQ(revision, "124\n");
    EXPECT_TRUE(m_namespace.IsRunning()) << "the namespace is still there, without the storage";
}

TEST_F(LoopMountReleaseTest, WithoutItTheNamespaceKeepsTheStorageAttached) {
    StartNamespace(KeepingOnlyThisStorage(), "");
    UnmountHere();
    EXPECT_FALSE(m_storage.AwaitNoLoopDevice(2s)) << "the kernel let go of the copy by itself";
}

}  // namespace
