#include "BenchFigures.h"

#include <unistd.h>

#include <cstdio>
#include <sstream>

#include "CopyBenchmark.h"
#include "Footprint.h"
#include "IntegrationOverhead.h"
#include "ProgressPlot.h"
#include "SimulatedDevice.h"
#include "TemporaryDirectory.h"
#include "UpdateBenchmark.h"

namespace {
constexpr char kProgram[] = "modemloader-bench";
// The serial line the loader opens: 115200 baud, 8N1, so ten bit times a byte.
constexpr unsigned kLineBaud = 115200;
constexpr double kLineBytesPerSecond = kLineBaud / 10.0;
constexpr uint32_t kDesignedTickMs = 1000;
constexpr uint32_t kTickLimitedTickMs = 100;
constexpr uint32_t kMemoryTickMs = 1;
constexpr std::size_t kLineFirmwareBytes = 256u << 10;
constexpr std::size_t kMemoryFirmwareBytes = 64u << 20;
constexpr std::size_t kCopyFiles = 4;
constexpr std::size_t kCopyFileBytes = 64u << 20;
constexpr double kMiB = 1024.0 * 1024.0;

void Progress(const std::string& text) { std::fprintf(stderr, "%s: %s\n", kProgram, text.c_str()); }

std::string Fixed(double value, int decimals) { return FormatValue(value, decimals, ""); }
}  // namespace

CStatus CBenchFigures::Run() {
    // Figure 7 needs the three update systems' tools: a missing one is said before the other
    // figures take their minutes, not after.
    if (Wanted(7)) {
        for (const std::string& missing :
             {CIntegrationOverhead::MenderMissing(), CIntegrationOverhead::SwupdateMissing(),
              CIntegrationOverhead::RaucMissing()}) {
            if (!missing.empty()) {
                return CStatus::Failure("figure 7, update-system overhead: " + missing);
            }
        }
    }
    if (Wanted(1) || Wanted(3)) {
        if (CStatus status = LineRate(); !status) {
            return status;
        }
    }
    if (Wanted(2)) {
        if (CStatus status = TickLimited(); !status) {
            return status;
        }
    }
    if (Wanted(4)) {
        if (CStatus status = Memory(); !status) {
            return status;
        }
    }
    if (Wanted(5)) {
        if (CStatus status = ArchiveCopy(); !status) {
            return status;
        }
    }
    if (Wanted(6)) {
        if (CStatus status = Footprint(); !status) {
            return status;
        }
    }
    if (Wanted(7)) {
        if (CStatus status = UpdateSystems(); !status) {
            return status;
        }
    }
    return CStatus::Ok();
}

std::string CBenchFigures::RunLabel(unsigned run) const {
    return "run " + std::to_string(run + 1) + "/" + std::to_string(m_options.runs);
}

CStatus CBenchFigures::LineRate() {
    TUpdateScenario scenario;
    scenario.firmwareBytes = kLineFirmwareBytes;
    scenario.tickMs = kDesignedTickMs;
    scenario.baud = kLineBaud;
    TResultRow line{"1",
                    "Line utilisation: " + DescribeBytes(kLineFirmwareBytes) +
                        " firmware, modem-sim --baud 115200, 1000 ms tick; firmware bytes a "
                        "second at the modem",
                    "B/s",
                    0,
                    {},
                    kLineBytesPerSecond,
                    "115200 baud, 10 bits a byte"};
    TResultRow perSecond{"3a",
                         "CPU time (user + system) of modemloader-host per wall second,"
                         " during run 1",
                         "s/s",
                         4,
                         {},
                         1.0,
                         "one core kept busy"};
    const double lineSecondsPerMiB = kMiB / kLineBytesPerSecond;
    TResultRow perMiB{"3b",
                      "CPU time of modemloader-host per MiB flashed, during run 1",
                      "s/MiB",
                      3,
                      {},
                      lineSecondsPerMiB,
                      "one core kept busy while the line moves 1 MiB"};
    TUpdateMeasurement lastRun;
    for (unsigned run = 0; run < m_options.runs; ++run) {
        scenario.seed = run + 1;
        TUpdateMeasurement measurement;
        if (CStatus status = CUpdateBenchmark::Measure(scenario, measurement); !status) {
            return status.WithContext("line utilisation");
        }
        const double cpu = measurement.host.CpuSeconds();
        line.samples.Add(measurement.transfer.BytesPerSecond());
        perSecond.samples.Add(cpu / measurement.host.wallSeconds);
        perMiB.samples.Add(cpu / (static_cast<double>(kLineFirmwareBytes) / kMiB));
        Progress("line rate " + RunLabel(run) + ": " +
                 Fixed(measurement.transfer.BytesPerSecond(), 0) + " B/s, host " +
                 Fixed(measurement.host.wallSeconds, 1) + " s wall, " + Fixed(cpu, 3) + " s CPU");
        lastRun = std::move(measurement);
    }
    if (Wanted(1)) {
        m_table.Add(std::move(line));
    }
    if (Wanted(3)) {
        m_table.Add(std::move(perSecond));
        m_table.Add(std::move(perMiB));
    }
    const std::string png = m_options.output + "/" + kPlotFile;
    if (CStatus status = CProgressPlot::Write(lastRun, kLineBytesPerSecond,
                                              "modemloader: " + DescribeBytes(kLineFirmwareBytes) +
                                                  " firmware at 115200 baud, 1000 ms tick",
                                              png, m_options.output);
        !status) {
        return status.WithContext("plotting the line-rate run");
    }
    // The plot's data and script stay beside it only as long as gnuplot needs them.
    for (const char* name : {"modem-bytes.dat", "host-percent.dat", "progress.gnuplot"}) {
        ::unlink((m_options.output + "/" + name).c_str());
    }
    m_plotted = true;
    return CStatus::Ok();
}

CStatus CBenchFigures::TickLimited() {
    TUpdateScenario scenario;
    scenario.firmwareBytes = kLineFirmwareBytes;
    scenario.tickMs = kTickLimitedTickMs;
    const double chunkPerTick = kChunkBytes * 1000.0 / kTickLimitedTickMs;
    TResultRow row{"2",
                   "Tick-limited throughput: " + DescribeBytes(kLineFirmwareBytes) +
                       " firmware, unpaced line, 100 ms tick; firmware bytes a second at the "
                       "modem",
                   "B/s",
                   0,
                   {},
                   chunkPerTick,
                   "one 25600-byte chunk per 100 ms tick"};
    for (unsigned run = 0; run < m_options.runs; ++run) {
        scenario.seed = run + 1;
        TUpdateMeasurement measurement;
        if (CStatus status = CUpdateBenchmark::Measure(scenario, measurement); !status) {
            return status.WithContext("tick-limited throughput");
        }
        row.samples.Add(measurement.transfer.BytesPerSecond());
        Progress("tick-limited " + RunLabel(run) + ": " +
                 Fixed(measurement.transfer.BytesPerSecond(), 0) + " B/s");
    }
    m_table.Add(std::move(row));
    return CStatus::Ok();
}

CStatus CBenchFigures::Memory() {
    TUpdateScenario scenario;
    scenario.firmwareBytes = kMemoryFirmwareBytes;
    scenario.tickMs = kMemoryTickMs;
    const std::size_t loaderBytes = TDeviceSettings().loaderBytes;
    const double limitKiB = static_cast<double>(loaderBytes + kChunkBytes) / 1024;
    TResultRow row{"4",
                   "Memory: peak resident memory of modemloader-host minus its resident "
                   "memory before Install, " +
                       DescribeBytes(kMemoryFirmwareBytes) + " firmware, unpaced line, 1 ms tick",
                   "KiB",
                   0,
                   {},
                   limitKiB,
                   "loader image " + std::to_string(loaderBytes) + " B + one " +
                       std::to_string(kChunkBytes) + " B chunk"};
    TResultRow anonymous = row;
    anonymous.number = "4b";
    anonymous.figure =
        "Memory, anonymous part only (RssAnon: heap and stacks, no code "
        "pages), peak sample minus the sample before Install, same runs";
    row.number = "4a";
    for (unsigned run = 0; run < m_options.runs; ++run) {
        scenario.seed = run + 1;
        TUpdateMeasurement measurement;
        if (CStatus status = CUpdateBenchmark::Measure(scenario, measurement); !status) {
            return status.WithContext("memory");
        }
        const THostRun& host = measurement.host;
        if (host.residentBeforeInstallKiB < 0 || host.anonymousBeforeInstallKiB < 0) {
            return CStatus::Failure("memory: no sample of the host before Install");
        }
        const long growth = host.peakResidentKiB - host.residentBeforeInstallKiB;
        const long anonymousGrowth = host.peakAnonymousKiB - host.anonymousBeforeInstallKiB;
        row.samples.Add(static_cast<double>(growth));
        anonymous.samples.Add(static_cast<double>(anonymousGrowth));
        Progress("memory " + RunLabel(run) + ": resident " + std::to_string(host.peakResidentKiB) +
                 " KiB peak - " + std::to_string(host.residentBeforeInstallKiB) +
                 " KiB before Install = " + std::to_string(growth) + " KiB; anonymous " +
                 std::to_string(host.peakAnonymousKiB) + " - " +
                 std::to_string(host.anonymousBeforeInstallKiB) + " = " +
                 std::to_string(anonymousGrowth) + " KiB; " + Fixed(host.wallSeconds, 1) + " s");
    }
    m_table.Add(std::move(row));
    m_table.Add(std::move(anonymous));
    return CStatus::Ok();
}

CStatus CBenchFigures::ArchiveCopy() {
    CCopyBenchmark copy;
    Progress("archive copy: writing " + std::to_string(kCopyFiles) + " files of " +
             DescribeBytes(kCopyFileBytes) + " and an ext4 image");
    if (CStatus status = copy.Prepare(kCopyFiles, kCopyFileBytes); !status) {
        return status.WithContext("archive copy");
    }
    const double totalMiB = static_cast<double>(copy.TotalBytes()) / kMiB;
    CSamples copyFile;
    CSamples cp;
    for (unsigned run = 0; run < m_options.runs; ++run) {
        double fileHandlerSeconds = 0;
        double cpSeconds = 0;
        // Alternating which goes first, so that neither always inherits the other's caches.
        const bool fileHandlerFirst = run % 2 == 0;
        for (int turn = 0; turn < 2; ++turn) {
            const bool fileHandlerTurn = (turn == 0) == fileHandlerFirst;
            CStatus status = fileHandlerTurn ? copy.CopyWithFileHandler(fileHandlerSeconds)
                                             : copy.CopyWithCp(cpSeconds);
            if (!status) {
                return status.WithContext("archive copy");
            }
        }
        copyFile.Add(totalMiB / fileHandlerSeconds);
        cp.Add(totalMiB / cpSeconds);
        Progress("archive copy " + RunLabel(run) + ": CopyFile " +
                 Fixed(totalMiB / fileHandlerSeconds, 1) + " MiB/s, cp " +
                 Fixed(totalMiB / cpSeconds, 1) + " MiB/s");
    }
    TResultRow row{
        "5",
        "Archive copy: CLinuxFileHandler::CopyFile of " + std::to_string(kCopyFiles) + " x " +
            DescribeBytes(kCopyFileBytes) +
            " onto a loop-mounted ext4 image, each copy durable (file and folder synced),"
            " then Sync",
        "MiB/s",
        1,
        copyFile,
        cp.Median(),
        "cp then sync(1) of the copies, same files and image, same runs, median; min " +
            Fixed(cp.Minimum(), 1) + ", max " + Fixed(cp.Maximum(), 1)};
    m_table.Add(std::move(row));
    return CStatus::Ok();
}

CStatus CBenchFigures::Footprint() {
    CTemporaryDirectory scratch("/tmp/modemloader-footprint-");
    if (CStatus status = scratch.Made(); !status) {
        return status.WithContext("footprint");
    }
    const std::string plugin = CSimulatedDevice::BuiltPrograms().plugin;
    CSamples stripped;
    TFootprint footprint;
    // The sizes do not vary from run to run; measuring them like the rest keeps the table
    // uniform and shows that they do not.
    for (unsigned run = 0; run < m_options.runs; ++run) {
        if (CStatus status = CFootprintMeasure::Measure(plugin, scratch.Path(), footprint);
            !status) {
            return status.WithContext("footprint");
        }
        stripped.Add(static_cast<double>(footprint.strippedBytes) / 1024);
    }
    TResultRow row{"6",
                   "Footprint: the plug-in stripped (" +
                       Fixed(static_cast<double>(footprint.builtBytes) / 1024, 1) +
                       " KiB as built)",
                   "KiB",
                   1,
                   stripped,
                   static_cast<double>(footprint.DependencyBytes()) / 1024,
                   "its " + std::to_string(footprint.dependencies.size()) +
                       " shared libraries by ldd, together"};
    m_table.Add(std::move(row));
    std::ostringstream notes;
    notes << "Shared libraries of the plug-in (ldd, on this machine):\n\n"
          << "| Library | File | Size |\n|---|---|---:|\n";
    for (const TDependency& dependency : footprint.dependencies) {
        notes << "| " << dependency.name << " | " << dependency.path << " | "
              << FormatValue(static_cast<double>(dependency.bytes) / 1024, 1, "KiB") << " |\n";
    }
    m_notes += notes.str();
    return m_options.targetPlugin.empty() ? CStatus::Ok()
                                          : TargetFootprint(footprint.strippedBytes);
}

CStatus CBenchFigures::TargetFootprint(std::size_t nativeStrippedBytes) {
    CTemporaryDirectory scratch("/tmp/modemloader-footprint-");
    if (CStatus status = scratch.Made(); !status) {
        return status.WithContext("armhf footprint");
    }
    CSamples stripped;
    TFootprint footprint;
    for (unsigned run = 0; run < m_options.runs; ++run) {
        if (CStatus status = CFootprintMeasure::MeasureStripped(
                m_options.targetPlugin, "arm-linux-gnueabihf-strip", scratch.Path(), footprint);
            !status) {
            return status.WithContext("armhf footprint");
        }
        stripped.Add(static_cast<double>(footprint.strippedBytes) / 1024);
    }
    m_table.Add(TResultRow{"6b",
                           "Footprint on the target: the armhf plug-in stripped (" +
                               Fixed(static_cast<double>(footprint.builtBytes) / 1024, 1) +
                               " KiB as built, armhf preset)",
                           "KiB", 1, stripped, static_cast<double>(nativeStrippedBytes) / 1024,
                           "the x86-64 plug-in stripped, figure 6"});
    return CStatus::Ok();
}

CStatus CBenchFigures::UpdateSystems() {
    // An install may take this much longer than the host's own run of the same update.
    constexpr double kOverheadLimitSeconds = 1.5;
    struct TSystem {
        const char* number;
        const char* name;
        const char* install;
        CStatus (*measure)(uint64_t, TOverheadMeasurement&);
    };
    const TSystem systems[] = {
        {"7a", "Mender", "`mender install` of a signed artifact",
         CIntegrationOverhead::MeasureMender},
        {"7b", "SWUpdate", "`swupdate -i` of a signed .swu", CIntegrationOverhead::MeasureSwupdate},
        {"7c", "RAUC",
         "`rauc install` of a signed plain bundle (the isolated service started for it)",
         CIntegrationOverhead::MeasureRauc},
    };
    const std::string device = DescribeBytes(CIntegrationOverhead::FirmwareBytes()) +
                               " of firmware, " + std::to_string(TDeviceSettings().tickMs) +
                               " ms tick";
    for (const TSystem& system : systems) {
        TResultRow row{system.number,
                       std::string(system.name) + " overhead: wall time of " + system.install +
                           " (" + device +
                           ") minus modemloader-host's own run of the same update on a device "
                           "made alike",
                       "s",
                       2,
                       {},
                       kOverheadLimitSeconds,
                       "goal per install"};
        for (unsigned run = 0; run < m_options.runs; ++run) {
            TOverheadMeasurement measurement;
            if (CStatus status = system.measure(run + 1, measurement); !status) {
                return status.WithContext(std::string(system.name) + " overhead");
            }
            row.samples.Add(measurement.OverheadSeconds());
            Progress(std::string(system.name) + " overhead " + RunLabel(run) + ": install " +
                     Fixed(measurement.installSeconds, 2) + " s, host alone " +
                     Fixed(measurement.hostSeconds, 2) + " s");
        }
        m_table.Add(std::move(row));
    }
    return CStatus::Ok();
}
