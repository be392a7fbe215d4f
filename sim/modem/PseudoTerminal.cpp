#include "PseudoTerminal.h"

#include <fcntl.h>
#include <stdlib.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace {
CStatus SystemFailure(const std::string& doing) {
    return CStatus::Failure(doing + ": " + std::strerror(errno));
}
}  // namespace

void CPseudoTerminal::Close() {
    m_master.Reset();
    m_slave.Reset();
}

CStatus CPseudoTerminal::Open() {
    m_master.Reset(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
    if (!m_master.IsValid()) {
        return SystemFailure("opening a pseudo-terminal");
    }
    if (::grantpt(m_master.Get()) != 0 || ::unlockpt(m_master.Get()) != 0) {
        return SystemFailure("unlocking the pseudo-terminal");
    }
    char name[128];
    if (::ptsname_r(m_master.Get(), name, sizeof name) != 0) {
        return SystemFailure("naming the pseudo-terminal's slave");
    }
    m_slavePath = name;
    m_slave.Reset(::open(name, O_RDWR | O_NOCTTY | O_CLOEXEC));
    if (!m_slave.IsValid()) {
        return SystemFailure("opening the pseudo-terminal's slave " + m_slavePath);
    }
    termios settings{};
    if (::tcgetattr(m_slave.Get(), &settings) != 0) {
        return SystemFailure("reading the line settings of " + m_slavePath);
    }
    ::cfmakeraw(&settings);
    settings.c_cc[VMIN] = 0;
    settings.c_cc[VTIME] = 0;
    if (::tcsetattr(m_slave.Get(), TCSANOW, &settings) != 0) {
        return SystemFailure("making " + m_slavePath + " raw");
    }
    const int flags = ::fcntl(m_master.Get(), F_GETFL);
    if (flags < 0 || ::fcntl(m_master.Get(), F_SETFL, flags | O_NONBLOCK) != 0) {
        return SystemFailure("making the pseudo-terminal non-blocking");
    }
    return CStatus::Ok();
}
