#pragma once
// One whole modem update measured on a fresh simulated device: the host's process figures
// (CHostRun) and the firmware transfer as the modem timed it (CFirmwareTransferReader). The run
// counts only when the update succeeded and the modem's flash holds the firmware byte for byte:
// a figure of a broken update would measure the wrong thing.

#include <cstddef>
#include <cstdint>
#include <string>

#include "FirmwareTransfer.h"
#include "HostRun.h"
#include "Status.h"
#include "WireCommands.h"

// The image loader's firmware chunk: one per tick.
constexpr std::size_t kChunkBytes = wire::kChunkBytes;

struct TUpdateScenario {
    std::size_t firmwareBytes = 256u << 10;
    uint32_t tickMs = 1000;  // the loader's designed tick period
    unsigned baud = 0;       // modem-sim's line pacing; 0 for an unpaced line
    uint64_t seed = 1;
};

struct TUpdateMeasurement {
    THostRun host;
    TFirmwareTransfer transfer;
};

class CUpdateBenchmark {
public:
    [[nodiscard]] static CStatus Measure(const TUpdateScenario& scenario,
                                         TUpdateMeasurement& measurement);
};

// "256 KiB", "64 MiB": a size as the table names it.
std::string DescribeBytes(std::size_t bytes);
