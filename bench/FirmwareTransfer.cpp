#include "FirmwareTransfer.h"

#include <fstream>
#include <sstream>

namespace {
constexpr char kHostToModem[] = "host>modem";
constexpr char kModemToHost[] = "modem>host";
// The modem's echo of the write operation: firmware data follow it.
constexpr char kWriteEcho[] = "01";
// One plotted point per this many bytes is plenty for a line that a person reads.
constexpr std::size_t kPlotStepBytes = 1024;
}  // namespace

double TFirmwareTransfer::BytesPerSecond() const {
    if (chunks >= 2 && lastChunkSeconds > firstByteSeconds) {
        return static_cast<double>(bytesBeforeLastChunk) / (lastChunkSeconds - firstByteSeconds);
    }
    // A single chunk: the whole transfer is all there is to time.
    return lastByteSeconds > firstByteSeconds
               ? static_cast<double>(bytes) / (lastByteSeconds - firstByteSeconds)
               : 0;
}

CStatus CFirmwareTransferReader::Read(const std::string& path, std::size_t firmwareBytes,
                                      std::size_t chunkBytes, TFirmwareTransfer& transfer) {
    transfer = TFirmwareTransfer();
    std::ifstream trace(path);
    if (!trace) {
        return CStatus::Failure("reading the modem's trace " + path);
    }
    const std::size_t lastChunkStart =
        firmwareBytes == 0 ? 0 : (firmwareBytes - 1) / chunkBytes * chunkBytes;
    bool writing = false;
    std::size_t plotted = 0;
    std::string line;
    while (std::getline(trace, line) && transfer.bytes < firmwareBytes) {
        std::istringstream fields(line);
        double milliseconds = 0;
        std::string direction;
        if (!(fields >> milliseconds >> direction)) {
            continue;
        }
        std::vector<std::string> bytes;
        for (std::string byte; fields >> byte;) {
            bytes.push_back(byte);
        }
        const double seconds = milliseconds / 1000;
        if (!writing) {
            writing = direction == kModemToHost && bytes.size() == 1 && bytes[0] == kWriteEcho;
            continue;
        }
        if (direction != kHostToModem) {
            continue;
        }
        if (transfer.bytes == 0) {
            transfer.firstByteSeconds = seconds;
        }
        const std::size_t before = transfer.bytes;
        transfer.bytes += bytes.size();
        if (before <= lastChunkStart && lastChunkStart < transfer.bytes) {
            transfer.lastChunkSeconds = seconds;
        }
        transfer.lastByteSeconds = seconds;
        if (transfer.bytes >= plotted + kPlotStepBytes || transfer.bytes >= firmwareBytes) {
            transfer.progress.emplace_back(seconds - transfer.firstByteSeconds, transfer.bytes);
            plotted = transfer.bytes;
        }
    }
    if (transfer.bytes < firmwareBytes) {
        return CStatus::Failure("the modem's trace " + path + " shows " +
                                std::to_string(transfer.bytes) + " of " +
                                std::to_string(firmwareBytes) + " firmware bytes");
    }
    transfer.chunks = (firmwareBytes + chunkBytes - 1) / chunkBytes;
    transfer.bytesBeforeLastChunk = lastChunkStart;
    return CStatus::Ok();
}
