// The static host services before a backend is installed (a feature called too early, or after
// the host took its backends away): every call gives its documented failure value and touches
// nothing; and a record logged while no log is installed goes nowhere.

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <functional>

#include "CmdHandler.h"
#include "FileHandler.h"
#include "LogCapture.h"
#include "Logging.h"
#include "SerialPort.h"
#include "TemporaryDirectory.h"
#include "TestFiles.h"

namespace {

const unsigned char* Text(const std::string& text) {
    return reinterpret_cast<const unsigned char*>(text.c_str());
}

struct TUninstalledCall {
    const char* name;
    std::function<long()> call;
    long failure;
};

void PrintTo(const TUninstalledCall& testCase, std::ostream* stream) { *stream << testCase.name; }

class HostServicesWithoutBackendTest : public ::testing::TestWithParam<TUninstalledCall> {};

TEST_P(HostServicesWithoutBackendTest, GivesTheFailureValueAndTouchesNothing) {
    // Nothing installed here: the calls must not reach a file system, so they are made on a
    // real folder whose content is checked afterwards.
    ASSERT_EQ(IFileHandler::SetBackend(nullptr), nullptr);
    ASSERT_EQ(ICmdHandler::SetBackend(nullptr), nullptr);
    ASSERT_EQ(ISerialPortFactory::SetFactory(nullptr), nullptr);
    EXPECT_EQ(GetParam().call(), GetParam().failure);
}

CTemporaryDirectory& Folder() {
    static CTemporaryDirectory folder;
    return folder;
}

std::string InFolder(const std::string& name) { return Folder().Path() + "/" + name; }

long Pointer(const void* pointer) { return pointer == nullptr ? 0 : 1; }

INSTANTIATE_TEST_SUITE_P(
    Calls, HostServicesWithoutBackendTest,
    ::testing::Values(
        TUninstalledCall{"FileExists", [] { return long{IFileHandler::FileExists(Text("/"))}; },
                         -1},
        TUninstalledCall{"FolderExists", [] { return long{IFileHandler::FolderExists(Text("/"))}; },
                         -1},
        TUninstalledCall{"MakeFolder",
                         [] {
                             const int result = IFileHandler::MakeFolder(Text(InFolder("made")));
                             return ::access(InFolder("made").c_str(), F_OK) != 0 ? long{result}
                                                                                  : 0L;
                         },
                         -1},
        TUninstalledCall{"CopyFile",
                         [] {
                             const std::string source = WriteTestFile(Folder(), "source", "x");
                             const int result =
                                 IFileHandler::CopyFile(Text(source), Text(InFolder("copy")));
                             return ::access(InFolder("copy").c_str(), F_OK) != 0 ? long{result}
                                                                                  : 0L;
                         },
                         -1},
        TUninstalledCall{"RemoveFile",
                         [] {
                             const std::string kept = WriteTestFile(Folder(), "kept", "x");
                             const int result = IFileHandler::RemoveFile(Text(kept));
                             return ::access(kept.c_str(), F_OK) == 0 ? long{result} : 0L;
                         },
                         IFileHandler::kRemoveFailed},
        TUninstalledCall{"FileSize",
                         [] { return long{IFileHandler::FileSize(Text("/etc/hostname"))}; }, -1},
        TUninstalledCall{"FOpen",
                         [] {
                             return Pointer(IFileHandler::FOpen(Text(InFolder("opened")), "w")) +
                                    (::access(InFolder("opened").c_str(), F_OK) == 0 ? 10 : 0);
                         },
                         0},
        TUninstalledCall{"FRead",
                         [] {
                             char buffer[4];
                             return static_cast<long>(
                                 IFileHandler::FRead(buffer, 1, sizeof buffer, stdin));
                         },
                         0},
        TUninstalledCall{
            "FWrite", [] { return static_cast<long>(IFileHandler::FWrite("abc", 1, 3, stdout)); },
            0},
        TUninstalledCall{"FGets",
                         [] {
                             char buffer[4];
                             return Pointer(IFileHandler::FGets(buffer, sizeof buffer, stdin));
                         },
                         0},
        TUninstalledCall{"FClose", [] { return long{IFileHandler::FClose(stdout)}; }, EOF},
        TUninstalledCall{"Mount",
                         [] {
                             return long{IFileHandler::Mount(Text("/dev/loop0"),
                                                             Text(Folder().Path()),
                                                             IFileHandler::eFormatMovinand)};
                         },
                         -1},
        TUninstalledCall{"Umount", [] { return long{IFileHandler::Umount(Text(Folder().Path()))}; },
                         -1},
        TUninstalledCall{"Sync", [] { return long{IFileHandler::Sync()}; }, -1},
        TUninstalledCall{"SystemCmd",
                         [] {
                             const std::string marker = InFolder("ran");
                             const int result =
                                 ICmdHandler::SystemCmd(Text("touch '" + marker + "'"));
                             return ::access(marker.c_str(), F_OK) != 0 ? long{result} : 0L;
                         },
                         -1},
        TUninstalledCall{"CreateSerialPort",
                         [] { return Pointer(ISerialPort::Create("/dev/ttyUSB0", 115200, 0)); },
                         0}),
    [](const ::testing::TestParamInfo<TUninstalledCall>& testCase) {
        return std::string(testCase.param.name);
    });

TEST(HostServicesLogTest, WithoutALogARecordGoesNowhereAndAnInstalledOneGetsTheNextAgain) {
    std::vector<logging::TLogRecord> records;
    {
        CLogCapture capture;
        logging::internals::CLogHandle(logging::categories::Always, logging::Platform, "Sync",
                                       "FileHandler", 1)
            << "first";
        records = capture.Records();
    }
    ASSERT_EQ(logging::IControl::SetLog(nullptr), nullptr);
    logging::internals::CLogHandle(logging::categories::Error, logging::Platform, "Sync",
                                   "FileHandler", 2)
        << "lost";
    CLogCapture capture;
    logging::internals::CLogHandle(logging::categories::Error, logging::Platform, "Mount",
                                   "FileHandler", 3)
        << "third";
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].text, "first");
    const std::vector<logging::TLogRecord> after = capture.Records();
    ASSERT_EQ(after.size(), 1u);
    EXPECT_EQ(after[0].function, "Mount");
    EXPECT_EQ(after[0].line, 3);
    EXPECT_EQ(after[0].text, "third");
}

TEST(HostServicesLogTest, CategoriesAndChannelsAreNamedAsTheLogLinesShowThem) {
    EXPECT_STREQ(logging::IControl::CategoryName(logging::categories::Error), "Error");
    EXPECT_STREQ(logging::IControl::CategoryName(logging::categories::Always), "Always");
    EXPECT_STREQ(logging::IControl::ChannelName(logging::ModemLoader), "ModemLoader");
    EXPECT_STREQ(logging::IControl::ChannelName(logging::Platform), "Platform");
}

}  // namespace
