// The serial port on a real tty: a pseudo-terminal pair stands in for the line to the modem. The
// port opens the terminal side; the test plays the modem on the master side.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/syscall.h>
#include <termios.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "Await.h"
#include "Descriptors.h"
#include "InstalledBackend.h"
#include "LinuxSerialPort.h"
#include "LinuxSerialPortFactory.h"
#include "LogCapture.h"
#include "Prerequisite.h"
#include "PseudoTerminalTest.h"
#include "TemporaryDirectory.h"
#include "UniqueFd.h"

namespace {

using namespace std::chrono_literals;

// The state letter of this process's thread `thread` (/proc/self/task/ID/stat): 'S' while it
// sleeps, in a poll for instance; '?' when it cannot be read.
char ThreadState(pid_t thread) {
    std::string stat;
    if (!ReadWholeFile("/proc/self/task/" + std::to_string(thread) + "/stat", stat)) {
        return '?';
    }
    const std::size_t end = stat.rfind(')');
    return end != std::string::npos && end + 2 < stat.size() ? stat[end + 2] : '?';
}

class LinuxSerialPortTest : public CPseudoTerminalTest {
protected:
    // The record of a port whose other end hung up: what `call` was doing (`what`), and EIO.
    TLogEntry HangUpEntry(const std::string& call, const std::string& what) const {
        return TLogEntry{logging::categories::Error, call,
                         "serial port " + m_device + ": " + what + ": Input/output error\n"};
    }

    std::unique_ptr<CLinuxSerialPort> OpenPort(std::chrono::milliseconds readTimeout = 10ms) {
        std::unique_ptr<CLinuxSerialPort> port;
        const CStatus status = CLinuxSerialPort::Open(m_device, 115200, readTimeout, port);
        EXPECT_TRUE(status.IsOk()) << status.Message();
        return port;
    }

    // Reads through the port until `count` bytes arrived or 5 s passed.
    static std::string ReadFromPort(CLinuxSerialPort& port, std::size_t count) {
        std::string received;
        const auto deadline = std::chrono::steady_clock::now() + 5s;
        while (received.size() < count && std::chrono::steady_clock::now() < deadline) {
            unsigned char buffer[512];
            uint32_t got = 0;
            EXPECT_EQ(port.Read(buffer, sizeof buffer, got), 0);
            received.append(reinterpret_cast<const char*>(buffer), got);
        }
        return received;
    }

    static std::string AllByteValues() {
        std::string bytes;
        for (int value = 0; value < 256; ++value) {
            bytes.push_back(static_cast<char>(value));
        }
        return bytes;
    }
};

TEST_F(LinuxSerialPortTest, ConfiguresTheLineRaw8N1WithoutFlowControlAtTheRequestedSpeed) {
    auto port = OpenPort();
    ASSERT_TRUE(port);
    CUniqueFd terminal(::open(m_device.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC));
    ASSERT_TRUE(terminal.IsValid());
    termios settings{};
    ASSERT_EQ(::tcgetattr(terminal.Get(), &settings), 0);

    EXPECT_EQ(::cfgetospeed(&settings), static_cast<speed_t>(B115200));
    EXPECT_EQ(::cfgetispeed(&settings), static_cast<speed_t>(B115200));
    EXPECT_EQ(settings.c_cflag & CSIZE, static_cast<tcflag_t>(CS8));
    EXPECT_EQ(settings.c_cflag & (PARENB | CSTOPB | CRTSCTS), 0u);
    EXPECT_EQ(settings.c_iflag & (IXON | IXOFF | ICRNL | INLCR | ISTRIP), 0u);
    EXPECT_EQ(settings.c_oflag & OPOST, 0u);
    EXPECT_EQ(settings.c_lflag & (ECHO | ICANON | ISIG | IEXTEN), 0u);
}

TEST_F(LinuxSerialPortTest, WritesEveryByteValueUnchangedToTheModem) {
    auto port = OpenPort();
    ASSERT_TRUE(port);
    const std::string bytes = AllByteValues();
    uint32_t written = 0;
    EXPECT_EQ(port->Write(reinterpret_cast<const unsigned char*>(bytes.data()),
                          static_cast<uint32_t>(bytes.size()), written),
              0);
    EXPECT_EQ(written, 256u);
    EXPECT_EQ(ReadFromModem(256), bytes);
}

TEST_F(LinuxSerialPortTest, ReadsEveryByteValueUnchangedFromTheModem) {
    auto port = OpenPort();
    ASSERT_TRUE(port);
    // Line ends, XON/XOFF and interrupt characters included: nothing is interpreted.
    const std::string bytes = AllByteValues();
    WriteFromModem(bytes);
    EXPECT_EQ(ReadFromPort(*port, 256), bytes);
}

TEST_F(LinuxSerialPortTest, ReadReturnsAfterItsTimeOutWhenNothingArrives) {
    auto port = OpenPort(50ms);
    ASSERT_TRUE(port);
    unsigned char buffer[16];
    uint32_t got = 99;
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(port->Read(buffer, sizeof buffer, got), 0);
    const auto waited = std::chrono::steady_clock::now() - begin;
    EXPECT_EQ(got, 0u);
    // It waited in the kernel for its time-out (no spinning), and not much longer.
    EXPECT_GE(waited, 49ms);
    EXPECT_LT(waited, 1s);
}

TEST_F(LinuxSerialPortTest, ReadReturnsAsSoonAsABytesArrives) {
    auto port = OpenPort(5s);
    ASSERT_TRUE(port);
    WriteFromModem("A");
    unsigned char buffer[16];
    uint32_t got = 0;
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(port->Read(buffer, sizeof buffer, got), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 2s);
    ASSERT_EQ(got, 1u);
    EXPECT_EQ(buffer[0], 'A');
}

TEST_F(LinuxSerialPortTest, ReadNeverReturnsMoreThanAskedFor) {
    auto port = OpenPort();
    ASSERT_TRUE(port);
    WriteFromModem("0123456789");
    unsigned char buffer[4] = {};
    uint32_t got = 9;
    // Asked for nothing, it takes nothing and does not wait.
    EXPECT_EQ(port->Read(buffer, 0, got), 0);
    EXPECT_EQ(got, 0u);
    EXPECT_EQ(port->Read(buffer, 3, got), 0);
    EXPECT_EQ(got, 3u);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(buffer), 3), "012");
    EXPECT_EQ(ReadFromPort(*port, 7), "3456789");
}

TEST_F(LinuxSerialPortTest, WriteOfALargeBlockCompletesWhileTheModemDrainsTheLine) {
    auto port = OpenPort();
    ASSERT_TRUE(port);
    // More than the terminal buffers hold, so Write must block and go on until all went out.
    std::string block(256 * 1024, '\0');
    for (std::size_t index = 0; index < block.size(); ++index) {
        block[index] = static_cast<char>(index * 7);
    }
    std::string received;
    std::thread modem([&] { received = ReadFromModem(block.size()); });
    uint32_t written = 0;
    const int result = port->Write(reinterpret_cast<const unsigned char*>(block.data()),
                                   static_cast<uint32_t>(block.size()), written);
    modem.join();
    EXPECT_EQ(result, 0);
    EXPECT_EQ(written, block.size());
    EXPECT_TRUE(received == block) << "received " << received.size() << " bytes";
}

TEST_F(LinuxSerialPortTest, ReadReportsALineThatHungUp) {
    auto port = OpenPort();
    ASSERT_TRUE(port);
    m_master.Reset();
    CLogCapture capture;
    unsigned char buffer[8];
    uint32_t got = 99;
    EXPECT_EQ(port->Read(buffer, sizeof buffer, got), EIO);
    EXPECT_EQ(got, 0u);
    EXPECT_EQ(capture.Entries(),
              std::vector<TLogEntry>{HangUpEntry("Read", "read: the other end hung up")});
}

// The adapter pulled while the loader waits for the modem's answer: the wait ends at once, not
// after the read time-out, with the line's error.
TEST_F(LinuxSerialPortTest, AHangUpWhileAReadWaitsEndsTheReadWithTheLinesError) {
    auto port = OpenPort(30s);
    ASSERT_TRUE(port);
    CLogCapture capture;
    int result = 0;
    uint32_t got = 99;
    std::atomic<pid_t> readerThread{0};
    std::thread reader([&] {
        readerThread = static_cast<pid_t>(::syscall(SYS_gettid));
        unsigned char buffer[8];
        result = port->Read(buffer, sizeof buffer, got);
    });
    // The hang-up comes while the read waits: its thread is asleep in the kernel by then.
    ASSERT_TRUE(Await([&] { return readerThread != 0 && ThreadState(readerThread) == 'S'; }, 10s))
        << "the read never waited";
    const auto hungUp = std::chrono::steady_clock::now();
    m_master.Reset();
    reader.join();
    EXPECT_LT(std::chrono::steady_clock::now() - hungUp, 10s) << "the read waited for its time-out";
    EXPECT_EQ(result, EIO);
    EXPECT_EQ(got, 0u);
    EXPECT_EQ(capture.Entries(),
              std::vector<TLogEntry>{HangUpEntry("Read", "read: the other end hung up")});
}

// The adapter pulled in the middle of a firmware block: the write that blocked on the full line
// ends with the line's error and says how much of the block went out before.
TEST_F(LinuxSerialPortTest, AHangUpWhileAWriteBlocksEndsTheWriteWithTheLinesError) {
    auto port = OpenPort();
    ASSERT_TRUE(port);
    const std::string block(1024 * 1024, '\x5a');
    CLogCapture capture;
    int result = 0;
    uint32_t written = 0;
    std::thread writer([&] {
        result = port->Write(reinterpret_cast<const unsigned char*>(block.data()),
                             static_cast<uint32_t>(block.size()), written);
    });
    // Part of the block has gone out: the write is under way when the line goes.
    EXPECT_GE(ReadFromModem(1000).size(), 1000u);
    m_master.Reset();
    writer.join();
    EXPECT_EQ(result, EIO);
    EXPECT_GE(written, 1000u);
    EXPECT_LT(written, block.size());
    EXPECT_EQ(capture.Entries(), std::vector<TLogEntry>{HangUpEntry("Write", "write")});
}

TEST_F(LinuxSerialPortTest, AFailureLeavesAPortThatCanBeDestroyedWithoutLeakingItsDescriptor) {
    const std::set<int> before = OpenDescriptors();
    {
        auto port = OpenPort();
        ASSERT_TRUE(port);
        EXPECT_GE(TerminalDescriptor(), 0);
        m_master.Reset();
        CLogCapture capture;
        unsigned char buffer[8];
        uint32_t got = 0;
        EXPECT_EQ(port->Read(buffer, sizeof buffer, got), EIO);
    }
    std::set<int> expected = before;
    expected.erase(m_masterDescriptor);
    EXPECT_EQ(OpenDescriptors(), expected);
}

struct TSpeed {
    uint32_t baud;
    speed_t constant;
};

void PrintTo(const TSpeed& speed, std::ostream* stream) { *stream << speed.baud; }

class LinuxSerialPortSpeedTest : public LinuxSerialPortTest,
                                 public ::testing::WithParamInterface<TSpeed> {};

TEST_P(LinuxSerialPortSpeedTest, SetsTheTermiosConstantOfTheSpeedBothWays) {
    std::unique_ptr<CLinuxSerialPort> port;
    const CStatus status = CLinuxSerialPort::Open(m_device, GetParam().baud, 10ms, port);
    ASSERT_TRUE(status.IsOk()) << status.Message();
    CUniqueFd terminal(::open(m_device.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC));
    ASSERT_TRUE(terminal.IsValid());
    termios settings{};
    ASSERT_EQ(::tcgetattr(terminal.Get(), &settings), 0);
    EXPECT_EQ(::cfgetospeed(&settings), GetParam().constant);
    EXPECT_EQ(::cfgetispeed(&settings), GetParam().constant);
}

INSTANTIATE_TEST_SUITE_P(
    EverySpeed, LinuxSerialPortSpeedTest,
    ::testing::Values(TSpeed{1200, B1200}, TSpeed{2400, B2400}, TSpeed{4800, B4800},
                      TSpeed{9600, B9600}, TSpeed{19200, B19200}, TSpeed{38400, B38400},
                      TSpeed{57600, B57600}, TSpeed{115200, B115200}, TSpeed{230400, B230400},
                      TSpeed{460800, B460800}, TSpeed{921600, B921600}, TSpeed{1000000, B1000000},
                      TSpeed{2000000, B2000000}, TSpeed{3000000, B3000000},
                      TSpeed{4000000, B4000000}),
    [](const auto& parameter) { return "Baud" + std::to_string(parameter.param.baud); });

class LinuxSerialPortRefusedSpeedTest : public ::testing::TestWithParam<uint32_t> {};

TEST_P(LinuxSerialPortRefusedSpeedTest, ASpeedBetweenOrBeyondTheTermiosOnesIsRefusedUnopened) {
    const std::set<int> before = OpenDescriptors();
    std::unique_ptr<CLinuxSerialPort> port;
    const CStatus status = CLinuxSerialPort::Open("/dev/null", GetParam(), 10ms, port);
    EXPECT_EQ(status.Message(),
              "serial port /dev/null: unsupported speed " + std::to_string(GetParam()));
    EXPECT_FALSE(port);
    EXPECT_EQ(OpenDescriptors(), before);
}

INSTANTIATE_TEST_SUITE_P(Speeds, LinuxSerialPortRefusedSpeedTest,
                         ::testing::Values(0u, 300u, 600u, 14400u, 115201u, 250000u, 500000u,
                                           1500000u, 2500000u, 3500000u, 4000001u));

TEST(LinuxSerialPortOpenTest, AMissingDeviceFailsWithItsName) {
    std::unique_ptr<CLinuxSerialPort> port;
    const CStatus status = CLinuxSerialPort::Open("/dev/nonexistent-tty", 115200, 10ms, port);
    EXPECT_FALSE(status.IsOk());
    EXPECT_EQ(status.Message(),
              "serial port /dev/nonexistent-tty: open: No such file or directory");
    EXPECT_FALSE(port);
}

TEST(LinuxSerialPortOpenTest, ADeviceThatIsNoTerminalIsRefused) {
    std::unique_ptr<CLinuxSerialPort> port;
    const CStatus status = CLinuxSerialPort::Open("/dev/null", 115200, 10ms, port);
    EXPECT_FALSE(status.IsOk());
    EXPECT_EQ(status.Message(),
              "serial port /dev/null: not a terminal: Inappropriate ioctl for device");
    EXPECT_FALSE(port);
}

TEST(LinuxSerialPortFactoryTest, ReportsWhyAPortCouldNotBeMadeAndYieldsNull) {
    std::vector<std::string> errors;
    CLinuxSerialPortFactory factory(10ms,
                                    [&](const std::string& message) { errors.push_back(message); });
    ISerialPort* port = nullptr;
    {
        CInstalledSerialPorts installed(&factory);
        port = ISerialPort::Create("/dev/nonexistent-tty", 115200, 0);
    }
    EXPECT_EQ(port, nullptr);
    EXPECT_EQ(errors, std::vector<std::string>{
                          "serial port /dev/nonexistent-tty: open: No such file or directory"});
}

TEST(LinuxSerialPortFactoryTest, WithoutAReporterAPortThatCannotBeMadeIsOnlyNull) {
    CLinuxSerialPortFactory factory(10ms, nullptr);
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(factory.Create("/dev/nonexistent-tty", 115200, 0), nullptr);
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
}

TEST_F(LinuxSerialPortTest, TheFactoryMakesAWorkingPortForTheStaticCreate) {
    CLinuxSerialPortFactory factory;
    std::unique_ptr<ISerialPort> port;
    {
        CInstalledSerialPorts installed(&factory);
        port.reset(ISerialPort::Create(m_device, 115200, 0));
    }
    ASSERT_TRUE(port);
    uint32_t written = 0;
    EXPECT_EQ(port->Write(reinterpret_cast<const unsigned char*>("\x30\x41"), 2, written), 0);
    EXPECT_EQ(ReadFromModem(2), "\x30\x41");
}

}  // namespace
