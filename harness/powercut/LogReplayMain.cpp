// modemloader-log-replay: lists a dm-log-writes log and replays a prefix of it onto a copy of the
// storage it recorded, so that the power-cut bench can look at the storage as a cut after any
// entry would have left it. See `modemloader-log-replay --help`.

#include <CLI/CLI.hpp>
#include <cstdio>
#include <string>

#include "WriteLog.h"

namespace {
constexpr char kProgram[] = "modemloader-log-replay";

int Fail(const CStatus& status) {
    std::fprintf(stderr, "%s: %s\n", kProgram, status.Message().c_str());
    return 1;
}

// One line an entry: index, kind, first sector, sector count, mark.
void List(const CWriteLog& log) {
    for (const TWriteLogEntry& entry : log.Entries()) {
        std::printf("%llu %s %llu %llu%s%s\n", static_cast<unsigned long long>(entry.index),
                    entry.Kind().c_str(), static_cast<unsigned long long>(entry.sector),
                    static_cast<unsigned long long>(entry.sectors), entry.mark.empty() ? "" : " ",
                    entry.mark.c_str());
    }
}

// The crash states, one a line as the number of entries that reached the storage: none, each
// flush or FUA write completed (the points a file system relies on), the whole log, and with
// `every` also each prefix in between.
void States(const CWriteLog& log, bool every) {
    const auto& entries = log.Entries();
    std::printf("0\n");
    for (std::size_t count = 1; count <= entries.size(); ++count) {
        if (every || count == entries.size() || entries[count - 1].IsFlushOrFua()) {
            std::printf("%zu\n", count);
        }
    }
}
}  // namespace

int main(int argc, char** argv) {
    CLI::App app{
        "Reads a write log that the kernel's dm-log-writes target recorded (its super, then one "
        "entry per write, flush, discard or mark) and lists it, names its crash states, or "
        "replays a range of its entries onto an image of the recorded device.",
        kProgram};
    app.require_subcommand(1);
    app.footer("exit status: 0 done, 1 the log or the image could not be read or written, 2 usage");
    std::string logPath;
    std::string image;
    uint64_t first = 0;
    uint64_t last = 0;
    bool every = false;

    CLI::App* list =
        app.add_subcommand("list", "one line an entry: INDEX KIND SECTOR COUNT [MARK]");
    list->add_option("LOG", logPath, "the log device's image")->required();
    CLI::App* states = app.add_subcommand(
        "states", "the crash states, as entry counts: 0, every flush and FUA entry, the end");
    states->add_option("LOG", logPath, "the log device's image")->required();
    states->add_flag("--every", every, "every prefix of the log, not only the flush points");
    CLI::App* replay =
        app.add_subcommand("replay", "apply entries FROM (counted from 0) up to TO, exclusive");
    replay->add_option("LOG", logPath, "the log device's image")->required();
    replay->add_option("IMAGE", image, "the recorded device's image, written in place")->required();
    replay->add_option("--from", first, "first entry applied (default 0)");
    replay->add_option("--to", last, "entries before this one are applied")->required();
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        // --help answers 0; every other parse error is a usage error, 2, as the footer says.
        return app.exit(error) == 0 ? 0 : 2;
    }

    CWriteLog log;
    if (CStatus status = log.Open(logPath); !status) {
        return Fail(status);
    }
    if (*list) {
        List(log);
    } else if (*states) {
        States(log, every);
    } else if (CStatus status = log.Replay(first, last, image); !status) {
        return Fail(status);
    }
    return 0;
}
