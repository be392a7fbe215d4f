#include "ControlPin.h"

#include <fcntl.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

CStatus CControlPin::Open(const std::string& path) {
    m_path = path;
    const auto slash = path.rfind('/');
    const std::string directory =
        slash == std::string::npos ? "." : (slash == 0 ? "/" : path.substr(0, slash));
    m_name = slash == std::string::npos ? path : path.substr(slash + 1);

    if (::access(path.c_str(), F_OK) != 0) {
        CUniqueFd file(::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644));
        if (!file.IsValid() || ::write(file.Get(), "1\n", 2) != 2) {
            return CStatus::Failure("creating the control file " + path + ": " +
                                    std::strerror(errno));
        }
    }
    m_watch.Reset(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    if (!m_watch.IsValid()) {
        return CStatus::Failure(std::string("starting inotify: ") + std::strerror(errno));
    }
    if (::inotify_add_watch(m_watch.Get(), directory.c_str(),
                            IN_MODIFY | IN_CLOSE_WRITE | IN_CREATE | IN_MOVED_TO) < 0) {
        return CStatus::Failure("watching " + directory +
                                " for the control file: " + std::strerror(errno));
    }
    if (const auto level = ReadLevel()) {
        m_level = *level;
    }
    return CStatus::Ok();
}

std::optional<char> CControlPin::ReadLevel() const {
    CUniqueFd file(::open(m_path.c_str(), O_RDONLY | O_CLOEXEC));
    char first = 0;
    if (!file.IsValid() || ::read(file.Get(), &first, 1) != 1 || (first != '0' && first != '1')) {
        return std::nullopt;
    }
    return first;
}

std::optional<char> CControlPin::Changed() {
    alignas(inotify_event) char events[4096];
    bool concernsPin = false;
    for (;;) {
        const ssize_t length = ::read(m_watch.Get(), events, sizeof events);
        if (length <= 0) {
            break;
        }
        for (ssize_t offset = 0; offset < length;) {
            inotify_event header;
            std::memcpy(&header, events + offset, sizeof header);
            const char* name = events + offset + sizeof header;
            if (header.len > 0 && m_name == name) {
                concernsPin = true;
            }
            offset += static_cast<ssize_t>(sizeof header + header.len);
        }
    }
    if (!concernsPin) {
        return std::nullopt;
    }
    const auto level = ReadLevel();
    if (!level || *level == m_level) {
        return std::nullopt;
    }
    m_level = *level;
    return m_level;
}
