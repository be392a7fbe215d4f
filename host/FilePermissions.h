#pragma once
// Refuses a file that someone other than root or the invoking user could have changed.
//
// modemloader-host runs as root: it loads the plug-in into its own process, and the plug-in runs
// values of the configuration (the "control" pin path) through the shell unquoted. Whoever can
// write either file, or replace it through a directory on its path, runs code as root. So, as
// sshd does with StrictModes, the host refuses such a file before reading it:
//   - the file must be owned by root or the invoking user and not be writable by group or
//     others;
//   - every directory from the file's up to "/" must be owned by root or the invoking user and
//     not be writable by group or others, unless its sticky bit is set (as on /tmp): there no one
//     may rename or remove an entry they do not own.
// Symbolic links are resolved first; the real path is checked.

#include <sys/types.h>

#include <string>

#include "Status.h"

class CFilePermissions {
public:
    // Fine when `path` passes the checks above for `invokingUser` (the real user id). A failure
    // names the file or directory at fault, its owner and its mode, and what `role` the file
    // plays ("configuration", "plug-in").
    [[nodiscard]] static CStatus CheckTrusted(const std::string& role, const std::string& path,
                                              uid_t invokingUser);
};
