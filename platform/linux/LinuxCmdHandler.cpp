#include "LinuxCmdHandler.h"

#include <spawn.h>
#include <sys/wait.h>

#include <cerrno>

extern char** environ;

int CLinuxCmdHandler::SystemCmd(const unsigned char* commandLine) {
    if (commandLine == nullptr) {
        return -1;
    }
    const char* line = reinterpret_cast<const char*>(commandLine);
    char shell[] = "/bin/sh";
    char option[] = "-c";
    char* arguments[] = {shell, option, const_cast<char*>(line), nullptr};
    pid_t child = 0;
    if (::posix_spawn(&child, shell, nullptr, nullptr, arguments, environ) != 0) {
        return -1;
    }
    int status = 0;
    pid_t waited = 0;
    do {
        waited = ::waitpid(child, &status, 0);
    } while (waited < 0 && errno == EINTR);
    if (waited < 0) {
        return -1;
    }
    if (WIFEXITED(status)) {
        return WEXITSTATUS(status);
    }
    if (WIFSIGNALED(status)) {
        return 128 + WTERMSIG(status);
    }
    return -1;
}
