#include "UpdateRecords.h"

#include <algorithm>
#include <cstdio>

#include "WireCommands.h"

namespace {
constexpr char kPowerSourceFile[] = "features/component/ModemLoader/src/ModemPower";
constexpr std::size_t kChunkBytes = wire::kChunkBytes;

std::string Relative(std::string text, const std::string& deviceDirectory) {
    const std::string prefix = deviceDirectory + "/";
    for (std::size_t found = text.find(prefix); found != std::string::npos;
         found = text.find(prefix, found)) {
        text.erase(found, prefix.size());
    }
    return text;
}

bool IsPowerRecord(const nlohmann::json& record) {
    const std::string kind = record.value("kind", "");
    return kind == "cmd" || (kind == "log" && record.value("file", "") == kPowerSourceFile);
}

std::string Ok(const nlohmann::json& record) {
    return record.value("status", -1) == 0 ? "ok" : "failed";
}

// The module's percentage for a loader's (remaining, 100).
int Percent(unsigned remaining) {
    const unsigned done = 100u - remaining;
    return static_cast<int>(static_cast<unsigned>(0.5 + done / 100.0 * 100.0) & 0xFF);
}
}  // namespace

std::string RecordLine(const nlohmann::json& record, const std::string& deviceDirectory) {
    const std::string kind = record.value("kind", "");
    std::string line;
    if (kind == "event") {
        line = record.value("dir", "") + " " + std::to_string(record.value("id", 0));
        if (record.contains("percent")) {
            line += " " + std::to_string(record.value("percent", 0)) + "%";
        }
        if (record.contains("outcome")) {
            line += " outcome " + std::to_string(record.value("outcome", 0));
        }
    } else if (kind == "log") {
        line = record.value("category", "") + " " + record.value("function", "") + ": " +
               record.value("text", "");
    } else if (kind == "mount") {
        line = "mount " + record.value("device", "") + " on " + record.value("mountpoint", "") +
               " format " + std::to_string(record.value("format", 0)) + " " + Ok(record);
    } else if (kind == "umount") {
        line = "umount " + record.value("mountpoint", "") + " " + Ok(record);
    } else if (kind == "cmd") {
        line =
            "cmd " + record.value("line", "") + " = " + std::to_string(record.value("status", -1));
    } else {
        line = record.dump();
    }
    return Relative(line, deviceDirectory);
}

std::vector<std::string> UpdateLines(const std::vector<nlohmann::json>& trace,
                                     const std::string& deviceDirectory) {
    std::vector<std::string> lines;
    for (const nlohmann::json& record : trace) {
        if (!IsPowerRecord(record)) {
            lines.push_back(RecordLine(record, deviceDirectory));
        }
    }
    return lines;
}

std::vector<std::string> PowerLines(const std::vector<nlohmann::json>& trace,
                                    const std::string& deviceDirectory) {
    std::vector<std::string> lines;
    for (const nlohmann::json& record : trace) {
        if (IsPowerRecord(record)) {
            lines.push_back(RecordLine(record, deviceDirectory));
        }
    }
    return lines;
}

bool IsCertainThenPrefix(const std::vector<std::string>& actual,
                         const std::vector<std::string>& certain,
                         const std::vector<std::string>& mayFollow) {
    if (actual.size() < certain.size() || actual.size() > certain.size() + mayFollow.size()) {
        return false;
    }
    if (!std::equal(certain.begin(), certain.end(), actual.begin())) {
        return false;
    }
    return std::equal(actual.begin() + static_cast<std::ptrdiff_t>(certain.size()), actual.end(),
                      mayFollow.begin());
}

namespace expected {
std::vector<std::string> PrepareAndInstall(const std::string& storedRevision) {
    return {"in 200",
            "out 201",
            "in 202",
            "umount mnt failed",
            "Error HandleControllerPrepare: Couldn't umount mnt",
            "mount movinand.img on mnt format 2 ok",
            "Always HandleControllerPrepare: current version: " + storedRevision,
            "umount mnt ok",
            "out 203 outcome 1",
            "in 204",
            "Always HasIntegratedGPRS: trying to check node"};
}

std::vector<std::string> ModemInDeviceTree() {
    return {"Always HasIntegratedGPRS: GPRS modem specified in FDT data"};
}

std::vector<std::string> SyncAndLoader() {
    return {"Always Sync: noticed a reply from modem", "out 206 5%",
            "Always PrepareFlash: loader source download completed", "out 206 10%"};
}

std::vector<std::string> ChunkProgress(std::size_t firmwareBytes) {
    std::vector<std::string> lines;
    std::size_t sent = 0;
    while (sent < firmwareBytes) {
        sent += std::min(kChunkBytes, firmwareBytes - sent);
        // The loader reports 50 - 50 * sent / size, truncated, as the work still to do.
        const double ratio = static_cast<double>(sent) / static_cast<double>(firmwareBytes);
        const auto remaining = static_cast<unsigned>(50.0 + ratio * 100.0 * -0.5);
        lines.push_back("out 206 " + std::to_string(Percent(remaining)) + "%");
    }
    return lines;
}

std::vector<std::string> FakeLoaderProgress() {
    std::vector<std::string> lines;
    for (int percent = 5; percent <= 100; percent += 5) {
        lines.push_back("out 206 " + std::to_string(percent) + "%");
    }
    return lines;
}

std::vector<std::string> CompletionWithRevision() {
    return {"umount mnt failed", "Error HandleLoaderCompleted: Couldn't umount mnt",
            "mount movinand.img on mnt format 2 ok", "umount mnt ok", "out 205 outcome 1"};
}

std::vector<std::string> CompleteFlash(std::size_t firmwareBytes) {
    return Join({PrepareAndInstall("100"),
                 ModemInDeviceTree(),
                 SyncAndLoader(),
                 {"out 206 15%", "out 206 20%", "out 206 25%", "out 206 25%", "out 206 45%"},
                 ChunkProgress(firmwareBytes),
                 {"Always Write: firmware download completed"},
                 CompletionWithRevision()});
}

nlohmann::json CompleteCommands(std::size_t firmwareBytes) {
    char size[16];
    std::snprintf(size, sizeof size, "%02x %02x %02x %02x",
                  static_cast<unsigned>(firmwareBytes & 0xFF),
                  static_cast<unsigned>((firmwareBytes >> 8) & 0xFF),
                  static_cast<unsigned>((firmwareBytes >> 16) & 0xFF),
                  static_cast<unsigned>((firmwareBytes >> 24) & 0xFF));
    return nlohmann::json::array({"07 00 c2 01 00", "05 00", "04 00 00 00 90 00 00 00 00", "02",
                                  std::string("09 00 00 00 90 ") + size, "03",
                                  std::string("04 00 00 00 90 ") + size, "01"});
}

std::vector<std::string> Join(std::initializer_list<std::vector<std::string>> parts) {
    std::vector<std::string> joined;
    for (const std::vector<std::string>& part : parts) {
        joined.insert(joined.end(), part.begin(), part.end());
    }
    return joined;
}
}  // namespace expected

std::string Listing(const std::vector<std::string>& lines) {
    std::string text;
    for (const std::string& line : lines) {
        text += "  " + line + "\n";
    }
    return text;
}
