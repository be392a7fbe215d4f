// Child processes as the harness and the command handler start them: programs that cannot be
// started, that a signal ends, that print more than a pipe holds, that outlive their time-out.
// Each failure says why, and none leaves a descriptor or an unreaped child behind.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>

#include <cerrno>
#include <chrono>
#include <optional>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include "Await.h"
#include "ChildProcess.h"
#include "DescriptorLimit.h"
#include "Descriptors.h"
#include "TemporaryDirectory.h"
#include "TestFiles.h"

namespace {

using namespace std::chrono_literals;

// No child of this process is left to reap.
bool NoChildLeft() { return ::waitpid(-1, nullptr, WNOHANG) < 0 && errno == ECHILD; }

struct TUnstartable {
    const char* name;
    std::vector<std::string> arguments;
    const char* error;
};

void PrintTo(const TUnstartable& program, std::ostream* stream) { *stream << program.name; }

class ChildProcessUnstartableTest : public ::testing::TestWithParam<TUnstartable> {};

TEST_P(ChildProcessUnstartableTest, RunSaysWhyAndLeavesNothingBehind) {
    const std::set<int> before = OpenDescriptors();
    const TChildResult result = CChildProcess::Run(GetParam().arguments);
    EXPECT_FALSE(result.started);
    EXPECT_EQ(result.error, GetParam().error);
    EXPECT_EQ(result.exitCode, -1);
    EXPECT_EQ(result.signal, 0);
    EXPECT_EQ(Describe(result), std::string("not started: ") + GetParam().error + "; exit code -1");
    EXPECT_EQ(OpenDescriptors(), before);
    EXPECT_TRUE(NoChildLeft());
}

TEST_P(ChildProcessUnstartableTest, StartFailsWithTheSameReasonAndHoldsNoChild) {
    const std::set<int> before = OpenDescriptors();
    CChildProcess child;
    const CStatus status = child.Start(GetParam().arguments);
    EXPECT_EQ(status.Message(), GetParam().error);
    EXPECT_FALSE(child.IsRunning());
    EXPECT_EQ(OpenDescriptors(), before);
    EXPECT_TRUE(NoChildLeft());
}

INSTANTIATE_TEST_SUITE_P(
    Programs, ChildProcessUnstartableTest,
    ::testing::Values(
        TUnstartable{"NoProgramAtAll", {}, "no program given"},
        TUnstartable{"AMissingProgram",
                     {"/nonexistent/program", "--help"},
                     "running /nonexistent/program: No such file or directory"},
        TUnstartable{"AProgramNotInThePath",
                     {"modemloader-no-such-program"},
                     "running modemloader-no-such-program: No such file or directory"},
        TUnstartable{
            "AFileThatIsNoProgram", {"/dev/null"}, "running /dev/null: Permission denied"}),
    [](const auto& parameter) { return std::string(parameter.param.name); });

TEST(ChildProcessTest, AMissingWorkingDirectoryIsNamedWithTheProgram) {
    const std::set<int> before = OpenDescriptors();
    TChildOptions options;
    options.workingDirectory = "/nonexistent/folder";
    const TChildResult result = CChildProcess::Run({"true"}, options);
    EXPECT_FALSE(result.started);
    EXPECT_EQ(result.error, "running true in /nonexistent/folder: No such file or directory");
    EXPECT_EQ(OpenDescriptors(), before);
    EXPECT_TRUE(NoChildLeft());
}

// A process that has used up its descriptors cannot make the pipes or the terminal a child's
// output needs: the run says which, starts nothing and closes what it had made.
struct TNoDescriptors {
    const char* name;
    int spare;
    bool captureOutput;
    bool stdoutOnTerminal;
    const char* error;  // empty: checked by its form below
};

void PrintTo(const TNoDescriptors& limit, std::ostream* stream) { *stream << limit.name; }

class ChildProcessNoDescriptorsTest : public ::testing::TestWithParam<TNoDescriptors> {};

TEST_P(ChildProcessNoDescriptorsTest, RunSaysWhatItCouldNotOpenAndStartsNothing) {
    const std::set<int> before = OpenDescriptors();
    TChildOptions options;
    options.captureOutput = GetParam().captureOutput;
    options.stdoutOnTerminal = GetParam().stdoutOnTerminal;
    TChildResult result;
    {
        CDescriptorLimit limit(GetParam().spare);
        ASSERT_TRUE(limit.Lowered());
        result = CChildProcess::Run({"true"}, options);
    }
    EXPECT_FALSE(result.started);
    if (*GetParam().error != '\0') {
        EXPECT_EQ(result.error, GetParam().error);
    } else {
        // The terminal's name is the kernel's choice.
        EXPECT_TRUE(
            std::regex_match(result.error, std::regex("open /dev/pts/[0-9]+: Too many open files")))
            << result.error;
    }
    EXPECT_EQ(OpenDescriptors(), before);
    EXPECT_TRUE(NoChildLeft());
}

INSTANTIATE_TEST_SUITE_P(
    Limits, ChildProcessNoDescriptorsTest,
    ::testing::Values(
        TNoDescriptors{"NoneForTheErrorPipe", 0, true, false, "pipe: Too many open files"},
        TNoDescriptors{"NoneForTheOutputPipe", 2, true, false, "pipe: Too many open files"},
        TNoDescriptors{"NoneForTheTerminal", 2, true, true, "pseudo-terminal: Too many open files"},
        TNoDescriptors{"NoneForTheTerminalsOtherSide", 3, true, true, ""},
        TNoDescriptors{"NoneForTheStartersPipe", 0, false, false, "pipe: Too many open files"}),
    [](const auto& parameter) { return std::string(parameter.param.name); });

TEST(ChildProcessBackgroundTest, AStartWithoutDescriptorsLeftSaysSoAndHoldsNoChild) {
    const std::set<int> before = OpenDescriptors();
    CChildProcess child;
    CStatus status = CStatus::Ok();
    {
        CDescriptorLimit limit(0);
        ASSERT_TRUE(limit.Lowered());
        status = child.Start({"true"});
    }
    EXPECT_EQ(status.Message(), "pipe: Too many open files");
    EXPECT_FALSE(child.IsRunning());
    EXPECT_EQ(OpenDescriptors(), before);
}

TEST(ChildProcessTest, AProgramKilledByASignalReportsTheSignalAndNoExitCode) {
    const TChildResult result = CChildProcess::Run({"sh", "-c", "kill -TERM $$"});
    EXPECT_TRUE(result.started);
    EXPECT_FALSE(result.timedOut);
    EXPECT_EQ(result.signal, SIGTERM);
    EXPECT_EQ(result.exitCode, -1);
    EXPECT_EQ(Describe(result), "killed by signal 15");
}

TEST(ChildProcessTest, OutputLargerThanAPipeHoldsIsCapturedWholeFromBothStreams) {
    // Far more than a pipe's 64 KiB and the runner's 8 KiB reads, on both streams at once: the
    // child blocks on whichever the runner does not drain unless both are drained together.
    const TChildResult result = CChildProcess::Run(
        {"sh", "-c",
         "head -c 300000 /dev/zero | tr '\\0' o & head -c 200000 /dev/zero | tr '\\0' e >&2; "
         "wait"});
    EXPECT_EQ(result.exitCode, 0) << Describe(result).substr(0, 200);
    EXPECT_EQ(result.out, std::string(300000, 'o'));
    EXPECT_EQ(result.err, std::string(200000, 'e'));
}

TEST(ChildProcessTest, TheDescriptionOfAFailedRunHoldsItsExitCodeAndBothStreams) {
    const TChildResult result =
        CChildProcess::Run({"sh", "-c", "echo written; echo refused >&2; exit 3"});
    EXPECT_TRUE(result.started);
    EXPECT_EQ(result.exitCode, 3);
    EXPECT_EQ(Describe(result), "exit code 3\n--- stdout:\nwritten\n\n--- stderr:\nrefused\n");
}

TEST(ChildProcessTest, AProgramThatOutlivesItsTimeOutIsKilledAndSaysSo) {
    const std::set<int> before = OpenDescriptors();
    TChildOptions options;
    options.timeout = 200ms;
    const TChildResult result =
        CChildProcess::Run({"sh", "-c", "echo started; exec sleep 60"}, options);
    EXPECT_TRUE(result.started);
    EXPECT_TRUE(result.timedOut);
    EXPECT_EQ(result.signal, SIGKILL);
    // About its time-out: the runner counts what is left in whole milliseconds.
    EXPECT_GE(result.seconds, 0.19);
    EXPECT_LT(result.seconds, 30.0);
    EXPECT_EQ(Describe(result),
              "killed after its time-out; killed by signal 9\n--- stdout:\nstarted\n");
    EXPECT_EQ(OpenDescriptors(), before);
    EXPECT_TRUE(NoChildLeft());
}

TEST(ChildProcessTest, OnATerminalLineEndsComeBackAsTheTerminalWritesThem) {
    TChildOptions options;
    options.stdoutOnTerminal = true;
    const TChildResult result = CChildProcess::Run({"printf", "a\\nb\\n"}, options);
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.out, "a\r\nb\r\n");
}

TEST(ChildProcessTest, TheExtraEnvironmentAddsAndReplacesVariables) {
    TChildOptions options;
    options.extraEnvironment = {"MODEMLOADER_TEST_ADDED=one", "HOME=/replaced"};
    const TChildResult result =
        CChildProcess::Run({"sh", "-c", "echo $MODEMLOADER_TEST_ADDED $HOME"}, options);
    EXPECT_EQ(result.out, "one /replaced\n");
}

TEST(ChildProcessTest, UncapturedOutputIsNotCollected) {
    TChildOptions options;
    options.captureOutput = false;
    options.workingDirectory = "/";
    const TChildResult result = CChildProcess::Run({"sh", "-c", "test \"$PWD\" = /"}, options);
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "");
}

TEST(ChildProcessTest, IsInPathFindsTheShellAndNotAMissingProgram) {
    EXPECT_TRUE(IsInPath("sh"));
    EXPECT_FALSE(IsInPath("modemloader-no-such-program"));
}

TEST(ChildProcessBackgroundTest, AnOutputFileThatCannotBeMadeFailsTheStartNamingIt) {
    const std::set<int> before = OpenDescriptors();
    for (const bool errorFile : {false, true}) {
        TStartOptions options;
        (errorFile ? options.errorPath : options.outputPath) = "/nonexistent/folder/out.txt";
        CChildProcess child;
        const CStatus status = child.Start({"true"}, options);
        EXPECT_EQ(status.Message(),
                  "starting true: /nonexistent/folder/out.txt: No such file or directory");
        EXPECT_FALSE(child.IsRunning());
    }
    EXPECT_EQ(OpenDescriptors(), before);
    EXPECT_TRUE(NoChildLeft());
}

TEST(ChildProcessBackgroundTest, OutputAndErrorGoToTheirFiles) {
    CTemporaryDirectory folder;
    ASSERT_TRUE(folder.Made()) << folder.Made().Message();
    TStartOptions options;
    options.outputPath = folder.Join("out.txt");
    options.errorPath = folder.Join("err.txt");
    options.extraEnvironment = {"MODEMLOADER_TEST_WORD=word"};
    CChildProcess child;
    ASSERT_TRUE(
        child.Start({"sh", "-c", "echo $MODEMLOADER_TEST_WORD; echo oops >&2; exit 4"}, options));
    const TChildExit exit = child.WaitToEnd();
    EXPECT_EQ(exit.exitCode, 4);
    EXPECT_EQ(exit.signal, 0);
    EXPECT_FALSE(child.IsRunning());
    EXPECT_EQ(ReadTestFile(folder.Join("out.txt")), "word\n");
    EXPECT_EQ(ReadTestFile(folder.Join("err.txt")), "oops\n");
}

TEST(ChildProcessBackgroundTest, AChildThatOutlivesItsWaitIsStillThereAndCanBeKilled) {
    CChildProcess child;
    ASSERT_TRUE(child.Start({"sleep", "60"}));
    EXPECT_FALSE(child.Wait(50ms));
    EXPECT_FALSE(child.TryReap());
    EXPECT_TRUE(child.IsRunning());
    EXPECT_TRUE(child.Signal(SIGKILL));
    const std::optional<TChildExit> exit = child.Wait(20s);
    ASSERT_TRUE(exit);
    EXPECT_EQ(exit->signal, SIGKILL);
    EXPECT_EQ(exit->exitCode, -1);
    EXPECT_TRUE(NoChildLeft());
}

TEST(ChildProcessBackgroundTest, ASignalToAGroupLeaderReachesItsWholeGroup) {
    // The shell's own child becomes ours when the shell ends, so that its end can be seen; the
    // later tests of this executable get orphans passed on as before.
    ASSERT_EQ(::prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
    struct TSubreaperOff {
        ~TSubreaperOff() { ::prctl(PR_SET_CHILD_SUBREAPER, 0); }
    } subreaperOff;
    CTemporaryDirectory folder;
    ASSERT_TRUE(folder.Made()) << folder.Made().Message();
    CChildProcess child;
    TStartOptions options;
    options.ownProcessGroup = true;
    options.outputPath = folder.Join("sleeper");
    ASSERT_TRUE(child.Start({"sh", "-c", "sleep 60 & echo $!; wait"}, options));
    std::string sleeper;
    ASSERT_TRUE(Await([&] {
        sleeper = ReadTestFile(options.outputPath);
        return !sleeper.empty() && sleeper.back() == '\n';
    }));
    EXPECT_TRUE(child.Signal(SIGTERM));
    EXPECT_EQ(child.WaitToEnd().signal, SIGTERM);
    int status = 0;
    ASSERT_EQ(::waitpid(std::stoi(sleeper), &status, 0), std::stoi(sleeper));
    EXPECT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(WTERMSIG(status), SIGTERM);
}

TEST(ChildProcessBackgroundTest, ASecondStartWhileAChildRunsIsRefused) {
    CChildProcess child;
    ASSERT_TRUE(child.Start({"sleep", "60"}));
    EXPECT_EQ(child.Start({"true"}).Message(), "starting true: a child is still running");
    EXPECT_EQ(child.Start({}).Message(), "starting a child: a child is still running");
    EXPECT_EQ(child.StartCopy([] { return 0; }).Message(),
              "starting a copy of this process: a child is still running");
}

TEST(ChildProcessBackgroundTest, ACopyOfThisProcessEndsWithItsBodysResult) {
    CChildProcess child;
    ASSERT_TRUE(child.StartCopy([] { return 7; }));
    const TChildExit exit = child.WaitToEnd();
    EXPECT_EQ(exit.exitCode, 7);
}

// A host out of descriptors can still start a copy of itself (fork needs none) but gets no
// process descriptor for it: waiting then looks for the child's end again and again until the
// time-out, and still sees it end.
TEST(ChildProcessBackgroundTest, WithoutAProcessDescriptorAWaitStillEndsOnTimeOrOnTheExit) {
    const std::set<int> before = OpenDescriptors();
    CChildProcess child;
    {
        CDescriptorLimit limit(0);
        ASSERT_TRUE(limit.Lowered());
        ASSERT_TRUE(child.StartCopy([] {
            ::pause();
            return 0;
        }));
    }
    EXPECT_EQ(OpenDescriptors(), before);  // no process descriptor held
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(child.Wait(50ms));
    EXPECT_GE(std::chrono::steady_clock::now() - start, 50ms);
    EXPECT_TRUE(child.IsRunning());
    ASSERT_TRUE(child.Signal(SIGTERM));
    const std::optional<TChildExit> exit = child.Wait(10s);
    ASSERT_TRUE(exit);
    EXPECT_EQ(exit->signal, SIGTERM);
    EXPECT_FALSE(child.IsRunning());
    EXPECT_TRUE(NoChildLeft());
}

TEST(ChildProcessBackgroundTest, WithoutAChildThereIsNothingToSignalOrReap) {
    CChildProcess child;
    EXPECT_FALSE(child.IsRunning());
    EXPECT_FALSE(child.Signal(SIGTERM));
    EXPECT_FALSE(child.TryReap());
    EXPECT_FALSE(child.Wait(10ms));
    const TChildExit exit = child.WaitToEnd();
    EXPECT_EQ(exit.exitCode, -1);
    EXPECT_EQ(exit.signal, 0);
}

TEST(ChildProcessBackgroundTest, AChildStillRunningWhenItsOwnerGoesIsKilledAndReaped) {
    pid_t pid = -1;
    {
        CChildProcess child;
        ASSERT_TRUE(child.Start({"sleep", "60"}));
        pid = child.Pid();
        ASSERT_EQ(::kill(pid, 0), 0);
    }
    // Reaped, not only killed: no such process, not even a zombie.
    EXPECT_NE(::kill(pid, 0), 0);
    EXPECT_EQ(errno, ESRCH);
    EXPECT_TRUE(NoChildLeft());
}

}  // namespace
