#include "HostConfig.h"

#include <cerrno>
#include <cstdlib>
#include <limits>

namespace {
CStatus ParseNumber(const std::string& key, const std::string& text, uint32_t minimum,
                    uint32_t& value) {
    if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos) {
        return CStatus::Failure(key + " = '" + text + "' is not a whole number");
    }
    errno = 0;
    const unsigned long long parsed = std::strtoull(text.c_str(), nullptr, 10);
    if (errno != 0 || parsed > std::numeric_limits<uint32_t>::max()) {
        return CStatus::Failure(key + " = '" + text + "' is too large");
    }
    if (parsed < minimum) {
        return CStatus::Failure(key + " must be at least " + std::to_string(minimum));
    }
    value = static_cast<uint32_t>(parsed);
    return CStatus::Ok();
}

// The folder of `path` as the start of a path beside it: "." for a bare file name, "" for a file
// in the root folder (so that the plug-in is "/feature.so", not "//feature.so").
std::string Folder(const std::string& path) {
    const auto slash = path.find_last_of('/');
    return slash == std::string::npos ? std::string(".") : path.substr(0, slash);
}
}  // namespace

CStatus CHostConfig::Read(const CIniProperties& properties, const std::string& configPath,
                          THostConfig& config) {
    config = THostConfig{};
    const std::string context = configPath + ": [host]";
    for (const auto& [key, value] : properties.Section("host")) {
        CStatus status = CStatus::Ok();
        if (key == "plugin") {
            config.pluginPath =
                value.empty() || value.front() == '/' ? value : Folder(configPath) + "/" + value;
        } else if (key == "feature") {
            if (value.empty()) {
                status = CStatus::Failure("feature must not be empty");
            }
            config.feature = value;
        } else if (key == "tick_ms") {
            status = ParseNumber(key, value, 1, config.tickMs);
        } else if (key == "serial_read_timeout_ms") {
            status = ParseNumber(key, value, 0, config.serialReadTimeoutMs);
        } else if (key == "log") {
            if (value == "stderr") {
                config.log = THostConfig::TLogTarget::eStderr;
            } else if (value == "syslog") {
                config.log = THostConfig::TLogTarget::eSyslog;
            } else if (value == "both") {
                config.log = THostConfig::TLogTarget::eBoth;
            } else if (value == "none") {
                config.log = THostConfig::TLogTarget::eNone;
            } else {
                status = CStatus::Failure("log = '" + value +
                                          "' is not one of stderr, syslog, both, none");
            }
        } else if (key.rfind("fs.", 0) == 0) {
            uint32_t format = 0;
            status = ParseNumber(key, key.substr(3), 0, format);
            if (status && format > static_cast<uint32_t>(std::numeric_limits<int>::max())) {
                status = CStatus::Failure(key + ": format number too large");
            }
            if (status && value.empty()) {
                status = CStatus::Failure(key + " names no file-system type");
            }
            if (status) {
                config.fsTypes[static_cast<int>(format)] = value;
            }
        } else {
            status = CStatus::Failure("unknown key '" + key + "'");
        }
        if (!status) {
            return status.WithContext(context);
        }
    }
    return CStatus::Ok();
}
