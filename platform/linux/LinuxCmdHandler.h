#pragma once
// Runs the features' command lines with "/bin/sh -c" and answers with the shell's exit status:
// 0 on success, the command's exit code otherwise, 128 + N when a signal N ended it, -1 when no
// shell could be started (with an Error record of the Platform channel, function "SystemCmd",
// naming the line and the reason). Blocks the calling thread until the command ends; callable from
// any thread (the modem-power worker switches the control pin with it).

#include "CmdHandler.h"

class CLinuxCmdHandler : public ICmdHandlerBackend {
public:
    int SystemCmd(const unsigned char* commandLine) override;
};
