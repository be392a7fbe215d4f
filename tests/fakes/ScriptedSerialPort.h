#pragma once
// A serial port that plays the modem from a script, installed as the serial-port factory while
// the object lives (every ISerialPort::Create returns this port, which nobody deletes).
//
// The script is a list of steps taken in order: a write the modem expects (and the reply it then
// sends), a number of reads that find nothing before a reply arrives, reads that fail. Every byte
// written is recorded; a byte the script does not expect fails the running test with its offset
// on the line and the bytes written and expected, and is otherwise accepted.
//
// Before the script, the port can play the modem's boot code (PlayBootCode): sync probes (0x16)
// are accepted and dropped while the modem is off, and the first probe after the chosen power-up
// is echoed; then the script begins. PowerUp/PowerDown are meant to be called from the command
// handler's action when the control pin is driven low / high (from the power worker's thread).
// Thread-safe.

#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

#include "InstalledBackend.h"
#include "SerialPort.h"

using TBytes = std::vector<uint8_t>;
// Bytes from numbers ({0x04, 0x00}) or from text ("0").
TBytes Bytes(std::initializer_list<int> values);
TBytes Bytes(const std::string& text);
// "04 00 C2" for failure messages.
std::string HexBytes(const TBytes& bytes, std::size_t limit = 32);

struct TSerialCreateCall {
    std::string device;
    uint32_t speed;
    uint32_t flags;
};

class CScriptedSerialPort : public ISerialPort, public ISerialPortFactory {
public:
    CScriptedSerialPort();
    ~CScriptedSerialPort() override;
    CScriptedSerialPort(const CScriptedSerialPort&) = delete;
    CScriptedSerialPort& operator=(const CScriptedSerialPort&) = delete;

    // Factory: every Create is recorded; after FailCreate it returns null.
    void FailCreate();
    std::vector<TSerialCreateCall> CreateCalls() const;

    // Script steps, appended in order.
    void Expect(const TBytes& written, const TBytes& reply = {});
    // The write of exactly `written` (one Write call) reports only `accepted` bytes written.
    void ExpectShortWrite(const TBytes& written, uint32_t accepted);
    // The write of exactly `written` (one Write call) fails with `result`.
    void ExpectWriteError(const TBytes& written, int result);
    // The next `emptyReads` reads find nothing; then `reply` arrives.
    void ReplyAfterEmptyReads(unsigned emptyReads, const TBytes& reply);
    // The next `count` reads (with nothing buffered) fail with a port error.
    void ReadErrors(unsigned count);
    // Bytes the modem has already sent, readable now.
    void Send(const TBytes& bytes);

    // Boot code: probes are echoed from the `powerUps`-th power-up on, while powered.
    void PlayBootCode(unsigned powerUps = 1);
    void PowerUp();
    void PowerDown();
    // True while the boot code is powered as chosen and answers (or has answered) probes.
    bool AnswersProbes() const;

    TBytes Written() const;
    std::size_t ProbesWritten() const;  // sync probes taken by the boot code
    std::size_t Reads() const;          // Read calls
    std::size_t WriteCalls() const;
    std::size_t StepsLeft() const;  // script steps not yet taken
    std::size_t Buffered() const;   // bytes sent by the modem and not yet read
    bool SawUnexpectedBytes() const;

    // ISerialPort
    int Write(const unsigned char* data, uint32_t length, uint32_t& written) override;
    int Read(unsigned char* buffer, uint32_t length, uint32_t& got) override;
    // ISerialPortFactory
    ISerialPort* Create(const std::string& device, uint32_t speed, uint32_t flags) override;

private:
    struct TStep {
        enum TKind { eExpect, eShortWrite, eWriteError, eReplyAfterReads, eReadErrors } kind;
        TBytes bytes;  // expected write
        TBytes reply;
        std::size_t matched = 0;
        uint32_t accepted = 0;
        int result = 0;
        unsigned count = 0;
    };
    bool HeadExpectsWrite() const;
    // Takes the read steps that are due without a read.
    void Advance();

    mutable std::mutex m_mutex;
    bool m_failCreate = false;
    std::vector<TSerialCreateCall> m_createCalls;
    std::deque<TStep> m_script;
    std::deque<uint8_t> m_buffered;
    bool m_bootCode = false;
    unsigned m_powerUpsNeeded = static_cast<unsigned>(-1);  // no boot code: never answers
    unsigned m_powerUps = 0;
    bool m_powered = false;
    TBytes m_written;
    std::size_t m_probes = 0;
    std::size_t m_reads = 0;
    std::size_t m_writeCalls = 0;
    bool m_unexpected = false;
    CInstalledSerialPorts m_installation{this};  // last: installed once built, removed first
};
