// modem-sim: the modem at the other end of the image loader's serial line, control pin and
// ready line. See docs/modem-sim.md.

#include <signal.h>
#include <sys/signalfd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "FileDescriptor.h"
#include "ModemSim.h"
#include "Options.h"

namespace {
constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;
}  // namespace

int main(int argc, char** argv) {
    TOptions options;
    const TStatus parsed = ParseOptions(std::vector<std::string>(argv + 1, argv + argc), options);
    if (!parsed.Ok()) {
        std::fprintf(stderr, "modem-sim: %s\nTry 'modem-sim --help'.\n", parsed.error.c_str());
        return kExitUsage;
    }
    if (options.help) {
        std::fputs(UsageText().c_str(), stdout);
        return 0;
    }

    // SIGTERM and SIGINT arrive as a readable descriptor, so the one loop notices them between
    // two bytes and the summary is written from a normal return, not from a handler.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGTERM);
    sigaddset(&stopSignals, SIGINT);
    sigprocmask(SIG_BLOCK, &stopSignals, nullptr);
    signal(SIGPIPE, SIG_IGN);
    CFileDescriptor stop(signalfd(-1, &stopSignals, SFD_CLOEXEC | SFD_NONBLOCK));
    if (!stop.Valid()) {
        std::perror("modem-sim: signalfd");
        return kExitFailure;
    }

    CModemSim modem(std::move(options));
    TStatus status = modem.Start();
    if (status.Ok()) {
        status = modem.Run(stop.Get());
    }
    const TStatus finished = modem.Finish();
    if (!status.Ok() || !finished.Ok()) {
        std::fprintf(stderr, "modem-sim: %s\n", (!status.Ok() ? status : finished).error.c_str());
        return kExitFailure;
    }
    return 0;
}
