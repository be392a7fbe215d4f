#pragma once
// The firmware write phase as the modem saw it, read from modem-sim's trace ("--trace"): the
// firmware data are the host's bytes after the modem echoed the write command (01), up to the
// announced firmware size. The modem's own clock times them, so the figure is what crossed the
// line, not what the host believed it sent.

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#include "Status.h"

struct TFirmwareTransfer {
    std::size_t bytes = 0;        // firmware bytes the modem received
    std::size_t chunks = 0;       // of the loader's chunk size, the last one possibly short
    double firstByteSeconds = 0;  // on the modem's clock
    std::size_t bytesBeforeLastChunk = 0;
    double lastChunkSeconds = 0;  // the first byte of the last chunk
    double lastByteSeconds = 0;
    // (seconds since the first firmware byte, bytes received so far), thinned for plotting.
    std::vector<std::pair<double, std::size_t>> progress;

    // The rate at which whole chunks followed each other: the bytes before the last chunk over
    // the time from the first byte to the last chunk's first byte. This leaves out the last,
    // possibly short, chunk, so a run limited by one chunk per tick measures exactly that.
    double BytesPerSecond() const;
};

class CFirmwareTransferReader {
public:
    // Reads the trace at `path` for a firmware of `firmwareBytes` sent in chunks of `chunkBytes`.
    [[nodiscard]] static CStatus Read(const std::string& path, std::size_t firmwareBytes,
                                      std::size_t chunkBytes, TFirmwareTransfer& transfer);
};
