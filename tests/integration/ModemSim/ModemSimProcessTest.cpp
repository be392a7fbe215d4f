// modem-sim as the image loader meets it: a child process at the other end of a pseudo-terminal,
// a control pin written through the shell and a ready file. The test plays the host.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <nlohmann/json.hpp>
#include <thread>

#include "Await.h"
#include "ChildProcess.h"
#include "HostLine.h"
#include "Prerequisite.h"
#include "PseudoRandomBytes.h"
#include "Sha256.h"
#include "TemporaryDirectory.h"
#include "TestFiles.h"
#include "UniqueFd.h"
#include "WireCommands.h"

namespace {

using namespace std::chrono_literals;
using TBytes = std::vector<uint8_t>;

const std::string kModemSim = MODEM_SIM_PATH;

TBytes Pattern(size_t size, unsigned seed) {
    const std::string bytes = PseudoRandomBytes(size, seed);
    return TBytes(bytes.begin(), bytes.end());
}

class ModemSimProcessTest : public ::testing::Test {
protected:
    void SetUp() override {
        CUniqueFd terminal(::posix_openpt(O_RDWR | O_NOCTTY));
        if (!terminal.IsValid()) {
            MODEMLOADER_MISSING_PREREQUISITE(
                "no pseudo-terminal available: /dev/ptmx cannot be opened");
        }
        ASSERT_FALSE(m_directory.Path().empty());
        m_loader = Pattern(1000, 7);
        m_loader[0] = 0xa5;  // the loader must not begin with the sync byte
        WriteTestFile(m_directory, "loader.bin", std::string(m_loader.begin(), m_loader.end()));
    }

    std::string Path(const std::string& name) const { return m_directory.Path() + "/" + name; }

    std::vector<std::string> Arguments(const std::vector<std::string>& extra) const {
        std::vector<std::string> arguments = {"--link",           Path("ttyModem"),
                                              "--control",        Path("control"),
                                              "--ready",          Path("ready"),
                                              "--loader",         Path("loader.bin"),
                                              "--flash-out",      Path("flash.bin"),
                                              "--summary",        Path("summary.json"),
                                              "--trace",          Path("trace.txt"),
                                              "--power-on-ms",    "20",
                                              "--boot-window-ms", "1000",
                                              "--erase-ms",       "30"};
        arguments.insert(arguments.end(), extra.begin(), extra.end());
        return arguments;
    }

    // Starts modem-sim with `arguments`, its standard output and error in files of their own so
    // that a test can check the exact text.
    bool StartProgram(const std::vector<std::string>& arguments) {
        std::vector<std::string> command{kModemSim};
        command.insert(command.end(), arguments.begin(), arguments.end());
        TStartOptions options;
        options.outputPath = Path("stdout.txt");
        options.errorPath = Path("stderr.txt");
        const CStatus started = m_modem.Start(command, options);
        EXPECT_TRUE(started) << started.Message();
        return static_cast<bool>(started);
    }

    // The exit status once modem-sim has exited within `timeout`; -1 for a death by signal; none
    // if it is still running.
    std::optional<int> ExitCode(std::chrono::milliseconds timeout) {
        const std::optional<TChildExit> exit = m_modem.Wait(timeout);
        if (!exit) {
            return std::nullopt;
        }
        return exit->signal != 0 ? -1 : exit->exitCode;
    }

    // Starts the emulator and opens the line once its link exists.
    void StartModem(const std::vector<std::string>& extra = {}) {
        ASSERT_TRUE(StartProgram(Arguments(extra)));
        ASSERT_TRUE(Await([&] { return std::filesystem::is_symlink(Path("ttyModem")); }, 10s))
            << ReadTestFile(Path("stderr.txt"));
        ASSERT_TRUE(m_line.Open(Path("ttyModem")));
    }

    // What the image loader's power worker does: a shell writes the pin.
    void SetPin(char level) {
        const std::string command = std::string("echo ") + level + " > " + Path("control");
        const TChildResult shell = CChildProcess::Run({"/bin/sh", "-c", command});
        ASSERT_EQ(shell.exitCode, 0) << Describe(shell);
    }

    bool AwaitReady(char level, std::chrono::milliseconds timeout = 10s) {
        return Await([&] { return ReadTestFile(Path("ready")) == std::string(1, level) + "\n"; },
                     timeout);
    }

    TBytes Exchange(const TBytes& sent, size_t replyBytes, std::chrono::milliseconds timeout = 5s) {
        EXPECT_TRUE(m_line.Write(sent));
        return m_line.Read(replyBytes, timeout);
    }

    // Stops the emulator as the test harness would and returns its summary.
    nlohmann::json Stop(int signal = SIGTERM) {
        EXPECT_TRUE(m_modem.Signal(signal));
        const auto status = ExitCode(10s);
        EXPECT_EQ(status, std::optional<int>(0)) << ReadTestFile(Path("stderr.txt"));
        return nlohmann::json::parse(ReadTestFile(Path("summary.json")), nullptr, false);
    }

    CTemporaryDirectory m_directory;
    CChildProcess m_modem;
    CHostLine m_line;
    TBytes m_loader;
};

TEST_F(ModemSimProcessTest, HelpPrintsTheUsageAndExitsZero) {
    ASSERT_TRUE(StartProgram({"--help"}));
    EXPECT_EQ(ExitCode(10s), std::optional<int>(0));
    const std::string help = ReadTestFile(Path("stdout.txt"));
    EXPECT_EQ(help.rfind("Plays the modem at the other end of a pseudo-terminal", 0), 0u) << help;
    EXPECT_NE(help.find("Usage: modem-sim [OPTIONS]"), std::string::npos) << help;
    EXPECT_NE(help.find("--link PATH"), std::string::npos) << help;
    EXPECT_NE(help.find("--fault NAME[=ARG]"), std::string::npos) << help;
    EXPECT_EQ(ReadTestFile(Path("stderr.txt")), "");
}

TEST_F(ModemSimProcessTest, BadArgumentExitsTwoWithTheReason) {
    ASSERT_TRUE(StartProgram(Arguments({"--fault", "explode"})));
    EXPECT_EQ(ExitCode(10s), std::optional<int>(2));
    EXPECT_EQ(ReadTestFile(Path("stderr.txt")),
              "modem-sim: fault \"explode\": unknown fault\nTry 'modem-sim --help'.\n");
    EXPECT_FALSE(std::filesystem::exists(Path("ttyModem")));
}

TEST_F(ModemSimProcessTest, EmptyLoaderIsRefusedAtStart) {
    WriteTestFile(m_directory, "loader.bin", "");
    ASSERT_TRUE(StartProgram(Arguments({})));
    EXPECT_EQ(ExitCode(10s), std::optional<int>(1));
    EXPECT_EQ(ReadTestFile(Path("stderr.txt")),
              "modem-sim: reading the loader " + Path("loader.bin") +
                  ": it is empty, and the boot code needs at least one byte\n");
}

TEST_F(ModemSimProcessTest, StartsOffWithAReleasedPinAndLinksAPseudoTerminal) {
    StartModem();
    EXPECT_EQ(ReadTestFile(Path("control")), "1\n") << "created so the host finds its control pin";
    EXPECT_EQ(ReadTestFile(Path("ready")), "0\n");
    EXPECT_EQ(std::filesystem::read_symlink(Path("ttyModem")).string().rfind("/dev/pts/", 0), 0u);
    const nlohmann::json summary = Stop();
    EXPECT_EQ(summary["power_ups"], 0);
    EXPECT_FALSE(std::filesystem::exists(Path("ttyModem"))) << "the link goes with the modem";
}

TEST_F(ModemSimProcessTest, WholeUpdateLeavesTheFirmwareInTheFlashAndTheSummary) {
    StartModem();
    const TBytes firmware = Pattern(60000, 11);
    const uint32_t size = static_cast<uint32_t>(firmware.size());

    EXPECT_EQ(Exchange({wire::kSync}, 1, 200ms), TBytes{}) << "switched off: no echo";
    SetPin('0');
    ASSERT_TRUE(AwaitReady('1'));
    EXPECT_EQ(Exchange({wire::kSync}, 1), TBytes{wire::kSync});
    EXPECT_EQ(Exchange(m_loader, 1), TBytes{'0'});
    EXPECT_EQ(Exchange(wire::BaudrateCommand(), 1), TBytes{wire::kSetBaudrate});
    EXPECT_EQ(Exchange(wire::FlowControlCommand(), 1), TBytes{wire::kSetFlowControl});
    EXPECT_EQ(Exchange(wire::ReadRangeCommand(), 1), TBytes{wire::kSetRange});
    EXPECT_EQ(Exchange(wire::ReadCommand(), 1), TBytes{wire::kRead});
    EXPECT_EQ(Exchange(wire::EraseRangeCommand(size), 1), TBytes{wire::kSetEraseRange});
    EXPECT_EQ(Exchange(wire::EraseCommand(), 2), (TBytes{wire::kErase, '0'}));
    EXPECT_EQ(Exchange(wire::WriteRangeCommand(size), 1), TBytes{wire::kSetRange});
    EXPECT_EQ(Exchange(wire::WriteCommand(), 1), TBytes{wire::kWrite});
    EXPECT_EQ(Exchange(TBytes(firmware.begin(), firmware.begin() + 25600), 1), TBytes{'.'});
    EXPECT_EQ(Exchange(TBytes(firmware.begin() + 25600, firmware.begin() + 51200), 1), TBytes{'.'});
    EXPECT_EQ(Exchange(TBytes(firmware.begin() + 51200, firmware.end()), 1), TBytes{'0'});
    EXPECT_EQ(ReadTestFile(Path("ready")), "1\n") << "the held pin never switches it off";

    const nlohmann::json summary = Stop();
    const std::string flashed = ReadTestFile(Path("flash.bin"));
    EXPECT_EQ(TBytes(flashed.begin(), flashed.end()), firmware);
    CSha256 digest;
    digest.Update(firmware.data(), firmware.size());
    const nlohmann::json expected = {
        {"power_ups", 1},
        {"power_offs", 0},
        {"sync_attempts", 1},
        {"sync_bytes_seen", 1},
        {"sync_echoes", 1},
        {"loader_bytes", 1000},
        {"loader_ok", true},
        {"commands",
         {"07 00 c2 01 00", "05 00", "04 00 00 00 90 00 00 00 00", "02",
          "09 00 00 00 90 60 ea 00 00", "03", "04 00 00 00 90 60 ea 00 00", "01"}},
        {"bytes_flashed", 60000},
        {"write_complete", true},
        {"line_hung_up", false},
        {"flash_sha256", digest.HexDigest()},
    };
    EXPECT_EQ(summary, expected) << summary.dump(2);

    const std::string trace = ReadTestFile(Path("trace.txt"));
    EXPECT_NE(trace.find(" pin 0\n"), std::string::npos) << trace.substr(0, 2000);
    EXPECT_NE(trace.find(" power on\n"), std::string::npos);
    EXPECT_NE(trace.find(" host>modem 07 00 c2 01 00\n"), std::string::npos);
    EXPECT_NE(trace.find(" modem>host 03\n"), std::string::npos);
    EXPECT_NE(trace.find(" stop\n"), std::string::npos);
}

// The adapter pulled mid-write: once 30000 firmware bytes arrived the emulator closes its
// pseudo-terminal; the host's end then hangs up, and the flash holds exactly those bytes.
TEST_F(ModemSimProcessTest, HangUpFaultClosesTheLineAfterThatManyFirmwareBytes) {
    StartModem({"--fault", "hang-up-after=30000"});
    const TBytes firmware = Pattern(60000, 11);
    const uint32_t size = static_cast<uint32_t>(firmware.size());
    SetPin('0');
    ASSERT_TRUE(AwaitReady('1'));
    EXPECT_EQ(Exchange({wire::kSync}, 1), TBytes{wire::kSync});
    EXPECT_EQ(Exchange(m_loader, 1), TBytes{'0'});
    EXPECT_EQ(Exchange(wire::WriteRangeCommand(size), 1), TBytes{wire::kSetRange});
    EXPECT_EQ(Exchange(wire::WriteCommand(), 1), TBytes{wire::kWrite});
    EXPECT_EQ(Exchange(TBytes(firmware.begin(), firmware.begin() + 25600), 1), TBytes{'.'});
    // The rest may or may not fit the line's buffers before it goes: only the hang-up counts.
    static_cast<void>(m_line.Write(TBytes(firmware.begin() + 25600, firmware.end()), 2s));
    EXPECT_TRUE(m_line.AwaitHangUp(5s));

    const nlohmann::json summary = Stop();
    EXPECT_EQ(summary["line_hung_up"], true);
    EXPECT_EQ(summary["bytes_flashed"], 30000);
    EXPECT_EQ(summary["write_complete"], false);
    const std::string flashed = ReadTestFile(Path("flash.bin"));
    EXPECT_EQ(TBytes(flashed.begin(), flashed.end()),
              TBytes(firmware.begin(), firmware.begin() + 30000));
    EXPECT_NE(ReadTestFile(Path("trace.txt")).find(" line hung up\n"), std::string::npos);
}

TEST_F(ModemSimProcessTest, LoaderStatusFaultIsTheOnlyAnswerToTheDownload) {
    StartModem({"--fault", "loader-status=3"});
    SetPin('0');
    ASSERT_TRUE(AwaitReady('1'));
    EXPECT_EQ(Exchange({wire::kSync}, 1), TBytes{wire::kSync});
    EXPECT_EQ(Exchange(m_loader, 2, 300ms), TBytes{'3'});
    const nlohmann::json summary = Stop(SIGINT);
    EXPECT_EQ(summary["loader_ok"], false);
    EXPECT_EQ(summary["loader_bytes"], 1000);
}

// A modem already running its firmware: the loader's re-prepare holds the pin at "0" for 6 s,
// which switches it off after 5 s; the next press powers it up into its boot code.
TEST_F(ModemSimProcessTest, InitiallyOnModemIsSwitchedOffByAFiveSecondPress) {
    StartModem({"--initially-on"});
    EXPECT_EQ(ReadTestFile(Path("ready")), "1\n");
    EXPECT_EQ(Exchange({wire::kSync}, 1, 200ms), TBytes{}) << "firmware, not boot code: no echo";

    const auto pressed = std::chrono::steady_clock::now();
    SetPin('0');
    ASSERT_TRUE(AwaitReady('0', 10s));
    EXPECT_GE(std::chrono::steady_clock::now() - pressed, 4900ms);
    SetPin('1');
    // The pin is a file sampled on change: a release is only seen if it lasts until the modem
    // has read it, as the loader's one-second pauses ensure.
    ASSERT_TRUE(
        Await([&] { return ReadTestFile(Path("trace.txt")).find(" pin 1\n") != std::string::npos; },
              10s));
    SetPin('0');
    ASSERT_TRUE(AwaitReady('1'));
    EXPECT_EQ(Exchange({wire::kSync}, 1), TBytes{wire::kSync});

    const nlohmann::json summary = Stop();
    EXPECT_EQ(summary["power_ups"], 1);
    EXPECT_EQ(summary["power_offs"], 1);
    EXPECT_EQ(summary["sync_bytes_seen"], 2);
    EXPECT_EQ(summary["sync_echoes"], 1);
}

// The image loader's power worker: pin "0", then a sync probe about every 26 ms (write, 1 ms,
// one read, 25 ms) until the echo or 1.25 s. Returns whether the echo came in time.
bool SyncAttempt(CHostLine& line, const std::function<void(char)>& setPin) {
    setPin('0');
    const auto pressed = std::chrono::steady_clock::now();
    while (std::chrono::steady_clock::now() - pressed < 1250ms) {
        if (!line.Write({wire::kSync})) {
            return false;
        }
        std::this_thread::sleep_for(1ms);
        if (line.Read(1, 25ms) == TBytes{wire::kSync}) {
            return true;
        }
    }
    return false;
}

TEST_F(ModemSimProcessTest, DefaultTimingsAnswerTheLoadersFirstAttempt) {
    ASSERT_TRUE(StartProgram({"--link", Path("ttyModem"), "--control", Path("control"), "--ready",
                              Path("ready"), "--loader", Path("loader.bin"), "--flash-out",
                              Path("flash.bin"), "--summary", Path("summary.json")}));
    ASSERT_TRUE(Await([&] { return std::filesystem::is_symlink(Path("ttyModem")); }, 10s));
    ASSERT_TRUE(m_line.Open(Path("ttyModem")));
    EXPECT_TRUE(SyncAttempt(m_line, [&](char level) { SetPin(level); }));
    EXPECT_EQ(Exchange(m_loader, 1), TBytes{'0'});
    const nlohmann::json summary = Stop();
    EXPECT_EQ(summary["power_ups"], 1);
    EXPECT_EQ(summary["sync_echoes"], 1);
}

// sync-after=2 with the loader's retry: the failed attempt releases the pin, finds the modem on,
// holds the pin for the switch-off, releases it, and the next press powers up the boot code.
TEST_F(ModemSimProcessTest, FailedAttemptSwitchOffAndRetryReachTheSecondPowerUp) {
    StartModem({"--fault", "sync-after=2", "--power-on-ms", "100", "--boot-window-ms", "2000"});
    const auto setPin = [&](char level) { SetPin(level); };
    const auto releasesSeen = [&] {
        const std::string trace = ReadTestFile(Path("trace.txt"));
        size_t count = 0;
        for (size_t at = trace.find(" pin 1\n"); at != std::string::npos;
             at = trace.find(" pin 1\n", at + 1)) {
            ++count;
        }
        return count;
    };

    EXPECT_FALSE(SyncAttempt(m_line, setPin));
    SetPin('1');
    ASSERT_TRUE(Await([&] { return releasesSeen() == 1; }, 10s));
    EXPECT_EQ(ReadTestFile(Path("ready")), "1\n") << "the first press switched it on";
    SetPin('0');
    ASSERT_TRUE(AwaitReady('0', 10s));
    SetPin('1');
    ASSERT_TRUE(Await([&] { return releasesSeen() == 2; }, 10s));
    EXPECT_TRUE(SyncAttempt(m_line, setPin));
    EXPECT_EQ(Exchange(m_loader, 1), TBytes{'0'});

    const nlohmann::json summary = Stop();
    EXPECT_EQ(summary["power_ups"], 2);
    EXPECT_EQ(summary["power_offs"], 1);
    EXPECT_EQ(summary["sync_attempts"], 2);
    EXPECT_EQ(summary["sync_echoes"], 1);
    EXPECT_EQ(summary["loader_ok"], true);
}

TEST_F(ModemSimProcessTest, BaudRatePacesTheLoaderDownload) {
    // 1000 bytes at 20000 baud take half a second on the wire; unpaced they take microseconds.
    StartModem({"--baud", "20000"});
    SetPin('0');
    ASSERT_TRUE(AwaitReady('1'));
    EXPECT_EQ(Exchange({wire::kSync}, 1), TBytes{wire::kSync});
    const auto sent = std::chrono::steady_clock::now();
    EXPECT_EQ(Exchange(m_loader, 1), TBytes{'0'});
    const auto elapsed = std::chrono::steady_clock::now() - sent;
    EXPECT_GE(elapsed, 490ms);
    EXPECT_LT(elapsed, 3000ms);
    EXPECT_EQ(Stop()["loader_ok"], true);
}

}  // namespace
