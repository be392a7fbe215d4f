// Every way the storage fails under the Linux file handler, made for real where a test can make
// it (a damaged image, a busy mount, a full or read-only file system, a write-protected device)
// and through the C library only where it cannot (no free loop device, a bind refused, a source
// whose medium goes away mid-copy, a device node missing, a close whose write-back fails). Each
// ends in a failure code and one record of the Platform channel naming the call, the path and the
// errno text, with nothing left mounted or attached and no descriptor leaked. The calls the
// handler carries on from (one interrupted by a signal, an in-kernel copy the kernel cannot make)
// end in a whole copy and no record.

#include <gtest/gtest.h>
#include <linux/loop.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include "Await.h"
#include "Descriptors.h"
#include "InstalledBackend.h"
#include "LinuxFileHandler.h"
#include "LogCapture.h"
#include "LoopDevice.h"
#include "MountTable.h"
#include "Prerequisite.h"
#include "PseudoRandomBytes.h"
#include "StorageCallFault.h"
#include "StorageImage.h"
#include "TemporaryDirectory.h"
#include "TestFiles.h"

namespace {

constexpr std::size_t kImageBytes = 4 * 1024 * 1024;

const unsigned char* Bytes(const std::string& text) {
    return reinterpret_cast<const unsigned char*>(text.c_str());
}

// Escapes `text` for a regular expression, so that an expected message can hold a pattern
// (the loop device's number) between literal paths.
std::string Literal(const std::string& text) {
    static const std::regex special(R"([.^$|()\[\]{}*+?\\])");
    return std::regex_replace(text, special, R"(\$&)");
}

// A storage image and the handler that mounts it, for a test that makes it fail.
class LinuxFileHandlerStorageFaultTest : public ::testing::Test {
public:
    std::string Image() const { return m_storage.Image(); }
    std::string MountPoint() const { return m_storage.MountPoint(); }
    std::string OnStorage(const std::string& name) const { return MountPoint() + "/" + name; }
    std::string Source(const std::string& name) const { return m_sources.Join(name); }
    void WriteSource(const std::string& name, const std::string& content) {
        WriteTestFile(m_sources, name, content);
    }
    // The sources' "revision" holds `content`, and no partial file of it is left beside it.
    void ExpectOnlyTheRevision(const std::string& content) const {
        EXPECT_EQ(ReadTestFile(Source("revision")), content);
        EXPECT_NE(access(Source(".revision.partial").c_str(), F_OK), 0);
    }
    const std::string& ReadOnlyImagePath() const { return m_readOnlyImage; }
    std::string HandlerError() const { return m_handler.LastError(); }
    std::string OwnLoopDevice() const { return m_ownLoop != nullptr ? m_ownLoop->Path() : ""; }

    int MountStorage() {
        return IFileHandler::Mount(Bytes(Image()), Bytes(MountPoint()),
                                   IFileHandler::eFormatMovinand);
    }
    // Mounts the storage for a failure that meets it mounted; a failure of this is the test's.
    bool MountForTheFailure() {
        const int mounted = MountStorage();
        EXPECT_EQ(mounted, 0) << m_handler.LastError();
        m_capture.Clear();
        return mounted == 0;
    }
    void RemountReadOnly() {
        ASSERT_EQ(mount(nullptr, MountPoint().c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0)
            << std::strerror(errno);
    }
    // Overwrites the superblock's block and inode counts: its checksum no longer matches.
    void DamageSuperblock() {
        std::fstream image(Image(), std::ios::in | std::ios::out | std::ios::binary);
        image.seekp(1024);
        image.write("\xff\xff\xff\xff\xff\xff\xff\xff", 8);
    }
    // The image as it lies on a folder mounted read-only (a bind mount of it beside the
    // sources): readable, and refused with EROFS to every writer, the loop device included.
    std::string ReadOnlyImage() {
        const std::string image = Source("movinand.img");
        WriteSource("movinand.img", "");
        EXPECT_EQ(mount(Image().c_str(), image.c_str(), nullptr, MS_BIND, nullptr), 0)
            << std::strerror(errno);
        m_readOnlyImage = image;
        EXPECT_EQ(mount(nullptr, image.c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr),
                  0)
            << std::strerror(errno);
        return image;
    }
    // A write-protected block device holding the storage: the read-only image attached by the
    // test (read-only, since the image may not be written), for the handler to mount as it is.
    std::string WriteProtectedDevice() {
        const CStatus attached = CLoopDevice::Attach(ReadOnlyImage(), m_ownLoop);
        EXPECT_TRUE(attached) << attached.Message();
        EXPECT_TRUE(attached && m_ownLoop->IsReadOnly());
        return attached ? m_ownLoop->Path() : std::string();
    }
    // Writes a file on the mounted storage until no block is left for another one.
    void FillTheStorage() {
        std::FILE* filler = std::fopen(OnStorage("filler").c_str(), "w");
        ASSERT_NE(filler, nullptr) << std::strerror(errno);
        ::setvbuf(filler, nullptr, _IONBF, 0);
        const std::string block(64 * 1024, 'f');
        for (std::size_t size = block.size(); size > 0; size /= 4) {
            while (std::fwrite(block.data(), 1, size, filler) == size) {
            }
            std::clearerr(filler);
        }
        EXPECT_EQ(std::fclose(filler), 0);
    }

    CStorageCallFault m_fault;
    FILE* m_heldOpen = nullptr;  // a stream the failure keeps open until it is checked

protected:
    ~LinuxFileHandlerStorageFaultTest() override {
        if (!m_readOnlyImage.empty()) {
            umount2(m_readOnlyImage.c_str(), MNT_DETACH);
        }
    }

    void SetUp() override {
        const std::string missing = CStorageImage::MissingPrerequisite();
        if (!missing.empty()) {
            MODEMLOADER_MISSING_PREREQUISITE(missing);
        }
        ASSERT_TRUE(m_storage.Made()) << m_storage.Made().Message();
        m_descriptorsBefore = OpenDescriptors();
    }

    // What every failure leaves: nothing of the storage mounted or attached once the test has
    // unmounted what it mounted, and the descriptors open before.
    void ExpectNothingLeft() {
        if (m_heldOpen != nullptr) {
            EXPECT_EQ(IFileHandler::FClose(m_heldOpen), 0) << m_handler.LastError();
        }
        if (m_storage.IsMounted()) {
            EXPECT_EQ(IFileHandler::Umount(Bytes(MountPoint())), 0) << m_handler.LastError();
        }
        m_ownLoop.reset();
        EXPECT_FALSE(m_storage.IsMounted());
        EXPECT_TRUE(m_storage.AwaitNoLoopDevice())
            << "still attached: " << ::testing::PrintToString(m_storage.AttachedLoopDevices());
        if (!m_readOnlyImage.empty()) {
            EXPECT_TRUE(Await([this] { return LoopDevicesBackedBy(m_readOnlyImage).empty(); },
                              std::chrono::seconds(5)))
                << "still attached: "
                << ::testing::PrintToString(LoopDevicesBackedBy(m_readOnlyImage));
            EXPECT_EQ(umount2(m_readOnlyImage.c_str(), 0), 0) << std::strerror(errno);
            m_readOnlyImage.clear();
        }
        EXPECT_EQ(OpenDescriptors(), m_descriptorsBefore);
    }

    CTemporaryDirectory m_sources;
    CStorageImage m_storage{kImageBytes};
    CLinuxFileHandler m_handler{{{2, "ext4"}}};
    CInstalledFileHandler m_installation{&m_handler};
    CLogCapture m_capture;
    std::set<int> m_descriptorsBefore;
    std::string m_readOnlyImage;             // the bind mount ReadOnlyImage made
    std::unique_ptr<CLoopDevice> m_ownLoop;  // the device WriteProtectedDevice attached
};

using TTest = LinuxFileHandlerStorageFaultTest;

// One failure: what makes it and the call that meets it (its result), the call named in the
// record and the record's text as a regular expression.
struct TStorageFailure {
    const char* name;
    std::function<int(TTest&)> failingCall;
    int expectedResult;
    const char* call;
    std::function<std::string(const TTest&)> expectedText;
};

std::ostream& operator<<(std::ostream& stream, const TStorageFailure& failure) {
    return stream << failure.name;
}

class LinuxFileHandlerFailureTest : public LinuxFileHandlerStorageFaultTest,
                                    public ::testing::WithParamInterface<TStorageFailure> {};

TEST_P(LinuxFileHandlerFailureTest, FailsWithARecordNamingTheCallThePathAndTheCause) {
    const TStorageFailure& failure = GetParam();
    const int result = failure.failingCall(*this);
    if (HasFatalFailure()) {
        return;
    }
    EXPECT_EQ(result, failure.expectedResult);
    const std::vector<logging::TLogRecord> records = m_capture.Records();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].category, logging::categories::Error);
    EXPECT_EQ(records[0].channel, logging::Platform);
    EXPECT_EQ(records[0].function, failure.call);
    const std::string expected = failure.expectedText(*this);
    EXPECT_TRUE(std::regex_match(records[0].text, std::regex(expected + "\n")))
        << records[0].text << "does not match\n"
        << expected;
    EXPECT_EQ(records[0].text, m_handler.LastError() + "\n");
    ExpectNothingLeft();
}

std::string MountingFailure(const TTest& test, const std::string& cause,
                            const std::string& device = "") {
    return Literal("mounting " + (device.empty() ? test.Image() : device) + " on " +
                   test.MountPoint() + ": ") +
           cause;
}

std::string AttachingFailure(const TTest& test, const std::string& cause) {
    return MountingFailure(test,
                           Literal("attaching " + test.Image() + " to a loop device: ") + cause);
}

const TStorageFailure kStorageFailures[] = {
    {"NoFreeLoopDevice",
     [](TTest& test) {
         test.m_fault.FailIoctl(LOOP_CTL_GET_FREE, ENODEV);
         return test.MountStorage();
     },
     -1, "Mount",
     [](const TTest& test) {
         return AttachingFailure(test, "asking for a free device: No such device");
     }},
    {"LoopDeviceRefusesTheImage",
     [](TTest& test) {
         test.m_fault.FailIoctl(LOOP_CONFIGURE, EIO);
         return test.MountStorage();
     },
     -1, "Mount",
     [](const TTest& test) {
         return AttachingFailure(test, R"(binding /dev/loop\d+: Input/output error)");
     }},
    {"EveryFreeLoopDeviceTakenByAnotherProcess",
     [](TTest& test) {
         test.m_fault.FailIoctl(LOOP_CONFIGURE, EBUSY);
         return test.MountStorage();
     },
     -1, "Mount",
     [](const TTest& test) {
         return AttachingFailure(
             test, "every free device was taken by another process: Device or resource busy");
     }},
    {"KernelWithoutOneStepBindRefusesTheImage",
     [](TTest& test) {
         test.m_fault.FailIoctl(LOOP_CONFIGURE, EINVAL);
         test.m_fault.FailIoctl(LOOP_SET_FD, EIO);
         return test.MountStorage();
     },
     -1, "Mount",
     [](const TTest& test) {
         return AttachingFailure(test, R"(binding /dev/loop\d+: Input/output error)");
     }},
    {"KernelWithoutOneStepBindRefusesTheFlags",
     [](TTest& test) {
         test.m_fault.FailIoctl(LOOP_CONFIGURE, EINVAL);
         test.m_fault.FailIoctl(LOOP_SET_STATUS64, EIO);
         return test.MountStorage();
     },
     -1, "Mount",
     [](const TTest& test) {
         return AttachingFailure(test, R"(binding /dev/loop\d+: Input/output error)");
     }},
    {"ImageThatMayNotBeOpened",
     [](TTest& test) {
         test.m_fault.Fail("open", Literal(test.Image()), EACCES);
         return test.MountStorage();
     },
     -1, "Mount",
     [](const TTest& test) {
         return AttachingFailure(test, "opening the image: Permission denied");
     }},
    {"NoLoopControlDevice",
     [](TTest& test) {
         test.m_fault.Fail("open", "/dev/loop-control", ENOENT);
         return test.MountStorage();
     },
     -1, "Mount",
     [](const TTest& test) {
         return AttachingFailure(test, "opening /dev/loop-control: No such file or directory");
     }},
    {"NoNodeForTheFreeLoopDevice",
     [](TTest& test) {
         test.m_fault.Fail("open", R"(/dev/loop\d+)", ENOENT);
         return test.MountStorage();
     },
     -1, "Mount",
     [](const TTest& test) {
         return AttachingFailure(test, R"(opening /dev/loop\d+: No such file or directory)");
     }},
    {"DamagedImage",
     [](TTest& test) {
         test.DamageSuperblock();
         return test.MountStorage();
     },
     -1, "Mount",
     [](const TTest& test) {
         return MountingFailure(test, R"(mounting /dev/loop\d+ as ext4: Bad message)");
     }},
    {"DamagedImageOnAReadOnlyMount",
     [](TTest& test) {
         test.DamageSuperblock();
         return IFileHandler::Mount(Bytes(test.ReadOnlyImage()), Bytes(test.MountPoint()),
                                    IFileHandler::eFormatMovinand);
     },
     -1, "Mount",
     [](const TTest& test) {
         return MountingFailure(test, R"(mounting /dev/loop\d+ as ext4: Bad message)",
                                test.Source("movinand.img"));
     }},
    {"DamagedFileSystemOnAWriteProtectedDevice",
     [](TTest& test) {
         // Refused read-write for the protection, then read-only for the damage.
         test.DamageSuperblock();
         return IFileHandler::Mount(Bytes(test.WriteProtectedDevice()), Bytes(test.MountPoint()),
                                    IFileHandler::eFormatMovinand);
     },
     -1, "Mount",
     [](const TTest& test) {
         const std::string device = test.OwnLoopDevice();
         return MountingFailure(
             test, Literal("mounting " + device + " read-only as ext4: Bad message"), device);
     }},
    {"UnmountWhileBusy",
     [](TTest& test) {
         if (!test.MountForTheFailure()) {
             return 0;
         }
         test.m_heldOpen = IFileHandler::FOpen(Bytes(test.OnStorage("revision")), "w");
         EXPECT_NE(test.m_heldOpen, nullptr);
         return IFileHandler::Umount(Bytes(test.MountPoint()));
     },
     -1, "Umount",
     [](const TTest& test) {
         return Literal("unmounting " + test.MountPoint() +
                        ": unmounting: Device or resource busy");
     }},
    {"CopyFillsTheFileSystem",
     [](TTest& test) {
         test.WriteSource("firmware.bin", PseudoRandomBytes(kImageBytes + 4096, 5));
         if (!test.MountForTheFailure()) {
             return 0;
         }
         return IFileHandler::CopyFile(Bytes(test.Source("firmware.bin")),
                                       Bytes(test.OnStorage("firmware.bin")));
     },
     -1, "CopyFile",
     [](const TTest& test) {
         return Literal("copying " + test.Source("firmware.bin") + " to " +
                        test.OnStorage("firmware.bin") + ": writing " +
                        test.OnStorage("firmware.bin") + ": No space left on device");
     }},
    {"InKernelCopyWithinAFullStorage",
     [](TTest& test) {
         // Both files on the storage: the kernel copies, and finds no room from its first call.
         test.WriteSource("firmware.bin", PseudoRandomBytes(64 * 1024, 9));
         if (!test.MountForTheFailure()) {
             return 0;
         }
         EXPECT_EQ(IFileHandler::CopyFile(Bytes(test.Source("firmware.bin")),
                                          Bytes(test.OnStorage("firmware.bin"))),
                   0);
         test.FillTheStorage();
         const int result = IFileHandler::CopyFile(Bytes(test.OnStorage("firmware.bin")),
                                                   Bytes(test.OnStorage("copy.bin")));
         EXPECT_NE(access(test.OnStorage("copy.bin").c_str(), F_OK), 0);
         return result;
     },
     -1, "CopyFile",
     [](const TTest& test) {
         return Literal("copying " + test.OnStorage("firmware.bin") + " to " +
                        test.OnStorage("copy.bin") + ": writing " + test.OnStorage("copy.bin") +
                        ": No space left on device");
     }},
    {"CopyOntoAReadOnlyMount",
     [](TTest& test) {
         test.WriteSource("boot.bin", "boot");
         if (!test.MountForTheFailure()) {
             return 0;
         }
         test.RemountReadOnly();
         return IFileHandler::CopyFile(Bytes(test.Source("boot.bin")),
                                       Bytes(test.OnStorage("boot.bin")));
     },
     -1, "CopyFile",
     [](const TTest& test) {
         return Literal("copying " + test.Source("boot.bin") + " to " + test.OnStorage("boot.bin") +
                        ": creating " + test.OnStorage("boot.bin") + ": Read-only file system");
     }},
    {"RevisionOnAReadOnlyMount",
     [](TTest& test) {
         if (!test.MountForTheFailure()) {
             return 0;
         }
         test.RemountReadOnly();
         return IFileHandler::FOpen(Bytes(test.OnStorage("revision")), "w") == nullptr ? -1 : 0;
     },
     -1, "FOpen",
     [](const TTest& test) {
         return Literal("opening " + test.OnStorage("revision") +
                        " with mode w: Read-only file system");
     }},
    {"FolderOnAReadOnlyMount",
     [](TTest& test) {
         if (!test.MountForTheFailure()) {
             return 0;
         }
         test.RemountReadOnly();
         return IFileHandler::MakeFolder(Bytes(test.OnStorage("update")));
     },
     -1, "MakeFolder",
     [](const TTest& test) {
         return Literal("making folder " + test.OnStorage("update") + ": Read-only file system");
     }},
    {"RemovalFromAReadOnlyMount",
     [](TTest& test) {
         if (!test.MountForTheFailure()) {
             return 0;
         }
         test.WriteSource("flag", "");
         EXPECT_EQ(IFileHandler::CopyFile(Bytes(test.Source("flag")),
                                          Bytes(test.OnStorage("update.flag"))),
                   0);
         test.RemountReadOnly();
         return IFileHandler::RemoveFile(Bytes(test.OnStorage("update.flag")));
     },
     IFileHandler::kRemoveFailed, "RemoveFile",
     [](const TTest& test) {
         return Literal("removing " + test.OnStorage("update.flag") + ": Read-only file system");
     }},
    {"SourceGoneMidCopy",
     [](TTest& test) {
         test.WriteSource("firmware.bin", PseudoRandomBytes(512 * 1024, 6));
         if (!test.MountForTheFailure()) {
             return 0;
         }
         test.m_fault.FailReadsOf(test.Source("firmware.bin"), EIO);
         return IFileHandler::CopyFile(Bytes(test.Source("firmware.bin")),
                                       Bytes(test.OnStorage("firmware.bin")));
     },
     -1, "CopyFile",
     [](const TTest& test) {
         return Literal("copying " + test.Source("firmware.bin") + " to " +
                        test.OnStorage("firmware.bin") + ": reading " +
                        test.Source("firmware.bin") + ": Input/output error");
     }},
    {"SourceGoneMidInKernelCopy",
     [](TTest& test) {
         // Source and copy on one file system: the kernel copies, and its second call fails.
         test.WriteSource("firmware.bin", PseudoRandomBytes(512 * 1024, 7));
         test.m_fault.FailReadsOf(test.Source("firmware.bin"), EIO);
         return IFileHandler::CopyFile(Bytes(test.Source("firmware.bin")),
                                       Bytes(test.Source("copy.bin")));
     },
     -1, "CopyFile",
     [](const TTest& test) {
         return Literal("copying " + test.Source("firmware.bin") + " to " +
                        test.Source("copy.bin") + ": writing " + test.Source("copy.bin") +
                        ": Input/output error");
     }},
    {"ExistingRevisionOnAReadOnlyMount",
     [](TTest& test) {
         if (!test.MountForTheFailure()) {
             return 0;
         }
         test.WriteSource("revision", "R11");
         EXPECT_EQ(IFileHandler::CopyFile(Bytes(test.Source("revision")),
                                          Bytes(test.OnStorage("revision"))),
                   0);
         test.RemountReadOnly();
         return IFileHandler::FOpen(Bytes(test.OnStorage("revision")), "w") == nullptr ? -1 : 0;
     },
     -1, "FOpen",
     [](const TTest& test) {
         return Literal("opening " + test.OnStorage("revision") +
                        " with mode w: Read-only file system");
     }},
    {"SourceThatCannotBeExamined",
     [](TTest& test) {
         test.WriteSource("boot.bin", "boot");
         test.m_fault.Fail("fstat", Literal(test.Source("boot.bin")), EIO);
         const int result =
             IFileHandler::CopyFile(Bytes(test.Source("boot.bin")), Bytes(test.Source("copy.bin")));
         EXPECT_NE(access(test.Source("copy.bin").c_str(), F_OK), 0);
         return result;
     },
     -1, "CopyFile",
     [](const TTest& test) {
         return Literal("copying " + test.Source("boot.bin") + " to " + test.Source("copy.bin") +
                        ": examining " + test.Source("boot.bin") + ": Input/output error");
     }},
    {"CopyWhoseCloseFails",
     [](TTest& test) {
         // A close reports a write-back error that the sync before it did not see (NFS does).
         test.WriteSource("boot.bin", "boot");
         if (!test.MountForTheFailure()) {
             return 0;
         }
         test.m_fault.Fail("close", Literal(test.OnStorage("boot.bin")), EIO);
         const int result = IFileHandler::CopyFile(Bytes(test.Source("boot.bin")),
                                                   Bytes(test.OnStorage("boot.bin")));
         EXPECT_NE(access(test.OnStorage("boot.bin").c_str(), F_OK), 0);
         return result;
     },
     -1, "CopyFile",
     [](const TTest& test) {
         return Literal("copying " + test.Source("boot.bin") + " to " + test.OnStorage("boot.bin") +
                        ": closing " + test.OnStorage("boot.bin") + ": Input/output error");
     }},
    {"AppendStreamInAMissingFolder",
     [](TTest& test) {
         return IFileHandler::FOpen(Bytes(test.Source("absent/trace")), "a") == nullptr ? -1 : 0;
     },
     -1, "FOpen",
     [](const TTest& test) {
         return Literal("opening " + test.Source("absent/trace") +
                        " with mode a: No such file or directory");
     }},
    {"StreamWithoutAMode",
     [](TTest& test) {
         test.WriteSource("revision", "R11");
         return IFileHandler::FOpen(Bytes(test.Source("revision")), "") == nullptr ? -1 : 0;
     },
     -1, "FOpen",
     [](const TTest& test) {
         return Literal("opening " + test.Source("revision") + " with mode : Invalid argument");
     }},
    {"StreamWithANullMode",
     [](TTest& test) {
         test.WriteSource("revision", "R11");
         return IFileHandler::FOpen(Bytes(test.Source("revision")), nullptr) == nullptr ? -1 : 0;
     },
     -1, "FOpen",
     [](const TTest& test) {
         return Literal("opening " + test.Source("revision") + " with mode : Invalid argument");
     }},
    {"ReplacedRevisionWhosePermissionsCannotBeKept",
     [](TTest& test) {
         test.WriteSource("revision", "R11");
         test.m_fault.Fail("fchmod", Literal(test.Source(".revision.partial")), EPERM);
         const bool opened = IFileHandler::FOpen(Bytes(test.Source("revision")), "w") != nullptr;
         test.ExpectOnlyTheRevision("R11");
         return opened ? 0 : -1;
     },
     -1, "FOpen",
     [](const TTest& test) {
         return Literal("opening " + test.Source("revision") +
                        " with mode w: Operation not permitted");
     }},
    {"NoMemoryForTheReplacingStream",
     [](TTest& test) {
         test.WriteSource("revision", "R11");
         test.m_fault.Fail("fdopen", Literal(test.Source(".revision.partial")), ENOMEM);
         const bool opened = IFileHandler::FOpen(Bytes(test.Source("revision")), "w") != nullptr;
         test.ExpectOnlyTheRevision("R11");
         return opened ? 0 : -1;
     },
     -1, "FOpen",
     [](const TTest& test) {
         return Literal("opening " + test.Source("revision") +
                        " with mode w: Cannot allocate memory");
     }},
    {"ReadStreamWhoseCloseFails",
     [](TTest& test) {
         test.WriteSource("revision", "R11");
         FILE* file = IFileHandler::FOpen(Bytes(test.Source("revision")), "r");
         EXPECT_NE(file, nullptr) << test.HandlerError();
         test.m_fault.Fail("fclose", Literal(test.Source("revision")), EIO);
         return file != nullptr ? IFileHandler::FClose(file) : 0;
     },
     EOF, "FClose",
     [](const TTest&) { return std::string("closing a stream: Input/output error"); }},
    {"RevisionWrittenOntoAFullStorage",
     [](TTest& test) {
         test.WriteSource("revision", "R11");
         if (!test.MountForTheFailure()) {
             return 0;
         }
         EXPECT_EQ(IFileHandler::CopyFile(Bytes(test.Source("revision")),
                                          Bytes(test.OnStorage("revision"))),
                   0);
         test.FillTheStorage();
         FILE* file = IFileHandler::FOpen(Bytes(test.OnStorage("revision")), "w");
         EXPECT_NE(file, nullptr) << test.HandlerError();
         if (file == nullptr) {
             return 0;
         }
         // Held in the stream's buffer until the close writes it, and finds no room.
         EXPECT_EQ(IFileHandler::FWrite("R12", 1, 4, file), 4u);
         const int result = IFileHandler::FClose(file);
         EXPECT_EQ(ReadTestFile(test.OnStorage("revision")), "R11");
         EXPECT_NE(access(test.OnStorage(".revision.partial").c_str(), F_OK), 0);
         return result;
     },
     EOF, "FClose",
     [](const TTest& test) {
         return Literal("closing " + test.OnStorage("revision") + ": writing " +
                        test.OnStorage("revision") + ": No space left on device");
     }},
    {"WrittenStreamWhoseCloseFails",
     [](TTest& test) {
         test.WriteSource("revision", "R11");
         FILE* file = IFileHandler::FOpen(Bytes(test.Source("revision")), "w");
         EXPECT_NE(file, nullptr) << test.HandlerError();
         if (file == nullptr) {
             return 0;
         }
         EXPECT_EQ(IFileHandler::FWrite("R12", 1, 4, file), 4u);
         test.m_fault.Fail("fclose", Literal(test.Source(".revision.partial")), EIO);
         const int result = IFileHandler::FClose(file);
         test.ExpectOnlyTheRevision("R11");
         return result;
     },
     EOF, "FClose",
     [](const TTest& test) {
         return Literal("closing " + test.Source("revision") + ": closing " +
                        test.Source("revision") + ": Input/output error");
     }},
    {"MeasuringNoPath", [](TTest&) { return IFileHandler::FileSize(nullptr); }, -1, "FileSize",
     [](const TTest&) { return std::string("measuring : No such file or directory"); }},
    {"MeasuringAMissingFile",
     [](TTest& test) { return IFileHandler::FileSize(Bytes(test.Source("loader.bin"))); }, -1,
     "FileSize",
     [](const TTest& test) {
         return Literal("measuring " + test.Source("loader.bin") + ": No such file or directory");
     }},
    {"FileTooLargeToMeasure",
     [](TTest& test) {
         test.WriteSource("loader.bin", "");
         EXPECT_EQ(truncate(test.Source("loader.bin").c_str(), 3LL << 30), 0);
         return IFileHandler::FileSize(Bytes(test.Source("loader.bin")));
     },
     -1, "FileSize",
     [](const TTest& test) {
         return Literal("measuring " + test.Source("loader.bin") +
                        ": 3221225472 bytes do not fit the result");
     }},
};

INSTANTIATE_TEST_SUITE_P(EachStorageFailure, LinuxFileHandlerFailureTest,
                         ::testing::ValuesIn(kStorageFailures),
                         [](const auto& testCase) { return std::string(testCase.param.name); });

// A handler destroyed while a file on its storage is still open detaches the mount from the tree;
// the kernel releases it, and its loop device, when that file closes.
TEST_F(LinuxFileHandlerFailureTest,
       HandlerDestroyedWhileTheStorageIsBusyReleasesItWhenTheFileCloses) {
    FILE* open = nullptr;
    {
        CLinuxFileHandler handler({{2, "ext4"}});
        ASSERT_EQ(handler.Mount(Bytes(Image()), Bytes(MountPoint()), IFileHandler::eFormatMovinand),
                  0)
            << handler.LastError();
        open = std::fopen(OnStorage("revision").c_str(), "w");
        ASSERT_NE(open, nullptr);
    }
    EXPECT_FALSE(m_storage.IsMounted());
    EXPECT_EQ(m_storage.AttachedLoopDevices().size(), 1u);
    std::fclose(open);
    ExpectNothingLeft();
}

// A kernel without the one-step bind (before 5.8) refuses it as unknown: the image is bound in
// the two older steps and mounted all the same.
TEST_F(LinuxFileHandlerFailureTest, KernelWithoutOneStepBindStillMountsTheImage) {
    for (const int unknown : {EINVAL, ENOTTY}) {
        m_fault.FailIoctl(LOOP_CONFIGURE, unknown);
        ASSERT_EQ(MountStorage(), 0) << m_handler.LastError();
        EXPECT_TRUE(m_storage.IsMounted());
        EXPECT_EQ(m_storage.AttachedLoopDevices().size(), 1u);
        EXPECT_EQ(IFileHandler::Umount(Bytes(MountPoint())), 0) << m_handler.LastError();
        EXPECT_TRUE(m_storage.AwaitNoLoopDevice());
    }
    EXPECT_EQ(m_capture.Records().size(), 0u);
    ExpectNothingLeft();
}

// An image that can be read but not written where it lies (a folder mounted read-only) is
// attached read-only and mounted read-only: the storage is readable, and refuses writes.
TEST_F(LinuxFileHandlerFailureTest, ImageOnAReadOnlyMountIsAttachedAndMountedReadOnly) {
    const std::string image = ReadOnlyImage();
    ASSERT_FALSE(HasFailure());
    ASSERT_EQ(IFileHandler::Mount(Bytes(image), Bytes(MountPoint()), IFileHandler::eFormatMovinand),
              0)
        << m_handler.LastError();
    const std::vector<std::string> devices = LoopDevicesBackedBy(image);
    ASSERT_EQ(devices.size(), 1u);
    std::ifstream readOnly("/sys/block/" + devices[0].substr(5) + "/ro");
    int flag = 0;
    readOnly >> flag;
    readOnly.close();
    EXPECT_EQ(flag, 1);
    EXPECT_EQ(IFileHandler::MakeFolder(Bytes(OnStorage("update"))), -1);
    EXPECT_EQ(m_handler.LastError(),
              "making folder " + OnStorage("update") + ": Read-only file system");
    EXPECT_EQ(IFileHandler::Umount(Bytes(MountPoint())), 0) << m_handler.LastError();
    EXPECT_TRUE(LoopDevicesBackedBy(image).empty());
    ExpectNothingLeft();
}

// A write-protected device is refused read-write by the kernel and mounted read-only, as
// mount(8) mounts it: the storage is readable, and refuses writes.
TEST_F(LinuxFileHandlerFailureTest, WriteProtectedDeviceIsMountedReadOnly) {
    const std::string device = WriteProtectedDevice();
    ASSERT_FALSE(HasFailure());
    ASSERT_EQ(
        IFileHandler::Mount(Bytes(device), Bytes(MountPoint()), IFileHandler::eFormatMovinand), 0)
        << m_handler.LastError();
    EXPECT_EQ(m_capture.Records().size(), 0u);
    EXPECT_EQ(IFileHandler::FolderExists(Bytes(OnStorage("lost+found"))),
              IFileHandler::kFolderPresent);
    EXPECT_EQ(IFileHandler::MakeFolder(Bytes(OnStorage("update"))), -1);
    EXPECT_EQ(m_handler.LastError(),
              "making folder " + OnStorage("update") + ": Read-only file system");
    EXPECT_EQ(IFileHandler::Umount(Bytes(MountPoint())), 0) << m_handler.LastError();
    EXPECT_EQ(LoopDevicesBackedBy(ReadOnlyImagePath()), std::vector<std::string>{device})
        << "the handler detaches only what it attached";
    ExpectNothingLeft();
}

TEST_F(LinuxFileHandlerFailureTest, ClosingNoStreamFails) {
    EXPECT_EQ(IFileHandler::FClose(nullptr), EOF);
}

// A storage unmounted behind the handler's back (by an operator, by a killed host's successor),
// its folder removed, is no longer the handler's: Sync reports the folder gone, and destroying
// the handler leaves it as it is and frees the loop device.
TEST_F(LinuxFileHandlerFailureTest, HandlerDestroyedAfterItsStorageWasUnmountedElsewhere) {
    {
        CLinuxFileHandler handler({{2, "ext4"}});
        ASSERT_EQ(handler.Mount(Bytes(Image()), Bytes(MountPoint()), IFileHandler::eFormatMovinand),
                  0)
            << handler.LastError();
        ASSERT_EQ(umount2(MountPoint().c_str(), 0), 0) << std::strerror(errno);
        ASSERT_EQ(rmdir(MountPoint().c_str()), 0) << std::strerror(errno);
        EXPECT_EQ(handler.Sync(), -1);
        const std::string expected =
            "syncing the mounted storage: opening " + MountPoint() + ": No such file or directory";
        EXPECT_EQ(handler.LastError(), expected);
        EXPECT_EQ(m_capture.Entries(),
                  (std::vector<TLogEntry>{{logging::categories::Error, "Sync", expected + "\n"}}));
    }
    EXPECT_EQ(m_capture.Records().size(), 1u);
    ExpectNothingLeft();
}

// A call met interrupted by a signal (EINTR), or an in-kernel copy the kernel cannot make between
// the two files: the handler carries on, and the copy is whole.
struct TCarriedOnFault {
    const char* name;
    std::function<void(TTest&, const std::string& source, const std::string& copy)> makeFaults;
    std::size_t failedCalls;
};

std::ostream& operator<<(std::ostream& stream, const TCarriedOnFault& fault) {
    return stream << fault.name;
}

class LinuxFileHandlerCarriesOnTest : public LinuxFileHandlerStorageFaultTest,
                                      public ::testing::WithParamInterface<TCarriedOnFault> {};

TEST_P(LinuxFileHandlerCarriesOnTest, CopiesEveryByteWithoutARecord) {
    // Larger than one buffer of the copy by read and write.
    const std::string content = PseudoRandomBytes(300 * 1024, 8);
    WriteSource("firmware.bin", content);
    GetParam().makeFaults(*this, Source("firmware.bin"), Source("copy.bin"));
    EXPECT_EQ(IFileHandler::CopyFile(Bytes(Source("firmware.bin")), Bytes(Source("copy.bin"))), 0)
        << m_handler.LastError();
    EXPECT_EQ(m_fault.FailedCalls(), GetParam().failedCalls);
    EXPECT_TRUE(ReadTestFile(Source("copy.bin")) == content);
    EXPECT_EQ(m_capture.Records().size(), 0u);
    ExpectNothingLeft();
}

// The in-kernel copy failing with `error` at its first call: copied by read and write instead,
// or, for EINTR, by the same call made again.
std::function<void(TTest&, const std::string&, const std::string&)> NoInKernelCopy(int error) {
    return [error](TTest& test, const std::string& source, const std::string&) {
        test.m_fault.Fail("copy_file_range", Literal(source), error, 1);
    };
}

const TCarriedOnFault kCarriedOnFaults[] = {
    {"InKernelCopyInterrupted", NoInKernelCopy(EINTR), 1},
    {"FilesOnFileSystemsTheKernelCannotCopyBetween", NoInKernelCopy(EXDEV), 1},
    {"KernelWithoutInKernelCopy", NoInKernelCopy(ENOSYS), 1},
    {"FileSystemWithoutInKernelCopy", NoInKernelCopy(EOPNOTSUPP), 1},
    {"FilesTheKernelDoesNotCopy", NoInKernelCopy(EINVAL), 1},
    {"DescriptorsTheKernelDoesNotCopyBetween", NoInKernelCopy(EBADF), 1},
    {"ReadInterrupted",
     [](TTest& test, const std::string& source, const std::string& copy) {
         NoInKernelCopy(EXDEV)(test, source, copy);
         test.m_fault.Fail("read", Literal(source), EINTR, 1);
     },
     2},
    {"WriteInterrupted",
     [](TTest& test, const std::string& source, const std::string& copy) {
         NoInKernelCopy(EXDEV)(test, source, copy);
         test.m_fault.Fail("write", Literal(copy), EINTR, 1);
     },
     2},
};

INSTANTIATE_TEST_SUITE_P(EachCarriedOnFault, LinuxFileHandlerCarriesOnTest,
                         ::testing::ValuesIn(kCarriedOnFaults),
                         [](const auto& testCase) { return std::string(testCase.param.name); });

}  // namespace
