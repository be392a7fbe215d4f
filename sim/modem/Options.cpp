#include "Options.h"

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdlib>

namespace {

bool ParseNumber(const std::string& text, unsigned long max, unsigned long& value) {
    if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos) {
        return false;
    }
    errno = 0;
    const unsigned long parsed = std::strtoul(text.c_str(), nullptr, 10);
    if (errno != 0 || parsed > max) {
        return false;
    }
    value = parsed;
    return true;
}

// The options as CLI11 hands them over: numbers and faults as text, checked afterwards so that
// a wrong value is reported in the emulator's own words.
struct TRawOptions {
    std::string baud;
    std::string powerOn;
    std::string bootWindow;
    std::string erase;
    std::string program;
    std::vector<std::string> faults;
};

constexpr char kFaultList[] =
    "Faults (--fault, repeatable):\n"
    "  no-sync              never echo sync\n"
    "  sync-after=N         echo sync only from the Nth power-up\n"
    "  loader-status=1|2|3  answer the loader download with that status\n"
    "  loader-silent        do not answer the loader download\n"
    "  nak=HH               never acknowledge command byte HH (hex)\n"
    "  erase-never-done     acknowledge the erase, never report it done\n"
    "  write-status=1|2|3|X end the write with that status (X: an unknown byte)\n"
    "  write-silent         no \".\" and no status during the write\n"
    "  drop-bytes=N         lose the first N firmware bytes\n"
    "  hang-up-after=N      close the line once N firmware bytes arrived\n"
    "\n"
    "Runs until SIGTERM or SIGINT, then writes the summary. Exit status 2: bad arguments.";

// The grammar. Words it does not know are kept (allow_extras), so that they are named in the
// emulator's own message.
struct TGrammar {
    CLI::App app{"Plays the modem at the other end of a pseudo-terminal for the image loader.",
                 "modem-sim"};
    std::vector<std::pair<std::string, CLI::Option*>> paths;
    // A whole number each; `duration` is where it goes, or null for --baud.
    struct TNumber {
        std::string name;
        CLI::Option* option;
        std::chrono::milliseconds* duration;
    };
    std::vector<TNumber> numbers;

    TGrammar(TOptions& options, TRawOptions& raw) {
        // A repeated option takes its last value, as it always did.
        app.option_defaults()->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
        app.allow_extras();
        app.footer(kFaultList);
        const auto path = [&](const char* name, std::string& into, const char* type,
                              const char* description) {
            paths.emplace_back(name, app.add_option(name, into, description)->type_name(type));
        };
        const auto number = [&](const char* name, std::string& into,
                                std::chrono::milliseconds* duration, const char* description) {
            numbers.push_back(
                {name, app.add_option(name, into, description)->type_name("N"), duration});
        };
        path("--link", options.link, "PATH",
             "symbolic link to the pseudo-terminal's slave (the serial device)");
        path("--control", options.control, "FILE",
             "control pin, written \"0\" (pressed) or \"1\" (released)");
        path("--ready", options.ready, "FILE", "ready line, \"1\" while the modem is on");
        path("--loader", options.loader, "FILE", "the loader image the host must download");
        path("--flash-out", options.flashOut, "FILE", "receives the firmware the host writes");
        number("--baud", raw.baud, nullptr,
               "pace the line at N baud, 10 bits a byte (default: unpaced)");
        app.add_flag("--nonvolatile-flash", options.nonVolatileFlash,
                     "keep the --flash-out file across starts and write it synchronously, in "
                     "place from its start (no erase first): what the modem acknowledged "
                     "survives a power cut");
        app.add_flag("--initially-on", options.initiallyOn,
                     "start switched on, running the normal firmware");
        number("--power-on-ms", raw.powerOn, &options.powerOn,
               "from the press to ready (default 100)");
        number("--boot-window-ms", raw.bootWindow, &options.bootWindow,
               "how long the boot code answers sync after power-on (default 2000)");
        number("--erase-ms", raw.erase, &options.erase, "erase time (default 200)");
        number("--program-ms", raw.program, &options.program,
               "programming time after the last firmware byte (default 5)");
        app.add_option("--fault", raw.faults, "misbehave, see the list below; repeatable")
            ->type_name("NAME[=ARG]")
            ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
        path("--trace", options.trace, "FILE", "write the line traffic with timestamps");
        path("--summary", options.summary, "FILE", "write a JSON summary on exit");
    }
};

// CLI11 names the option first in an argument mismatch ("--baud: 1 required TEXT missing").
std::string MismatchedOption(const CLI::ArgumentMismatch& error) {
    const std::string message = error.what();
    return message.substr(0, message.find(':'));
}

}  // namespace

std::string UsageText() {
    TOptions options;
    TRawOptions raw;
    TGrammar grammar(options, raw);
    return grammar.app.help();
}

CStatus ParseOptions(const std::vector<std::string>& arguments, TOptions& options) {
    for (const auto& argument : arguments) {
        if (argument == "--help" || argument == "-h") {
            options.help = true;
            return CStatus::Ok();
        }
    }
    TRawOptions raw;
    TGrammar grammar(options, raw);
    // CLI11 takes the arguments last first.
    std::vector<std::string> reversed(arguments.rbegin(), arguments.rend());
    try {
        grammar.app.parse(reversed);
    } catch (const CLI::ArgumentMismatch& error) {
        return CStatus::Failure(MismatchedOption(error) + " needs a value");
    } catch (const CLI::ParseError& error) {
        return CStatus::Failure(error.what());
    }
    if (!grammar.app.remaining().empty()) {
        return CStatus::Failure("unknown argument \"" + grammar.app.remaining().front() + "\"");
    }
    for (const auto& [name, option] : grammar.paths) {
        if (option->count() > 0 && option->as<std::string>().empty()) {
            return CStatus::Failure(name + " needs a non-empty path");
        }
    }
    for (const auto& [name, option, duration] : grammar.numbers) {
        if (option->count() == 0) {
            continue;
        }
        const std::string text = option->as<std::string>();
        unsigned long number = 0;
        if (!ParseNumber(text, 100000000, number)) {
            return CStatus::Failure(name + " needs a whole number, not \"" + text + "\"");
        }
        if (duration != nullptr) {
            *duration = std::chrono::milliseconds(number);
        } else if (number == 0) {
            return CStatus::Failure("--baud needs a rate of 1 or more");
        } else {
            options.baud = static_cast<unsigned>(number);
        }
    }
    for (const std::string& fault : raw.faults) {
        if (CStatus status = AddFault(options.faults, fault); !status.IsOk()) {
            return status;
        }
    }
    const std::pair<const char*, const std::string*> required[] = {
        {"--link", &options.link},
        {"--control", &options.control},
        {"--ready", &options.ready},
        {"--loader", &options.loader},
        {"--flash-out", &options.flashOut}};
    for (const auto& [name, field] : required) {
        if (field->empty()) {
            return CStatus::Failure(std::string(name) + " is required");
        }
    }
    return CStatus::Ok();
}
