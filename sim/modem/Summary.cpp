#include "Summary.h"

#include <cerrno>
#include <cstring>
#include <fstream>

nlohmann::json SummaryJson(const TBootStatistics& statistics, unsigned powerOffs,
                           const std::string& flashSha256) {
    return nlohmann::json{
        {"power_ups", statistics.powerUps},         {"power_offs", powerOffs},
        {"sync_attempts", statistics.syncAttempts}, {"sync_bytes_seen", statistics.syncBytesSeen},
        {"sync_echoes", statistics.syncEchoes},     {"loader_bytes", statistics.loaderBytes},
        {"loader_ok", statistics.loaderOk},         {"commands", statistics.commands},
        {"bytes_flashed", statistics.bytesFlashed}, {"write_complete", statistics.writeComplete},
        {"line_hung_up", statistics.lineHungUp},    {"flash_sha256", flashSha256},
    };
}

CStatus WriteSummary(const std::string& path, const nlohmann::json& summary) {
    std::ofstream file(path, std::ios::trunc);
    file << summary.dump(2) << '\n';
    file.close();
    if (!file) {
        return CStatus::Failure("writing the summary " + path + ": " + std::strerror(errno));
    }
    return CStatus::Ok();
}
