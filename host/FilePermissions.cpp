#include "FilePermissions.h"

#include <pwd.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

namespace {
std::string UserName(uid_t user) {
    // getpwuid's record is static; only the name is copied out of it.
    const passwd* entry = ::getpwuid(user);
    const std::string number = "uid " + std::to_string(user);
    return entry != nullptr && entry->pw_name != nullptr
               ? std::string(entry->pw_name) + " (" + number + ")"
               : number;
}

std::string Mode(mode_t mode) {
    char text[8];
    std::snprintf(text, sizeof text, "%04o", static_cast<unsigned>(mode & 07777));
    return text;
}

// "root", or "root or NAME (uid N)" for another invoking user.
std::string TrustedUsers(uid_t invokingUser) {
    return invokingUser == 0 ? "root" : "root or " + UserName(invokingUser);
}

bool TrustedOwner(uid_t owner, uid_t invokingUser) { return owner == 0 || owner == invokingUser; }

// Empty when `path` (a file, or with `directory` one of the directories above it) is safe.
std::string Fault(const struct stat& status, bool directory, uid_t invokingUser) {
    if (!TrustedOwner(status.st_uid, invokingUser)) {
        return "is owned by a user other than root or the invoking user";
    }
    if ((status.st_mode & (S_IWGRP | S_IWOTH)) == 0) {
        return std::string();
    }
    if (directory && (status.st_mode & S_ISVTX) != 0) {
        return std::string();
    }
    return (status.st_mode & S_IWOTH) != 0 ? "is writable by others" : "is writable by its group";
}

std::string Parent(const std::string& path) {
    const std::size_t slash = path.find_last_of('/');
    if (slash == std::string::npos) {
        return ".";
    }
    return slash == 0 ? "/" : path.substr(0, slash);
}
}  // namespace

CStatus CFilePermissions::CheckTrusted(const std::string& role, const std::string& path,
                                       uid_t invokingUser) {
    std::unique_ptr<char, decltype(&::free)> resolved(::realpath(path.c_str(), nullptr), &::free);
    bool directory = false;
    if (!resolved) {
        // A file that is not there is for its reader to report; the directories it would be
        // looked up in are still checked, so that no one else can put it there in between.
        resolved.reset(::realpath(Parent(path).c_str(), nullptr));
        directory = true;
        if (!resolved) {
            return CStatus::Ok();
        }
    }
    std::string current = resolved.get();
    for (;;) {
        struct stat status {};
        if (::stat(current.c_str(), &status) != 0) {
            return CStatus::Failure(role + " " + path + ": " + current + ": " +
                                    std::strerror(errno));
        }
        const std::string fault = Fault(status, directory, invokingUser);
        if (!fault.empty()) {
            const std::string subject =
                directory ? "the directory " + current + " of the " + role + " " + path
                          : "the " + role + " " + current;
            return CStatus::Failure("refusing " + subject + ": it " + fault + " (owner " +
                                    UserName(status.st_uid) + ", mode " + Mode(status.st_mode) +
                                    "); whoever can change it runs code as root here; make it "
                                    "writable only by " +
                                    TrustedUsers(invokingUser) +
                                    ", or pass --insecure-permissions");
        }
        if (current == "/") {
            return CStatus::Ok();
        }
        current = Parent(current);
        directory = true;
    }
}
