#include "ReadyLine.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "UniqueFd.h"

CStatus CReadyLine::Open(const std::string& path, bool on) {
    m_path = path;
    return Set(on);
}

CStatus CReadyLine::Set(bool on) {
    const std::string aside = m_path + ".writing";
    {
        CUniqueFd file(::open(aside.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
        if (!file.IsValid() || ::write(file.Get(), on ? "1\n" : "0\n", 2) != 2) {
            return CStatus::Failure("writing the ready file " + aside + ": " +
                                    std::strerror(errno));
        }
    }
    if (std::rename(aside.c_str(), m_path.c_str()) != 0) {
        return CStatus::Failure("replacing the ready file " + m_path + ": " + std::strerror(errno));
    }
    return CStatus::Ok();
}
