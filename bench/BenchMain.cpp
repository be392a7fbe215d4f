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

#include "BenchFigures.h"
#include "DeviceProgram.h"
#include "SimulatedDevice.h"

namespace {
constexpr char kProgram[] = "modemloader-bench";
constexpr int kExitFailed = kDeviceProgramFailed;

constexpr char kResultsFile[] = "results.md";

bool ParseFigures(const std::string& text, std::set<int>& figures) {
    figures.clear();
    std::istringstream items(text);
    for (std::string item; std::getline(items, item, ',');) {
        if (item.size() != 1 || item[0] < '1' || item[0] > '7') {
            return false;
        }
        figures.insert(item[0] - '0');
    }
    return !figures.empty();
}

// The grammar; the values are checked in ParseOptions so that a wrong one is reported in the
// bench's own words.
struct TGrammar {
    CLI::App app{
        "Measures the modem loader on this machine and prints one table: each figure's median, "
        "min and max over N runs, the limit it is compared with and the ratio. Writes the table "
        "to DIR/results.md and a plot of the line-rate update to DIR/line-rate-progress.png. "
        "Makes simulated devices (ext4 images on loop devices, modem-sim on a pseudo-terminal): "
        "needs root.",
        kProgram};
    std::string runs;
    std::string only;
    CLI::Option* runsOption = nullptr;
    CLI::Option* onlyOption = nullptr;

    explicit TGrammar(TBenchOptions& options) {
        app.option_defaults()->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
        app.add_option("--output", options.output,
                       "where results.md and the plot go (default: the current folder)")
            ->type_name("DIR");
        runsOption =
            app.add_option("--runs", runs,
                           "runs per figure (default 3; the table is meant to be read with 3 or "
                           "more)");
        runsOption->type_name("N");
        onlyOption = app.add_option("--only", only,
                                    "only these figures, comma-separated: 1 line rate, 2 "
                                    "tick-limited rate, 3 CPU (measured during 1), 4 memory, 5 "
                                    "archive copy, 6 footprint, 7 update-system overhead");
        onlyOption->type_name("LIST");
        app.add_option("--target-plugin", options.targetPlugin,
                       "with figure 6, also the armhf build's plug-in stripped (row 6b)")
            ->type_name("SO");
        app.footer(
            "Figures are explained in docs/performance.md. Exit status: 0 measured, 1 a "
            "measurement could not be made (the reason on stderr), 2 usage.");
    }
};

bool ParseOptions(int argc, char** argv, TBenchOptions& options, std::string& error,
                  std::string& help) {
    TGrammar grammar(options);
    const TParsedArguments parsed = ParseArguments(grammar.app, argc, argv, help, error);
    if (parsed != TParsedArguments::eOptions) {
        options.help = parsed == TParsedArguments::eHelp;
        return options.help;
    }
    if (grammar.runsOption->count() > 0) {
        const std::string& value = grammar.runs;
        if (value.empty() || value.find_first_not_of("0123456789") != std::string::npos ||
            value.size() > 9 || std::stoul(value) == 0) {
            error = "--runs: '" + value + "' is not a count of runs";
            return false;
        }
        options.runs = static_cast<unsigned>(std::stoul(value));
    }
    if (grammar.onlyOption->count() > 0 && !ParseFigures(grammar.only, options.figures)) {
        error = "--only: '" + grammar.only + "' is not a list of figures 1 to 7";
        return false;
    }
    return true;
}

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
    if (const std::optional<int> exit =
            StartDeviceProgram(kProgram, argc, argv, ParseOptions, options)) {
        return *exit;
    }

    const auto started = std::chrono::steady_clock::now();
    CBenchFigures bench(options);
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
            << FormatValue(seconds, 0, "") << " s.\n\n"
            << table << "\n";
    if (bench.Plotted()) {
        results << "Progress of the last line-rate run (figure 1):\n\n![progress]("
                << CBenchFigures::kPlotFile << ")\n\n";
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
