// Modem power control: switching a modem that is on off through the control pin, and the power
// worker (ACK thread) of one power-up attempt with its bounded wait for the acknowledge.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "Await.h"
#include "LogCapture.h"
#include "ModemPower.h"
#include "RecordingCmdHandler.h"
#include "TemporaryDirectory.h"
#include "TestFiles.h"
#include "VirtualClock.h"

namespace {

constexpr char kControlPin[] = "/sys/class/modem/control";
constexpr char kSourceFile[] = "features/component/ModemLoader/src/ModemPower";
const std::string kPinLow = std::string("echo 0 > ") + kControlPin;
const std::string kPinHigh = std::string("echo 1 > ") + kControlPin;

std::string SleepText(const TSleep& sleep) {
    return (sleep.unit == TSleep::eSeconds ? "sleep(" : "usleep(") + std::to_string(sleep.amount) +
           ")";
}

class ModemPowerTest : public ::testing::Test {
protected:
    void SetUp() override {
        CVirtualClock::Clear();
        CVirtualClock::SetRealTimeDivisor(1000);
        m_mainThread = std::this_thread::get_id();
        // One timeline of pin commands and sleeps, each tagged with the thread that made it.
        m_commands.OnCommand([this](const std::string& line) { Note(line); });
        CVirtualClock::OnSleep([this](const TSleep& sleep) {
            Note(SleepText(sleep));
            std::function<void(const TSleep&)> action;
            {
                std::lock_guard<std::mutex> lock(m_mutex);
                action = m_workerSleepAction;
            }
            if (sleep.thread != m_mainThread && action) {
                action(sleep);
            }
        });
    }

    void TearDown() override {
        if (m_startedWorker) {
            EXPECT_TRUE(AwaitWorkerFinished()) << "the power worker is still running";
        }
        CVirtualClock::OnSleep(nullptr);
    }

    void Note(const std::string& what) {
        std::lock_guard<std::mutex> lock(m_mutex);
        const bool worker = std::this_thread::get_id() != m_mainThread;
        (worker ? m_workerTimeline : m_mainTimeline).push_back(what);
    }

    std::vector<std::string> MainTimeline() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_mainTimeline;
    }

    std::vector<std::string> WorkerTimeline() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_workerTimeline;
    }

    // Runs on the worker at each of its sleeps (after the sleep is recorded).
    void OnWorkerSleep(std::function<void(const TSleep&)> action) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_workerSleepAction = std::move(action);
    }

    void Init(const std::optional<std::string>& readyContent) {
        const std::string readyPath = readyContent
                                          ? WriteTestFile(m_directory, "ready", *readyContent)
                                          : m_directory.Path() + "/no-such-ready-input";
        m_power.Init(readyPath, kControlPin);
    }

    void Start() {
        m_startedWorker = true;
        m_power.Start();
    }

    bool AwaitWorkerFinished() {
        return Await([this] {
            for (const TLogEntry& entry : m_log.Entries()) {
                if (entry == AlwaysEntry("Work", "Finished ACK thread")) {
                    return true;
                }
            }
            return false;
        });
    }

    // The worker's timeline after an attempt: its initial 25 ms, the pin low, then `polls` polls.
    static std::vector<std::string> WorkerStart(std::size_t polls) {
        std::vector<std::string> timeline{"usleep(25000)", kPinLow};
        timeline.insert(timeline.end(), polls, "usleep(25000)");
        return timeline;
    }

    std::thread::id m_mainThread;
    CLogCapture m_log;
    CRecordingCmdHandler m_commands;
    CTemporaryDirectory m_directory;
    CModemPower m_power;
    bool m_startedWorker = false;
    std::mutex m_mutex;
    std::vector<std::string> m_mainTimeline;
    std::vector<std::string> m_workerTimeline;
    std::function<void(const TSleep&)> m_workerSleepAction;
};

// ---- Prepare: switching off a modem that is on --------------------------------------------

struct TPrepareCase {
    const char* name;
    std::optional<std::string> ready;  // content of the ready input; none: the file is absent
    int pinLowStatus;
    int pinHighStatus;
    std::vector<std::string> timeline;  // pin commands and sleeps, in order
    std::vector<TLogEntry> log;
};

void PrintTo(const TPrepareCase& testCase, std::ostream* stream) { *stream << testCase.name; }

class ModemPowerPrepareTest : public ModemPowerTest,
                              public ::testing::WithParamInterface<TPrepareCase> {};

TEST_P(ModemPowerPrepareTest, SwitchesOffOnlyAModemThatIsOn) {
    const TPrepareCase& testCase = GetParam();
    m_commands.SetStatus("echo 0 > ", testCase.pinLowStatus);
    m_commands.SetStatus("echo 1 > ", testCase.pinHighStatus);
    Init(testCase.ready);

    m_power.Prepare();

    EXPECT_EQ(MainTimeline(), testCase.timeline);
    EXPECT_EQ(m_log.Entries(), testCase.log);
    EXPECT_EQ(m_power.GetState(), CModemPower::eIdle);
}

const TLogEntry kSwitchedOn = AlwaysEntry("Prepare", "Modem was switched on");
const TLogEntry kToggleFailed = ErrorEntry("Prepare", "could not toggle control pin");

INSTANTIATE_TEST_SUITE_P(
    ReadyInput, ModemPowerPrepareTest,
    ::testing::Values(TPrepareCase{"OnIsSwitchedOffWithASixSecondPulseThenOneSecondToSettle",
                                   "1",
                                   0,
                                   0,
                                   {kPinLow, "sleep(6)", kPinHigh, "sleep(1)"},
                                   {kSwitchedOn}},
                      TPrepareCase{"OnlyTheFirstByteCounts",
                                   "1 and anything after it",
                                   0,
                                   0,
                                   {kPinLow, "sleep(6)", kPinHigh, "sleep(1)"},
                                   {kSwitchedOn}},
                      TPrepareCase{"ZeroMeansOffAndNothingRuns", "0", 0, 0, {}, {}},
                      TPrepareCase{"EmptyMeansOffAndNothingRuns", "", 0, 0, {}, {}},
                      TPrepareCase{"AnyOtherFirstByteMeansOff", "01", 0, 0, {}, {}},
                      TPrepareCase{"AbsentMeansOffAndNothingRuns", std::nullopt, 0, 0, {}, {}},
                      TPrepareCase{"FailingPinLowSkipsPinHighAndLogsOnce",
                                   "1",
                                   1,
                                   0,
                                   {kPinLow},
                                   {kSwitchedOn, kToggleFailed}},
                      TPrepareCase{"FailingPinHighLogsOnceWithoutSettling",
                                   "1",
                                   0,
                                   127,
                                   {kPinLow, "sleep(6)", kPinHigh},
                                   {kSwitchedOn, kToggleFailed}}),
    [](const ::testing::TestParamInfo<TPrepareCase>& testInfo) { return testInfo.param.name; });

TEST_F(ModemPowerTest, AReadyInputThatExistsButCannotBeReadMeansOff) {
    // A directory opens for reading but yields no byte: the count read is not 1.
    const std::string ready = m_directory.Path() + "/ready";
    ASSERT_EQ(::mkdir(ready.c_str(), 0755), 0);
    m_power.Init(ready, kControlPin);
    m_power.Prepare();
    EXPECT_TRUE(MainTimeline().empty());
    EXPECT_TRUE(m_commands.Lines().empty());
    EXPECT_TRUE(m_log.Entries().empty());
    EXPECT_EQ(m_power.GetState(), CModemPower::eIdle);
}

TEST_F(ModemPowerTest, PrepareRecordsCarryTheirFixedLinesAndSourceFile) {
    m_commands.SetStatus("echo 0 > ", 1);
    Init("1");
    m_power.Prepare();
    const auto records = m_log.Records();
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].line, 50);
    EXPECT_EQ(records[0].file, kSourceFile);
    EXPECT_EQ(records[0].channel, logging::ModemLoader);
    EXPECT_EQ(records[1].line, 82);
    EXPECT_EQ(records[1].file, kSourceFile);
    EXPECT_EQ(records[1].category, logging::categories::Error);
}

TEST_F(ModemPowerTest, ControlPinPathWithBlanksGoesToTheShellUnquoted) {
    const std::string readyPath = WriteTestFile(m_directory, "ready", "1");
    m_power.Init(readyPath, "/sys/class/gpio/modem power/value");
    m_power.Prepare();
    EXPECT_EQ(m_commands.Lines(),
              (std::vector<std::string>{"echo 0 > /sys/class/gpio/modem power/value",
                                        "echo 1 > /sys/class/gpio/modem power/value"}));
}

TEST_F(ModemPowerTest, InitTakesTheReadyInputFirstAndTheControlPinSecond) {
    const std::string readyPath = WriteTestFile(m_directory, "ready", "1");
    m_power.Init(readyPath, "/pin");
    m_power.Prepare();
    EXPECT_EQ(m_commands.Lines(), (std::vector<std::string>{"echo 0 > /pin", "echo 1 > /pin"}));
}

TEST_F(ModemPowerTest, StateIsIdleAfterConstructionAndHoldsWhatIsSet) {
    EXPECT_EQ(m_power.GetState(), CModemPower::eIdle);
    m_power.SetState(CModemPower::eAckTimedOut);
    EXPECT_EQ(m_power.GetState(), CModemPower::eAckTimedOut);
}

// ---- The power worker --------------------------------------------------------------------

TEST_F(ModemPowerTest, StartSetsWaitingForAckBeforeTheWorkerRuns) {
    Init("0");
    std::vector<CModemPower::TModemPowerState> seenAtWorkerSleeps;
    std::mutex seenMutex;
    OnWorkerSleep([&](const TSleep& sleep) {
        std::lock_guard<std::mutex> lock(seenMutex);
        if (sleep.index == 0) {
            seenAtWorkerSleeps.push_back(m_power.GetState());
        }
        m_power.SetState(CModemPower::eAckReceived);
    });
    Start();
    EXPECT_EQ(m_power.GetState() == CModemPower::eWaitingForAck ||
                  m_power.GetState() == CModemPower::eAckReceived,
              true);
    ASSERT_TRUE(AwaitWorkerFinished());
    std::lock_guard<std::mutex> lock(seenMutex);
    EXPECT_EQ(seenAtWorkerSleeps,
              std::vector<CModemPower::TModemPowerState>{CModemPower::eWaitingForAck});
}

TEST_F(ModemPowerTest, AcknowledgeAfterTheTenthPollEndsTheWorkerAtItsNextPollWithThePinLow) {
    Init("0");
    // Sleep 0 is the worker's initial 25 ms; sleep n follows its n-th poll.
    OnWorkerSleep([this](const TSleep& sleep) {
        if (sleep.index == 10) {
            m_power.SetState(CModemPower::eAckReceived);
        }
    });
    Start();
    ASSERT_TRUE(AwaitWorkerFinished());

    EXPECT_EQ(WorkerTimeline(), WorkerStart(10)) << "no pin-high command, no settling";
    EXPECT_EQ(m_commands.Lines(), std::vector<std::string>{kPinLow});
    EXPECT_EQ(m_power.GetState(), CModemPower::eAckReceived);
    EXPECT_EQ(m_log.Entries(), std::vector<TLogEntry>{AlwaysEntry("Work", "Finished ACK thread")});
    const auto records = m_log.Records();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].line, 161);
    EXPECT_EQ(records[0].file, kSourceFile);
}

TEST_F(ModemPowerTest, NoAcknowledgeTimesOutOnceAtTheFiftiethPollThenReleasesThePin) {
    Init("0");
    std::vector<CModemPower::TModemPowerState> stateAtPollSleeps;
    std::mutex statesMutex;
    OnWorkerSleep([&](const TSleep& sleep) {
        if (sleep.index >= 1 && sleep.unit == TSleep::eMicroseconds) {
            std::lock_guard<std::mutex> lock(statesMutex);
            stateAtPollSleeps.push_back(m_power.GetState());
        }
    });
    Start();
    ASSERT_TRUE(AwaitWorkerFinished());

    std::vector<std::string> expected = WorkerStart(51);
    expected.push_back(kPinHigh);
    expected.push_back("sleep(1)");
    EXPECT_EQ(WorkerTimeline(), expected) << "the ready input reads 0: Prepare runs nothing";
    {
        std::lock_guard<std::mutex> lock(statesMutex);
        std::vector<CModemPower::TModemPowerState> expectedStates(49, CModemPower::eWaitingForAck);
        expectedStates.push_back(CModemPower::eAckTimedOut);  // set on the 50th poll
        expectedStates.push_back(CModemPower::eAckTimedOut);  // the one further poll
        EXPECT_EQ(stateAtPollSleeps, expectedStates);
    }
    EXPECT_EQ(m_power.GetState(), CModemPower::eRetryReady);
    EXPECT_EQ(m_log.Entries(), std::vector<TLogEntry>{AlwaysEntry("Work", "Finished ACK thread")});
    const auto workerThreads = CVirtualClock::Threads();
    ASSERT_EQ(workerThreads.size(), 1u);
    EXPECT_EQ(CVirtualClock::ElapsedMicroseconds(workerThreads[0]), 52u * 25000u + 1000000u);
}

TEST_F(ModemPowerTest, ModemThatCameOnWithoutAnsweringIsSwitchedOffAgainAfterTheTimeOut) {
    Init("0");
    // The modem comes on when the pin first goes low, and stays on.
    const std::string readyPath = m_directory.Path() + "/ready";
    bool cameOn = false;
    m_commands.OnCommand([&, readyPath](const std::string& line) {
        Note(line);
        if (line == kPinLow && !cameOn) {
            cameOn = true;
            WriteTestFile(m_directory, "ready", "1");
        }
    });
    Start();
    ASSERT_TRUE(AwaitWorkerFinished());

    std::vector<std::string> expected = WorkerStart(51);
    for (const std::string& step : {kPinHigh, std::string("sleep(1)"), kPinLow,
                                    std::string("sleep(6)"), kPinHigh, std::string("sleep(1)")}) {
        expected.push_back(step);
    }
    EXPECT_EQ(WorkerTimeline(), expected);
    EXPECT_EQ(m_power.GetState(), CModemPower::eRetryReady);
    EXPECT_EQ(m_log.Entries(),
              (std::vector<TLogEntry>{kSwitchedOn, AlwaysEntry("Work", "Finished ACK thread")}));
}

TEST_F(ModemPowerTest, LateAcknowledgeOverwritesTheTimeOutAndKeepsThePinLow) {
    Init("0");
    OnWorkerSleep([this](const TSleep& sleep) {
        if (sleep.index == 50) {
            EXPECT_EQ(m_power.GetState(), CModemPower::eAckTimedOut);
            m_power.SetState(CModemPower::eAckReceived);
        }
    });
    Start();
    ASSERT_TRUE(AwaitWorkerFinished());
    EXPECT_EQ(WorkerTimeline(), WorkerStart(50));
    EXPECT_EQ(m_commands.Lines(), std::vector<std::string>{kPinLow});
    EXPECT_EQ(m_power.GetState(), CModemPower::eAckReceived);
}

TEST_F(ModemPowerTest, FailingPinCommandsInTheWorkerAreIgnored) {
    Init("0");
    m_commands.SetStatus("echo ", 1);
    Start();
    ASSERT_TRUE(AwaitWorkerFinished());
    EXPECT_EQ(m_commands.Lines(), (std::vector<std::string>{kPinLow, kPinHigh}));
    EXPECT_EQ(m_power.GetState(), CModemPower::eRetryReady);
    EXPECT_EQ(m_log.Entries(), std::vector<TLogEntry>{AlwaysEntry("Work", "Finished ACK thread")});
}

TEST_F(ModemPowerTest, EachAttemptRunsItsOwnWorker) {
    Init("0");
    Start();
    ASSERT_TRUE(Await([this] { return m_power.GetState() == CModemPower::eRetryReady; }));
    ASSERT_TRUE(AwaitWorkerFinished());
    m_log.Clear();
    Start();
    ASSERT_TRUE(AwaitWorkerFinished());
    EXPECT_EQ(CVirtualClock::Threads().size(), 2u);
    EXPECT_EQ(m_commands.Lines(), (std::vector<std::string>{kPinLow, kPinHigh, kPinLow, kPinHigh}));
}

}  // namespace
