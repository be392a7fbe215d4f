#include "ReadyLine.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "FileDescriptor.h"

TStatus CReadyLine::Open(const std::string& path, bool on) {
    m_path = path;
    return Set(on);
}

TStatus CReadyLine::Set(bool on) {
    const std::string aside = m_path + ".writing";
    {
        CFileDescriptor file(::open(aside.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
        if (!file.Valid() || ::write(file.Get(), on ? "1\n" : "0\n", 2) != 2) {
            return TStatus::Failure("writing the ready file " + aside + ": " +
                                    std::strerror(errno));
        }
    }
    if (std::rename(aside.c_str(), m_path.c_str()) != 0) {
        return TStatus::Failure("replacing the ready file " + m_path + ": " + std::strerror(errno));
    }
    return TStatus::Success();
}
