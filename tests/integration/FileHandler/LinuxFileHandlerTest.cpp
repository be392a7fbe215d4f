// The Linux file handler on the real file system: result codes, copies, and ext4 storage images
// mounted through loop devices that never outlive their mount.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <random>
#include <sstream>

#include "ChildProcess.h"
#include "Descriptors.h"
#include "InstalledBackend.h"
#include "LinuxFileHandler.h"
#include "LoopDevice.h"
#include "MountTable.h"
#include "Prerequisite.h"
#include "PseudoRandomBytes.h"
#include "StorageImage.h"
#include "TemporaryDirectory.h"
#include "TestFiles.h"

namespace {

const unsigned char* Bytes(const std::string& text) {
    return reinterpret_cast<const unsigned char*>(text.c_str());
}

bool Exists(const std::string& path) {
    struct stat status;
    return stat(path.c_str(), &status) == 0;
}

// The handler installed as the file service for the test's lifetime, as the host installs it.
class LinuxFileHandlerTest : public ::testing::Test {
protected:
    std::string Path(const std::string& name) const { return m_directory.Path() + "/" + name; }

    CTemporaryDirectory m_directory;
    CLinuxFileHandler m_handler{{{2, "ext4"}}};
    CInstalledFileHandler m_installation{&m_handler};
};

TEST_F(LinuxFileHandlerTest, FileExistsIsZeroForAFileOrFolderAndNonZeroForAMissingPath) {
    const std::string file = WriteTestFile(m_directory, "present", "x");
    EXPECT_EQ(IFileHandler::FileExists(Bytes(file)), 0);
    EXPECT_EQ(IFileHandler::FileExists(Bytes(m_directory.Path())), 0);
    EXPECT_NE(IFileHandler::FileExists(Bytes(Path("absent"))), 0);
    EXPECT_EQ(m_handler.LastError(),
              "looking for " + Path("absent") + ": No such file or directory");
}

TEST_F(LinuxFileHandlerTest, FolderExistsTellsFolderFileAndMissingApart) {
    const std::string file = WriteTestFile(m_directory, "file", "x");
    EXPECT_EQ(IFileHandler::FolderExists(Bytes(m_directory.Path())), IFileHandler::kFolderPresent);
    EXPECT_EQ(IFileHandler::FolderExists(Bytes(file)), IFileHandler::kNotAFolder);
    EXPECT_EQ(IFileHandler::FolderExists(Bytes(Path("absent"))), IFileHandler::kFolderMissing);
}

TEST_F(LinuxFileHandlerTest, MakeFolderMakesOneAndAcceptsAnExistingFolder) {
    EXPECT_EQ(IFileHandler::MakeFolder(Bytes(Path("update"))), 0);
    EXPECT_EQ(IFileHandler::FolderExists(Bytes(Path("update"))), IFileHandler::kFolderPresent);
    EXPECT_EQ(IFileHandler::MakeFolder(Bytes(Path("update"))), 0);
}

TEST_F(LinuxFileHandlerTest, MakeFolderFailsWithContextWhenTheParentIsMissingOrAFileIsInTheWay) {
    EXPECT_NE(IFileHandler::MakeFolder(Bytes(Path("absent/update"))), 0);
    EXPECT_EQ(m_handler.LastError(),
              "making folder " + Path("absent/update") + ": No such file or directory");
    const std::string file = WriteTestFile(m_directory, "update", "x");
    EXPECT_NE(IFileHandler::MakeFolder(Bytes(file)), 0);
    EXPECT_EQ(m_handler.LastError(), "making folder " + file + ": File exists");
}

TEST_F(LinuxFileHandlerTest, CopyFileCopiesEveryByteAndTheSourcePermissions) {
    const std::string content = PseudoRandomBytes(3 * 1024 * 1024 + 17, 1);
    const std::string source = WriteTestFile(m_directory, "firmware.bin", content);
    ASSERT_EQ(chmod(source.c_str(), 0640), 0);
    EXPECT_EQ(IFileHandler::CopyFile(Bytes(source), Bytes(Path("copy.bin"))), 0);
    EXPECT_EQ(ReadTestFile(Path("copy.bin")), content);
    struct stat status;
    ASSERT_EQ(stat(Path("copy.bin").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0640u);
}

TEST_F(LinuxFileHandlerTest, CopyFileReplacesALongerDestinationCompletely) {
    const std::string source = WriteTestFile(m_directory, "short", "new");
    const std::string destination = WriteTestFile(m_directory, "long", std::string(10000, 'o'));
    EXPECT_EQ(IFileHandler::CopyFile(Bytes(source), Bytes(destination)), 0);
    EXPECT_EQ(ReadTestFile(destination), "new");
}

TEST_F(LinuxFileHandlerTest, CopyFileOfAnEmptyFileMakesAnEmptyFile) {
    const std::string source = WriteTestFile(m_directory, "empty", "");
    EXPECT_EQ(IFileHandler::CopyFile(Bytes(source), Bytes(Path("copy"))), 0);
    ASSERT_TRUE(Exists(Path("copy")));
    EXPECT_EQ(ReadTestFile(Path("copy")), "");
}

TEST_F(LinuxFileHandlerTest, CopyFileReadsFilesThatReportNoSize) {
    // /proc files report a size of 0; the kernel's copy yields nothing for them. The copy from
    // that other file system replaces what the destination held.
    const std::string expected = ReadTestFile("/proc/version");
    ASSERT_FALSE(expected.empty());
    WriteTestFile(m_directory, "version", std::string(10000, 'o'));
    EXPECT_EQ(IFileHandler::CopyFile(Bytes(std::string("/proc/version")), Bytes(Path("version"))),
              0);
    EXPECT_EQ(ReadTestFile(Path("version")), expected);
}

TEST_F(LinuxFileHandlerTest, CopyFileFromAMissingSourceFailsAndCreatesNothing) {
    EXPECT_NE(IFileHandler::CopyFile(Bytes(Path("absent")), Bytes(Path("copy"))), 0);
    EXPECT_FALSE(Exists(Path("copy")));
    EXPECT_EQ(m_handler.LastError(), "copying " + Path("absent") + " to " + Path("copy") +
                                         ": opening " + Path("absent") +
                                         ": No such file or directory");
}

TEST_F(LinuxFileHandlerTest, CopyFileIntoAMissingFolderFails) {
    const std::string source = WriteTestFile(m_directory, "boot.bin", "b");
    EXPECT_NE(IFileHandler::CopyFile(Bytes(source), Bytes(Path("absent/boot.bin"))), 0);
    EXPECT_EQ(m_handler.LastError(), "copying " + source + " to " + Path("absent/boot.bin") +
                                         ": creating " + Path("absent/boot.bin") +
                                         ": No such file or directory");
}

TEST_F(LinuxFileHandlerTest, CopyFileOntoItselfFailsAndKeepsTheFile) {
    const std::string source = WriteTestFile(m_directory, "boot.bin", "keep me");
    EXPECT_NE(IFileHandler::CopyFile(Bytes(source), Bytes(source)), 0);
    EXPECT_EQ(ReadTestFile(source), "keep me");
}

TEST_F(LinuxFileHandlerTest, CopyFileOfAFolderFails) {
    EXPECT_NE(IFileHandler::CopyFile(Bytes(m_directory.Path()), Bytes(Path("copy"))), 0);
    EXPECT_FALSE(Exists(Path("copy")));
}

TEST_F(LinuxFileHandlerTest, RemoveFileCodesRemovedNoSuchFileAndStillThere) {
    const std::string file = WriteTestFile(m_directory, "flag", "");
    EXPECT_EQ(IFileHandler::RemoveFile(Bytes(file)), IFileHandler::kRemoved);
    EXPECT_FALSE(Exists(file));
    EXPECT_EQ(IFileHandler::RemoveFile(Bytes(file)), IFileHandler::kRemoveNoSuchFile);
    ASSERT_EQ(mkdir(Path("folder").c_str(), 0755), 0);
    EXPECT_EQ(IFileHandler::RemoveFile(Bytes(Path("folder"))), IFileHandler::kRemoveFailed);
    EXPECT_TRUE(Exists(Path("folder")));
}

TEST_F(LinuxFileHandlerTest, FileSizeInBytesOrNegative) {
    const std::string file = WriteTestFile(m_directory, "loader.bin", std::string(12345, 'l'));
    EXPECT_EQ(IFileHandler::FileSize(Bytes(file)), 12345);
    EXPECT_LT(IFileHandler::FileSize(Bytes(Path("absent"))), 0);
    EXPECT_EQ(m_handler.LastError(), "measuring " + Path("absent") + ": No such file or directory");
}

TEST_F(LinuxFileHandlerTest, StreamsWriteReadAndReadLinesAsStdio) {
    FILE* out = IFileHandler::FOpen(Bytes(Path("revision")), "w");
    ASSERT_NE(out, nullptr);
    EXPECT_EQ(IFileHandler::FWrite("R12\nrest", 1, 8, out), 8u);
    EXPECT_EQ(IFileHandler::FClose(out), 0);

    FILE* in = IFileHandler::FOpen(Bytes(Path("revision")), "r");
    ASSERT_NE(in, nullptr);
    char line[16] = {};
    ASSERT_NE(IFileHandler::FGets(line, sizeof line, in), nullptr);
    EXPECT_STREQ(line, "R12\n");
    char rest[16] = {};
    EXPECT_EQ(IFileHandler::FRead(rest, 1, sizeof rest, in), 4u);
    EXPECT_EQ(std::string(rest), "rest");
    EXPECT_EQ(IFileHandler::FGets(line, sizeof line, in), nullptr);
    EXPECT_EQ(IFileHandler::FClose(in), 0);
}

// A command another thread forks while a stream is open must not inherit its descriptor: on a
// mounted storage the child would keep the mount busy until it exits, failing the next unmount.
TEST_F(LinuxFileHandlerTest, StreamsOfEveryModeAreClosedOnExec) {
    for (const char* mode : {"r", "r+", "rb", "a", "a+", "w", "w+", "wb"}) {
        SCOPED_TRACE(mode);
        ASSERT_TRUE(m_directory.WriteFile("revision", "R12\n"));
        FILE* stream = IFileHandler::FOpen(Bytes(Path("revision")), mode);
        ASSERT_NE(stream, nullptr);
        const int flags = fcntl(fileno(stream), F_GETFD);
        EXPECT_EQ(IFileHandler::FClose(stream), 0);
        ASSERT_GE(flags, 0);
        EXPECT_NE(flags & FD_CLOEXEC, 0);
    }
}

// A command started while a stream is open holds nothing in the stream's folder: only this
// process does, so a storage the command runs beside can still be unmounted once it closes.
TEST_F(LinuxFileHandlerTest, ACommandStartedWhileAStreamIsOpenHoldsNoneOfItsFiles) {
    ASSERT_TRUE(m_directory.WriteFile("revision", "R12\n"));
    FILE* stream = IFileHandler::FOpen(Bytes(Path("revision")), "r");
    ASSERT_NE(stream, nullptr);
    CChildProcess command;
    const CStatus started = command.Start({"sleep", "30"}, TStartOptions());
    const std::string holders = HoldersOf(m_directory.Path());
    const int descriptor = fileno(stream);
    EXPECT_EQ(IFileHandler::FClose(stream), 0);
    ASSERT_TRUE(started) << started.Message();
    command.Signal(SIGKILL);
    command.WaitToEnd();
    std::ifstream comm("/proc/self/comm");
    std::string name;
    std::getline(comm, name);
    EXPECT_EQ(holders, "pid " + std::to_string(getpid()) + " (" + name + "): fd " +
                           std::to_string(descriptor) + " -> " + Path("revision") + "\n");
    EXPECT_EQ(HoldersOf(m_directory.Path()), "");
}

TEST_F(LinuxFileHandlerTest, FOpenOfAMissingFileForReadingIsNull) {
    EXPECT_EQ(IFileHandler::FOpen(Bytes(Path("absent")), "r"), nullptr);
    EXPECT_EQ(m_handler.LastError(),
              "opening " + Path("absent") + " with mode r: No such file or directory");
}

TEST_F(LinuxFileHandlerTest, MountWithAFormatWithoutFileSystemTypeFails) {
    const std::string device = WriteTestFile(m_directory, "image", "");
    EXPECT_NE(IFileHandler::Mount(Bytes(device), Bytes(m_directory.Path()), IFileHandler::eFormat3),
              0);
    EXPECT_EQ(m_handler.LastError(), "mounting " + device + " on " + m_directory.Path() +
                                         ": no file-system type is configured for format 3");
    EXPECT_FALSE(IsMountPoint(m_directory.Path()));
}

TEST_F(LinuxFileHandlerTest, SyncSucceeds) { EXPECT_EQ(IFileHandler::Sync(), 0); }

// The same handler on real ext4 images: these need root and loop devices.
class LinuxFileHandlerStorageTest : public LinuxFileHandlerTest {
protected:
    void SetUp() override {
        const std::string missing = CStorageImage::MissingPrerequisite();
        if (!missing.empty()) {
            MODEMLOADER_MISSING_PREREQUISITE(missing);
        }
    }

    // After every test: nothing of the image stays mounted or attached.
    static void ExpectReleased(const CStorageImage& storage) {
        EXPECT_FALSE(storage.IsMounted()) << storage.MountPoint();
        EXPECT_TRUE(storage.AwaitNoLoopDevice())
            << "still attached: " << ::testing::PrintToString(storage.AttachedLoopDevices());
    }

    int MountStorage(const CStorageImage& storage) {
        return IFileHandler::Mount(Bytes(storage.Image()), Bytes(storage.MountPoint()),
                                   IFileHandler::eFormatMovinand);
    }
};

TEST_F(LinuxFileHandlerStorageTest, MountAttachesTheImageToOneLoopDeviceAndUmountDetachesIt) {
    CStorageImage storage(8 * 1024 * 1024);
    ASSERT_TRUE(storage.Made()) << storage.Made().Message();
    ASSERT_EQ(MountStorage(storage), 0) << m_handler.LastError();
    EXPECT_TRUE(storage.IsMounted());
    EXPECT_EQ(storage.AttachedLoopDevices().size(), 1u);

    const std::string content = PseudoRandomBytes(200000, 2);
    const std::string source = WriteTestFile(m_directory, "firmware.bin", content);
    EXPECT_EQ(IFileHandler::MakeFolder(Bytes(storage.MountPoint() + "/update")), 0);
    EXPECT_EQ(
        IFileHandler::CopyFile(Bytes(source), Bytes(storage.MountPoint() + "/update/firmware.bin")),
        0);
    EXPECT_EQ(IFileHandler::Sync(), 0);

    EXPECT_EQ(IFileHandler::Umount(Bytes(storage.MountPoint())), 0) << m_handler.LastError();
    ExpectReleased(storage);
    std::string onImage;
    ASSERT_TRUE(storage.ReadFromImage("update/firmware.bin", onImage));
    EXPECT_EQ(onImage, content);
}

TEST_F(LinuxFileHandlerStorageTest, UmountFindsTheMountByAnotherSpellingOfItsPath) {
    CStorageImage storage(4 * 1024 * 1024);
    ASSERT_TRUE(storage.Made()) << storage.Made().Message();
    ASSERT_EQ(MountStorage(storage), 0) << m_handler.LastError();
    EXPECT_EQ(IFileHandler::Umount(Bytes(storage.MountPoint() + "/")), 0);
    ExpectReleased(storage);
}

TEST_F(LinuxFileHandlerStorageTest, MountOfAMissingDeviceFailsWithContext) {
    CStorageImage storage(4 * 1024 * 1024);
    ASSERT_TRUE(storage.Made()) << storage.Made().Message();
    const std::string device = Path("absent.img");
    EXPECT_NE(IFileHandler::Mount(Bytes(device), Bytes(storage.MountPoint()),
                                  IFileHandler::eFormatMovinand),
              0);
    EXPECT_EQ(m_handler.LastError(), "mounting " + device + " on " + storage.MountPoint() +
                                         ": examining the device: No such file or directory");
    ExpectReleased(storage);
}

TEST_F(LinuxFileHandlerStorageTest, MountOfAnImageWithoutFileSystemFailsAndDetachesTheLoopDevice) {
    CStorageImage storage(4 * 1024 * 1024);
    ASSERT_TRUE(storage.Made()) << storage.Made().Message();
    {
        std::ofstream garbage(storage.Image(), std::ios::binary | std::ios::trunc);
        garbage << PseudoRandomBytes(4 * 1024 * 1024, 3);
    }
    EXPECT_NE(MountStorage(storage), 0);
    EXPECT_EQ(m_handler.LastError().rfind("mounting " + storage.Image() + " on " +
                                              storage.MountPoint() + ": mounting /dev/loop",
                                          0),
              0u)
        << m_handler.LastError();
    ExpectReleased(storage);
}

TEST_F(LinuxFileHandlerStorageTest, MountOnAMissingMountPointFailsAndDetachesTheLoopDevice) {
    CStorageImage storage(4 * 1024 * 1024);
    ASSERT_TRUE(storage.Made()) << storage.Made().Message();
    EXPECT_NE(IFileHandler::Mount(Bytes(storage.Image()), Bytes(Path("absent")),
                                  IFileHandler::eFormatMovinand),
              0);
    EXPECT_NE(m_handler.LastError().find("No such file or directory"), std::string::npos)
        << m_handler.LastError();
    ExpectReleased(storage);
}

TEST_F(LinuxFileHandlerStorageTest, SecondMountOnTheSameMountPointIsRefused) {
    CStorageImage storage(4 * 1024 * 1024);
    ASSERT_TRUE(storage.Made()) << storage.Made().Message();
    ASSERT_EQ(MountStorage(storage), 0) << m_handler.LastError();
    EXPECT_NE(MountStorage(storage), 0);
    EXPECT_EQ(m_handler.LastError(), "mounting " + storage.Image() + " on " + storage.MountPoint() +
                                         ": a storage is already mounted there");
    EXPECT_EQ(storage.AttachedLoopDevices().size(), 1u);
    EXPECT_EQ(IFileHandler::Umount(Bytes(storage.MountPoint())), 0);
    ExpectReleased(storage);
}

TEST_F(LinuxFileHandlerStorageTest, UmountOfAPathThatIsNotMountedFails) {
    EXPECT_NE(IFileHandler::Umount(Bytes(m_directory.Path())), 0);
    EXPECT_EQ(m_handler.LastError(),
              "unmounting " + m_directory.Path() + ": unmounting: Invalid argument");
}

TEST_F(LinuxFileHandlerStorageTest, CopyOntoAFullFileSystemFailsAndLeavesNoPartialFile) {
    CStorageImage storage(2 * 1024 * 1024);
    ASSERT_TRUE(storage.Made()) << storage.Made().Message();
    const std::string source =
        WriteTestFile(m_directory, "firmware.bin", PseudoRandomBytes(4 << 20, 4));
    const std::string destination = storage.MountPoint() + "/firmware.bin";
    ASSERT_EQ(MountStorage(storage), 0) << m_handler.LastError();
    EXPECT_NE(IFileHandler::CopyFile(Bytes(source), Bytes(destination)), 0);
    EXPECT_EQ(m_handler.LastError(), "copying " + source + " to " + destination + ": writing " +
                                         destination + ": No space left on device");
    EXPECT_FALSE(Exists(destination));
    // The space is free again: a small file still fits.
    const std::string small = WriteTestFile(m_directory, "daemon.conf", "daemon=1\n");
    EXPECT_EQ(IFileHandler::CopyFile(Bytes(small), Bytes(storage.MountPoint() + "/daemon.conf")),
              0);
    EXPECT_EQ(IFileHandler::Umount(Bytes(storage.MountPoint())), 0);
    ExpectReleased(storage);
    EXPECT_EQ(storage.ListImageFolder(""), (std::vector<std::string>{"daemon.conf", "lost+found"}));
}

TEST_F(LinuxFileHandlerStorageTest, ReadOnlyFileSystemMountsAndRefusesWrites) {
    CStorageImage storage(4 * 1024 * 1024);
    ASSERT_TRUE(storage.Made()) << storage.Made().Message();
    ASSERT_TRUE(storage.MakeReadOnlyFileSystem());
    const std::string source = WriteTestFile(m_directory, "boot.bin", "boot");
    ASSERT_EQ(MountStorage(storage), 0) << m_handler.LastError();
    EXPECT_NE(IFileHandler::MakeFolder(Bytes(storage.MountPoint() + "/update")), 0);
    EXPECT_EQ(m_handler.LastError(),
              "making folder " + storage.MountPoint() + "/update: Read-only file system");
    EXPECT_NE(IFileHandler::CopyFile(Bytes(source), Bytes(storage.MountPoint() + "/boot.bin")), 0);
    EXPECT_EQ(IFileHandler::FOpen(Bytes(storage.MountPoint() + "/flag"), "w"), nullptr);
    EXPECT_EQ(IFileHandler::Umount(Bytes(storage.MountPoint())), 0);
    ExpectReleased(storage);
}

TEST_F(LinuxFileHandlerStorageTest, StorageRemountedReadOnlyRefusesCopies) {
    CStorageImage storage(4 * 1024 * 1024);
    ASSERT_TRUE(storage.Made()) << storage.Made().Message();
    const std::string source = WriteTestFile(m_directory, "boot.bin", "boot");
    const std::string destination = storage.MountPoint() + "/boot.bin";
    ASSERT_EQ(MountStorage(storage), 0) << m_handler.LastError();
    ASSERT_EQ(
        mount(nullptr, storage.MountPoint().c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0)
        << std::strerror(errno);
    EXPECT_NE(IFileHandler::CopyFile(Bytes(source), Bytes(destination)), 0);
    EXPECT_EQ(m_handler.LastError(), "copying " + source + " to " + destination + ": creating " +
                                         destination + ": Read-only file system");
    EXPECT_EQ(IFileHandler::Umount(Bytes(storage.MountPoint())), 0);
    ExpectReleased(storage);
}

TEST_F(LinuxFileHandlerStorageTest, WriteProtectedImageIsMountedReadOnlyThroughAReadOnlyLoop) {
    CStorageImage storage(4 * 1024 * 1024);
    ASSERT_TRUE(storage.Made()) << storage.Made().Message();
    // An immutable image cannot be opened for writing, not even by root.
    if (CChildProcess::Run({"chattr", "+i", storage.Image()}).exitCode != 0) {
        MODEMLOADER_MISSING_PREREQUISITE("the temporary file system cannot mark files immutable");
    }
    struct CMutableAgain {
        const std::string& image;
        ~CMutableAgain() { CChildProcess::Run({"chattr", "-i", image}); }
    } mutableAgain{storage.Image()};

    ASSERT_EQ(MountStorage(storage), 0) << m_handler.LastError();
    const auto devices = storage.AttachedLoopDevices();
    ASSERT_EQ(devices.size(), 1u);
    std::ifstream readOnly("/sys/block/" + devices[0].substr(5) + "/ro");
    int flag = 0;
    readOnly >> flag;
    EXPECT_EQ(flag, 1);
    EXPECT_NE(IFileHandler::MakeFolder(Bytes(storage.MountPoint() + "/update")), 0);
    EXPECT_EQ(IFileHandler::Umount(Bytes(storage.MountPoint())), 0);
    ExpectReleased(storage);
}

TEST_F(LinuxFileHandlerStorageTest, BusyStorageIsNotUnmountedUntilItsLastFileCloses) {
    CStorageImage storage(4 * 1024 * 1024);
    ASSERT_TRUE(storage.Made()) << storage.Made().Message();
    ASSERT_EQ(MountStorage(storage), 0) << m_handler.LastError();
    FILE* open = IFileHandler::FOpen(Bytes(storage.MountPoint() + "/revision"), "w");
    ASSERT_NE(open, nullptr);
    EXPECT_NE(IFileHandler::Umount(Bytes(storage.MountPoint())), 0);
    EXPECT_EQ(m_handler.LastError(),
              "unmounting " + storage.MountPoint() + ": unmounting: Device or resource busy");
    EXPECT_TRUE(storage.IsMounted());
    EXPECT_EQ(storage.AttachedLoopDevices().size(), 1u);
    EXPECT_EQ(IFileHandler::FClose(open), 0);
    EXPECT_EQ(IFileHandler::Umount(Bytes(storage.MountPoint())), 0);
    ExpectReleased(storage);
}

TEST_F(LinuxFileHandlerStorageTest, BlockDeviceIsMountedAsItIsAndStaysAttachedAfterUmount) {
    CStorageImage storage(4 * 1024 * 1024);
    ASSERT_TRUE(storage.Made()) << storage.Made().Message();
    std::unique_ptr<CLoopDevice> ours;
    const CStatus attached = CLoopDevice::Attach(storage.Image(), ours);
    ASSERT_TRUE(attached) << attached.Message();
    ASSERT_EQ(IFileHandler::Mount(Bytes(ours->Path()), Bytes(storage.MountPoint()),
                                  IFileHandler::eFormatMovinand),
              0)
        << m_handler.LastError();
    EXPECT_EQ(storage.AttachedLoopDevices(), std::vector<std::string>{ours->Path()});
    EXPECT_EQ(IFileHandler::Umount(Bytes(storage.MountPoint())), 0);
    EXPECT_FALSE(storage.IsMounted());
    EXPECT_EQ(storage.AttachedLoopDevices(), std::vector<std::string>{ours->Path()})
        << "the handler detaches only what it attached";
    ours.reset();
    ExpectReleased(storage);
}

TEST_F(LinuxFileHandlerStorageTest, DestroyingTheHandlerUnmountsWhatItMounted) {
    CStorageImage storage(4 * 1024 * 1024);
    ASSERT_TRUE(storage.Made()) << storage.Made().Message();
    {
        CLinuxFileHandler handler({{2, "ext4"}});
        ASSERT_EQ(handler.Mount(Bytes(storage.Image()), Bytes(storage.MountPoint()),
                                IFileHandler::eFormatMovinand),
                  0)
            << handler.LastError();
        EXPECT_TRUE(storage.IsMounted());
    }
    ExpectReleased(storage);
}

TEST_F(LinuxFileHandlerStorageTest, LoopDeviceIsFreedWhenTheMountGoesEvenAfterTheProcessDied) {
    CStorageImage storage(4 * 1024 * 1024);
    ASSERT_TRUE(storage.Made()) << storage.Made().Message();
    CChildProcess child;
    // Mounts and dies without unmounting or running any destructor.
    const CStatus started = child.StartCopy([&storage] {
        CLinuxFileHandler* handler = new CLinuxFileHandler({{2, "ext4"}});
        return handler->Mount(Bytes(storage.Image()), Bytes(storage.MountPoint()),
                              IFileHandler::eFormatMovinand) == 0
                   ? 0
                   : 1;
    });
    ASSERT_TRUE(started) << started.Message();
    const TChildExit exit = child.WaitToEnd();
    ASSERT_EQ(exit.exitCode, 0);
    EXPECT_TRUE(storage.IsMounted());
    EXPECT_EQ(storage.AttachedLoopDevices().size(), 1u);

    // As the feature clears a mount left by an earlier run: unmounted by a handler that did not
    // mount it.
    EXPECT_EQ(IFileHandler::Umount(Bytes(storage.MountPoint())), 0) << m_handler.LastError();
    ExpectReleased(storage);
}

TEST_F(LinuxFileHandlerStorageTest, LoopDeviceOfAnUnmountedImageIsDetachedWithItsOwner) {
    CStorageImage storage(4 * 1024 * 1024);
    ASSERT_TRUE(storage.Made()) << storage.Made().Message();
    std::unique_ptr<CLoopDevice> loop;
    const CStatus attached = CLoopDevice::Attach(storage.Image(), loop);
    ASSERT_TRUE(attached) << attached.Message();
    EXPECT_FALSE(loop->IsReadOnly());
    EXPECT_EQ(storage.AttachedLoopDevices(), std::vector<std::string>{loop->Path()});
    loop.reset();
    EXPECT_TRUE(storage.AwaitNoLoopDevice());
}

TEST_F(LinuxFileHandlerStorageTest, LoopAttachOfAMissingImageFailsWithContext) {
    std::unique_ptr<CLoopDevice> loop;
    const CStatus attached = CLoopDevice::Attach(Path("absent.img"), loop);
    EXPECT_FALSE(attached);
    EXPECT_EQ(attached.Message(), "attaching " + Path("absent.img") +
                                      " to a loop device: opening the image: No such file or "
                                      "directory");
    EXPECT_EQ(loop, nullptr);
}

}  // namespace
