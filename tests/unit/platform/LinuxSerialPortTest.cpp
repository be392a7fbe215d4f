// The serial port on a real tty: a pseudo-terminal pair stands in for the line to the modem. The
// port opens the terminal side; the test plays the modem on the master side.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <stdlib.h>
#include <termios.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "InstalledBackend.h"
#include "LinuxSerialPort.h"
#include "LinuxSerialPortFactory.h"
#include "Prerequisite.h"
#include "UniqueFd.h"

namespace {

using namespace std::chrono_literals;

class LinuxSerialPortTest : public ::testing::Test {
protected:
    void SetUp() override {
        m_master.Reset(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
        if (!m_master.IsValid() || ::grantpt(m_master.Get()) != 0 ||
            ::unlockpt(m_master.Get()) != 0) {
            MODEMLOADER_MISSING_PREREQUISITE("no pseudo-terminal available here");
        }
        char name[128];
        ASSERT_EQ(::ptsname_r(m_master.Get(), name, sizeof name), 0);
        m_device = name;
    }

    std::unique_ptr<CLinuxSerialPort> OpenPort(std::chrono::milliseconds readTimeout = 10ms) {
        std::unique_ptr<CLinuxSerialPort> port;
        const CStatus status = CLinuxSerialPort::Open(m_device, 115200, readTimeout, port);
        EXPECT_TRUE(status.IsOk()) << status.Message();
        return port;
    }

    // Reads from the modem's side until `count` bytes arrived or 5 s passed.
    std::string ReadFromModem(std::size_t count) {
        std::string received;
        const auto deadline = std::chrono::steady_clock::now() + 5s;
        while (received.size() < count && std::chrono::steady_clock::now() < deadline) {
            pollfd descriptor{m_master.Get(), POLLIN, 0};
            if (::poll(&descriptor, 1, 100) == 1) {
                char buffer[4096];
                const ssize_t got = ::read(m_master.Get(), buffer, sizeof buffer);
                if (got > 0) {
                    received.append(buffer, static_cast<std::size_t>(got));
                }
            }
        }
        return received;
    }

    void WriteFromModem(const std::string& bytes) {
        ASSERT_EQ(::write(m_master.Get(), bytes.data(), bytes.size()),
                  static_cast<ssize_t>(bytes.size()));
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

    CUniqueFd m_master;
    std::string m_device;
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
    uint32_t got = 0;
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
    unsigned char buffer[8];
    uint32_t got = 0;
    EXPECT_NE(port->Read(buffer, sizeof buffer, got), 0);
    EXPECT_EQ(got, 0u);
}

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

TEST(LinuxSerialPortOpenTest, ASpeedTermiosCannotSetIsRefused) {
    std::unique_ptr<CLinuxSerialPort> port;
    const CStatus status = CLinuxSerialPort::Open("/dev/null", 115201, 10ms, port);
    EXPECT_EQ(status.Message(), "serial port /dev/null: unsupported speed 115201");
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
