// Command lines run by /bin/sh -c; the answer is the shell's exit status.

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "InstalledBackend.h"
#include "LinuxCmdHandler.h"
#include "TemporaryDirectory.h"

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
    CLinuxCmdHandler handler;
    EXPECT_EQ(handler.SystemCmd(nullptr), -1);
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
