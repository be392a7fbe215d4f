#include "LinuxCmdHandler.h"

#include "ChildProcess.h"

int CLinuxCmdHandler::SystemCmd(const unsigned char* commandLine) {
    if (commandLine == nullptr) {
        return -1;
    }
    const char* line = reinterpret_cast<const char*>(commandLine);
    TStartOptions options;
    options.inputFromNull = false;  // the command sees the host's standard streams, all three
    CChildProcess shell;
    if (!shell.Start({"/bin/sh", "-c", line}, options)) {
        return -1;
    }
    // However long the command takes: the caller asked to wait for it.
    const TChildExit exit = shell.WaitToEnd();
    if (exit.signal != 0) {
        return 128 + exit.signal;
    }
    return exit.exitCode;
}
