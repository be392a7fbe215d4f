#include "Options.h"

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

}  // namespace

std::string UsageText() {
    return "usage: modem-sim --link PATH --control FILE --ready FILE --loader FILE --flash-out "
           "FILE\n"
           "                 [--baud N] [--initially-on] [--power-on-ms N] [--boot-window-ms N]\n"
           "                 [--erase-ms N] [--program-ms N] [--fault NAME[=ARG]]...\n"
           "                 [--trace FILE] [--summary FILE]\n"
           "       modem-sim --help\n"
           "\n"
           "Plays the modem at the other end of a pseudo-terminal for the image loader.\n"
           "\n"
           "  --link PATH          symbolic link to the pseudo-terminal's slave (the serial "
           "device)\n"
           "  --control FILE       control pin, written \"0\" (pressed) or \"1\" (released)\n"
           "  --ready FILE         ready line, \"1\" while the modem is on\n"
           "  --loader FILE        the loader image the host must download\n"
           "  --flash-out FILE     receives the firmware the host writes\n"
           "  --baud N             pace the line at N baud, 10 bits a byte (default: unpaced)\n"
           "  --initially-on       start switched on, running the normal firmware\n"
           "  --power-on-ms N      from the press to ready (default 100)\n"
           "  --boot-window-ms N   how long the boot code answers sync after power-on (default "
           "2000)\n"
           "  --erase-ms N         erase time (default 200)\n"
           "  --program-ms N       programming time after the last firmware byte (default 5)\n"
           "  --trace FILE         write the line traffic with timestamps\n"
           "  --summary FILE       write a JSON summary on exit\n"
           "  --fault NAME[=ARG]   misbehave; repeatable:\n"
           "      no-sync              never echo sync\n"
           "      sync-after=N         echo sync only from the Nth power-up\n"
           "      loader-status=1|2|3  answer the loader download with that status\n"
           "      loader-silent        do not answer the loader download\n"
           "      nak=HH               never acknowledge command byte HH (hex)\n"
           "      erase-never-done     acknowledge the erase, never report it done\n"
           "      write-status=1|2|3|X end the write with that status (X: an unknown byte)\n"
           "      write-silent         no \".\" and no status during the write\n"
           "      drop-bytes=N         lose the first N firmware bytes\n"
           "\n"
           "Runs until SIGTERM or SIGINT, then writes the summary. Exit status 2: bad arguments.\n";
}

TStatus ParseOptions(const std::vector<std::string>& arguments, TOptions& options) {
    for (const auto& argument : arguments) {
        if (argument == "--help" || argument == "-h") {
            options.help = true;
            return TStatus::Success();
        }
    }
    for (size_t index = 0; index < arguments.size(); ++index) {
        const std::string& name = arguments[index];
        if (name == "--initially-on") {
            options.initiallyOn = true;
            continue;
        }
        const auto value = [&](std::string& into) -> TStatus {
            if (index + 1 >= arguments.size()) {
                return TStatus::Failure(name + " needs a value");
            }
            into = arguments[++index];
            return TStatus::Success();
        };
        std::string text;
        if (name == "--link" || name == "--control" || name == "--ready" || name == "--loader" ||
            name == "--flash-out" || name == "--trace" || name == "--summary") {
            std::string* into = name == "--link"        ? &options.link
                                : name == "--control"   ? &options.control
                                : name == "--ready"     ? &options.ready
                                : name == "--loader"    ? &options.loader
                                : name == "--flash-out" ? &options.flashOut
                                : name == "--trace"     ? &options.trace
                                                        : &options.summary;
            if (TStatus status = value(*into); !status.Ok()) {
                return status;
            }
            if (into->empty()) {
                return TStatus::Failure(name + " needs a non-empty path");
            }
            continue;
        }
        if (name == "--baud" || name == "--power-on-ms" || name == "--boot-window-ms" ||
            name == "--erase-ms" || name == "--program-ms") {
            if (TStatus status = value(text); !status.Ok()) {
                return status;
            }
            unsigned long number = 0;
            if (!ParseNumber(text, 100000000, number)) {
                return TStatus::Failure(name + " needs a whole number, not \"" + text + "\"");
            }
            if (name == "--baud") {
                if (number == 0) {
                    return TStatus::Failure("--baud needs a rate of 1 or more");
                }
                options.baud = static_cast<unsigned>(number);
            } else {
                const std::chrono::milliseconds duration(number);
                (name == "--power-on-ms"      ? options.powerOn
                 : name == "--boot-window-ms" ? options.bootWindow
                 : name == "--erase-ms"       ? options.erase
                                              : options.program) = duration;
            }
            continue;
        }
        if (name == "--fault") {
            if (TStatus status = value(text); !status.Ok()) {
                return status;
            }
            if (TStatus status = AddFault(options.faults, text); !status.Ok()) {
                return status;
            }
            continue;
        }
        return TStatus::Failure("unknown argument \"" + name + "\"");
    }
    const std::pair<const char*, const std::string*> required[] = {
        {"--link", &options.link},
        {"--control", &options.control},
        {"--ready", &options.ready},
        {"--loader", &options.loader},
        {"--flash-out", &options.flashOut}};
    for (const auto& [name, field] : required) {
        if (field->empty()) {
            return TStatus::Failure(std::string(name) + " is required");
        }
    }
    return TStatus::Success();
}
