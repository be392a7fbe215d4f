// Every way the storage fails under the Linux file handler, made for real where a test can make
// it (a damaged image, a busy mount, a full or read-only file system) and through the C library
// only where it cannot (no free loop device, a bind refused, a source whose medium goes away
// mid-copy). Each ends in a failure code and one record of the Platform channel naming the call,
// the path and the errno text, with nothing left mounted or attached and no descriptor leaked.

#include <gtest/gtest.h>
#include <linux/loop.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include "Descriptors.h"
#include "InstalledBackend.h"
#include "LinuxFileHandler.h"
#include "LogCapture.h"
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

class LinuxFileHandlerFailureTest;

// One failure: what makes it and the call that meets it (its result), the call named in the
// record and the record's text as a regular expression.
struct TStorageFailure {
    const char* name;
    std::function<int(LinuxFileHandlerFailureTest&)> failingCall;
    int expectedResult;
    const char* call;
    std::function<std::string(const LinuxFileHandlerFailureTest&)> expectedText;
};

std::ostream& operator<<(std::ostream& stream, const TStorageFailure& failure) {
    return stream << failure.name;
}

class LinuxFileHandlerFailureTest : public ::testing::TestWithParam<TStorageFailure> {
public:
    std::string Image() const { return m_storage.Image(); }
    std::string MountPoint() const { return m_storage.MountPoint(); }
    std::string OnStorage(const std::string& name) const { return MountPoint() + "/" + name; }
    std::string Source(const std::string& name) const { return m_sources.Join(name); }
    void WriteSource(const std::string& name, const std::string& content) {
        WriteTestFile(m_sources, name, content);
    }

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

    CStorageCallFault m_fault;
    FILE* m_heldOpen = nullptr;  // a stream the failure keeps open until it is checked

protected:
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
        EXPECT_FALSE(m_storage.IsMounted());
        EXPECT_TRUE(m_storage.AwaitNoLoopDevice())
            << "still attached: " << ::testing::PrintToString(m_storage.AttachedLoopDevices());
        EXPECT_EQ(OpenDescriptors(), m_descriptorsBefore);
    }

    CTemporaryDirectory m_sources;
    CStorageImage m_storage{kImageBytes};
    CLinuxFileHandler m_handler{{{2, "ext4"}}};
    CInstalledFileHandler m_installation{&m_handler};
    CLogCapture m_capture;
    std::set<int> m_descriptorsBefore;
};

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

using TTest = LinuxFileHandlerFailureTest;

std::string MountingFailure(const TTest& test, const std::string& cause) {
    return Literal("mounting " + test.Image() + " on " + test.MountPoint() + ": ") + cause;
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
    {"DamagedImage",
     [](TTest& test) {
         test.DamageSuperblock();
         return test.MountStorage();
     },
     -1, "Mount",
     [](const TTest& test) {
         return MountingFailure(test, R"(mounting /dev/loop\d+ as ext4: Bad message)");
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
    const std::string image = Source("movinand.img");
    WriteSource("movinand.img", "");
    ASSERT_EQ(mount(Image().c_str(), image.c_str(), nullptr, MS_BIND, nullptr), 0)
        << std::strerror(errno);
    struct CBindMount {
        const std::string& path;
        ~CBindMount() { umount2(path.c_str(), MNT_DETACH); }
    } bound{image};
    ASSERT_EQ(mount(nullptr, image.c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr), 0)
        << std::strerror(errno);

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

TEST_F(LinuxFileHandlerFailureTest, ClosingNoStreamFails) {
    EXPECT_EQ(IFileHandler::FClose(nullptr), EOF);
}

// A storage unmounted behind the handler's back (by an operator, by a killed host's successor) is
// no longer the handler's to unmount: destroying the handler leaves it as it is and frees the
// loop device.
TEST_F(LinuxFileHandlerFailureTest, HandlerDestroyedAfterItsStorageWasUnmountedElsewhere) {
    {
        CLinuxFileHandler handler({{2, "ext4"}});
        ASSERT_EQ(handler.Mount(Bytes(Image()), Bytes(MountPoint()), IFileHandler::eFormatMovinand),
                  0)
            << handler.LastError();
        ASSERT_EQ(umount2(MountPoint().c_str(), 0), 0) << std::strerror(errno);
    }
    EXPECT_EQ(m_capture.Records().size(), 0u);
    ExpectNothingLeft();
}

}  // namespace
