// The serial port's answers to what a line does at the worst moment, where a pseudo-terminal
// cannot be made to do it on request: interrupted and refused calls, a full driver buffer, a
// driver that takes part of a write, a terminal that refuses its settings. The C library calls
// are replaced for this executable only (SerialLineFaults.h); the line itself is a real
// pseudo-terminal, the test playing the modem on its master side.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <stdlib.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "Descriptors.h"
#include "LinuxSerialPort.h"
#include "LogCapture.h"
#include "Prerequisite.h"
#include "PseudoTerminalTest.h"
#include "SerialLineFaults.h"
#include "UniqueFd.h"

namespace {

using namespace std::chrono_literals;

class LinuxSerialPortFaultsTest : public CPseudoTerminalTest {
protected:
    // Opens the port and finds the descriptor it reads and writes.
    void OpenPort(std::chrono::milliseconds readTimeout = 2s) {
        const CStatus status = CLinuxSerialPort::Open(m_device, 115200, readTimeout, m_port);
        ASSERT_TRUE(status.IsOk()) << status.Message();
        m_portDescriptor = TerminalDescriptor();
        ASSERT_GE(m_portDescriptor, 0);
    }

    int WriteToModem(const std::string& bytes, uint32_t& written) {
        return m_port->Write(reinterpret_cast<const unsigned char*>(bytes.data()),
                             static_cast<uint32_t>(bytes.size()), written);
    }

    std::string PortError(const std::string& what) const {
        return "serial port " + m_device + ": " + what + "\n";
    }

    std::unique_ptr<CLinuxSerialPort> m_port;
    int m_portDescriptor = -1;
};

// A fault of one call that the port carries on through: everything still arrives, and nothing
// is reported.
struct TCarriedFault {
    const char* name;
    TSerialCall call;
    int error;
    std::size_t times;
};

void PrintTo(const TCarriedFault& fault, std::ostream* stream) { *stream << fault.name; }

class LinuxSerialPortWriteCarriesOnTest : public LinuxSerialPortFaultsTest,
                                          public ::testing::WithParamInterface<TCarriedFault> {};

TEST_P(LinuxSerialPortWriteCarriesOnTest, EveryByteReachesTheModemAndNothingIsReported) {
    ASSERT_NO_FATAL_FAILURE(OpenPort());
    const std::string bytes = "\x30\x41\x42\x43\x44\x45\x46\x47\x48\x49";
    CLogCapture capture;
    uint32_t written = 0;
    int result = -1;
    {
        CSerialCallFault fault(GetParam().call, m_portDescriptor, GetParam().error,
                               GetParam().times);
        result = WriteToModem(bytes, written);
        EXPECT_EQ(fault.Calls(), GetParam().times);
    }
    EXPECT_EQ(result, 0);
    EXPECT_EQ(written, bytes.size());
    EXPECT_EQ(ReadFromModem(bytes.size()), bytes);
    EXPECT_TRUE(capture.Entries().empty());
}

INSTANTIATE_TEST_SUITE_P(
    Faults, LinuxSerialPortWriteCarriesOnTest,
    ::testing::Values(TCarriedFault{"InterruptedWrites", TSerialCall::eWrite, EINTR, 3},
                      TCarriedFault{"AFullDriverBuffer", TSerialCall::eWrite, EAGAIN, 2}),
    [](const auto& parameter) { return std::string(parameter.param.name); });

TEST_F(LinuxSerialPortFaultsTest, AWaitForRoomInterruptedBySignalGoesOnWaiting) {
    ASSERT_NO_FATAL_FAILURE(OpenPort());
    CLogCapture capture;
    uint32_t written = 0;
    int result = -1;
    {
        CSerialCallFault full(TSerialCall::eWrite, m_portDescriptor, EAGAIN, 1);
        CSerialCallFault interrupted(TSerialCall::ePoll, m_portDescriptor, EINTR, 1);
        result = WriteToModem("\x30\x41", written);
        EXPECT_EQ(full.Calls(), 1u);
        EXPECT_EQ(interrupted.Calls(), 1u);
    }
    EXPECT_EQ(result, 0);
    EXPECT_EQ(written, 2u);
    EXPECT_EQ(ReadFromModem(2), "\x30\x41");
    EXPECT_TRUE(capture.Entries().empty());
}

TEST_F(LinuxSerialPortFaultsTest, ShortWritesGoOnWithTheRestInOrder) {
    ASSERT_NO_FATAL_FAILURE(OpenPort());
    std::string bytes(1000, '\0');
    for (std::size_t index = 0; index < bytes.size(); ++index) {
        bytes[index] = static_cast<char>(index * 13);
    }
    CLogCapture capture;
    uint32_t written = 0;
    int result = -1;
    {
        CShortWrites shortWrites(m_portDescriptor, 7);
        result = WriteToModem(bytes, written);
        // 1000 bytes, 7 at a time: every write but the last was cut short.
        EXPECT_EQ(shortWrites.Calls(), 142u);
    }
    EXPECT_EQ(result, 0);
    EXPECT_EQ(written, bytes.size());
    EXPECT_EQ(ReadFromModem(bytes.size()), bytes);
    EXPECT_TRUE(capture.Entries().empty());
}

class LinuxSerialPortReadCarriesOnTest : public LinuxSerialPortFaultsTest,
                                         public ::testing::WithParamInterface<TCarriedFault> {};

TEST_P(LinuxSerialPortReadCarriesOnTest, TheModemsBytesStillArriveAndNothingIsReported) {
    ASSERT_NO_FATAL_FAILURE(OpenPort());
    ASSERT_NO_FATAL_FAILURE(WriteFromModem("OK"));
    CLogCapture capture;
    unsigned char buffer[8] = {};
    uint32_t got = 0;
    int result = -1;
    {
        CSerialCallFault fault(GetParam().call, m_portDescriptor, GetParam().error,
                               GetParam().times);
        result = m_port->Read(buffer, sizeof buffer, got);
        EXPECT_EQ(fault.Calls(), GetParam().times);
    }
    EXPECT_EQ(result, 0);
    ASSERT_EQ(got, 2u);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(buffer), got), "OK");
    EXPECT_TRUE(capture.Entries().empty());
}

INSTANTIATE_TEST_SUITE_P(
    Faults, LinuxSerialPortReadCarriesOnTest,
    ::testing::Values(TCarriedFault{"InterruptedWaits", TSerialCall::ePoll, EINTR, 2},
                      TCarriedFault{"InterruptedReads", TSerialCall::eRead, EINTR, 2}),
    [](const auto& parameter) { return std::string(parameter.param.name); });

TEST_F(LinuxSerialPortFaultsTest, AReadThatWouldBlockIsNothingYetAndTheNextOneGetsTheBytes) {
    ASSERT_NO_FATAL_FAILURE(OpenPort());
    ASSERT_NO_FATAL_FAILURE(WriteFromModem("OK"));
    CLogCapture capture;
    unsigned char buffer[8] = {};
    uint32_t got = 99;
    {
        CSerialCallFault wouldBlock(TSerialCall::eRead, m_portDescriptor, EAGAIN, 1);
        EXPECT_EQ(m_port->Read(buffer, sizeof buffer, got), 0);
        EXPECT_EQ(got, 0u);
        EXPECT_EQ(wouldBlock.Calls(), 1u);
    }
    EXPECT_EQ(m_port->Read(buffer, sizeof buffer, got), 0);
    ASSERT_EQ(got, 2u);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(buffer), got), "OK");
    EXPECT_TRUE(capture.Entries().empty());
}

// A fault the port reports: the errno value as its answer, and one record that names the call,
// the device and the errno text.
struct TReportedFault {
    const char* name;
    TSerialCall call;
    int error;
    bool reading;       // Read, else Write
    int answer;         // what the port answers with
    const char* cause;  // the record's text after "serial port DEVICE: "
};

void PrintTo(const TReportedFault& fault, std::ostream* stream) { *stream << fault.name; }

class LinuxSerialPortReportsTest : public LinuxSerialPortFaultsTest,
                                   public ::testing::WithParamInterface<TReportedFault> {};

TEST_P(LinuxSerialPortReportsTest, AnswersWithTheErrorAndLogsWhatFailedOnWhichDevice) {
    const TReportedFault& fault = GetParam();
    ASSERT_NO_FATAL_FAILURE(OpenPort());
    ASSERT_NO_FATAL_FAILURE(WriteFromModem("OK"));
    CLogCapture capture;
    unsigned char buffer[8] = {};
    uint32_t count = 99;
    int result = 0;
    {
        CSerialCallFault injected(fault.call, m_portDescriptor, fault.error, 1);
        result = fault.reading ? m_port->Read(buffer, sizeof buffer, count)
                               : WriteToModem("\x30\x41", count);
    }
    EXPECT_EQ(result, fault.answer);
    EXPECT_EQ(count, 0u);
    const std::vector<logging::TLogRecord> records = capture.Records();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].category, logging::categories::Error);
    EXPECT_EQ(records[0].channel, logging::Platform);
    EXPECT_EQ(records[0].function, fault.reading ? "Read" : "Write");
    EXPECT_EQ(records[0].text, PortError(fault.cause));
}

INSTANTIATE_TEST_SUITE_P(
    Faults, LinuxSerialPortReportsTest,
    ::testing::Values(TReportedFault{"AFailingWait", TSerialCall::ePoll, ENOMEM, true, ENOMEM,
                                     "poll: Cannot allocate memory"},
                      TReportedFault{"AFailingRead", TSerialCall::eRead, EIO, true, EIO,
                                     "read: Input/output error"},
                      TReportedFault{"AFailingWrite", TSerialCall::eWrite, ENXIO, false, ENXIO,
                                     "write: No such device or address"},
                      TReportedFault{"AWriteThatTakesNothing", TSerialCall::eWrite, 0, false, EIO,
                                     "write: Input/output error"}),
    [](const auto& parameter) { return std::string(parameter.param.name); });

TEST_F(LinuxSerialPortFaultsTest, AFailingWaitForRoomIsReportedAsTheWrite) {
    ASSERT_NO_FATAL_FAILURE(OpenPort());
    CLogCapture capture;
    uint32_t written = 99;
    int result = 0;
    {
        CSerialCallFault full(TSerialCall::eWrite, m_portDescriptor, EAGAIN, 1);
        CSerialCallFault failing(TSerialCall::ePoll, m_portDescriptor, ENOMEM, 1);
        result = WriteToModem("\x30\x41", written);
    }
    EXPECT_EQ(result, ENOMEM);
    EXPECT_EQ(written, 0u);
    const std::vector<TLogEntry> expected{{logging::categories::Error, "Write",
                                           PortError("waiting to write: Cannot allocate memory")}};
    EXPECT_EQ(capture.Entries(), expected);
}

TEST_F(LinuxSerialPortFaultsTest, ATerminalThatRefusesItsSettingsIsNotOpenedAndLeavesNothingOpen) {
    const std::set<int> before = OpenDescriptors();
    std::unique_ptr<CLinuxSerialPort> port;
    CStatus status = CStatus::Ok();
    {
        CSerialCallFault refused(TSerialCall::eTcsetattr, -1, EIO, 1);
        status = CLinuxSerialPort::Open(m_device, 115200, 10ms, port);
        EXPECT_EQ(refused.Calls(), 1u);
    }
    EXPECT_FALSE(port);
    EXPECT_EQ(status.Message(), "serial port " + m_device + ": tcsetattr: Input/output error");
    EXPECT_EQ(OpenDescriptors(), before);
}

}  // namespace
