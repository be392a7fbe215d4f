// The emulator's file-backed pieces: the flash file, the ready line, the control pin, the link
// and the trace, each on real files in a fresh directory.

#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "ChildProcess.h"
#include "ControlPin.h"
#include "FlashFile.h"
#include "ReadyLine.h"
#include "Sha256.h"
#include "Summary.h"
#include "SymbolicLink.h"
#include "TemporaryDirectory.h"
#include "TestFiles.h"
#include "WireTrace.h"

namespace {

using namespace std::chrono_literals;

class FileDevicesTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_FALSE(m_directory.Path().empty()); }
    std::string Path(const std::string& name) const { return m_directory.Path() + "/" + name; }

    CTemporaryDirectory m_directory;
};

TEST_F(FileDevicesTest, FlashFileHoldsWhatTheLastWriteProgrammed) {
    WriteTestFile(m_directory, "flash.bin", "stale");
    CFlashFile flash;
    ASSERT_TRUE(flash.Open(Path("flash.bin")).IsOk());
    EXPECT_EQ(ReadTestFile(Path("flash.bin")), "");

    const uint8_t first[] = {'a', 'b', 'c', 'd'};
    flash.BeginProgramming(0x90000000, 4);
    flash.Program(first, 4);
    EXPECT_EQ(ReadTestFile(Path("flash.bin")), "") << "buffered until Flush";
    ASSERT_TRUE(flash.Flush().IsOk());
    EXPECT_EQ(ReadTestFile(Path("flash.bin")), "abcd");

    const uint8_t second[] = {'a', 'b', 'c'};
    flash.BeginProgramming(0x90000000, 3);
    flash.Program(second, 1);
    flash.Program(second + 1, 2);
    ASSERT_TRUE(flash.Flush().IsOk());
    EXPECT_EQ(ReadTestFile(Path("flash.bin")), "abc");
    EXPECT_EQ(flash.Sha256(), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
}

TEST_F(FileDevicesTest, FlashFileInAMissingDirectoryNamesThePath) {
    CFlashFile flash;
    EXPECT_EQ(
        flash.Open(Path("missing/flash.bin")).Message(),
        "opening the flash file " + Path("missing/flash.bin") + ": No such file or directory");
}

TEST_F(FileDevicesTest, ReadyLineIsReplacedWholeAndLeavesNothingAside) {
    CReadyLine ready;
    ASSERT_TRUE(ready.Open(Path("ready"), false).IsOk());
    EXPECT_EQ(ReadTestFile(Path("ready")), "0\n");
    ASSERT_TRUE(ready.Set(true).IsOk());
    EXPECT_EQ(ReadTestFile(Path("ready")), "1\n");
    EXPECT_FALSE(std::filesystem::exists(Path("ready.writing")));
}

bool AwaitNotification(const CControlPin& pin) {
    pollfd descriptor{pin.WatchDescriptor(), POLLIN, 0};
    return ::poll(&descriptor, 1, 5000) == 1;
}

TEST_F(FileDevicesTest, ControlPinIsCreatedReleasedAndFollowsTheShell) {
    CControlPin pin;
    ASSERT_TRUE(pin.Open(Path("control")).IsOk());
    EXPECT_EQ(ReadTestFile(Path("control")), "1\n");
    EXPECT_EQ(pin.Level(), '1');

    const TChildResult shell = CChildProcess::Run({"/bin/sh", "-c", "echo 0 > " + Path("control")});
    ASSERT_EQ(shell.exitCode, 0) << Describe(shell);
    ASSERT_TRUE(AwaitNotification(pin));
    EXPECT_EQ(pin.Changed(), std::optional<char>('0'));
    EXPECT_EQ(pin.Level(), '0');

    WriteTestFile(m_directory, "other", "1\n");
    ASSERT_TRUE(AwaitNotification(pin));
    EXPECT_EQ(pin.Changed(), std::nullopt) << "another file in the directory";

    WriteTestFile(m_directory, "control", "");
    ASSERT_TRUE(AwaitNotification(pin));
    EXPECT_EQ(pin.Changed(), std::nullopt) << "the shell's truncation alone changes nothing";
    EXPECT_EQ(pin.Level(), '0');
}

TEST_F(FileDevicesTest, ControlPinKeepsTheLevelItFindsAtStart) {
    WriteTestFile(m_directory, "control", "0\n");
    CControlPin pin;
    ASSERT_TRUE(pin.Open(Path("control")).IsOk());
    EXPECT_EQ(pin.Level(), '0');
    EXPECT_EQ(ReadTestFile(Path("control")), "0\n");
}

TEST_F(FileDevicesTest, LinkReplacesAStaleLinkRefusesAFileAndGoesWithItsOwner) {
    ASSERT_EQ(::symlink("/nonexistent", Path("tty").c_str()), 0);
    {
        CSymbolicLink link;
        ASSERT_TRUE(link.Create("/dev/null", Path("tty")).IsOk());
        EXPECT_EQ(std::filesystem::read_symlink(Path("tty")), "/dev/null");
    }
    EXPECT_FALSE(std::filesystem::is_symlink(Path("tty")));

    WriteTestFile(m_directory, "plain", "x");
    CSymbolicLink refused;
    EXPECT_EQ(refused.Create("/dev/null", Path("plain")).Message(),
              "making the link " + Path("plain") + ": a file that is no link is there");
    EXPECT_EQ(ReadTestFile(Path("plain")), "x");
}

TEST_F(FileDevicesTest, TraceLinesCarryMillisecondsDirectionAndHex) {
    const CWireTrace::TTime start = CWireTrace::TTime{} + 100s;
    {
        CWireTrace trace(start);
        ASSERT_TRUE(trace.Open(Path("trace.txt")).IsOk());
        const uint8_t command[] = {0x07, 0x00, 0xc2, 0x01, 0x00};
        trace.HostToModem(command, sizeof command, start + 12345us);
        trace.ModemToHost(command, 1, start + 2s);
        trace.Note("power on", start + 3s);
        std::vector<uint8_t> burst(33, 0xab);
        trace.HostToModem(burst.data(), burst.size(), start + 4s);
    }
    std::string expected =
        "      12.345 host>modem 07 00 c2 01 00\n"
        "    2000.000 modem>host 07\n"
        "    3000.000 power on\n"
        "    4000.000 host>modem";
    for (int index = 0; index < 32; ++index) {
        expected += " ab";
    }
    expected += "\n    4000.000 host>modem ab\n";
    EXPECT_EQ(ReadTestFile(Path("trace.txt")), expected);
}

TEST_F(FileDevicesTest, TraceWithoutAFileWritesNothing) {
    CWireTrace trace(CWireTrace::TTime{});
    const uint8_t byte = 0x16;
    trace.HostToModem(&byte, 1, CWireTrace::TTime{});
    trace.Note("power on", CWireTrace::TTime{});
    EXPECT_TRUE(std::filesystem::is_empty(Path("")));
}

TEST_F(FileDevicesTest, SummaryIsWrittenAsJson) {
    TBootStatistics statistics;
    statistics.powerUps = 2;
    statistics.syncAttempts = 2;
    statistics.syncBytesSeen = 40;
    statistics.syncEchoes = 1;
    statistics.loaderBytes = 5;
    statistics.loaderOk = true;
    statistics.commands = {"07 00 c2 01 00", "unknown ff"};
    statistics.bytesFlashed = 7;
    ASSERT_TRUE(WriteSummary(Path("summary.json"), SummaryJson(statistics, 1, "00ff")).IsOk());
    EXPECT_EQ(nlohmann::json::parse(ReadTestFile(Path("summary.json"))),
              (nlohmann::json{{"power_ups", 2},
                              {"power_offs", 1},
                              {"sync_attempts", 2},
                              {"sync_bytes_seen", 40},
                              {"sync_echoes", 1},
                              {"loader_bytes", 5},
                              {"loader_ok", true},
                              {"commands", {"07 00 c2 01 00", "unknown ff"}},
                              {"bytes_flashed", 7},
                              {"write_complete", false},
                              {"line_hung_up", false},
                              {"flash_sha256", "00ff"}}));
}

}  // namespace
