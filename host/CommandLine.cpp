#include "CommandLine.h"

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <limits>

namespace {
constexpr char kProgram[] = "modemloader-host";

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

// The options as CLI11 hands them over: numbers as text, converted afterwards so that a wrong
// number is reported in the host's own words.
struct TRawOptions {
    std::string configPath;
    std::string pluginPath;
    std::string feature;
    std::string tickMs;
    std::string tracePath;
    std::string abortAfterMs;
    std::string timeout;
    bool quiet = false;
    bool insecurePermissions = false;
};

// The command line's grammar. Words CLI11 does not know are kept (allow_extras), so that an
// unknown command or option is named in the host's own message.
struct TGrammar {
    CLI::App app{"Loads a feature plug-in and acts as the host's update controller.", kProgram};
    CLI::App* update = nullptr;
    CLI::App* info = nullptr;
    CLI::Option* updatePlugin = nullptr;
    CLI::Option* feature = nullptr;
    CLI::Option* tickMs = nullptr;
    CLI::Option* abortAfterMs = nullptr;
    CLI::Option* timeout = nullptr;
    CLI::Option* infoPlugin = nullptr;

    explicit TGrammar(TRawOptions& raw) {
        // A repeated option takes its last value, as it always did.
        app.option_defaults()->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
        app.allow_extras();
        app.require_subcommand(0, 1);
        app.footer(
            "exit status: 0 update succeeded, 1 update failed, 2 usage, configuration or\n"
            "plug-in error, 3 no result before the time-out, 4 stopped by SIGINT or SIGTERM\n"
            "before Install, 128+N a second signal N while stopping");
        update = app.add_subcommand(
            "update", "load the feature plug-in and drive one update: Init, Prepare, Install");
        update->allow_extras();
        const auto option = [&](const char* name, std::string& into, const char* type,
                                const char* description) {
            return update->add_option(name, into, description)->type_name(type);
        };
        option("--config", raw.configPath, "FILE",
               "INI file: [host] settings and one section per feature");
        updatePlugin =
            option("--plugin", raw.pluginPath, "PATH", "the plug-in (overrides [host] plugin)");
        feature = option("--feature", raw.feature, "NAME",
                         "the feature's name (overrides [host] feature)");
        tickMs = option("--tick-ms", raw.tickMs, "N",
                        "period of the tick in milliseconds (overrides tick_ms)");
        option("--trace", raw.tracePath, "FILE",
               "write a JSON Lines trace of events, logs, commands, mounts");
        abortAfterMs = option("--abort-after-ms", raw.abortAfterMs, "N",
                              "send Abort N ms after Install, then keep waiting");
        timeout = option("--timeout", raw.timeout, "S",
                         "give up after S seconds without a result (default 600)");
        update->add_flag("--quiet", raw.quiet, "no progress output");
        constexpr char kInsecure[] =
            "load a configuration or plug-in that others could change (refused otherwise; for "
            "test set-ups only)";
        update->add_flag("--insecure-permissions", raw.insecurePermissions, kInsecure);
        info = app.add_subcommand("info", "load the plug-in and print its feature type");
        info->allow_extras();
        infoPlugin = info->add_option("--plugin", raw.pluginPath, "the plug-in")->type_name("PATH");
        info->add_flag("--insecure-permissions", raw.insecurePermissions, kInsecure);
    }
};

// The first word a command did not know, as the host names it.
CStatus Unknown(const CLI::App& command, const std::vector<std::string>& extras) {
    return CStatus::Failure("unknown option '" + extras.front() + "' for " + command.get_name());
}
}  // namespace

std::string CCommandLine::Usage() {
    TRawOptions raw;
    TGrammar grammar(raw);
    return grammar.app.help("", CLI::AppFormatMode::All);
}

CStatus CCommandLine::Parse(int argc, const char* const* argv, THostOptions& options) {
    options = THostOptions{};
    if (argc < 2) {
        return CStatus::Failure("no command given");
    }
    const std::string first = argv[1];
    if (first == "help") {
        options.command = THostOptions::TCommand::eHelp;
        return CStatus::Ok();
    }
    TRawOptions raw;
    TGrammar grammar(raw);
    try {
        grammar.app.parse(argc, argv);
    } catch (const CLI::CallForHelp&) {
        options.command = THostOptions::TCommand::eHelp;
        return CStatus::Ok();
    } catch (const CLI::ArgumentMismatch& error) {
        // CLI11 names the option first ("--config: 1 required TEXT missing").
        const std::string message = error.what();
        return CStatus::Failure(message.substr(0, message.find(':')) + " needs a value");
    } catch (const CLI::ParseError& error) {
        return CStatus::Failure(error.what());
    }
    if (!grammar.update->parsed() && !grammar.info->parsed()) {
        return CStatus::Failure("unknown command '" + first + "'");
    }
    const CLI::App& command = grammar.update->parsed() ? *grammar.update : *grammar.info;
    if (!command.remaining().empty()) {
        return Unknown(command, command.remaining());
    }
    if (!grammar.app.remaining().empty()) {
        return Unknown(command, grammar.app.remaining());
    }
    if (grammar.info->parsed()) {
        options.command = THostOptions::TCommand::eInfo;
        if (grammar.infoPlugin->count() == 0) {
            return CStatus::Failure("info needs --plugin PATH");
        }
        options.pluginPath = raw.pluginPath;
        options.insecurePermissions = raw.insecurePermissions;
        return CStatus::Ok();
    }
    options.command = THostOptions::TCommand::eUpdate;
    options.insecurePermissions = raw.insecurePermissions;
    options.configPath = raw.configPath;
    options.tracePath = raw.tracePath;
    options.quiet = raw.quiet;
    if (grammar.updatePlugin->count() > 0) {
        options.pluginPath = raw.pluginPath;
    }
    if (grammar.feature->count() > 0) {
        options.feature = raw.feature;
    }
    if (grammar.tickMs->count() > 0) {
        uint32_t tickMs = 0;
        if (CStatus status = ParseUnsigned("--tick-ms", raw.tickMs, tickMs); !status) {
            return status;
        }
        if (tickMs == 0) {
            return CStatus::Failure("--tick-ms: the period must be at least 1");
        }
        options.tickMs = tickMs;
    }
    if (grammar.abortAfterMs->count() > 0) {
        uint32_t abortAfterMs = 0;
        if (CStatus status = ParseUnsigned("--abort-after-ms", raw.abortAfterMs, abortAfterMs);
            !status) {
            return status;
        }
        options.abortAfterMs = abortAfterMs;
    }
    if (grammar.timeout->count() > 0) {
        if (CStatus status = ParseSeconds("--timeout", raw.timeout, options.timeoutSeconds);
            !status) {
            return status;
        }
    }
    if (options.configPath.empty()) {
        return CStatus::Failure("update needs --config FILE");
    }
    return CStatus::Ok();
}
