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
#include <cstdlib>
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
#include "Descriptors.h"
#include "ModemProcess.h"
#include "Prerequisite.h"
#include "SimulatedDevice.h"
#include "TemporaryDirectory.h"
#include "TestFiles.h"

namespace {
constexpr int kKillPoints = 20;
constexpr uint64_t kPointSeed = 0x6b696c6c;  // the points are the same on every run of the test
// The loaded run's rounds draw from this seed plus the round's number.
constexpr uint64_t kLoadedPointSeed = 0x6c6f6164;
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

// CPU and I/O load beside the test: stress-ng's workers on both cores (--cpu), syncing
// (--io) and writing files (--hdd) in a folder of the test's, in a process group of their own.
// Its own time-out bounds it should the test never stop it.
class CLoad {
public:
    testing::AssertionResult Start(const CTemporaryDirectory& folder) {
        TStartOptions options;
        options.outputPath = folder.Join("stress-ng-output.txt");
        options.ownProcessGroup = true;
        const std::vector<std::string> arguments{
            "stress-ng",   "--cpu", "2",           "--io",        "2",         "--hdd", "1",
            "--hdd-bytes", "64M",   "--temp-path", folder.Path(), "--timeout", "24h",   "--quiet"};
        if (CStatus started = m_process.Start(arguments, options); !started) {
            return testing::AssertionFailure() << started.Message();
        }
        return testing::AssertionSuccess();
    }

    // Ends the load and its workers: SIGTERM lets stress-ng remove its files; a load that does
    // not go within its grace is killed.
    testing::AssertionResult Stop() {
        m_process.Signal(SIGTERM);
        if (!m_process.Wait(std::chrono::seconds(30))) {
            m_process.Signal(SIGKILL);
            m_process.WaitToEnd();
            return testing::AssertionFailure() << "stress-ng outlived SIGTERM by 30 s";
        }
        return testing::AssertionSuccess();
    }

private:
    CChildProcess m_process;
};

// The rounds of the loaded run: MODEMLOADER_KILL_ROUNDS, or a few for CI; 0 when it is not a
// whole number.
int LoadedRounds() {
    constexpr int kRoundsInCi = 10;
    const char* text = std::getenv("MODEMLOADER_KILL_ROUNDS");
    if (text == nullptr || *text == '\0') {
        return kRoundsInCi;
    }
    char* end = nullptr;
    const long rounds = std::strtol(text, &end, 10);
    return *end == '\0' && rounds > 0 && rounds <= 100000 ? static_cast<int>(rounds) : 0;
}

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

bool FirstUnmountSucceeded(const TUpdateResult& result) {
    for (const nlohmann::json& line : result.trace) {
        if (line.value("kind", "") == "umount") {
            return line.value("status", -1) == 0;
        }
    }
    return false;
}

bool TraceHasLog(const TUpdateResult& result, const std::string& text) {
    for (const nlohmann::json& line : result.trace) {
        if (line.value("kind", "") == "log" && line.value("text", "") == text) {
            return true;
        }
    }
    return false;
}

// What became of one kill point.
struct TPointOutcome {
    bool survived = false;
    bool killedMidRun = false;  // the kill fell before the host's result
    // The worst outcome there is: the rerun exited 0 while the device holds missing or
    // different files (flash, revision, copies or flag file).
    bool falseSuccess = false;
};

// The outcomes of a run of points, and their line in the test's output.
struct TPointTally {
    int points = 0;
    int survived = 0;
    int killedMidRun = 0;
    int falseSuccesses = 0;

    void Add(const TPointOutcome& outcome) {
        ++points;
        survived += outcome.survived ? 1 : 0;
        killedMidRun += outcome.killedMidRun ? 1 : 0;
        falseSuccesses += outcome.falseSuccess ? 1 : 0;
    }
    void Add(const TPointTally& other) {
        points += other.points;
        survived += other.survived;
        killedMidRun += other.killedMidRun;
        falseSuccesses += other.falseSuccesses;
    }
    std::string Describe() const {
        return std::to_string(survived) + " of " + std::to_string(points) + " points survived (" +
               std::to_string(killedMidRun) + " killed mid-run, " +
               std::to_string(points - killedMidRun) + " not killed before the result); " +
               std::to_string(falseSuccesses) +
               " reruns reported success over missing or different files";
    }
};

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
        // A long run is watched through its log as it goes.
        std::fflush(stdout);
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

    // The image loader's points: a line of the reference run's trace.
    static void ImageLoaderReferenceLines(std::size_t& referenceLines) {
        TUpdateResult reference;
        ASSERT_NO_FATAL_FAILURE(ReferenceRun(ImageLoaderDevice(), reference));
        referenceLines = reference.trace.size();
        ASSERT_GT(referenceLines, 2u);
    }
    static auto ImageLoaderPoints(std::size_t referenceLines) {
        return [referenceLines](std::mt19937_64& random) {
            TKillPoint point;
            point.traceLines =
                std::uniform_int_distribution<std::size_t>(1, referenceLines - 1)(random);
            return point;
        };
    }
    // The archive loader's points: a byte of the update's four files, up to the last one, so
    // that the points at the end fall on the flag file, Sync and the unmount.
    static auto ArchivePoints() {
        const TDeviceSettings settings = ArchiveLoaderDevice();
        const std::size_t totalBytes = settings.loaderBytes + settings.firmwareBytes +
                                       CSimulatedDevice::DaemonConfig().size() +
                                       CSimulatedDevice::ProductConfig().size();
        return [totalBytes](std::mt19937_64& random) {
            TKillPoint point;
            point.copiedBytes = std::uniform_int_distribution<std::size_t>(1, totalBytes)(random);
            return point;
        };
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
        const TPointTally tally = RunPoints(kKillPoints, kPointSeed, draw, survive);
        std::printf("[ kill-and-rerun ] %s: %s\n", path, tally.Describe().c_str());
        std::fflush(stdout);
        EXPECT_EQ(tally.survived, kKillPoints);
        EXPECT_EQ(tally.falseSuccesses, 0);
        EXPECT_GE(tally.killedMidRun, kKillPoints / 2);
    }

    // `count` points drawn by `draw` from the sequence of `seed`, each followed by `survive`.
    template <typename TDraw, typename TSurvive>
    static TPointTally RunPoints(int count, uint64_t seed, TDraw draw, TSurvive survive) {
        std::mt19937_64 random(seed);
        TPointTally tally;
        for (int index = 0; index < count; ++index) {
            tally.Add(survive(draw(random)));
        }
        return tally;
    }

    // The rerun finished the update and released the storage.
    // `leftMounted`: the killed host left the storage mounted.
    static void CheckRerun(CPointChecks& checks, const CSimulatedDevice& device,
                           const TUpdateResult& rerun, bool leftMounted) {
        // A failed rerun also names the processes still holding the storage: a busy mount
        // point fails the unmount and refuses the next mount.
        checks.Check(rerun.exitCode == 0, "the rerun succeeds",
                     rerun.exitCode == 0
                         ? std::string()
                         : DescribeUpdate(rerun) + "processes holding " + device.MountPoint() +
                               ":\n" + HoldersOf(device.MountPoint()));
        // The mount that the killed host left must be gone before the rerun mounts the storage:
        // a mount over it would put two file systems on one image through two loop devices,
        // each writing its own view of the same blocks.
        checks.Check(!leftMounted || FirstUnmountSucceeded(rerun),
                     "the rerun's Prepare unmounts the mount the killed host left",
                     DescribeUpdate(rerun));
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
    static TPointOutcome SurviveImageLoaderKill(const TKillPoint& point) {
        CPointChecks checks(point.Describe());
        TKilledRun killed;
        TPointOutcome outcome;
        const std::unique_ptr<CSimulatedDevice> device =
            MakeAndKill(ImageLoaderDevice(), point, checks, killed);
        if (!device) {
            return outcome;
        }
        outcome.killedMidRun = killed.KilledBeforeResult();

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
        const bool leftMounted = device->IsStorageMounted();
        checks.Left(std::string(leftMounted ? "the storage mounted" : "the storage unmounted") +
                    ", " + std::to_string(flashBefore.size()) + " bytes flashed, " +
                    (newRevision ? "the new revision" : "the old revision") + ", " +
                    (sourceRemoved ? "sources removed" : "sources kept"));

        CRestartedModem modem;
        const testing::AssertionResult restarted = modem.Start(*device);
        checks.Check(static_cast<bool>(restarted), "restarting the modem", restarted.message());
        if (!restarted) {
            return outcome;
        }
        TUpdateResult rerun;
        const CStatus reran = device->RunUpdate(TUpdateOptions(), rerun);
        checks.Check(static_cast<bool>(reran), "running the update again", reran.Message());
        nlohmann::json secondSummary;
        const testing::AssertionResult modemStopped = modem.Stop(*device, secondSummary);
        checks.Check(static_cast<bool>(modemStopped), "stopping the restarted modem",
                     modemStopped.message());

        CheckRerun(checks, *device, rerun, leftMounted);
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
        outcome.falseSuccess = rerun.exitCode == 0 && (flashAfter != device->Firmware() ||
                                                       revisionAfter != WrittenRevision());
        outcome.survived = checks.Print(outcome.killedMidRun);
        return outcome;
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
    static TPointOutcome SurviveArchiveKill(const TKillPoint& point) {
        CPointChecks checks(point.Describe());
        TKilledRun killed;
        TPointOutcome outcome;
        const std::unique_ptr<CSimulatedDevice> device =
            MakeAndKill(ArchiveLoaderDevice(), point, checks, killed);
        if (!device) {
            return outcome;
        }
        outcome.killedMidRun = killed.KilledBeforeResult();

        std::string flag;
        const bool flagged = ReadStorageAfterKill(*device, kFlagFile, flag);
        const bool leftMounted = device->IsStorageMounted();
        checks.Left((leftMounted ? "the storage mounted, " + std::to_string(CopiedBytes(*device)) +
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
        CheckRerun(checks, *device, rerun, leftMounted);
        // The stored revision never changes here, so the rerun needs the update: a success
        // without this record came from the fake loader (a device tree that could not be read
        // sends Install there), which copies nothing.
        checks.Check(TraceHasLog(rerun, "Copied files to movinand"),
                     "the rerun's archive loader copied the files", DescribeUpdate(rerun));
        const bool copiesAfter = CopiesComplete(*device, false);
        checks.Check(copiesAfter, "after the rerun the four copies are complete",
                     DescribeUpdate(rerun));
        std::string flagAfter;
        const bool flaggedAfter =
            static_cast<bool>(device->ReadStorageFile(kFlagFile, flagAfter)) && flagAfter.empty();
        checks.Check(flaggedAfter, "after the rerun the flag file is there, empty",
                     DescribeUpdate(rerun));
        for (const std::string& source : SourcePaths(*device)) {
            checks.Check(FileExists(source), "after the rerun the source is kept: " + source);
        }
        outcome.falseSuccess = rerun.exitCode == 0 && !(copiesAfter && flaggedAfter);
        outcome.survived = checks.Print(outcome.killedMidRun);
        return outcome;
    }
};

TEST_F(KillAndRerunTest, ImageLoaderFlashKilledAtTwentyPointsCompletesOnRerun) {
    std::size_t referenceLines = 0;
    ASSERT_NO_FATAL_FAILURE(ImageLoaderReferenceLines(referenceLines));
    ExpectEveryKillSurvived("image loader", ImageLoaderPoints(referenceLines),
                            SurviveImageLoaderKill);
}

TEST_F(KillAndRerunTest, ArchiveCopyKilledAtTwentyPointsCompletesOnRerun) {
    ExpectEveryKillSurvived("archive loader", ArchivePoints(), SurviveArchiveKill);
}

// The points of both loaders while stress-ng keeps both cores and the disk busy: the kill, the
// kernel's release of the dead host's mount and loop device, the rerun's own mounts and the
// checks' reads of the image then interleave as they do on a loaded device. No rerun may report
// success over missing or different files. MODEMLOADER_KILL_ROUNDS sets the rounds, each one
// point of each loader from a sequence of its own (./run kill-under-load runs many).
TEST_F(KillAndRerunTest, KillPointsOfBothLoadersUnderCpuAndIoLoadNeverRerunToAFalseSuccess) {
    if (!IsInPath("stress-ng")) {
        MODEMLOADER_MISSING_PREREQUISITE("stress-ng is not installed: it makes the load");
    }
    const int rounds = LoadedRounds();
    ASSERT_GT(rounds, 0) << "MODEMLOADER_KILL_ROUNDS must be a whole number of 1 or more";
    CTemporaryDirectory loadFolder("/tmp/modemloader-load-");
    ASSERT_TRUE(loadFolder.Made()) << loadFolder.Made().Message();
    CLoad load;
    ASSERT_TRUE(load.Start(loadFolder));
    const auto started = std::chrono::steady_clock::now();

    std::size_t referenceLines = 0;
    ASSERT_NO_FATAL_FAILURE(ImageLoaderReferenceLines(referenceLines));
    TPointTally image;
    TPointTally archive;
    for (int round = 0; round < rounds; ++round) {
        const uint64_t seed = kLoadedPointSeed + static_cast<uint64_t>(round);
        image.Add(RunPoints(1, seed, ImageLoaderPoints(referenceLines), SurviveImageLoaderKill));
        archive.Add(RunPoints(1, seed, ArchivePoints(), SurviveArchiveKill));
    }
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    EXPECT_TRUE(load.Stop());
    TPointTally all = image;
    all.Add(archive);
    std::printf("[ kill-under-load ] image loader: %s\n", image.Describe().c_str());
    std::printf("[ kill-under-load ] archive loader: %s\n", archive.Describe().c_str());
    std::printf("[ kill-under-load ] %d rounds under load in %.0f s: %s\n", rounds, seconds,
                all.Describe().c_str());
    std::fflush(stdout);
    EXPECT_EQ(all.falseSuccesses, 0);
    EXPECT_EQ(all.survived, all.points);
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
