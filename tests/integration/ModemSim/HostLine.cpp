#include "HostLine.h"

#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>

namespace {
int Remaining(std::chrono::steady_clock::time_point deadline) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    return left.count() > 0 ? static_cast<int>(left.count()) : 0;
}
}  // namespace

bool CHostLine::Open(const std::string& path) {
    m_line.Reset(::open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
    if (!m_line.IsValid()) {
        return false;
    }
    termios settings{};
    if (::tcgetattr(m_line.Get(), &settings) != 0) {
        return false;
    }
    ::cfmakeraw(&settings);
    ::cfsetspeed(&settings, B115200);
    return ::tcsetattr(m_line.Get(), TCSANOW, &settings) == 0;
}

bool CHostLine::Write(const std::vector<uint8_t>& bytes, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    size_t written = 0;
    while (written < bytes.size()) {
        const ssize_t result =
            ::write(m_line.Get(), bytes.data() + written, bytes.size() - written);
        if (result > 0) {
            written += static_cast<size_t>(result);
            continue;
        }
        if (result < 0 && errno != EAGAIN && errno != EINTR) {
            return false;
        }
        pollfd descriptor{m_line.Get(), POLLOUT, 0};
        if (::poll(&descriptor, 1, Remaining(deadline)) <= 0) {
            return false;
        }
    }
    return true;
}

bool CHostLine::AwaitHangUp(std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        pollfd descriptor{m_line.Get(), POLLIN, 0};
        if (::poll(&descriptor, 1, Remaining(deadline)) <= 0) {
            return false;
        }
        // Bytes the modem sent before it went are taken, and the wait goes on.
        uint8_t buffer[256];
        const ssize_t result = ::read(m_line.Get(), buffer, sizeof buffer);
        if (result == 0 || (result < 0 && errno == EIO)) {
            return (descriptor.revents & POLLHUP) != 0;
        }
        if (result < 0 && errno != EAGAIN && errno != EINTR) {
            return false;
        }
    }
}

std::vector<uint8_t> CHostLine::Read(size_t count, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    std::vector<uint8_t> bytes;
    while (bytes.size() < count) {
        uint8_t buffer[4096];
        const size_t want = std::min(sizeof buffer, count - bytes.size());
        const ssize_t result = ::read(m_line.Get(), buffer, want);
        if (result > 0) {
            bytes.insert(bytes.end(), buffer, buffer + result);
            continue;
        }
        pollfd descriptor{m_line.Get(), POLLIN, 0};
        const int wait = Remaining(deadline);
        if (wait == 0 || ::poll(&descriptor, 1, wait) <= 0) {
            break;
        }
    }
    return bytes;
}
