#include "CommandLine.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <limits>

namespace {
CStatus ParseUnsigned(const std::string& option, const std::string& text, uint32_t& value) {
    if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos) {
        return CStatus::Failure(option + ": '" + text + "' is not a whole number");
    }
    errno = 0;
    const unsigned long long parsed = std::strtoull(text.c_str(), nullptr, 10);
    if (errno != 0 || parsed > std::numeric_limits<uint32_t>::max()) {
        return CStatus::Failure(option + ": '" + text + "' is too large");
    }
    value = static_cast<uint32_t>(parsed);
    return CStatus::Ok();
}

CStatus ParseSeconds(const std::string& option, const std::string& text, double& value) {
    char* end = nullptr;
    errno = 0;
    const double parsed = std::strtod(text.c_str(), &end);
    if (text.empty() || end == nullptr || *end != '\0' || errno != 0 || !std::isfinite(parsed) ||
        parsed < 0) {
        return CStatus::Failure(option + ": '" + text + "' is not a number of seconds");
    }
    // A deadline further away than this could not be represented on the steady clock.
    constexpr double kLongestTimeout = 1e9;
    if (parsed > kLongestTimeout) {
        return CStatus::Failure(option + ": '" + text + "' is too long (at most 1e9 seconds)");
    }
    value = parsed;
    return CStatus::Ok();
}
}  // namespace

const char* CCommandLine::Usage() {
    return "usage: modemloader-host update --config FILE [--plugin PATH] [--feature NAME]\n"
           "                               [--tick-ms N] [--trace FILE] [--abort-after-ms N]\n"
           "                               [--timeout S] [--quiet] [--insecure-permissions]\n"
           "       modemloader-host info --plugin PATH\n"
           "       modemloader-host --help\n"
           "\n"
           "update  load the feature plug-in and drive one update: Init, Prepare, Install\n"
           "        --config FILE       INI file: [host] settings and one section per feature\n"
           "        --plugin PATH       the plug-in (overrides [host] plugin)\n"
           "        --feature NAME      the feature's name (overrides [host] feature)\n"
           "        --tick-ms N         period of the tick in milliseconds (overrides tick_ms)\n"
           "        --trace FILE        write a JSON Lines trace of events, logs, commands,\n"
           "                            mounts\n"
           "        --abort-after-ms N  send Abort N ms after Install, then keep waiting\n"
           "        --timeout S         give up after S seconds without a result (default 600)\n"
           "        --quiet             no progress output\n"
           "        --insecure-permissions\n"
           "                            load a configuration or plug-in that others could\n"
           "                            change (refused otherwise; for test set-ups only)\n"
           "info    load the plug-in and print its feature type\n"
           "        (--insecure-permissions as for update)\n"
           "\n"
           "exit status: 0 update succeeded, 1 update failed, 2 usage, configuration or\n"
           "plug-in error, 3 no result before the time-out\n";
}

CStatus CCommandLine::Parse(int argc, const char* const* argv, THostOptions& options) {
    options = THostOptions{};
    if (argc < 2) {
        return CStatus::Failure("no command given");
    }
    const std::string command = argv[1];
    if (command == "--help" || command == "-h" || command == "help") {
        options.command = THostOptions::TCommand::eHelp;
        return CStatus::Ok();
    }
    if (command == "update") {
        options.command = THostOptions::TCommand::eUpdate;
    } else if (command == "info") {
        options.command = THostOptions::TCommand::eInfo;
    } else {
        return CStatus::Failure("unknown command '" + command + "'");
    }
    const bool update = options.command == THostOptions::TCommand::eUpdate;
    for (int index = 2; index < argc; ++index) {
        const std::string option = argv[index];
        if (option == "--help" || option == "-h") {
            options.command = THostOptions::TCommand::eHelp;
            return CStatus::Ok();
        }
        if (option == "--quiet" && update) {
            options.quiet = true;
            continue;
        }
        if (option == "--insecure-permissions") {
            options.insecurePermissions = true;
            continue;
        }
        const bool takesValue = option == "--plugin" ||
                                (update && (option == "--config" || option == "--feature" ||
                                            option == "--tick-ms" || option == "--trace" ||
                                            option == "--abort-after-ms" || option == "--timeout"));
        if (!takesValue) {
            return CStatus::Failure("unknown option '" + option + "' for " + command);
        }
        if (index + 1 >= argc) {
            return CStatus::Failure(option + " needs a value");
        }
        const std::string value = argv[++index];
        if (option == "--config") {
            options.configPath = value;
        } else if (option == "--plugin") {
            options.pluginPath = value;
        } else if (option == "--feature") {
            options.feature = value;
        } else if (option == "--trace") {
            options.tracePath = value;
        } else if (option == "--tick-ms") {
            uint32_t tickMs = 0;
            if (CStatus status = ParseUnsigned(option, value, tickMs); !status) {
                return status;
            }
            if (tickMs == 0) {
                return CStatus::Failure("--tick-ms: the period must be at least 1");
            }
            options.tickMs = tickMs;
        } else if (option == "--abort-after-ms") {
            uint32_t abortAfterMs = 0;
            if (CStatus status = ParseUnsigned(option, value, abortAfterMs); !status) {
                return status;
            }
            options.abortAfterMs = abortAfterMs;
        } else if (option == "--timeout") {
            if (CStatus status = ParseSeconds(option, value, options.timeoutSeconds); !status) {
                return status;
            }
        }
    }
    if (update && options.configPath.empty()) {
        return CStatus::Failure("update needs --config FILE");
    }
    if (options.command == THostOptions::TCommand::eInfo && !options.pluginPath) {
        return CStatus::Failure("info needs --plugin PATH");
    }
    return CStatus::Ok();
}
