#pragma once
// The emulated modem as a whole: the pseudo-terminal it talks on, its control pin and ready
// line, its boot code and loader, and its flash. One thread runs everything from Run(), waiting
// in ppoll for the host's bytes, the control pin, the next timer or the stop request.

#include <deque>
#include <memory>

#include "BootProtocol.h"
#include "ControlPin.h"
#include "FlashFile.h"
#include "LinePacer.h"
#include "Options.h"
#include "PowerModel.h"
#include "PseudoTerminal.h"
#include "ReadyLine.h"
#include "Status.h"
#include "SymbolicLink.h"
#include "WireTrace.h"

class CModemSim {
public:
    using TTime = std::chrono::steady_clock::time_point;

    explicit CModemSim(TOptions options);

    // Reads the loader image and sets up the files and the line. The link is made last, so a
    // host that finds it finds the modem ready to listen.
    [[nodiscard]] CStatus Start();

    // Plays the modem until `stopDescriptor` becomes readable (the signal descriptor).
    [[nodiscard]] CStatus Run(int stopDescriptor);

    // Writes "--summary", if given.
    [[nodiscard]] CStatus Finish();

private:
    [[nodiscard]] CStatus UpdatePower(TTime now);
    void ReceiveFromHost(TTime now, bool readable);
    void TransmitToHost(TTime now);
    void CollectOutput();
    std::optional<TTime> NextWake() const;

    const TOptions m_options;
    const TTime m_start;
    CWireTrace m_trace;
    CPseudoTerminal m_terminal;
    CSymbolicLink m_link;
    CControlPin m_pin;
    CReadyLine m_ready;
    CFlashFile m_flash;
    std::unique_ptr<CBootProtocol> m_protocol;
    std::unique_ptr<CPowerModel> m_power;
    CLinePacer m_receivePacer;
    CLinePacer m_transmitPacer;
    std::deque<uint8_t> m_toHost;
    bool m_transmitBlocked = false;
};
