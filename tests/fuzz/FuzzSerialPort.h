#pragma once
// The modem at the other end of the serial line, answering from a fuzz input. Installed as the
// serial-port factory while it lives; every Create returns this port (the loader never releases
// its port, so the harness owns it).
//
// Boot code: the modem is powered while the control pin is low (PowerUp/PowerDown, called from
// the command handler's action on the power worker's thread). On the chosen power-up it echoes
// the first sync probe (0x16) written while powered; on the others it stays silent. Until that
// echo, reads find nothing, so the sync handshake decides nothing by timing.
//
// After the echo, each Read gets its answer from the reply stream, one byte per read:
//   any byte          delivered as it is
//   0xFF n            the next n + 1 reads find nothing (the modem is silent)
//   0xFE n            the next n + 1 reads fail with a port error
// When the stream is used up, the modem answers every other read with "3" (its state-machine
// error) and the reads between find nothing: that ends any step that waits (the loader-source
// download polls forever on silence, by design), and lets a drain of the line finish.
//
// Writes are all accepted except the one chosen to fail (SetWriteFault). Thread-safe.

#include <cstdint>
#include <mutex>
#include <string>

#include "InstalledBackend.h"
#include "SerialPort.h"

class CFuzzSerialPort : public ISerialPort, public ISerialPortFactory {
public:
    CFuzzSerialPort();
    ~CFuzzSerialPort() override;
    CFuzzSerialPort(const CFuzzSerialPort&) = delete;
    CFuzzSerialPort& operator=(const CFuzzSerialPort&) = delete;

    // The power-up (from 1) on which the boot code answers; 0: never.
    void AnswerOnPowerUp(unsigned powerUp);
    // The replies after the sync echo, in the encoding above.
    void SetReplies(const std::string& replies);
    // The `call`-th Write after the sync echo (from 1; 0: none) fails: with a port error, or by
    // taking one byte fewer than offered.
    void SetWriteFault(unsigned call, bool shortWrite);

    void PowerUp();
    void PowerDown();
    // True while the modem is powered on its answering power-up and has not yet echoed.
    bool WillEcho() const;

    // ISerialPort
    int Write(const unsigned char* data, uint32_t length, uint32_t& written) override;
    int Read(unsigned char* buffer, uint32_t length, uint32_t& got) override;
    // ISerialPortFactory
    ISerialPort* Create(const std::string& device, uint32_t speed, uint32_t flags) override;

private:
    mutable std::mutex m_mutex;
    unsigned m_answeringPowerUp = 0;
    unsigned m_powerUps = 0;
    bool m_powered = false;
    bool m_echoPending = false;
    bool m_synced = false;
    std::string m_replies;
    std::size_t m_replyOffset = 0;
    unsigned m_silentReads = 0;
    unsigned m_failingReads = 0;
    unsigned m_readsAfterEnd = 0;
    unsigned m_writeCalls = 0;
    unsigned m_faultyWrite = 0;
    bool m_shortWrite = false;
    CInstalledSerialPorts m_installation{this};  // last: installed once built, removed first
};
