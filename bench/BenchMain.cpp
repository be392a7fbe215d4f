// modemloader-bench: the figures of docs/performance.md, measured on this machine. See
// `modemloader-bench --help`; `./run bench` builds the release programs and runs it.

#include <sys/utsname.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <set>
#include <sstream>
#include <string>

#include "CopyBenchmark.h"
#include "Footprint.h"
#include "ProgressPlot.h"
#include "ResultTable.h"
#include "SimulatedDevice.h"
#include "UpdateBenchmark.h"

namespace {
constexpr char kProgram[] = "modemloader-bench";
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;

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
constexpr char kResultsFile[] = "results.md";
constexpr char kPlotFile[] = "line-rate-progress.png";

const char kUsage[] =
    "usage: modemloader-bench [--output DIR] [--runs N] [--only LIST]\n"
    "\n"
    "Measures the modem loader on this machine and prints one table: each figure's median, min\n"
    "and max over N runs, the limit it is compared with and the ratio. Writes the table to\n"
    "DIR/results.md and a plot of the line-rate update to DIR/line-rate-progress.png. Makes\n"
    "simulated devices (ext4 images on loop devices, modem-sim on a pseudo-terminal): needs root.\n"
    "\n"
    "  --output DIR  where results.md and the plot go (default: the current folder)\n"
    "  --runs N      runs per figure (default 3; the table is meant to be read with 3 or more)\n"
    "  --only LIST   only these figures, comma-separated: 1 line rate, 2 tick-limited rate,\n"
    "                3 CPU (measured during 1), 4 memory, 5 archive copy, 6 footprint\n"
    "\n"
    "Figures are explained in docs/performance.md. Exit status: 0 measured, 1 a measurement\n"
    "could not be made (the reason on stderr), 2 usage.\n";

struct TBenchOptions {
    std::string output = ".";
    unsigned runs = 3;
    std::set<int> figures{1, 2, 3, 4, 5, 6};
    bool help = false;
};

bool ParseFigures(const std::string& text, std::set<int>& figures) {
    figures.clear();
    std::istringstream items(text);
    for (std::string item; std::getline(items, item, ',');) {
        if (item.size() != 1 || item[0] < '1' || item[0] > '6') {
            return false;
        }
        figures.insert(item[0] - '0');
    }
    return !figures.empty();
}

bool ParseOptions(int argc, char** argv, TBenchOptions& options, std::string& error) {
    for (int index = 1; index < argc; ++index) {
        const std::string option = argv[index];
        if (option == "--help" || option == "-h") {
            options.help = true;
            return true;
        }
        if (index + 1 >= argc) {
            error = "unknown option or missing value: " + option;
            return false;
        }
        const std::string value = argv[++index];
        if (option == "--output") {
            options.output = value;
        } else if (option == "--runs") {
            if (value.empty() || value.find_first_not_of("0123456789") != std::string::npos ||
                std::stoul(value) == 0) {
                error = "--runs: '" + value + "' is not a count of runs";
                return false;
            }
            options.runs = static_cast<unsigned>(std::stoul(value));
        } else if (option == "--only") {
            if (!ParseFigures(value, options.figures)) {
                error = "--only: '" + value + "' is not a list of figures 1 to 6";
                return false;
            }
        } else {
            error = "unknown option: " + option;
            return false;
        }
    }
    return true;
}

void Progress(const std::string& text) { std::fprintf(stderr, "%s: %s\n", kProgram, text.c_str()); }

std::string Fixed(double value, int decimals) { return FormatValue(value, decimals, ""); }

class CBench {
public:
    explicit CBench(const TBenchOptions& options) : m_options(options) {}

    CStatus Run() {
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
        return CStatus::Ok();
    }

    const CResultTable& Table() const { return m_table; }
    const std::string& Notes() const { return m_notes; }
    bool Plotted() const { return m_plotted; }

private:
    bool Wanted(int figure) const { return m_options.figures.count(figure) != 0; }

    std::string RunLabel(unsigned run) const {
        return "run " + std::to_string(run + 1) + "/" + std::to_string(m_options.runs);
    }

    CStatus LineRate() {
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
                     Fixed(measurement.host.wallSeconds, 1) + " s wall, " + Fixed(cpu, 3) +
                     " s CPU");
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
        if (CStatus status =
                CProgressPlot::Write(lastRun, kLineBytesPerSecond,
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

    CStatus TickLimited() {
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

    CStatus Memory() {
        TUpdateScenario scenario;
        scenario.firmwareBytes = kMemoryFirmwareBytes;
        scenario.tickMs = kMemoryTickMs;
        const std::size_t loaderBytes = TDeviceSettings().loaderBytes;
        const double limitKiB = static_cast<double>(loaderBytes + kChunkBytes) / 1024;
        TResultRow row{"4",
                       "Memory: peak resident memory of modemloader-host minus its resident "
                       "memory before Install, " +
                           DescribeBytes(kMemoryFirmwareBytes) +
                           " firmware, unpaced line, 1 ms tick",
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
            Progress(
                "memory " + RunLabel(run) + ": resident " + std::to_string(host.peakResidentKiB) +
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

    CStatus ArchiveCopy() {
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
        TResultRow row{"5",
                       "Archive copy: CLinuxFileHandler::CopyFile of " +
                           std::to_string(kCopyFiles) + " x " + DescribeBytes(kCopyFileBytes) +
                           " onto a loop-mounted ext4 image, then Sync",
                       "MiB/s",
                       1,
                       copyFile,
                       cp.Median(),
                       "cp of the same files onto the same image in the same runs, median; min " +
                           Fixed(cp.Minimum(), 1) + ", max " + Fixed(cp.Maximum(), 1)};
        m_table.Add(std::move(row));
        return CStatus::Ok();
    }

    CStatus Footprint() {
        CScratchDirectory scratch;
        if (CStatus status = scratch.Make("/tmp/modemloader-footprint-"); !status) {
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
        return CStatus::Ok();
    }

    const TBenchOptions& m_options;
    CResultTable m_table;
    std::string m_notes;
    bool m_plotted = false;
};

std::string MachineDescription() {
    std::string model;
    std::ifstream cpuinfo("/proc/cpuinfo");
    for (std::string line; std::getline(cpuinfo, line);) {
        if (line.compare(0, 10, "model name") == 0) {
            model = line.substr(line.find(':') + 2);
            break;
        }
    }
    utsname system{};
    ::uname(&system);
    return std::to_string(::sysconf(_SC_NPROCESSORS_ONLN)) + " cores (" + model + "), Linux " +
           system.release;
}

std::string Now() {
    const std::time_t now = std::time(nullptr);
    char text[64];
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M UTC", std::gmtime(&now));
    return text;
}
}  // namespace

int main(int argc, char** argv) {
    TBenchOptions options;
    std::string error;
    if (!ParseOptions(argc, argv, options, error)) {
        std::fprintf(stderr, "%s: %s (see %s --help)\n", kProgram, error.c_str(), kProgram);
        return kExitUsage;
    }
    if (options.help) {
        std::fputs(kUsage, stdout);
        return 0;
    }
    const std::string missing = CSimulatedDevice::MissingPrerequisite();
    if (!missing.empty()) {
        std::fprintf(stderr, "%s: cannot make a device here: %s\n", kProgram, missing.c_str());
        return kExitFailed;
    }

    const auto started = std::chrono::steady_clock::now();
    CBench bench(options);
    if (CStatus status = bench.Run(); !status) {
        std::fprintf(stderr, "%s: %s\n", kProgram, status.Message().c_str());
        return kExitFailed;
    }
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();

    const std::string table = bench.Table().Markdown();
    std::printf("%s", table.c_str());
    std::printf("\nmeasured in %.0f s; written to %s/%s\n", seconds, options.output.c_str(),
                kResultsFile);

    std::ofstream results(options.output + "/" + kResultsFile);
    results << "# Benchmark results\n\n"
            << "Made by `./run bench` on " << Now() << ", " << MachineDescription() << ".\n"
            << "Each figure is the median of " << options.runs
            << " runs, with the smallest and largest value; the ratio is the median over the "
               "limit. What each figure means and what bounds it: `docs/performance.md`. "
               "Measuring took "
            << Fixed(seconds, 0) << " s.\n\n"
            << table << "\n";
    if (bench.Plotted()) {
        results << "Progress of the last line-rate run (figure 1):\n\n![progress](" << kPlotFile
                << ")\n\n";
    }
    results << bench.Notes();
    results.close();
    if (!results) {
        std::fprintf(stderr, "%s: writing %s/%s failed\n", kProgram, options.output.c_str(),
                     kResultsFile);
        return kExitFailed;
    }
    return 0;
}
