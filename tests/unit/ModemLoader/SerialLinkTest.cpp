// The image loader's serial-link primitives: buffer writes, acknowledge reads, draining the
// line, the sync handshake with the modem's boot code and the line configuration.

#include <gtest/gtest.h>

#include "ImageLoaderTestHost.h"

namespace imageloadertest {
namespace {

class SerialLinkTest : public ImageLoaderTestHost {};

const TLogEntry kWriteProblem =
    ErrorEntry("WriteBuffer", "encountered a problem writing to serial port");
const TSleep kReadRetry = Microseconds(25000);

// ---- WriteBuffer -----------------------------------------------------------------------------

TEST_F(SerialLinkTest, WriteBufferSendsTheWholeBufferInOneWrite) {
    CImageLoader& loader = PreparedLoader();
    const TBytes chunk = Bytes(PseudoRandomBytes(kChunk, 3));
    m_port.Expect(chunk);
    EXPECT_TRUE(loader.WriteBuffer(chunk.data(), kChunk));
    EXPECT_EQ(m_port.WriteCalls(), 1u);
    EXPECT_EQ(m_port.Written(), chunk);
    EXPECT_TRUE(m_log.Entries().empty());
}

TEST_F(SerialLinkTest, ShortWriteFailsAndIsLogged) {
    CImageLoader& loader = PreparedLoader();
    const TBytes command = BaudrateCommand();
    m_port.ExpectShortWrite(command, 4);
    EXPECT_FALSE(loader.WriteBuffer(command.data(), 5));
    EXPECT_EQ(m_log.Entries(), std::vector<TLogEntry>{kWriteProblem});
    EXPECT_EQ(m_port.WriteCalls(), 1u) << "no retry";
}

TEST_F(SerialLinkTest, PortErrorOnWriteFailsAndIsLogged) {
    CImageLoader& loader = PreparedLoader();
    const TBytes command = FlowControlCommand();
    m_port.ExpectWriteError(command, 5);
    EXPECT_FALSE(loader.WriteBuffer(command.data(), 2));
    EXPECT_EQ(m_log.Entries(), std::vector<TLogEntry>{kWriteProblem});
}

// ---- ReadAck ---------------------------------------------------------------------------------

TEST_F(SerialLinkTest, ReadAckRefusesMoreThan128BytesAtOnce) {
    CImageLoader& loader = PreparedLoader();
    const TBytes expected(129, 'A');
    EXPECT_FALSE(loader.ReadAck(129, expected.data(), 10));
    EXPECT_EQ(m_log.Entries(), std::vector<TLogEntry>{ErrorEntry(
                                   "ReadAck", "incoming larger than maximum buffer size")});
    EXPECT_EQ(m_port.Reads(), 0u);
    EXPECT_TRUE(CVirtualClock::SleepsOf(m_mainThread).empty());
}

TEST_F(SerialLinkTest, ReadAckAccepts128Bytes) {
    CImageLoader& loader = PreparedLoader();
    const TBytes reply(128, 'A');
    m_port.Send(reply);
    EXPECT_TRUE(loader.ReadAck(128, reply.data(), 10));
    EXPECT_EQ(m_port.Reads(), 1u);
    EXPECT_TRUE(m_log.Entries().empty());
}

TEST_F(SerialLinkTest, ReadAckMatchingOnTheThirdReadSleepsTwice) {
    CImageLoader& loader = PreparedLoader();
    m_port.ReplyAfterEmptyReads(2, Bytes({0x07}));
    const unsigned char expected = 0x07;
    CVirtualClock::Clear();
    EXPECT_TRUE(loader.ReadAck(1, &expected, 10));
    EXPECT_EQ(m_port.Reads(), 3u);
    EXPECT_EQ(CVirtualClock::SleepsOf(m_mainThread), Repeat(kReadRetry, 2))
        << "no sleep after the match";
    EXPECT_TRUE(m_log.Entries().empty());
}

TEST_F(SerialLinkTest, WrongSingleByteIsRetriedSilently) {
    CImageLoader& loader = PreparedLoader();
    m_port.Send(Bytes({0x08, 0x07}));
    const unsigned char expected = 0x07;
    CVirtualClock::Clear();
    EXPECT_TRUE(loader.ReadAck(1, &expected, 10));
    EXPECT_EQ(m_port.Reads(), 2u);
    EXPECT_EQ(CVirtualClock::SleepsOf(m_mainThread), Repeat(kReadRetry, 1));
    EXPECT_TRUE(m_log.Entries().empty());
}

TEST_F(SerialLinkTest, ReadAckGivesUpAfterItsTriesWithASleepAfterEach) {
    CImageLoader& loader = PreparedLoader();
    const unsigned char expected = 0x07;
    CVirtualClock::Clear();
    EXPECT_FALSE(loader.ReadAck(1, &expected, 10));
    EXPECT_EQ(m_port.Reads(), 10u);
    EXPECT_EQ(CVirtualClock::SleepsOf(m_mainThread), Repeat(kReadRetry, 10));
    EXPECT_TRUE(m_log.Entries().empty());
}

TEST_F(SerialLinkTest, ReadAckWithNoTriesReadsNothingAndFails) {
    CImageLoader& loader = PreparedLoader();
    m_port.Send(Bytes({0x07}));
    const unsigned char expected = 0x07;
    EXPECT_FALSE(loader.ReadAck(1, &expected, 0));
    EXPECT_EQ(m_port.Reads(), 0u);
}

TEST_F(SerialLinkTest, PortErrorOnReadIsLoggedAndCountsAsATry) {
    CImageLoader& loader = PreparedLoader();
    m_port.ReadErrors(1);
    m_port.ReplyAfterEmptyReads(0, Bytes({0x05}));
    const unsigned char expected = 0x05;
    EXPECT_TRUE(loader.ReadAck(1, &expected, 10));
    EXPECT_EQ(m_port.Reads(), 2u);
    EXPECT_EQ(m_log.Entries(), std::vector<TLogEntry>{ErrorEntry(
                                   "ReadAck", "encountered a problem reading serial port")});
}

TEST_F(SerialLinkTest, ReplySplitAcrossReadsNeverMatches) {
    CImageLoader& loader = PreparedLoader();
    const unsigned char expected[2] = {0x04, 0x05};
    m_port.Send(Bytes({0x04}));
    EXPECT_FALSE(loader.ReadAck(2, expected, 1));
    m_port.Send(Bytes({0x05}));
    EXPECT_FALSE(loader.ReadAck(2, expected, 1));
    const TLogEntry partial = ErrorEntry("ReadAck", "Bytes read did not match the expected value");
    EXPECT_EQ(m_log.Entries(), (std::vector<TLogEntry>{partial, partial}));
}

TEST_F(SerialLinkTest, ComparisonStopsAtAZeroByteOfTheExpectedReply) {
    CImageLoader& loader = PreparedLoader();
    const unsigned char expected[2] = {0x00, 0x41};
    m_port.Send(Bytes({0x00, 0x42}));
    EXPECT_TRUE(loader.ReadAck(2, expected, 1)) << "bytes after a zero are not compared";
}

// ---- FlushSerial -----------------------------------------------------------------------------

TEST_F(SerialLinkTest, FlushReturnsAtOnceOnAnIdleLine) {
    CImageLoader& loader = PreparedLoader();
    CVirtualClock::Clear();
    loader.FlushSerial();
    EXPECT_EQ(m_port.Reads(), 1u);
    EXPECT_TRUE(CVirtualClock::Sleeps().empty());
}

TEST_F(SerialLinkTest, FlushDrainsBufferedBytesOneAtATime) {
    CImageLoader& loader = PreparedLoader();
    m_port.Send(Bytes("stale"));
    loader.FlushSerial();
    EXPECT_EQ(m_port.Reads(), 6u);
    EXPECT_EQ(m_port.Buffered(), 0u);
}

TEST_F(SerialLinkTest, FlushStopsAtAPortError) {
    CImageLoader& loader = PreparedLoader();
    m_port.Send(Bytes("ab"));
    m_port.ReadErrors(1);
    m_port.ReplyAfterEmptyReads(0, Bytes("c"));
    loader.FlushSerial();
    EXPECT_EQ(m_port.Reads(), 3u);
    EXPECT_EQ(m_port.Buffered(), 1u) << "what came after the error stays";
    EXPECT_TRUE(m_log.Entries().empty());
}

// ---- Sync ------------------------------------------------------------------------------------

class SyncWhileAttemptRunsTest
    : public SerialLinkTest,
      public ::testing::WithParamInterface<CModemPower::TModemPowerState> {};

TEST_P(SyncWhileAttemptRunsTest, StartsNoAttemptAndDoesNotCountOne) {
    CImageLoader& loader = PreparedLoader();
    loader.Power().SetState(GetParam());
    for (int call = 0; call < 3; ++call) {
        loader.Sync();
        EXPECT_TRUE(loader.StepPending());
    }
    EXPECT_TRUE(m_commands.Lines().empty()) << "no power worker started";
    EXPECT_EQ(m_port.Reads(), 0u) << "no flush";
    EXPECT_TRUE(m_port.Written().empty());
    EXPECT_EQ(loader.Step(), eStepStart);

    // Still five attempts left in this process: the fifth without echo ends the run.
    m_port.PlayBootCode(99);
    loader.Power().SetState(CModemPower::eRetryReady);
    unsigned attempts = 0;
    while (loader.Step() != eStepTerminate && attempts < 6) {
        ASSERT_TRUE(Await([&] {
            const auto state = loader.Power().GetState();
            return state != CModemPower::eWaitingForAck && state != CModemPower::eAckTimedOut;
        }));
        loader.Sync();
        ++attempts;
    }
    EXPECT_EQ(attempts, 5u);
    EXPECT_EQ(loader.Error(), eLoaderErrorSync);
}

INSTANTIATE_TEST_SUITE_P(PowerState, SyncWhileAttemptRunsTest,
                         ::testing::Values(CModemPower::eWaitingForAck, CModemPower::eAckTimedOut),
                         [](const ::testing::TestParamInfo<CModemPower::TModemPowerState>& state) {
                             return state.param == CModemPower::eWaitingForAck ? "WaitingForAck"
                                                                               : "AckTimedOut";
                         });

TEST_F(SerialLinkTest, EchoOnTheFirstAttemptHandsOverToTheLoaderDownload) {
    CImageLoader& loader = PreparedLoader();
    m_port.PlayBootCode();
    m_port.Expect(Bytes(m_loaderSource), Bytes("0"));
    loader.Sync();

    EXPECT_EQ(loader.Step(), eStepConfigure);
    EXPECT_TRUE(loader.StepPending());
    EXPECT_EQ(m_callback.Calls(),
              (std::vector<std::string>{"Progress(95,100)", "Progress(90,100)"}));
    EXPECT_EQ(loader.Power().GetState(), CModemPower::eAckReceived);
    EXPECT_EQ(m_commands.Lines(), std::vector<std::string>{PinLow()}) << "the pin stays low";
    const TBytes written = m_port.Written();
    const std::size_t probes = m_port.ProbesWritten();
    ASSERT_GE(probes, 1u);
    EXPECT_EQ(written, Concat({TBytes(probes, 0x16), Bytes(m_loaderSource)}));
    EXPECT_EQ(LoaderLog(), (std::vector<TLogEntry>{
                               AlwaysEntry("Sync", "noticed a reply from modem"),
                               AlwaysEntry("PrepareFlash", "loader source download completed")}));
    // Each probe: 1 ms, then one read and 25 ms when nothing came.
    const auto sleeps = CVirtualClock::SleepsOf(m_mainThread);
    ASSERT_EQ(sleeps.size(), 2 * probes - 1);
    for (std::size_t index = 0; index < sleeps.size(); ++index) {
        EXPECT_EQ(sleeps[index], index % 2 == 0 ? Microseconds(1000) : kReadRetry);
    }
}

TEST_F(SerialLinkTest, StaleBytesAreFlushedBeforeThePowerUp) {
    CImageLoader& loader = PreparedLoader();
    // An old echo on the line must not be taken for the boot code's answer.
    m_port.Send(Bytes({0x16, 0x16}));
    m_port.PlayBootCode(2);
    loader.Sync();
    ASSERT_TRUE(Await([&] { return loader.Power().GetState() == CModemPower::eRetryReady; }));
    EXPECT_EQ(Count(m_log.Entries(), AlwaysEntry("Sync", "noticed a reply from modem")), 0u);
    EXPECT_EQ(loader.Step(), eStepStart);
    EXPECT_TRUE(m_callback.Calls().empty());
}

TEST_F(SerialLinkTest, FiveAttemptsWithoutEchoEndTheRunWithASyncError) {
    CImageLoader& loader = PreparedLoader();
    m_port.PlayBootCode(99);
    loader.Install();
    TickUntilCompleted();

    EXPECT_EQ(m_callback.Calls(), std::vector<std::string>{"Completed(0)"});
    EXPECT_EQ(loader.Error(), eLoaderErrorSync);
    ASSERT_TRUE(Await([this] { return FinishedAckThreads() == 5; }));
    EXPECT_EQ(AckThreadsStarted(), 5u);
    std::vector<std::string> lines;
    for (int attempt = 0; attempt < 5; ++attempt) {
        lines.push_back(PinLow());
        lines.push_back(PinHigh());
    }
    EXPECT_EQ(m_commands.Lines(), lines);
    EXPECT_EQ(m_port.Written(), TBytes(m_port.ProbesWritten(), 0x16)) << "only probes";
    EXPECT_TRUE(LoaderLog().empty());
    EXPECT_FALSE(m_broker.HasTickSubscribers());
}

// Found by the controller-events fuzz target (corpus: image-install-without-prepare): the
// controller installs whatever Prepare answered, and the sync step used the port that only
// Prepare opens.
TEST_F(SerialLinkTest, InstallWithoutAnOpenPortEndsWithASyncErrorInsteadOfACrash) {
    CImageLoader& loader = MakeLoader();
    loader.Install();
    TickUntilCompleted();

    EXPECT_EQ(m_callback.Calls(), std::vector<std::string>{"Completed(0)"});
    EXPECT_EQ(loader.Error(), eLoaderErrorSync);
    EXPECT_TRUE(m_port.CreateCalls().empty());
    EXPECT_TRUE(m_port.Written().empty());
    ASSERT_TRUE(Await([this] { return FinishedAckThreads() == 5; }));
    EXPECT_GE(Count(m_log.Entries(),
                    ErrorEntry("WriteBuffer", "encountered a problem writing to serial port")),
              5u);
    EXPECT_FALSE(m_broker.HasTickSubscribers());
}

TEST_F(SerialLinkTest, EchoOnTheFifthAttemptIsOverriddenByTheAttemptLimit) {
    CImageLoader& loader = PreparedLoader();
    m_port.PlayBootCode(5);
    m_port.Expect(Bytes(m_loaderSource), Bytes("0"));
    loader.Install();
    TickUntilCompleted();

    EXPECT_EQ(m_callback.Calls(),
              (std::vector<std::string>{"Progress(95,100)", "Progress(90,100)", "Completed(0)"}));
    EXPECT_EQ(loader.Error(), eLoaderErrorSync);
    EXPECT_EQ(LoaderLog(), (std::vector<TLogEntry>{
                               AlwaysEntry("Sync", "noticed a reply from modem"),
                               AlwaysEntry("PrepareFlash", "loader source download completed")}));
}

TEST_F(SerialLinkTest, LaterLoaderPastTheLimitKeepsTryingWithoutEnd) {
    {
        CImageLoader& first = PreparedLoader();
        m_port.PlayBootCode(99);
        first.Install();
        TickUntilCompleted();
        ASSERT_EQ(first.Error(), eLoaderErrorSync);
        ASSERT_TRUE(Await([this] { return FinishedAckThreads() == 5; }));
    }
    // The counter now goes below zero and never equals zero again.
    CRecordingLoaderCallback secondCallback;
    CImageLoader second(m_name, m_broker, m_properties, secondCallback);
    ASSERT_TRUE(second.Prepare());
    second.Install();
    for (int attempt = 0; attempt < 3; ++attempt) {
        m_broker.Tick();  // first: start -> sync; then one attempt each
        ASSERT_TRUE(Await([&] {
            const auto state = second.Power().GetState();
            return state != CModemPower::eWaitingForAck && state != CModemPower::eAckTimedOut;
        }));
    }
    m_broker.Tick();
    ASSERT_TRUE(Await([this] { return FinishedAckThreads() == 8; }));
    EXPECT_EQ(second.Step(), eStepSync);
    EXPECT_TRUE(second.StepPending());
    EXPECT_TRUE(secondCallback.Calls().empty());
    EXPECT_TRUE(m_broker.HasTickSubscribers());
}

// ---- Configure -------------------------------------------------------------------------------

struct TConfigureCase {
    const char* name;
    std::function<void(CScriptedSerialPort&)> script;
    TBytes written;
    TImageLoaderStep step;
    std::vector<std::string> calls;
    std::vector<TLogEntry> log;
};
void PrintTo(const TConfigureCase& testCase, std::ostream* stream) { *stream << testCase.name; }

class ConfigureTest : public SerialLinkTest,
                      public ::testing::WithParamInterface<TConfigureCase> {};

TEST_P(ConfigureTest, SetsBaudRateAndFlowControl) {
    const TConfigureCase& testCase = GetParam();
    CImageLoader& loader = PreparedLoader();
    testCase.script(m_port);
    loader.Configure();
    EXPECT_EQ(m_port.Written(), testCase.written);
    EXPECT_EQ(loader.Step(), testCase.step);
    if (testCase.step == eStepTerminate) {
        EXPECT_EQ(loader.Error(), eLoaderErrorConfigure);
    }
    EXPECT_TRUE(loader.StepPending());
    EXPECT_EQ(m_callback.Calls(), testCase.calls);
    EXPECT_EQ(m_log.Entries(), testCase.log);
}

const TLogEntry kBaudrateError = ErrorEntry("Configure", "error writing baudrate to modem");
const TLogEntry kFlowControlError = ErrorEntry("Configure", "error writing flowcontrol to modem");

INSTANTIATE_TEST_SUITE_P(
    Modem, ConfigureTest,
    ::testing::Values(TConfigureCase{"AcknowledgesBoth",
                                     [](CScriptedSerialPort& port) {
                                         port.Expect(BaudrateCommand(), Bytes({0x07}));
                                         port.Expect(FlowControlCommand(), Bytes({0x05}));
                                     },
                                     Concat({BaudrateCommand(), FlowControlCommand()}),
                                     eStepRead,
                                     {"Progress(85,100)"},
                                     {}},
                      TConfigureCase{"BaudRateWriteFails",
                                     [](CScriptedSerialPort& port) {
                                         port.ExpectWriteError(BaudrateCommand(), 1);
                                     },
                                     BaudrateCommand(),
                                     eStepTerminate,
                                     {},
                                     {kWriteProblem}},
                      TConfigureCase{
                          "BaudRateNotAcknowledged",
                          [](CScriptedSerialPort& port) { port.Expect(BaudrateCommand()); },
                          BaudrateCommand(),
                          eStepTerminate,
                          {},
                          {kBaudrateError}},
                      TConfigureCase{"BaudRateAnsweredWithTheWrongByte",
                                     [](CScriptedSerialPort& port) {
                                         port.Expect(BaudrateCommand(), Bytes({0x05}));
                                     },
                                     BaudrateCommand(),
                                     eStepTerminate,
                                     {},
                                     {kBaudrateError}},
                      TConfigureCase{"FlowControlWriteFailsWithoutItsOwnLog",
                                     [](CScriptedSerialPort& port) {
                                         port.Expect(BaudrateCommand(), Bytes({0x07}));
                                         port.ExpectShortWrite(FlowControlCommand(), 1);
                                     },
                                     Concat({BaudrateCommand(), FlowControlCommand()}),
                                     eStepTerminate,
                                     {},
                                     {kWriteProblem}},
                      TConfigureCase{"BaudRateAcknowledgedButNotFlowControl",
                                     [](CScriptedSerialPort& port) {
                                         port.Expect(BaudrateCommand(), Bytes({0x07}));
                                         port.Expect(FlowControlCommand());
                                     },
                                     Concat({BaudrateCommand(), FlowControlCommand()}),
                                     eStepTerminate,
                                     {},
                                     {kFlowControlError}}),
    [](const ::testing::TestParamInfo<TConfigureCase>& testInfo) { return testInfo.param.name; });

}  // namespace
}  // namespace imageloadertest
