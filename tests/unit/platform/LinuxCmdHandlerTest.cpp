// Command lines run by /bin/sh -c; the answer is the shell's exit status.

#include <gtest/gtest.h>
#include <libgen.h>
#include <sched.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <unistd.h>

#include <fstream>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "ChildProcess.h"
#include "DescriptorLimit.h"
#include "Descriptors.h"
#include "InstalledBackend.h"
#include "LinuxCmdHandler.h"
#include "LogCapture.h"
#include "Prerequisite.h"
#include "TemporaryDirectory.h"
#include "TestFiles.h"

namespace {

int RunLine(const std::string& line) {
    CLinuxCmdHandler handler;
    return handler.SystemCmd(reinterpret_cast<const unsigned char*>(line.c_str()));
}

struct TCommandCase {
    const char* name;
    const char* line;
    int status;
};

void PrintTo(const TCommandCase& testCase, std::ostream* stream) { *stream << testCase.name; }

class LinuxCmdHandlerStatusTest : public ::testing::TestWithParam<TCommandCase> {};

TEST_P(LinuxCmdHandlerStatusTest, AnswersWithTheShellsStatus) {
    EXPECT_EQ(RunLine(GetParam().line), GetParam().status);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, LinuxCmdHandlerStatusTest,
    ::testing::Values(TCommandCase{"Success", "true", 0}, TCommandCase{"Failure", "false", 1},
                      TCommandCase{"ExitCode", "exit 42", 42},
                      TCommandCase{"LastCommandOfAList", "true; exit 3", 3},
                      TCommandCase{"UnknownCommand", "/nonexistent/command", 127},
                      TCommandCase{"SyntaxError", "if then", 2},
                      TCommandCase{"KilledBySignal", "kill -TERM $$", 128 + 15}),
    [](const ::testing::TestParamInfo<TCommandCase>& testCase) {
        return std::string(testCase.param.name);
    });

TEST(LinuxCmdHandlerTest, RunsTheLineThroughTheShellWithRedirection) {
    // The modem-power control writes the control pin exactly like this.
    CTemporaryDirectory directory;
    const std::string pin = directory.Path() + "/control";
    EXPECT_EQ(RunLine("echo 1 > " + pin), 0);
    std::ifstream file(pin);
    std::stringstream content;
    content << file.rdbuf();
    EXPECT_EQ(content.str(), "1\n");
}

TEST(LinuxCmdHandlerTest, ANullLineFails) {
    CLogCapture capture;
    CLinuxCmdHandler handler;
    EXPECT_EQ(handler.SystemCmd(nullptr), -1);
    const std::vector<TLogEntry> expected{
        {logging::categories::Error, "SystemCmd", "no command line given\n"}};
    EXPECT_EQ(capture.Entries(), expected);
}

// A host that has used up its descriptors: the shell cannot even be started, and the record
// names the line and the call that failed.
TEST(LinuxCmdHandlerTest, WithoutDescriptorsLeftTheLineFailsWithARecordNamingIt) {
    const std::set<int> before = OpenDescriptors();
    CLogCapture capture;
    int result = 0;
    {
        CDescriptorLimit limit(0);
        ASSERT_TRUE(limit.Lowered());
        result = RunLine("echo never");
    }
    EXPECT_EQ(result, -1);
    const std::vector<TLogEntry> expected{
        {logging::categories::Error, "SystemCmd",
         "command line 'echo never': pipe: Too many open files\n"}};
    EXPECT_EQ(capture.Entries(), expected);
    EXPECT_EQ(OpenDescriptors(), before);
}

// A device whose shell is gone (a damaged root file system): the command cannot run at all. Made
// for real in a copy of this process with a mount namespace of its own, in which the shell's
// folder is hidden under an empty file system; the copy writes down what it saw.
TEST(LinuxCmdHandlerTest, AShellThatCannotStartFailsWithARecordNamingTheLineAndTheReason) {
    enum { eRan = 0, eNoNamespace = 90, eNotHidden = 91, eNotFailed = 92 };
    if (::geteuid() != 0) {
        MODEMLOADER_MISSING_PREREQUISITE("hiding the shell needs root (a mount namespace)");
    }
    CTemporaryDirectory folder;
    ASSERT_TRUE(folder.Made()) << folder.Made().Message();
    const std::string report = folder.Join("records");
    const std::set<int> before = OpenDescriptors();
    CChildProcess copy;
    ASSERT_TRUE(copy.StartCopy([&] {
        if (::unshare(CLONE_NEWNS) != 0 ||
            ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
            return static_cast<int>(eNoNamespace);
        }
        std::unique_ptr<char, decltype(&::free)> shell(::realpath("/bin/sh", nullptr), &::free);
        if (!shell || ::mount("tmpfs", ::dirname(shell.get()), "tmpfs", 0, nullptr) != 0) {
            return static_cast<int>(eNotHidden);
        }
        CLogCapture capture;
        const int result = RunLine("echo never");
        std::ofstream records(report);
        for (const TLogEntry& entry : capture.Entries()) {
            records << logging::IControl::CategoryName(entry.category) << " " << entry.function
                    << ": " << entry.text;
        }
        records.close();
        return static_cast<int>(result == -1 ? eRan : eNotFailed);
    }));
    const int outcome = copy.WaitToEnd().exitCode;
    if (outcome == eNoNamespace) {
        MODEMLOADER_MISSING_PREREQUISITE("no mount namespace can be made here");
    }
    EXPECT_EQ(outcome, eRan);
    EXPECT_EQ(ReadTestFile(report),
              "Error SystemCmd: command line 'echo never': running /bin/sh: No such file or "
              "directory\n");
    // Nothing of the copy's namespace is seen here, and nothing stays open.
    EXPECT_EQ(CChildProcess::Run({"/bin/sh", "-c", "exit 3"}).exitCode, 3);
    EXPECT_EQ(OpenDescriptors(), before);
}

TEST(LinuxCmdHandlerTest, ServesTheStaticCommandHandlerOnceInstalled) {
    CLinuxCmdHandler handler;
    int status = 0;
    {
        CInstalledCmdHandler installed(&handler);
        status = ICmdHandler::SystemCmd(reinterpret_cast<const unsigned char*>("exit 7"));
    }
    EXPECT_EQ(status, 7);
}

}  // namespace
