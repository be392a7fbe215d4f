#pragma once
// The modem's end of the serial line: a pseudo-terminal whose master side the emulator reads and
// writes, and whose slave side the host opens as its serial device. The line is raw (no echo, no
// line editing, no character translation), so every byte passes unchanged both ways.
//
// The emulator keeps a descriptor of the slave open itself: while no other process holds the
// slave, the master would otherwise report a hang-up and lose what the modem sends.

#include <string>

#include "Status.h"
#include "UniqueFd.h"

class CPseudoTerminal {
public:
    [[nodiscard]] CStatus Open();

    // Non-blocking; the descriptor to read host bytes from and write modem bytes to.
    int Master() const { return m_master.Get(); }
    const std::string& SlavePath() const { return m_slavePath; }

    // Closes both ends the emulator holds, as an adapter pulled from its socket: the host's
    // descriptor of the slave then reads and writes with EIO and polls with a hang-up.
    void Close();
    bool IsOpen() const { return m_master.IsValid(); }

private:
    CUniqueFd m_master;
    CUniqueFd m_slave;
    std::string m_slavePath;
};
