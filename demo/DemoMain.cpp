// modemloader-demo: one complete modem update on a simulated device, watched as a person would
// watch it (the host's progress bar), then checked and reported. See `modemloader-demo --help`.

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "DeviceProgram.h"
#include "MountTable.h"
#include "SimulatedDevice.h"

namespace {
constexpr char kProgram[] = "modemloader-demo";
constexpr int kExitFailed = kDeviceProgramFailed;

struct TDemoOptions {
    std::size_t firmwareBytes = 1u << 20;
    uint32_t tickMs = 10;
    unsigned baud = 0;
    uint64_t seed = 1;
    double timeoutSeconds = 300;
    bool help = false;
};

bool ParseNumber(const std::string& text, unsigned long long& value) {
    if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos) {
        return false;
    }
    errno = 0;
    value = std::strtoull(text.c_str(), nullptr, 10);
    return errno == 0;
}

// The grammar: each option a whole number, taken as text and checked in ParseOptions so that a
// wrong one is reported in the demo's own words.
struct TGrammar {
    CLI::App app{
        "Makes a temporary device (an ext4 movinand storage on a loop device, the update files, "
        "the modem emulator on a pseudo-terminal, a device tree with an integrated GPRS modem), "
        "runs one complete update through the serial image loader with modemloader-host, checks "
        "that the modem's flash holds the firmware byte for byte and that the new revision is "
        "on the storage, prints a report and removes the device again. Needs root (loop devices "
        "and mounts).",
        kProgram};
    // In the order of the command line's options, each with its text.
    std::vector<std::pair<CLI::Option*, std::string>> numbers;

    TGrammar() {
        app.option_defaults()->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
        numbers.reserve(5);
        for (const auto& [name, description] :
             {std::pair<const char*, const char*>{"--firmware-bytes",
                                                  "size of the firmware image (default 1048576)"},
              {"--tick-ms", "the host's tick period (default 10)"},
              {"--baud", "pace the modem's line at N baud (default: as fast as it goes)"},
              {"--seed", "seed of the update's pseudo-random bytes (default 1)"},
              {"--timeout", "give the update S seconds (default 300)"}}) {
            numbers.emplace_back(nullptr, std::string());
            numbers.back().first = app.add_option(name, numbers.back().second, description);
            numbers.back().first->type_name(std::string(name) == "--timeout" ? "S" : "N");
        }
        app.footer(
            "exit status: 0 the update succeeded and every check passed, 1 something failed, 2 "
            "usage");
    }
};

bool ParseOptions(int argc, char** argv, TDemoOptions& options, std::string& error,
                  std::string& help) {
    TGrammar grammar;
    const TParsedArguments parsed = ParseArguments(grammar.app, argc, argv, help, error);
    if (parsed != TParsedArguments::eOptions) {
        options.help = parsed == TParsedArguments::eHelp;
        return options.help;
    }
    for (const auto& [option, text] : grammar.numbers) {
        if (option->count() == 0) {
            continue;
        }
        const std::string name = option->get_name();
        unsigned long long value = 0;
        if (!ParseNumber(text, value)) {
            error = name + ": '" + text + "' is not a whole number";
            return false;
        }
        if (name == "--firmware-bytes") {
            options.firmwareBytes = static_cast<std::size_t>(value);
        } else if (name == "--tick-ms" && value > 0) {
            options.tickMs = static_cast<uint32_t>(value);
        } else if (name == "--baud") {
            options.baud = static_cast<unsigned>(value);
        } else if (name == "--seed") {
            options.seed = value;
        } else if (name == "--timeout" && value > 0) {
            options.timeoutSeconds = static_cast<double>(value);
        } else {
            error = "unknown option or bad value: " + name + " " + text;
            return false;
        }
    }
    return true;
}

// Seconds between the host's Install request and the feature's result, from its trace.
double InstallSeconds(const std::vector<nlohmann::json>& trace) {
    double installed = -1;
    double done = -1;
    for (const nlohmann::json& line : trace) {
        if (line.value("kind", "") != "event") {
            continue;
        }
        const int id = line.value("id", 0);
        if (id == 204 && installed < 0) {
            installed = line.value("t", 0.0);
        } else if (id == 205 && done < 0) {
            done = line.value("t", 0.0);
        }
    }
    return installed >= 0 && done >= installed ? done - installed : -1;
}

class CChecks {
public:
    void Check(bool passed, const std::string& what) {
        std::printf("  [%s] %s\n", passed ? " ok " : "FAIL", what.c_str());
        m_failed = m_failed || !passed;
    }
    bool Failed() const { return m_failed; }

private:
    bool m_failed = false;
};
}  // namespace

int main(int argc, char** argv) {
    TDemoOptions options;
    if (const std::optional<int> exit =
            StartDeviceProgram(kProgram, argc, argv, ParseOptions, options)) {
        return *exit;
    }

    TDeviceSettings settings;
    settings.firmwareBytes = options.firmwareBytes;
    settings.loaderBytes = 4096;
    settings.seed = options.seed;
    settings.tickMs = options.tickMs;
    settings.hostLog = "none";  // the log is in the trace; the terminal shows the progress bar
    settings.eraseTime = std::chrono::milliseconds(200);
    if (options.baud > 0) {
        settings.modemOptions = {"--baud", std::to_string(options.baud)};
    }

    CChecks checks;
    std::string directory;
    std::string image;
    {
        std::unique_ptr<CSimulatedDevice> device;
        if (CStatus status = CSimulatedDevice::Create(settings, device); !status) {
            std::fprintf(stderr, "%s: %s\n", kProgram, status.Message().c_str());
            return kExitFailed;
        }
        directory = device->Directory();
        image = device->Image();
        std::printf("device: %s\n  storage %s (ext4), modem on %s, firmware %zu bytes\n\n",
                    directory.c_str(), image.c_str(), device->SerialLink().c_str(),
                    device->Firmware().size());
        std::fflush(stdout);

        TUpdateOptions update;
        update.quiet = false;
        update.showOutput = true;
        update.timeoutSeconds = options.timeoutSeconds;
        TUpdateResult result;
        if (CStatus status = device->RunUpdate(update, result); !status) {
            std::fprintf(stderr, "%s: %s\n", kProgram, status.Message().c_str());
            return kExitFailed;
        }

        std::printf("\nchecks:\n");
        checks.Check(result.exitCode == 0,
                     "modemloader-host exit status " + std::to_string(result.exitCode));
        std::string flash;
        const bool flashRead = static_cast<bool>(device->ReadFlash(flash));
        checks.Check(flashRead && flash == device->Firmware(),
                     "the modem's flash equals the firmware, " + std::to_string(flash.size()) +
                         " of " + std::to_string(device->Firmware().size()) + " bytes");
        const std::string sha = result.modemSummary.is_object()
                                    ? result.modemSummary.value("flash_sha256", "")
                                    : std::string();
        checks.Check(!sha.empty() && result.modemSummary.value("write_complete", false),
                     "the modem reported its write complete (sha256 " + sha + ")");
        std::string revision;
        const bool revisionRead = static_cast<bool>(device->ReadStorageFile("revision", revision));
        checks.Check(revisionRead && revision == std::string("124\0", 4),
                     "the storage records revision 124");
        checks.Check(!device->IsStorageMounted(), "the storage is unmounted after the update");

        const double installSeconds = InstallSeconds(result.trace);
        std::printf("\nreport:\n");
        std::printf("  whole run      %.2f s (modemloader-host, Init to exit)\n", result.seconds);
        if (installSeconds > 0) {
            std::printf("  install        %.2f s (Install request to result)\n", installSeconds);
            std::printf("  firmware       %zu bytes in %zu chunks of 25600\n", flash.size(),
                        (flash.size() + 25599) / 25600);
            std::printf("  throughput     %.1f KiB/s over the install\n",
                        static_cast<double>(flash.size()) / 1024.0 / installSeconds);
        }
        std::printf("  power-ups      %d, sync attempts %d\n",
                    result.modemSummary.value("power_ups", -1),
                    result.modemSummary.value("sync_attempts", -1));
    }

    // The device is gone: nothing of it may be left behind.
    std::printf("\ncleanup:\n");
    struct stat status {};
    checks.Check(::stat(directory.c_str(), &status) != 0, "removed " + directory);
    checks.Check(!IsAnythingMountedUnder(directory), "nothing mounted under it");
    checks.Check(LoopDevicesBackedUnder(directory).empty(),
                 "no loop device attached to its storage");

    std::printf("\n%s\n", checks.Failed() ? "demo FAILED" : "demo passed");
    return checks.Failed() ? kExitFailed : 0;
}
