#include "StopSignals.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {
constexpr char kProgram[] = "modemloader-host";
}  // namespace

sigset_t CStopSignals::Signals() {
    sigset_t signals;
    ::sigemptyset(&signals);
    ::sigaddset(&signals, SIGINT);
    ::sigaddset(&signals, SIGTERM);
    return signals;
}

void CStopSignals::Block() {
    const sigset_t signals = Signals();
    ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

CStopSignals::CStopSignals() { Block(); }

CStopSignals::~CStopSignals() {
    if (m_watcher.joinable()) {
        const uint64_t one = 1;
        [[maybe_unused]] const ssize_t written = ::write(m_wake.Get(), &one, sizeof one);
        m_watcher.join();
    }
}

CStatus CStopSignals::Start(TOnFirst onFirst) {
    const sigset_t signals = Signals();
    m_signalFd.Reset(::signalfd(-1, &signals, SFD_CLOEXEC));
    if (!m_signalFd.IsValid()) {
        return CStatus::Failure(std::string("stop signals: signalfd: ") + std::strerror(errno));
    }
    m_wake.Reset(::eventfd(0, EFD_CLOEXEC));
    if (!m_wake.IsValid()) {
        return CStatus::Failure(std::string("stop signals: eventfd: ") + std::strerror(errno));
    }
    m_onFirst = std::move(onFirst);
    m_watcher = std::thread(&CStopSignals::Watch, this);
    return CStatus::Ok();
}

std::string CStopSignals::Name(int signal) {
    switch (signal) {
        case SIGINT:
            return "SIGINT";
        case SIGTERM:
            return "SIGTERM";
        default:
            return "signal " + std::to_string(signal);
    }
}

void CStopSignals::Watch() {
    bool stopping = false;
    for (;;) {
        pollfd descriptors[] = {{m_signalFd.Get(), POLLIN, 0}, {m_wake.Get(), POLLIN, 0}};
        if (::poll(descriptors, 2, -1) < 0) {
            if (errno == EINTR) {
                continue;
            }
            std::fprintf(stderr, "%s: stop signals: poll: %s\n", kProgram, std::strerror(errno));
            return;
        }
        if (descriptors[1].revents != 0) {
            return;
        }
        signalfd_siginfo info{};
        if (::read(m_signalFd.Get(), &info, sizeof info) != static_cast<ssize_t>(sizeof info)) {
            continue;
        }
        const int signal = static_cast<int>(info.ssi_signo);
        const std::string name = Name(signal);
        if (stopping) {
            std::fprintf(stderr,
                         "%s: %s while stopping; leaving at once without waiting for the "
                         "feature\n",
                         kProgram, name.c_str());
            std::fflush(stdout);
            std::fflush(stderr);
            std::_Exit(128 + signal);
        }
        stopping = true;
        const std::string what = m_onFirst(signal);
        std::fprintf(stderr, "%s: stopping on %s; %s; a second signal leaves at once\n", kProgram,
                     name.c_str(), what.c_str());
        std::fflush(stderr);
    }
}
