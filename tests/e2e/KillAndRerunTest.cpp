// A host that dies in the middle of an update must not leave the device in a state from which the
// update cannot simply be run again. modemloader-host is killed with SIGKILL at seeded points of
// an image-loader flash and of an archive copy, and the update is then run again from the start
// on the same device. The second run must succeed and leave the device as one uninterrupted run
// would; between the two runs, whatever the killed run left behind must be consistent:
//   - the new revision is on the storage only once the modem's flash holds the whole firmware
//     (the revision is the device's record that the modem is up to date);
//   - a source file is removed only after the new revision was written;
//   - the archive loader's flag file exists only beside four complete copies.
//
// What the modem does after a host crash is taken here from a unit whose watchdog resets it when
// its update daemon dies: the reset takes the modem's supply with it. The emulator is therefore
// stopped and started again after each kill: switched off, the control pin released, the loader
// that the killed run downloaded into its memory gone, and its flash as the killed run left it
// (the restarted emulator writes a flash file of its own; the first one keeps what was
// programmed before the reset). One test keeps the modem powered instead, as after a daemon
// restart without a reset, and shows that the plug-in's own switch-off brings it back.
//
// The mount that a killed host leaves behind stays for the rerun: the plug-in unmounts the
// mount point before it mounts the storage on Prepare, and that is what is checked here.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <memory>
#include <optional>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "Await.h"
#include "ChildProcess.h"
#include "ModemProcess.h"
#include "Prerequisite.h"
#include "SimulatedDevice.h"
#include "TestFiles.h"

namespace {
constexpr int kKillPoints = 20;
constexpr uint64_t kPointSeed = 0x6b696c6c;  // the points are the same on every run of the test
constexpr char kNewRevision[] = "124";
constexpr char kOldRevision[] = "100";
using device::kFlagFile;
using device::kRevisionFile;
using device::kTargetFolder;
constexpr auto kTracePollInterval = std::chrono::milliseconds(1);
constexpr auto kHostRunLimit = std::chrono::seconds(60);
// The feature reports 45 % once the modem acknowledged the write command: from then on the
// modem's loader takes firmware data.
constexpr char kWriteStarted[] = "\"percent\":45";
// The feature's reply to Install in the host's trace: the update's result.
constexpr char kInstallResult[] = "\"id\":205";

// The revision file as the plug-in writes it: four bytes of the configured revision, its NUL
// included.
std::string WrittenRevision() { return std::string(kNewRevision, sizeof kNewRevision); }

// Where the host is killed, by the first of these that is set: once its trace holds
// `traceLines` lines; once the copies on the mounted storage hold `copiedBytes` bytes together
// (a point inside the archive copy, which the trace does not mark); once its trace holds
// `marker`.
struct TKillPoint {
    std::size_t traceLines = 0;
    std::size_t copiedBytes = 0;
    std::string marker;

    std::string Describe() const {
        if (traceLines > 0) {
            return "after trace line " + std::to_string(traceLines);
        }
        if (copiedBytes > 0) {
            return "after " + std::to_string(copiedBytes) + " bytes copied";
        }
        return "after the trace line with " + marker;
    }
};

struct TKilledRun {
    bool killed = false;  // false: the host ended by itself before the point
    int exitCode = -1;
    std::string trace;

    // The kill fell inside the update: the host died before the feature sent its result. A
    // point that falls after the result tests only that a finished update can be run again.
    bool KilledBeforeResult() const {
        return killed && trace.find(kInstallResult) == std::string::npos;
    }
};

std::size_t LineCount(const std::string& text) {
    return static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n'));
}

bool FileExists(const std::string& path) {
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0;
}

// The bytes in the archive loader's target folder on the mounted storage (0 before it is
// mounted).
std::size_t CopiedBytes(const CSimulatedDevice& device) {
    std::size_t bytes = 0;
    for (const char* name : {"loader.bin", "firmware.bin", "daemon.cfg", "product.cfg"}) {
        struct stat status {};
        const std::string path = device.MountPoint() + "/" + kTargetFolder + "/" + name;
        if (::stat(path.c_str(), &status) == 0) {
            bytes += static_cast<std::size_t>(status.st_size);
        }
    }
    return bytes;
}

bool Reached(const CSimulatedDevice& device, const TKillPoint& point) {
    if (point.copiedBytes > 0) {
        return CopiedBytes(device) >= point.copiedBytes;
    }
    const std::string trace = ReadTestFile(device.TraceFile());
    return point.traceLines > 0 ? LineCount(trace) >= point.traceLines
                                : trace.find(point.marker) != std::string::npos;
}

// Runs the device's host in a process group of its own and kills the group with SIGKILL at
// `point`. The group goes with it, so that no power command the host started can still write
// the control pin after the kill: the state the test inspects is the state the kill left.
testing::AssertionResult RunAndKill(CSimulatedDevice& device, const TKillPoint& point,
                                    TKilledRun& run) {
    TStartOptions options;
    options.outputPath = device.PathOf("killed-host-output.txt");
    options.ownProcessGroup = true;
    options.extraEnvironment = device.HostEnvironment();
    CChildProcess host;
    if (CStatus started = host.Start(device.HostArguments(TUpdateOptions()), options); !started) {
        return testing::AssertionFailure() << started.Message();
    }

    run = TKilledRun();
    std::optional<TChildExit> ended;
    const bool reached = Await(
        [&] {
            ended = host.TryReap();
            return ended.has_value() || Reached(device, point);
        },
        kHostRunLimit, kTracePollInterval);
    if (ended) {
        run.exitCode = ended->exitCode;
    } else {
        host.Signal(SIGKILL);
        const TChildExit exit = host.WaitToEnd();
        run.killed = exit.signal != 0;
        run.exitCode = exit.exitCode;
        if (!reached) {
            return testing::AssertionFailure() << "the host did not reach " << point.Describe()
                                               << " within " << kHostRunLimit.count() << " s";
        }
    }
    run.trace = ReadTestFile(device.TraceFile());
    return testing::AssertionSuccess();
}

// A file of the storage as the killed host left it: through its mount when the host left the
// storage mounted (what it wrote may not be on the image yet), from the image otherwise.
bool ReadStorageAfterKill(const CSimulatedDevice& device, const std::string& relativePath,
                          std::string& content) {
    if (device.IsStorageMounted()) {
        const std::string path = device.MountPoint() + "/" + relativePath;
        if (!FileExists(path)) {
            return false;
        }
        content = ReadTestFile(path);
        return true;
    }
    return static_cast<bool>(device.ReadStorageFile(relativePath, content));
}

std::vector<std::string> SourcePaths(const CSimulatedDevice& device) {
    return {device.LoaderSource(), device.FirmwareSource(), device.DaemonConfigSource(),
            device.ProductConfigSource()};
}

// The modem after a reset of the unit: modem-sim started again on the device's line, pins and
// loader, switched off, with the control pin released as the reset leaves it. It writes a flash
// file, trace and summary of its own, so that the first emulator's flash file keeps what was
// programmed before the reset.
class CRestartedModem {
public:
    testing::AssertionResult Start(const CSimulatedDevice& device) {
        std::ofstream(device.ControlFile()) << "1\n";
        // The emulator checks the download against the loader it knows; the update's copy of
        // it may already be removed by the killed run.
        const std::string loader = device.PathOf("restarted-modem-loader.bin");
        std::ofstream(loader, std::ios::binary) << device.Loader();
        const TDeviceSettings& settings = device.Settings();
        std::vector<std::string> arguments{CSimulatedDevice::BuiltPrograms().modemSim,
                                           "--link",
                                           device.SerialLink(),
                                           "--control",
                                           device.ControlFile(),
                                           "--ready",
                                           device.ReadyFile(),
                                           "--loader",
                                           loader,
                                           "--flash-out",
                                           FlashFile(device),
                                           "--power-on-ms",
                                           std::to_string(settings.powerOn.count()),
                                           "--erase-ms",
                                           std::to_string(settings.eraseTime.count()),
                                           "--trace",
                                           device.PathOf("restarted-modem-trace.txt"),
                                           "--summary",
                                           SummaryFile(device)};
        arguments.insert(arguments.end(), settings.modemOptions.begin(),
                         settings.modemOptions.end());
        if (CStatus status = m_process.Start(arguments, device.SerialLink(),
                                             device.PathOf("restarted-modem-output.txt"));
            !status) {
            return testing::AssertionFailure() << status.Message();
        }
        return testing::AssertionSuccess();
    }

    testing::AssertionResult Stop(const CSimulatedDevice& device, nlohmann::json& summary) {
        if (CStatus status = m_process.Stop(SummaryFile(device), summary); !status) {
            return testing::AssertionFailure() << status.Message();
        }
        return testing::AssertionSuccess();
    }

    static std::string FlashFile(const CSimulatedDevice& device) {
        return device.PathOf("restarted-flash.bin");
    }

private:
    static std::string SummaryFile(const CSimulatedDevice& device) {
        return device.PathOf("restarted-modem-summary.json");
    }

    CModemProcess m_process;
};

// Whether the restarted emulator was sent a write command: then its flash file holds what the
// modem's flash holds now; otherwise the flash is as it was before the reset.
bool Wrote(const nlohmann::json& summary) {
    const nlohmann::json commands = summary.value("commands", nlohmann::json::array());
    return std::find(commands.begin(), commands.end(), "01") != commands.end();
}

std::string DescribeUpdate(const TUpdateResult& result) {
    std::ostringstream text;
    text << "exit status " << result.exitCode << ", signal " << result.signal << "\nstderr:\n"
         << result.err << "\ntrace:\n";
    for (const nlohmann::json& line : result.trace) {
        text << line.dump() << "\n";
    }
    return text.str();
}

bool TraceHasLog(const TUpdateResult& result, const std::string& text) {
    for (const nlohmann::json& line : result.trace) {
        if (line.value("kind", "") == "log" && line.value("text", "") == text) {
            return true;
        }
    }
    return false;
}

// The checks of one kill point: each failed check is a test failure that names the point, and
// the point survived when none failed.
class CPointChecks {
public:
    explicit CPointChecks(std::string point) : m_point(std::move(point)) {}

    void Check(bool passed, const std::string& what, const std::string& details = "") {
        if (!passed) {
            ADD_FAILURE() << "kill point " << m_point << ": " << what << "\n" << details;
            m_survived = false;
        }
    }

    // What the kill left, for the point's line in the test's output.
    void Left(const std::string& state) { m_left = state; }
    // One line per point, so that a CI log shows where the kills fell.
    bool Print(bool killedMidRun) const {
        std::printf("[ kill-and-rerun ]   %s: %s; left %s; %s\n", m_point.c_str(),
                    killedMidRun ? "killed mid-run" : "not killed before the result",
                    m_left.c_str(), m_survived ? "survived" : "FAILED");
        return m_survived;
    }

private:
    std::string m_point;
    std::string m_left;
    bool m_survived = true;
};

class KillAndRerunTest : public ::testing::Test {
protected:
    void SetUp() override {
        const std::string missing = CSimulatedDevice::MissingPrerequisite();
        if (!missing.empty()) {
            MODEMLOADER_MISSING_PREREQUISITE(missing);
        }
    }

    static TDeviceSettings ImageLoaderDevice() {
        TDeviceSettings settings;
        settings.firmwareBytes = 120000;  // five chunks: several points fall inside the write
        return settings;
    }

    static TDeviceSettings ArchiveLoaderDevice() {
        TDeviceSettings settings;
        settings.controlPin = false;
        // Large enough that the copies take a while, small enough for CI.
        settings.firmwareBytes = 16u << 20;
        return settings;
    }

    // One uninterrupted update on a fresh device: it must succeed, and its trace is what the
    // kill points are drawn from.
    static void ReferenceRun(const TDeviceSettings& settings, TUpdateResult& result) {
        std::unique_ptr<CSimulatedDevice> device;
        const CStatus made = CSimulatedDevice::Create(settings, device);
        ASSERT_TRUE(made) << made.Message();
        const CStatus ran = device->RunUpdate(TUpdateOptions(), result);
        ASSERT_TRUE(ran) << ran.Message();
        ASSERT_EQ(result.exitCode, 0) << DescribeUpdate(result);
    }

    // Kills the host at kKillPoints points drawn by `draw` from the same seeded sequence on every
    // run of the test, each followed by `survive`; every rerun must complete, and at least half
    // of the kills must have landed before the host's result: reruns after an update that had
    // already finished would prove nothing about kills.
    template <typename TDraw, typename TSurvive>
    static void ExpectEveryKillSurvived(const char* path, TDraw draw, TSurvive survive) {
        std::mt19937_64 random(kPointSeed);
        int survived = 0;
        int killedMidRun = 0;
        for (int index = 0; index < kKillPoints; ++index) {
            const TKillPoint point = draw(random);
            bool killed = false;
            survived += survive(point, killed) ? 1 : 0;
            killedMidRun += killed ? 1 : 0;
        }
        std::printf(
            "[ kill-and-rerun ] %s: %d of %d points survived (%d killed mid-run, %d "
            "not killed before the result)\n",
            path, survived, kKillPoints, killedMidRun, kKillPoints - killedMidRun);
        std::fflush(stdout);
        EXPECT_EQ(survived, kKillPoints);
        EXPECT_GE(killedMidRun, kKillPoints / 2);
    }

    // The rerun finished the update and released the storage.
    static void CheckRerun(CPointChecks& checks, const CSimulatedDevice& device,
                           const TUpdateResult& rerun) {
        checks.Check(rerun.exitCode == 0, "the rerun succeeds", DescribeUpdate(rerun));
        checks.Check(!device.IsStorageMounted(), "the rerun leaves the storage unmounted");
        checks.Check(device.Storage().AwaitNoLoopDevice(),
                     "the rerun leaves no loop device attached to the storage");
    }

    // A fresh device whose host was killed at `point` (what the run left in `killed`); none when
    // the device could not be made.
    static std::unique_ptr<CSimulatedDevice> MakeAndKill(const TDeviceSettings& settings,
                                                         const TKillPoint& point,
                                                         CPointChecks& checks, TKilledRun& killed) {
        std::unique_ptr<CSimulatedDevice> device;
        const CStatus made = CSimulatedDevice::Create(settings, device);
        checks.Check(static_cast<bool>(made), "making the device", made.Message());
        if (!made) {
            return nullptr;
        }
        const testing::AssertionResult ran = RunAndKill(*device, point, killed);
        checks.Check(static_cast<bool>(ran), "killing the host", ran.message());
        return device;
    }

    // Kills the flash at `point`, checks what the kill left, resets the modem, runs the update
    // again and checks the device. True when the device survived.
    static bool SurviveImageLoaderKill(const TKillPoint& point, bool& killedMidRun) {
        CPointChecks checks(point.Describe());
        TKilledRun killed;
        const std::unique_ptr<CSimulatedDevice> device =
            MakeAndKill(ImageLoaderDevice(), point, checks, killed);
        if (!device) {
            return false;
        }
        killedMidRun = killed.KilledBeforeResult();

        // The unit's reset switches the modem off; its flash keeps what was programmed.
        nlohmann::json firstSummary;
        const CStatus stopped = device->StopModem(firstSummary);
        checks.Check(static_cast<bool>(stopped), "stopping the modem", stopped.Message());
        std::string flashBefore;
        static_cast<void>(device->ReadFlash(flashBefore));
        std::string revision;
        const bool newRevision =
            ReadStorageAfterKill(*device, kRevisionFile, revision) && revision == WrittenRevision();
        bool sourceRemoved = false;
        for (const std::string& source : SourcePaths(*device)) {
            sourceRemoved = sourceRemoved || !FileExists(source);
        }
        checks.Check(!newRevision || flashBefore == device->Firmware(),
                     "the new revision is on the storage only once the flash holds the whole "
                     "firmware",
                     "flash " + std::to_string(flashBefore.size()) + " bytes\n" + killed.trace);
        checks.Check(!sourceRemoved || newRevision,
                     "a source file is removed only after the new revision was written",
                     killed.trace);
        checks.Left(std::string(device->IsStorageMounted() ? "the storage mounted"
                                                           : "the storage unmounted") +
                    ", " + std::to_string(flashBefore.size()) + " bytes flashed, " +
                    (newRevision ? "the new revision" : "the old revision") + ", " +
                    (sourceRemoved ? "sources removed" : "sources kept"));

        CRestartedModem modem;
        const testing::AssertionResult restarted = modem.Start(*device);
        checks.Check(static_cast<bool>(restarted), "restarting the modem", restarted.message());
        if (!restarted) {
            return false;
        }
        TUpdateResult rerun;
        const CStatus reran = device->RunUpdate(TUpdateOptions(), rerun);
        checks.Check(static_cast<bool>(reran), "running the update again", reran.Message());
        nlohmann::json secondSummary;
        const testing::AssertionResult modemStopped = modem.Stop(*device, secondSummary);
        checks.Check(static_cast<bool>(modemStopped), "stopping the restarted modem",
                     modemStopped.message());

        CheckRerun(checks, *device, rerun);
        std::string flashAfter = flashBefore;
        if (Wrote(secondSummary)) {
            static_cast<void>(ReadWholeFile(CRestartedModem::FlashFile(*device), flashAfter));
        }
        checks.Check(
            flashAfter == device->Firmware(),
            "after the rerun the modem's flash holds the firmware",
            std::to_string(flashAfter.size()) + " bytes, restarted modem " + secondSummary.dump());
        std::string revisionAfter;
        static_cast<void>(device->ReadStorageFile(kRevisionFile, revisionAfter));
        checks.Check(revisionAfter == WrittenRevision(),
                     "after the rerun the storage holds the new revision", revisionAfter);
        for (const std::string& source : SourcePaths(*device)) {
            checks.Check(!FileExists(source), "after the rerun the source is removed: " + source);
        }
        return checks.Print(killedMidRun);
    }

    // The copies on the storage, read as the kill left them; true when all four are complete.
    static bool CopiesComplete(const CSimulatedDevice& device, bool afterKill) {
        const std::pair<std::string, std::string> copies[] = {
            {"loader.bin", device.Loader()},
            {"firmware.bin", device.Firmware()},
            {"daemon.cfg", CSimulatedDevice::DaemonConfig()},
            {"product.cfg", CSimulatedDevice::ProductConfig()}};
        for (const auto& [name, content] : copies) {
            const std::string path = std::string(kTargetFolder) + "/" + name;
            std::string copied;
            const bool read = afterKill ? ReadStorageAfterKill(device, path, copied)
                                        : static_cast<bool>(device.ReadStorageFile(path, copied));
            if (!read || copied != content) {
                return false;
            }
        }
        return true;
    }

    // Kills the archive copy at `point`, checks what the kill left, runs the update again and
    // checks the storage. True when the device survived.
    static bool SurviveArchiveKill(const TKillPoint& point, bool& killedMidRun) {
        CPointChecks checks(point.Describe());
        TKilledRun killed;
        const std::unique_ptr<CSimulatedDevice> device =
            MakeAndKill(ArchiveLoaderDevice(), point, checks, killed);
        if (!device) {
            return false;
        }
        killedMidRun = killed.KilledBeforeResult();

        std::string flag;
        const bool flagged = ReadStorageAfterKill(*device, kFlagFile, flag);
        checks.Left((device->IsStorageMounted()
                         ? "the storage mounted, " + std::to_string(CopiedBytes(*device)) +
                               " bytes in the copies"
                         : std::string("the storage unmounted")) +
                    (flagged ? ", the flag file" : ", no flag file"));
        checks.Check(!flagged || CopiesComplete(*device, true),
                     "the flag file exists only beside four complete copies", killed.trace);
        std::string revision;
        checks.Check(
            ReadStorageAfterKill(*device, kRevisionFile, revision) && revision == kOldRevision,
            "the archive copy leaves the stored revision alone", revision);
        for (const std::string& source : SourcePaths(*device)) {
            checks.Check(FileExists(source), "the archive copy keeps the source " + source);
        }

        TUpdateResult rerun;
        const CStatus reran = device->RunUpdate(TUpdateOptions(), rerun);
        checks.Check(static_cast<bool>(reran), "running the update again", reran.Message());
        CheckRerun(checks, *device, rerun);
        checks.Check(CopiesComplete(*device, false), "after the rerun the four copies are complete",
                     DescribeUpdate(rerun));
        std::string flagAfter;
        checks.Check(
            static_cast<bool>(device->ReadStorageFile(kFlagFile, flagAfter)) && flagAfter.empty(),
            "after the rerun the flag file is there, empty", DescribeUpdate(rerun));
        for (const std::string& source : SourcePaths(*device)) {
            checks.Check(FileExists(source), "after the rerun the source is kept: " + source);
        }
        return checks.Print(killedMidRun);
    }
};

TEST_F(KillAndRerunTest, ImageLoaderFlashKilledAtTwentyPointsCompletesOnRerun) {
    TUpdateResult reference;
    ASSERT_NO_FATAL_FAILURE(ReferenceRun(ImageLoaderDevice(), reference));
    const std::size_t referenceLines = reference.trace.size();
    ASSERT_GT(referenceLines, 2u);

    std::uniform_int_distribution<std::size_t> lines(1, referenceLines - 1);
    ExpectEveryKillSurvived(
        "image loader",
        [&](std::mt19937_64& random) {
            TKillPoint point;
            point.traceLines = lines(random);
            return point;
        },
        SurviveImageLoaderKill);
}

TEST_F(KillAndRerunTest, ArchiveCopyKilledAtTwentyPointsCompletesOnRerun) {
    // What the archive loader copies: the update's four files.
    const TDeviceSettings settings = ArchiveLoaderDevice();
    const std::size_t totalBytes = settings.loaderBytes + settings.firmwareBytes +
                                   CSimulatedDevice::DaemonConfig().size() +
                                   CSimulatedDevice::ProductConfig().size();

    // Up to the last byte: the points at the end fall on the flag file, Sync and the unmount.
    std::uniform_int_distribution<std::size_t> copied(1, totalBytes);
    ExpectEveryKillSurvived(
        "archive loader",
        [&](std::mt19937_64& random) {
            TKillPoint point;
            point.copiedBytes = copied(random);
            return point;
        },
        SurviveArchiveKill);
}

// Without a reset the modem stays on inside its loader, taking firmware data. The rerun's
// Prepare finds the ready input at 1 and switches the modem off through the control pin, and a
// later power-up attempt finds the boot code again.
TEST_F(KillAndRerunTest, ModemLeftPoweredInItsLoaderIsSwitchedOffByTheRerun) {
    std::unique_ptr<CSimulatedDevice> device;
    const CStatus made = CSimulatedDevice::Create(ImageLoaderDevice(), device);
    ASSERT_TRUE(made) << made.Message();
    TKillPoint point;
    point.marker = kWriteStarted;
    TKilledRun killed;
    ASSERT_TRUE(RunAndKill(*device, point, killed));
    ASSERT_TRUE(killed.KilledBeforeResult()) << killed.trace;

    TUpdateResult rerun;
    const CStatus reran = device->RunUpdate(TUpdateOptions(), rerun);
    ASSERT_TRUE(reran) << reran.Message();
    ASSERT_EQ(rerun.exitCode, 0) << DescribeUpdate(rerun);
    EXPECT_TRUE(TraceHasLog(rerun, "Modem was switched on")) << DescribeUpdate(rerun);
    EXPECT_GE(rerun.modemSummary.value("power_offs", 0), 1) << rerun.modemSummary.dump();
    std::string flash;
    ASSERT_TRUE(device->ReadFlash(flash));
    EXPECT_EQ(flash, device->Firmware());
    std::string revision;
    ASSERT_TRUE(device->ReadStorageFile(kRevisionFile, revision));
    EXPECT_EQ(revision, WrittenRevision());
    EXPECT_FALSE(device->IsStorageMounted());
    EXPECT_TRUE(device->Storage().AwaitNoLoopDevice());
}
}  // namespace
