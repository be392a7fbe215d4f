// The image loader's flashing sequence, tick by tick: loader-source download, read, erase,
// firmware write in 25600-byte chunks, termination; and whole runs checked byte for byte.

#include <gtest/gtest.h>

#include "FileHandlerFaults.h"
#include "ImageLoaderTestHost.h"

namespace imageloadertest {
namespace {

class FlashSequenceTest : public ImageLoaderTestHost {
protected:
    // Calls Write until the run has gone to its termination, at most `limit` times; the number
    // of calls made.
    unsigned WriteUntilTerminated(CImageLoader& loader, unsigned limit) {
        unsigned calls = 0;
        while (calls < limit && loader.Step() != eStepTerminate) {
            loader.Write();
            ++calls;
        }
        return calls;
    }
};

bool NeverRises(const std::vector<unsigned int>& values) {
    for (std::size_t index = 1; index < values.size(); ++index) {
        if (values[index] > values[index - 1]) {
            return false;
        }
    }
    return true;
}

// ---- Whole runs ------------------------------------------------------------------------------

TEST_F(FlashSequenceTest, WholeSuccessfulFlashSendsTheExactByteStreamAndCompletesOnce) {
    // Three full chunks and a partial one.
    ASSERT_EQ(m_firmware.size(), 3u * kChunk + 1000u);
    const uint32_t size = static_cast<uint32_t>(m_firmware.size());
    CImageLoader& loader = PreparedLoader();
    ScriptSuccessfulModem(3);
    loader.Install();

    // start, sync + download, configure, read, erase x3, write x4 chunks, close, terminate
    m_broker.Tick(12);
    EXPECT_EQ(m_callback.CompletedCount(), 0);
    m_broker.Tick();
    ASSERT_EQ(m_callback.CompletedCount(), 1);

    const std::size_t probes = m_port.ProbesWritten();
    ASSERT_GE(probes, 1u);
    EXPECT_EQ(
        m_port.Written(),
        Concat({TBytes(probes, 0x16), Bytes(m_loaderSource), BaudrateCommand(),
                FlowControlCommand(), ReadRangeCommand(), Bytes({0x02}), EraseRangeCommand(size),
                Bytes({0x03}), WriteRangeCommand(size), Bytes({0x01}), Bytes(m_firmware)}));
    EXPECT_FALSE(m_port.SawUnexpectedBytes());
    EXPECT_EQ(m_port.StepsLeft(), 0u);
    EXPECT_EQ(m_port.Buffered(), 0u);

    EXPECT_EQ(m_callback.ProgressRemaining(),
              (std::vector<unsigned int>{95, 90, 85, 80, 75, 75, 75, 75, 55, 33, 17, 0, 0}));
    EXPECT_EQ(m_callback.Calls().back(), "Completed(1)");
    EXPECT_TRUE(NeverRises(m_callback.ProgressRemaining()));
    EXPECT_EQ(loader.Error(), eLoaderErrorNone);
    EXPECT_EQ(LoaderLog(), (std::vector<TLogEntry>{
                               AlwaysEntry("Sync", "noticed a reply from modem"),
                               AlwaysEntry("PrepareFlash", "loader source download completed"),
                               AlwaysEntry("Write", "firmware download completed")}));
    EXPECT_EQ(m_commands.Lines(), std::vector<std::string>{PinLow()});
    EXPECT_EQ(m_files.OpenStreams(), 0u) << "the firmware file is closed";

    const auto calls = m_broker.SubscriptionCalls();
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(calls[1].kind, TSubscriptionCall::eUnsubscribe);
    EXPECT_EQ(calls[1].subscription.filter.size, 1000u);
    EXPECT_EQ(calls[1].subscription.filter.data, reinterpret_cast<const void*>(1));
    EXPECT_EQ(calls[1].subscription.observer, static_cast<IEventObserver*>(&loader));
    EXPECT_FALSE(m_broker.HasTickSubscribers());

    m_broker.Tick(5);
    const TEvent tick{EVENT_TYPE_TICK, 0, 0, nullptr};
    loader.OnEvent(tick);
    EXPECT_EQ(m_callback.CompletedCount(), 1) << "nothing runs after Terminate";
    ASSERT_TRUE(Await([this] { return FinishedAckThreads() == 1; }));
}

TEST_F(FlashSequenceTest, SecondRunInTheSameProcessResumesFromTheFirstRunsCounters) {
    const uint32_t size = static_cast<uint32_t>(m_firmware.size());
    CImageLoader& first = PreparedLoader();
    ScriptSuccessfulModem(3);
    first.Install();
    TickUntilCompleted();
    ASSERT_EQ(first.Error(), eLoaderErrorNone);
    const std::size_t firstRunBytes = m_port.Written().size();

    // The erase counts as started and the whole firmware as sent: the second run sends neither
    // the erase nor the write commands nor any data, and waits only for the modem's statuses.
    CRecordingLoaderCallback secondCallback;
    CImageLoader second(m_name, m_broker, m_properties, secondCallback);
    Watch(second);
    ASSERT_TRUE(second.Prepare());
    m_port.PlayBootCode();
    m_port.Expect(Bytes(m_loaderSource), Bytes("0"));
    ScriptFromConfigure();
    m_port.ReplyAfterEmptyReads(0, Bytes("0"));  // erase done
    m_port.ReplyAfterEmptyReads(0, Bytes("0"));  // firmware done
    second.Install();
    for (unsigned tick = 0; tick < 100 && secondCallback.CompletedCount() == 0; ++tick) {
        m_broker.Tick();
    }

    // Erase ticks left went 60 -> 57 in the first run; 56 now: 75 - (4 >> 2).
    EXPECT_EQ(secondCallback.Calls(),
              (std::vector<std::string>{"Progress(95,100)", "Progress(90,100)", "Progress(85,100)",
                                        "Progress(80,100)", "Progress(74,100)", "Completed(1)"}));
    const TBytes all = m_port.Written();
    const TBytes secondRun(all.begin() + static_cast<std::ptrdiff_t>(firstRunBytes), all.end());
    const std::size_t probes = secondRun.size() - m_loaderSource.size() - BaudrateCommand().size() -
                               FlowControlCommand().size() - ReadRangeCommand().size() - 1;
    EXPECT_EQ(secondRun, Concat({TBytes(probes, 0x16), Bytes(m_loaderSource), BaudrateCommand(),
                                 FlowControlCommand(), ReadRangeCommand(), Bytes({0x02})}));
    EXPECT_GE(probes, 1u);
    EXPECT_EQ(size, m_firmware.size());
    EXPECT_EQ(m_port.StepsLeft(), 0u);
    EXPECT_EQ(m_files.OpenStreams(), 0u) << "the firmware is not opened again";
    ASSERT_TRUE(Await([this] { return FinishedAckThreads() == 2; }))
        << FinishedAckThreads() << " power workers finished";
}

// ---- Loader-source download ------------------------------------------------------------------

struct TDownloadCase {
    const char* name;
    std::function<void(CScriptedSerialPort&, const TBytes& loaderSource)> script;
    TImageLoaderStep step;
    std::vector<std::string> calls;
    std::vector<TLogEntry> log;
};
void PrintTo(const TDownloadCase& testCase, std::ostream* stream) { *stream << testCase.name; }

class LoaderDownloadTest : public FlashSequenceTest,
                           public ::testing::WithParamInterface<TDownloadCase> {};

TEST_P(LoaderDownloadTest, EndsOnTheModemsStatusCharacter) {
    CImageLoader& loader = PreparedLoader();
    GetParam().script(m_port, Bytes(m_loaderSource));
    CVirtualClock::Clear();
    loader.PrepareFlash();
    EXPECT_EQ(m_port.Written(), Bytes(m_loaderSource));
    EXPECT_EQ(loader.Step(), GetParam().step);
    if (GetParam().step == eStepTerminate) {
        EXPECT_EQ(loader.Error(), eLoaderErrorLoaderSource);
    }
    EXPECT_TRUE(loader.StepPending());
    EXPECT_EQ(m_callback.Calls(), GetParam().calls);
    EXPECT_EQ(m_log.Entries(), GetParam().log);
    EXPECT_TRUE(CVirtualClock::Sleeps().empty()) << "the poll never sleeps";
}

INSTANTIATE_TEST_SUITE_P(
    Status, LoaderDownloadTest,
    ::testing::Values(
        TDownloadCase{"Accepted",
                      [](CScriptedSerialPort& port, const TBytes& source) {
                          port.Expect(source, Bytes("0"));
                      },
                      eStepConfigure,
                      {"Progress(90,100)"},
                      {AlwaysEntry("PrepareFlash", "loader source download completed")}},
        TDownloadCase{"OtherBytesBeforeTheStatusAreIgnored",
                      [](CScriptedSerialPort& port, const TBytes& source) {
                          port.Expect(source, Bytes("x.\x16"));
                          port.ReplyAfterEmptyReads(5, Bytes("0"));
                      },
                      eStepConfigure,
                      {"Progress(90,100)"},
                      {AlwaysEntry("PrepareFlash", "loader source download completed")}},
        TDownloadCase{"PortErrorsAreLoggedAndThePollGoesOn",
                      [](CScriptedSerialPort& port, const TBytes& source) {
                          port.Expect(source);
                          port.ReadErrors(2);
                          port.ReplyAfterEmptyReads(0, Bytes("0"));
                      },
                      eStepConfigure,
                      {"Progress(90,100)"},
                      {ErrorEntry("PrepareFlash", "Unable to read from serial port"),
                       ErrorEntry("PrepareFlash", "Unable to read from serial port"),
                       AlwaysEntry("PrepareFlash", "loader source download completed")}},
        TDownloadCase{"ChecksumError",
                      [](CScriptedSerialPort& port, const TBytes& source) {
                          port.Expect(source, Bytes("1"));
                      },
                      eStepTerminate,
                      {},
                      {ErrorEntry("PrepareFlash", "Loader source checksum error")}},
        TDownloadCase{"TypeError",
                      [](CScriptedSerialPort& port, const TBytes& source) {
                          port.Expect(source, Bytes("2"));
                      },
                      eStepTerminate,
                      {},
                      {ErrorEntry("PrepareFlash", "loader source type error")}},
        TDownloadCase{"StateMachineError",
                      [](CScriptedSerialPort& port, const TBytes& source) {
                          port.Expect(source, Bytes("3"));
                      },
                      eStepTerminate,
                      {},
                      {ErrorEntry("PrepareFlash", "loader source finite state machine error")}},
        TDownloadCase{"WriteFails",
                      [](CScriptedSerialPort& port, const TBytes& source) {
                          port.ExpectWriteError(source, 1);
                      },
                      eStepTerminate,
                      {},
                      {ErrorEntry("WriteBuffer", "encountered a problem writing to serial port")}}),
    [](const ::testing::TestParamInfo<TDownloadCase>& testInfo) { return testInfo.param.name; });

TEST_F(FlashSequenceTest, SilentModemKeepsTheLoaderDownloadPollingWithoutATimeOut) {
    CImageLoader& loader = PreparedLoader();
    m_port.Expect(Bytes(m_loaderSource));
    m_port.ReplyAfterEmptyReads(200000, Bytes("0"));
    CVirtualClock::Clear();
    loader.PrepareFlash();
    EXPECT_EQ(m_port.Reads(), 200001u);
    EXPECT_TRUE(CVirtualClock::Sleeps().empty());
    EXPECT_EQ(loader.Step(), eStepConfigure);
}

// ---- Read ------------------------------------------------------------------------------------

struct TReadCase {
    const char* name;
    std::function<void(CScriptedSerialPort&)> script;
    TBytes written;
    std::vector<std::string> calls;
    std::vector<TLogEntry> log;
};
void PrintTo(const TReadCase& testCase, std::ostream* stream) { *stream << testCase.name; }

class ReadCommandTest : public FlashSequenceTest,
                        public ::testing::WithParamInterface<TReadCase> {};

TEST_P(ReadCommandTest, AnnouncesAnEmptyRangeAndReads) {
    CImageLoader& loader = PreparedLoader();
    GetParam().script(m_port);
    loader.Read();
    EXPECT_EQ(m_port.Written(), GetParam().written);
    const bool succeeded = !GetParam().calls.empty();
    EXPECT_EQ(loader.Step(), succeeded ? eStepErase : eStepTerminate);
    if (!succeeded) {
        EXPECT_EQ(loader.Error(), eLoaderErrorRead);
    }
    EXPECT_TRUE(loader.StepPending());
    EXPECT_EQ(m_callback.Calls(), GetParam().calls);
    EXPECT_EQ(m_log.Entries(), GetParam().log);
}

const TLogEntry kWriteProblem =
    ErrorEntry("WriteBuffer", "encountered a problem writing to serial port");

INSTANTIATE_TEST_SUITE_P(
    Modem, ReadCommandTest,
    ::testing::Values(
        TReadCase{"Acknowledged",
                  [](CScriptedSerialPort& port) {
                      port.Expect(ReadRangeCommand(), Bytes({0x04}));
                      port.Expect(Bytes({0x02}), Bytes({0x02}));
                  },
                  Concat({ReadRangeCommand(), Bytes({0x02})}),
                  {"Progress(80,100)"},
                  {}},
        TReadCase{"RangeWriteFails",
                  [](CScriptedSerialPort& port) { port.ExpectWriteError(ReadRangeCommand(), 1); },
                  ReadRangeCommand(),
                  {},
                  {kWriteProblem, ErrorEntry("Read", "error writing read to modem")}},
        TReadCase{"RangeNotAcknowledged",
                  [](CScriptedSerialPort& port) { port.Expect(ReadRangeCommand()); },
                  ReadRangeCommand(),
                  {},
                  {ErrorEntry("Read", "modem did not respond to read commandm")}},
        TReadCase{"ReadWriteFails",
                  [](CScriptedSerialPort& port) {
                      port.Expect(ReadRangeCommand(), Bytes({0x04}));
                      port.ExpectShortWrite(Bytes({0x02}), 0);
                  },
                  Concat({ReadRangeCommand(), Bytes({0x02})}),
                  {},
                  {kWriteProblem, ErrorEntry("Read", "error writing read command to modem")}},
        TReadCase{"ReadNotAcknowledged",
                  [](CScriptedSerialPort& port) {
                      port.Expect(ReadRangeCommand(), Bytes({0x04}));
                      port.Expect(Bytes({0x02}), Bytes({0x04}));
                  },
                  Concat({ReadRangeCommand(), Bytes({0x02})}),
                  {},
                  {ErrorEntry("Read", "modem did not return firmware size")}}),
    [](const ::testing::TestParamInfo<TReadCase>& testInfo) { return testInfo.param.name; });

// ---- Erase -----------------------------------------------------------------------------------

struct TEraseStartCase {
    const char* name;
    std::function<void(CScriptedSerialPort&, uint32_t size)> script;
    std::vector<TLogEntry> log;
};
void PrintTo(const TEraseStartCase& testCase, std::ostream* stream) { *stream << testCase.name; }

class EraseStartTest : public FlashSequenceTest,
                       public ::testing::WithParamInterface<TEraseStartCase> {};

TEST_P(EraseStartTest, FailureEndsTheRunWithoutItsOwnLog) {
    CImageLoader& loader = PreparedLoader();
    GetParam().script(m_port, static_cast<uint32_t>(m_firmware.size()));
    loader.Erase();
    EXPECT_EQ(loader.Step(), eStepTerminate);
    EXPECT_EQ(loader.Error(), eLoaderErrorErase);
    EXPECT_TRUE(loader.StepPending());
    EXPECT_TRUE(m_callback.Calls().empty());
    EXPECT_EQ(m_log.Entries(), GetParam().log);
    EXPECT_EQ(m_port.StepsLeft(), 0u);
}

INSTANTIATE_TEST_SUITE_P(
    Modem, EraseStartTest,
    ::testing::Values(TEraseStartCase{"RangeWriteFails",
                                      [](CScriptedSerialPort& port, uint32_t size) {
                                          port.ExpectWriteError(EraseRangeCommand(size), 1);
                                      },
                                      {kWriteProblem}},
                      TEraseStartCase{"RangeNotAcknowledged",
                                      [](CScriptedSerialPort& port, uint32_t size) {
                                          port.Expect(EraseRangeCommand(size));
                                      },
                                      {}},
                      TEraseStartCase{"EraseWriteFails",
                                      [](CScriptedSerialPort& port, uint32_t size) {
                                          port.Expect(EraseRangeCommand(size), Bytes({0x09}));
                                          port.ExpectWriteError(Bytes({0x03}), 1);
                                      },
                                      {kWriteProblem}},
                      TEraseStartCase{"EraseNotAcknowledged",
                                      [](CScriptedSerialPort& port, uint32_t size) {
                                          port.Expect(EraseRangeCommand(size), Bytes({0x09}));
                                          port.Expect(Bytes({0x03}));
                                      },
                                      {}}),
    [](const ::testing::TestParamInfo<TEraseStartCase>& testInfo) { return testInfo.param.name; });

TEST_F(FlashSequenceTest, EraseWaitsOneTickPerCallUntilTheModemReportsDone) {
    CImageLoader& loader = PreparedLoader();
    const uint32_t size = static_cast<uint32_t>(m_firmware.size());
    m_port.Expect(EraseRangeCommand(size), Bytes({0x09}));
    m_port.Expect(Bytes({0x03}), Bytes({0x03}));
    m_port.ReplyAfterEmptyReads(20, Bytes("0"));
    loader.Erase();
    EXPECT_EQ(loader.Step(), eStepStart) << "still erasing";
    EXPECT_TRUE(loader.StepPending());
    loader.Erase();
    loader.Erase();
    EXPECT_EQ(loader.Step(), eStepWrite);
    EXPECT_EQ(m_port.Written(), Concat({EraseRangeCommand(size), Bytes({0x03})}))
        << "the erase is sent once";
    EXPECT_EQ(m_callback.ProgressRemaining(), (std::vector<unsigned int>{75, 75, 75, 75}));
    EXPECT_TRUE(m_log.Entries().empty());
}

TEST_F(FlashSequenceTest, EraseNeverReportedDoneEndsTheRunAfterSixtyTicks) {
    CImageLoader& loader = PreparedLoader();
    const uint32_t size = static_cast<uint32_t>(m_firmware.size());
    m_port.Expect(EraseRangeCommand(size), Bytes({0x09}));
    m_port.Expect(Bytes({0x03}), Bytes({0x03}));
    CVirtualClock::SetRealTimeDivisor(0);
    for (int tick = 1; tick < 60; ++tick) {
        loader.Erase();
        ASSERT_NE(loader.Step(), eStepTerminate) << "tick " << tick;
    }
    loader.Erase();
    EXPECT_EQ(loader.Step(), eStepTerminate);
    EXPECT_EQ(loader.Error(), eLoaderErrorErase);
    EXPECT_TRUE(m_log.Entries().empty());
    // 75 when started, then 75 - ((60 - t) >> 2) for t = 59 down to 0.
    std::vector<unsigned int> expected{75};
    for (int ticksLeft = 59; ticksLeft >= 0; --ticksLeft) {
        expected.push_back(static_cast<unsigned int>(75 - ((60 - ticksLeft) >> 2)));
    }
    EXPECT_EQ(m_callback.ProgressRemaining(), expected);
    EXPECT_EQ(expected.back(), 60u);
    EXPECT_EQ(CVirtualClock::SleepsOf(m_mainThread).size(), 600u) << "ten tries a tick";
}

// ---- Write -----------------------------------------------------------------------------------

void ScriptWriteStart(CScriptedSerialPort& port, uint32_t size) {
    port.Expect(WriteRangeCommand(size), Bytes({0x04}));
    port.Expect(Bytes({0x01}), Bytes({0x01}));
}

TEST_F(FlashSequenceTest, EmptyFirmwareClosesTheFileOnTheFirstDataTickAndAwaitsTheStatus) {
    SetFirmware("");
    CImageLoader& loader = MakeLoader();
    EXPECT_FALSE(loader.Prepare()) << "an empty firmware is reported, but the run may go on";
    m_log.Clear();
    ScriptWriteStart(m_port, 0);
    loader.Write();
    EXPECT_EQ(m_files.OpenStreams(), 0u);
    EXPECT_EQ(loader.Step(), eStepStart) << "still writing";
    EXPECT_EQ(m_callback.Calls(), std::vector<std::string>{"Progress(55,100)"});
    m_port.Send(Bytes("0"));
    loader.Write();
    EXPECT_EQ(loader.Step(), eStepTerminate);
    EXPECT_EQ(loader.Error(), eLoaderErrorNone);
    EXPECT_EQ(m_port.Written(), Concat({WriteRangeCommand(0), Bytes({0x01})}));
}

TEST_F(FlashSequenceTest, FirmwareOfWholeChunksSendsAFullLastChunkAndClosesOnTheNextTick) {
    SetFirmware(PseudoRandomBytes(2 * kChunk, 9));
    CImageLoader& loader = PreparedLoader();
    ScriptWriteStart(m_port, 2 * kChunk);
    ScriptFirmwareChunks(".");
    loader.Write();
    loader.Write();
    EXPECT_EQ(m_files.OpenStreams(), 1u);
    EXPECT_EQ(m_port.Written().size(), 9u + 1u + 2 * kChunk);
    loader.Write();
    EXPECT_EQ(m_files.OpenStreams(), 0u);
    EXPECT_EQ(m_port.Written().size(), 9u + 1u + 2 * kChunk) << "nothing more to send";
    EXPECT_EQ(m_port.WriteCalls(), 4u);
    EXPECT_EQ(m_callback.ProgressRemaining(), (std::vector<unsigned int>{55, 25, 0}));
}

TEST_F(FlashSequenceTest, ModemBusyEveryTickNeverTimesOutAndSilenceThenEndsItAfterSixtyTicks) {
    SetFirmware(PseudoRandomBytes(1000, 2));
    CImageLoader& loader = PreparedLoader();
    ScriptWriteStart(m_port, 1000);
    ScriptFirmwareChunks(".");
    loader.Write();  // the only chunk
    for (int tick = 0; tick < 300; ++tick) {
        m_port.Send(Bytes("."));
        loader.Write();
        ASSERT_EQ(loader.Step(), eStepStart) << "busy tick " << tick;
    }
    EXPECT_EQ(WriteUntilTerminated(loader, 100), 60u);
    EXPECT_EQ(loader.Error(), eLoaderErrorWrite);
    EXPECT_EQ(m_log.Entries(), std::vector<TLogEntry>{ErrorEntry("Write", "write timed out")});
}

TEST_F(FlashSequenceTest, SilenceAfterTheLastChunkTimesOutSixtyTicksAfterTheFileIsClosed) {
    SetFirmware(PseudoRandomBytes(1000, 2));
    CImageLoader& loader = PreparedLoader();
    ScriptWriteStart(m_port, 1000);
    ScriptFirmwareChunks("");
    loader.Write();  // the chunk: the time-out does not count yet
    EXPECT_EQ(m_files.OpenStreams(), 1u);
    EXPECT_EQ(WriteUntilTerminated(loader, 100), 60u) << "the closing tick counts as the first";
    EXPECT_EQ(loader.Error(), eLoaderErrorWrite);
    EXPECT_EQ(m_log.Entries(), std::vector<TLogEntry>{ErrorEntry("Write", "write timed out")});
    EXPECT_TRUE(loader.StepPending());
}

TEST_F(FlashSequenceTest, AShortChunkReadIsNeitherSentNorCountedAndTheNextTickReadsOn) {
    SetFirmware(PseudoRandomBytes(2 * kChunk + 1000, 4));
    const uint32_t size = static_cast<uint32_t>(m_firmware.size());
    CImageLoader& loader = PreparedLoader();
    CFileHandlerFaults faults(m_files);
    ScriptWriteStart(m_port, size);
    faults.ShortenNextRead(100);
    loader.Write();
    EXPECT_EQ(m_port.Written(), Concat({WriteRangeCommand(size), Bytes({0x01})}))
        << "the short chunk is not sent";
    EXPECT_EQ(m_callback.Calls(), std::vector<std::string>{"Progress(55,100)"});
    EXPECT_EQ(loader.Step(), eStepStart);
    EXPECT_TRUE(loader.StepPending());

    // The file has moved on by the 100 bytes read: the next chunk starts there, and only it
    // counts (25600 of 52200 bytes: 50 - 24.5).
    m_port.Expect(Bytes(m_firmware.substr(100, kChunk)), Bytes("."));
    loader.Write();
    EXPECT_EQ(m_port.Written(), Concat({WriteRangeCommand(size), Bytes({0x01}),
                                        Bytes(m_firmware.substr(100, kChunk))}));
    EXPECT_EQ(m_callback.Calls(),
              (std::vector<std::string>{"Progress(55,100)", "Progress(25,100)"}));
    EXPECT_FALSE(m_port.SawUnexpectedBytes());
    EXPECT_TRUE(m_log.Entries().empty());
}

TEST_F(FlashSequenceTest, AFailedChunkWriteIsNotCountedAndTheNextTickSendsTheFollowingRange) {
    SetFirmware(PseudoRandomBytes(2 * kChunk + 1000, 4));
    const uint32_t size = static_cast<uint32_t>(m_firmware.size());
    CImageLoader& loader = PreparedLoader();
    ScriptWriteStart(m_port, size);
    m_port.ExpectWriteError(Bytes(m_firmware.substr(0, kChunk)), 1);
    loader.Write();
    EXPECT_EQ(m_callback.Calls(), std::vector<std::string>{"Progress(55,100)"});
    EXPECT_EQ(m_log.Entries(), std::vector<TLogEntry>{kWriteProblem});
    EXPECT_TRUE(loader.StepPending());

    // Not re-sent: the second range follows, and the count holds it alone.
    m_port.Expect(Bytes(m_firmware.substr(kChunk, kChunk)), Bytes("."));
    loader.Write();
    EXPECT_EQ(m_callback.Calls(),
              (std::vector<std::string>{"Progress(55,100)", "Progress(25,100)"}));
    // 26600 bytes are still owed by the count, but the file holds only its last 1000: a short
    // read, so nothing goes out, and the file stays open.
    const TBytes before = m_port.Written();
    loader.Write();
    EXPECT_EQ(m_port.Written(), before);
    EXPECT_EQ(m_callback.Calls().size(), 2u);
    EXPECT_EQ(m_files.OpenStreams(), 1u);
    EXPECT_FALSE(m_port.SawUnexpectedBytes());
    EXPECT_EQ(m_log.Entries(), std::vector<TLogEntry>{kWriteProblem});
}

TEST_F(FlashSequenceTest, TheWriteTimeOutLeftByOneRunIsWhereTheNextRunInTheProcessStarts) {
    SetFirmware(PseudoRandomBytes(1000, 2));
    CImageLoader& first = PreparedLoader();
    ScriptWriteStart(m_port, 1000);
    ScriptFirmwareChunks("");
    first.Write();  // the only chunk
    for (int tick = 0; tick < 10; ++tick) {
        first.Write();  // the first of these closes the file; each counts down
    }
    m_port.Send(Bytes("0"));
    first.Write();  // counts down too: 60 - 11 = 49 left
    ASSERT_EQ(first.Step(), eStepTerminate);
    ASSERT_EQ(first.Error(), eLoaderErrorNone);

    // A second loader in the same process: the write has started, the file is done and 49
    // ticks of the time-out are left, so its silent modem times out after 49 ticks, not 60.
    const TBytes sent = m_port.Written();
    CImageLoader& second = PreparedLoader();
    EXPECT_EQ(WriteUntilTerminated(second, 100), 49u);
    EXPECT_EQ(second.Error(), eLoaderErrorWrite);
    EXPECT_EQ(m_port.Written(), sent) << "the second run sends nothing";
    EXPECT_EQ(m_log.Entries(), std::vector<TLogEntry>{ErrorEntry("Write", "write timed out")});
}

TEST_F(FlashSequenceTest, SuccessOnTheTickTheTimeOutRunsOutIsReportedAsATimeOut) {
    SetFirmware(PseudoRandomBytes(1000, 2));
    CImageLoader& loader = PreparedLoader();
    ScriptWriteStart(m_port, 1000);
    ScriptFirmwareChunks("");
    // Empty on the chunk tick and 59 counted ticks; "0" on the 60th.
    m_port.ReplyAfterEmptyReads(60, Bytes("0"));
    loader.Write();
    EXPECT_EQ(WriteUntilTerminated(loader, 100), 60u);
    EXPECT_EQ(loader.Error(), eLoaderErrorWrite);
    EXPECT_EQ(m_log.Entries(),
              (std::vector<TLogEntry>{AlwaysEntry("Write", "firmware download completed"),
                                      ErrorEntry("Write", "write timed out")}));
}

TEST_F(FlashSequenceTest, PortErrorsWhileAwaitingTheStatusDoNotCountTowardsTheTimeOut) {
    SetFirmware(PseudoRandomBytes(1000, 2));
    CImageLoader& loader = PreparedLoader();
    ScriptWriteStart(m_port, 1000);
    ScriptFirmwareChunks("");
    loader.Write();
    loader.Write();  // closes the file: 59 left
    m_port.ReadErrors(100);
    EXPECT_EQ(WriteUntilTerminated(loader, 100), 100u);
    EXPECT_NE(loader.Step(), eStepTerminate);
    EXPECT_EQ(WriteUntilTerminated(loader, 100), 59u);
    EXPECT_EQ(m_log.Entries(), std::vector<TLogEntry>{ErrorEntry("Write", "write timed out")})
        << "read errors during the write are not logged";
}

struct TStatusCase {
    const char* name;
    std::string status;
    std::vector<TLogEntry> log;
};
void PrintTo(const TStatusCase& testCase, std::ostream* stream) { *stream << testCase.name; }

class FirmwareStatusTest : public FlashSequenceTest,
                           public ::testing::WithParamInterface<TStatusCase> {};

TEST_P(FirmwareStatusTest, FailureStatusEndsTheRun) {
    SetFirmware(PseudoRandomBytes(1000, 2));
    CImageLoader& loader = PreparedLoader();
    ScriptWriteStart(m_port, 1000);
    ScriptFirmwareChunks(GetParam().status);
    loader.Write();
    EXPECT_EQ(loader.Step(), eStepTerminate);
    EXPECT_EQ(loader.Error(), eLoaderErrorWrite);
    EXPECT_TRUE(loader.StepPending());
    EXPECT_EQ(m_log.Entries(), GetParam().log);
    loader.Terminate();
    EXPECT_EQ(m_callback.Calls().back(), "Completed(0)");
}

INSTANTIATE_TEST_SUITE_P(
    Modem, FirmwareStatusTest,
    ::testing::Values(
        TStatusCase{"Checksum", "1", {ErrorEntry("Write", "firmware checksum error")}},
        TStatusCase{"Type", "2", {ErrorEntry("Write", "firmware type error")}},
        TStatusCase{
            "StateMachine", "3", {ErrorEntry("Write", "firmware finite state machine error")}},
        TStatusCase{"UnknownByteWithoutLog", "?", {}}),
    [](const ::testing::TestParamInfo<TStatusCase>& testInfo) { return testInfo.param.name; });

struct TWriteStartCase {
    const char* name;
    std::function<void(CScriptedSerialPort&, CFileHandlerFaults&, uint32_t size)> arrange;
    std::vector<TLogEntry> log;
};
void PrintTo(const TWriteStartCase& testCase, std::ostream* stream) { *stream << testCase.name; }

class WriteStartTest : public FlashSequenceTest,
                       public ::testing::WithParamInterface<TWriteStartCase> {};

TEST_P(WriteStartTest, FailureEndsTheRunWithoutItsOwnLog) {
    CImageLoader& loader = PreparedLoader();
    CFileHandlerFaults faults(m_files);
    GetParam().arrange(m_port, faults, static_cast<uint32_t>(m_firmware.size()));
    loader.Write();
    EXPECT_EQ(loader.Step(), eStepTerminate);
    EXPECT_EQ(loader.Error(), eLoaderErrorWrite);
    EXPECT_TRUE(loader.StepPending());
    EXPECT_TRUE(m_callback.Calls().empty());
    EXPECT_EQ(m_log.Entries(), GetParam().log);
    EXPECT_EQ(m_port.StepsLeft(), 0u);
    EXPECT_EQ(m_files.OpenStreams(), 0u);
}

INSTANTIATE_TEST_SUITE_P(
    Modem, WriteStartTest,
    ::testing::Values(
        TWriteStartCase{"RangeWriteFails",
                        [](CScriptedSerialPort& port, CFileHandlerFaults&, uint32_t size) {
                            port.ExpectWriteError(WriteRangeCommand(size), 1);
                        },
                        {kWriteProblem}},
        TWriteStartCase{"RangeNotAcknowledged",
                        [](CScriptedSerialPort& port, CFileHandlerFaults&, uint32_t size) {
                            port.Expect(WriteRangeCommand(size));
                        },
                        {}},
        TWriteStartCase{"WriteCommandFails",
                        [](CScriptedSerialPort& port, CFileHandlerFaults&, uint32_t size) {
                            port.Expect(WriteRangeCommand(size), Bytes({0x04}));
                            port.ExpectWriteError(Bytes({0x01}), 1);
                        },
                        {kWriteProblem}},
        TWriteStartCase{"WriteCommandNotAcknowledged",
                        [](CScriptedSerialPort& port, CFileHandlerFaults&, uint32_t size) {
                            port.Expect(WriteRangeCommand(size), Bytes({0x04}));
                            port.Expect(Bytes({0x01}));
                        },
                        {}},
        TWriteStartCase{"FirmwareCannotBeOpened",
                        [](CScriptedSerialPort& port, CFileHandlerFaults& faults, uint32_t size) {
                            ScriptWriteStart(port, size);
                            faults.FailOpen("firmware");
                        },
                        {}}),
    [](const ::testing::TestParamInfo<TWriteStartCase>& testInfo) { return testInfo.param.name; });

TEST_F(FlashSequenceTest, TerminateAfterAFailureUnsubscribesAndReportsFailure) {
    CImageLoader& loader = PreparedLoader();
    loader.Install();
    m_port.ExpectWriteError(ReadRangeCommand(), 1);
    loader.Read();
    loader.Terminate();
    EXPECT_EQ(m_callback.Calls(), std::vector<std::string>{"Completed(0)"});
    EXPECT_FALSE(m_broker.HasTickSubscribers());
    EXPECT_EQ(loader.Error(), eLoaderErrorRead) << "the step's error stays in the loader";
}

}  // namespace
}  // namespace imageloadertest
