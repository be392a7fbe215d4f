// modem-sim: the modem at the other end of the image loader's serial line, control pin and
// ready line. See docs/modem-sim.md.

#include <signal.h>
#include <sys/signalfd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "ModemSim.h"
#include "Options.h"
#include "UniqueFd.h"

namespace {
constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;
}  // namespace

int main(int argc, char** argv) {
    TOptions options;
    const CStatus parsed = ParseOptions(std::vector<std::string>(argv + 1, argv + argc), options);
    if (!parsed.IsOk()) {
        std::fprintf(stderr, "modem-sim: %s\nTry 'modem-sim --help'.\n", parsed.Message().c_str());
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
    CUniqueFd stop(signalfd(-1, &stopSignals, SFD_CLOEXEC | SFD_NONBLOCK));
    if (!stop.IsValid()) {
        std::perror("modem-sim: signalfd");
        return kExitFailure;
    }

    CModemSim modem(std::move(options));
    CStatus status = modem.Start();
    if (status.IsOk()) {
        status = modem.Run(stop.Get());
    }
    const CStatus finished = modem.Finish();
    if (!status.IsOk() || !finished.IsOk()) {
        std::fprintf(stderr, "modem-sim: %s\n",
                     (!status.IsOk() ? status : finished).Message().c_str());
        return kExitFailure;
    }
    return 0;
}
