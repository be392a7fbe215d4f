#pragma once
// The [host] section of the configuration file (every key is documented in
// docs/modemloader-host.md):
//   plugin = path of the feature plug-in (relative to the configuration file's folder)
//   feature = the feature's name, default "modemloader"
//   tick_ms = tick period in milliseconds, default 1000
//   fs.N = file-system type for TFileSystemFormat value N, e.g. "fs.2 = ext4"
//   serial_read_timeout_ms = how long a serial Read waits for data, default 10
//   log = stderr | syslog | both | none, default stderr
// Any other key in [host] is an error. The other sections are the features' properties.

#include <cstdint>
#include <map>
#include <string>

#include "IniProperties.h"
#include "Status.h"

struct THostConfig {
    enum class TLogTarget { eStderr, eSyslog, eBoth, eNone };

    std::string pluginPath;  // empty when not configured
    std::string feature = "modemloader";
    uint32_t tickMs = 1000;
    std::map<int, std::string> fsTypes;
    uint32_t serialReadTimeoutMs = 10;
    TLogTarget log = TLogTarget::eStderr;
};

class CHostConfig {
public:
    // Reads the [host] section of `properties`, loaded from `configPath` (which names the file
    // in messages and anchors a relative plug-in path).
    [[nodiscard]] static CStatus Read(const CIniProperties& properties,
                                      const std::string& configPath, THostConfig& config);
};
