#include "LinuxCmdHandler.h"

#include "ChildProcess.h"
#include "PlatformLog.h"

int CLinuxCmdHandler::SystemCmd(const unsigned char* commandLine) {
    if (commandLine == nullptr) {
        PLATFORM_LOG_FAILURE("SystemCmd", CStatus::Failure("no command line given"));
        return -1;
    }
    const char* line = reinterpret_cast<const char*>(commandLine);
    TStartOptions options;
    options.inputFromNull = false;  // the command sees the host's standard streams, all three
    CChildProcess shell;
    if (const CStatus status = shell.Start({"/bin/sh", "-c", line}, options); !status) {
        // The feature sees only -1; the record says which line could not run, and why.
        PLATFORM_LOG_FAILURE("SystemCmd",
                             status.WithContext("command line '" + std::string(line) + "'"));
        return -1;
    }
    // However long the command takes: the caller asked to wait for it.
    const TChildExit exit = shell.WaitToEnd();
    if (exit.signal != 0) {
        return 128 + exit.signal;
    }
    return exit.exitCode;
}
