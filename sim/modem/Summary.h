#pragma once
// What the emulated modem saw, as the JSON document "--summary" writes on exit:
// {
//   "power_ups": 1, "power_offs": 0,
//   "sync_attempts": 1, "sync_bytes_seen": 3, "sync_echoes": 1,
//   "loader_bytes": 4096, "loader_ok": true,
//   "commands": ["07 00 c2 01 00", "05 00", ...],
//   "bytes_flashed": 51200, "write_complete": true,
//   "flash_sha256": "<64 hex digits of what the last write programmed>"
// }

#include <nlohmann/json.hpp>
#include <string>

#include "BootProtocol.h"
#include "Status.h"

nlohmann::json SummaryJson(const TBootStatistics& statistics, unsigned powerOffs,
                           const std::string& flashSha256);

[[nodiscard]] CStatus WriteSummary(const std::string& path, const nlohmann::json& summary);
