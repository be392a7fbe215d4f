#pragma once
// How a program on the simulated device begins (modemloader-demo, modemloader-bench): its command
// line parsed with CLI11, the help it asked for printed, a wrong command line reported, and the
// device's prerequisites checked, with the same messages and exit statuses in every such program.

#include <CLI/CLI.hpp>
#include <cstdio>
#include <optional>
#include <string>

#include "SimulatedDevice.h"

// The exit statuses the programs share besides 0.
constexpr int kDeviceProgramFailed = 1;  // the work or a check of it failed, or no device here
constexpr int kDeviceProgramUsage = 2;   // a wrong command line

enum class TParsedArguments { eOptions, eHelp, eError };

// `help` is set with eHelp, `error` with eError.
inline TParsedArguments ParseArguments(CLI::App& app, int argc, char** argv, std::string& help,
                                       std::string& error) {
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp&) {
        help = app.help();
        return TParsedArguments::eHelp;
    } catch (const CLI::ParseError& parseError) {
        error = parseError.what();
        return TParsedArguments::eError;
    }
    return TParsedArguments::eOptions;
}

// `parse(argc, argv, options, error, help)` fills `options` and returns true, sets options.help
// (and `help`) and returns true when help was asked for, or sets `error` and returns false.
// Returns the exit status to leave with, or nothing when the program goes on.
template <typename TOptions, typename TParse>
std::optional<int> StartDeviceProgram(const char* program, int argc, char** argv, TParse parse,
                                      TOptions& options) {
    std::string error;
    std::string help;
    if (!parse(argc, argv, options, error, help)) {
        std::fprintf(stderr, "%s: %s (see %s --help)\n", program, error.c_str(), program);
        return kDeviceProgramUsage;
    }
    if (options.help) {
        std::fputs(help.c_str(), stdout);
        return 0;
    }
    const std::string missing = CSimulatedDevice::MissingPrerequisite();
    if (!missing.empty()) {
        std::fprintf(stderr, "%s: cannot make a device here: %s\n", program, missing.c_str());
        return kDeviceProgramFailed;
    }
    return std::nullopt;
}
