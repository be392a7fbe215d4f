#include "SymbolicLink.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

CSymbolicLink::~CSymbolicLink() {
    if (!m_path.empty()) {
        ::unlink(m_path.c_str());
    }
}

CStatus CSymbolicLink::Create(const std::string& target, const std::string& path) {
    struct stat existing {};
    if (::lstat(path.c_str(), &existing) == 0) {
        if (!S_ISLNK(existing.st_mode)) {
            return CStatus::Failure("making the link " + path +
                                    ": a file that is no link is there");
        }
        if (::unlink(path.c_str()) != 0) {
            return CStatus::Failure("replacing the link " + path + ": " + std::strerror(errno));
        }
    }
    if (::symlink(target.c_str(), path.c_str()) != 0) {
        return CStatus::Failure("making the link " + path + " to " + target + ": " +
                                std::strerror(errno));
    }
    m_path = path;
    return CStatus::Ok();
}
