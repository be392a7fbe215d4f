#include "LinuxSerialPort.h"

#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>
#include <utility>

#include "PlatformLog.h"

namespace {
std::string SystemError(const std::string& what) { return what + ": " + std::strerror(errno); }

// The speeds termios can set; anything else is refused rather than silently rounded.
bool SpeedConstant(uint32_t speed, speed_t& constant) {
    switch (speed) {
        case 1200:
            constant = B1200;
            return true;
        case 2400:
            constant = B2400;
            return true;
        case 4800:
            constant = B4800;
            return true;
        case 9600:
            constant = B9600;
            return true;
        case 19200:
            constant = B19200;
            return true;
        case 38400:
            constant = B38400;
            return true;
        case 57600:
            constant = B57600;
            return true;
        case 115200:
            constant = B115200;
            return true;
        case 230400:
            constant = B230400;
            return true;
        case 460800:
            constant = B460800;
            return true;
        case 921600:
            constant = B921600;
            return true;
        case 1000000:
            constant = B1000000;
            return true;
        case 2000000:
            constant = B2000000;
            return true;
        case 3000000:
            constant = B3000000;
            return true;
        case 4000000:
            constant = B4000000;
            return true;
        default:
            return false;
    }
}
}  // namespace

CStatus CLinuxSerialPort::Open(const std::string& device, uint32_t speed,
                               std::chrono::milliseconds readTimeout,
                               std::unique_ptr<CLinuxSerialPort>& port) {
    port.reset();
    const std::string context = "serial port " + device;
    speed_t speedConstant{};
    if (!SpeedConstant(speed, speedConstant)) {
        return CStatus::Failure(context + ": unsupported speed " + std::to_string(speed));
    }
    // Non-blocking open: a line without carrier must not hang the open.
    CUniqueFd descriptor(::open(device.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK));
    if (!descriptor.IsValid()) {
        return CStatus::Failure(SystemError(context + ": open"));
    }
    termios settings{};
    if (::tcgetattr(descriptor.Get(), &settings) != 0) {
        return CStatus::Failure(SystemError(context + ": not a terminal"));
    }
    ::cfmakeraw(&settings);
    settings.c_cflag &= ~static_cast<tcflag_t>(CSIZE | PARENB | CSTOPB | CRTSCTS);
    settings.c_cflag |= CS8 | CLOCAL | CREAD;
    settings.c_iflag &= ~static_cast<tcflag_t>(IXON | IXOFF | IXANY);
    settings.c_lflag &= ~static_cast<tcflag_t>(ECHO | ECHONL | ICANON | ISIG | IEXTEN);
    // Reads never block in the driver; Read waits with poll for its bounded time instead.
    settings.c_cc[VMIN] = 0;
    settings.c_cc[VTIME] = 0;
    if (::cfsetispeed(&settings, speedConstant) != 0 ||
        ::cfsetospeed(&settings, speedConstant) != 0) {
        return CStatus::Failure(SystemError(context + ": setting the speed"));
    }
    if (::tcsetattr(descriptor.Get(), TCSANOW, &settings) != 0) {
        return CStatus::Failure(SystemError(context + ": tcsetattr"));
    }
    // Writes block until the driver took every byte.
    const int flags = ::fcntl(descriptor.Get(), F_GETFL);
    if (flags < 0 || ::fcntl(descriptor.Get(), F_SETFL, flags & ~O_NONBLOCK) != 0) {
        return CStatus::Failure(SystemError(context + ": fcntl"));
    }
    port.reset(new CLinuxSerialPort(device, std::move(descriptor), readTimeout));
    return CStatus::Ok();
}

CLinuxSerialPort::CLinuxSerialPort(std::string device, CUniqueFd descriptor,
                                   std::chrono::milliseconds readTimeout)
    : m_device(std::move(device)),
      m_descriptor(std::move(descriptor)),
      m_readTimeout(readTimeout) {}

int CLinuxSerialPort::Write(const unsigned char* data, uint32_t length, uint32_t& written) {
    written = 0;
    while (written < length) {
        const ssize_t result = ::write(m_descriptor.Get(), data + written, length - written);
        if (result > 0) {
            // A short write (the driver took part of it) goes on with the rest.
            written += static_cast<uint32_t>(result);
            continue;
        }
        if (result < 0 && errno == EINTR) {
            continue;
        }
        if (result < 0 && errno == EAGAIN) {
            // The driver's buffer is full: wait until it can take more, then go on.
            pollfd descriptor{m_descriptor.Get(), POLLOUT, 0};
            if (::poll(&descriptor, 1, -1) < 0 && errno != EINTR) {
                return Failure("Write", "waiting to write");
            }
            continue;
        }
        if (result == 0) {
            // A write that took nothing without an error would repeat for ever: the line is gone.
            errno = EIO;
        }
        return Failure("Write", "write");
    }
    return 0;
}

int CLinuxSerialPort::Read(unsigned char* buffer, uint32_t length, uint32_t& got) {
    got = 0;
    if (length == 0) {
        return 0;
    }
    pollfd descriptor{m_descriptor.Get(), POLLIN, 0};
    // poll takes an int; a negative one would mean waiting for ever.
    const int timeoutMs = static_cast<int>(std::clamp<std::chrono::milliseconds::rep>(
        m_readTimeout.count(), 0, std::numeric_limits<int>::max()));
    int ready = 0;
    do {
        ready = ::poll(&descriptor, 1, timeoutMs);
    } while (ready < 0 && errno == EINTR);
    if (ready < 0) {
        return Failure("Read", "poll");
    }
    if (ready == 0) {
        return 0;  // nothing within the read time-out
    }
    if ((descriptor.revents & POLLIN) == 0) {
        // Hang-up or error without data: the line is gone.
        errno = EIO;
        return Failure("Read", (descriptor.revents & POLLHUP) != 0 ? "poll: the other end hung up"
                                                                   : "poll: line error");
    }
    ssize_t result = 0;
    do {
        result = ::read(m_descriptor.Get(), buffer, length);
    } while (result < 0 && errno == EINTR);
    if (result < 0) {
        return errno == EAGAIN ? 0 : Failure("Read", "read");
    }
    if (result == 0) {
        // Readable yet nothing to read: the other end of the line has gone (end of file).
        errno = EIO;
        return Failure("Read", "read: the other end hung up");
    }
    got = static_cast<uint32_t>(result);
    return 0;
}

int CLinuxSerialPort::Failure(const char* call, const char* what) const {
    const int error = errno != 0 ? errno : EIO;
    errno = error;
    PLATFORM_LOG_FAILURE(call,
                         CStatus::Failure(SystemError("serial port " + m_device + ": " + what)));
    return error;
}
