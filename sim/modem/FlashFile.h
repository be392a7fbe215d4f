#pragma once
// The emulated modem's flash, kept in a file ("--flash-out") so that a test can compare it with
// the firmware it sent, byte for byte. Programmed bytes are buffered and reach the file on
// Flush(), which the emulator calls after every batch it received. Also keeps the SHA-256 of
// what the current write programmed.
//
// A non-volatile flash is the modem's own memory as it behaves across a power cut: the file (or
// block device) keeps what it held when the modem starts, a write programs it in place from its
// start, and every Flush() returns only once the bytes are on the file's storage, so that what
// the modem acknowledged after a Flush() survives the cut.

#include <string>
#include <vector>

#include "FlashMemory.h"
#include "Sha256.h"
#include "Status.h"
#include "UniqueFd.h"

class CFlashFile : public IFlashMemory {
public:
    // Creates or empties the file; a non-volatile flash is opened as it is (created if absent).
    [[nodiscard]] CStatus Open(const std::string& path, bool nonVolatile = false);

    void BeginProgramming(uint32_t address, uint32_t length) override;
    void Program(const uint8_t* data, size_t count) override;

    // Writes what is buffered; the first failure sticks.
    [[nodiscard]] CStatus Flush();

    std::string Sha256() const { return m_digest.HexDigest(); }

private:
    std::string m_path;
    CUniqueFd m_file;
    std::vector<uint8_t> m_pending;
    CSha256 m_digest;
    CStatus m_failure = CStatus::Ok();
    bool m_nonVolatile = false;
};
