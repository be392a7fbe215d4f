// The host's configuration file as the host reads it: arbitrary text through the INI parser
// (libinih) into the feature properties, then the [host] section into the host's settings.
//
// Whatever the text, loading either fails with a message or succeeds; a successful load that
// the host then rejects names the file in its message. A configuration that is accepted keeps
// the host's limits (a tick period of at least 1 ms, a non-empty feature name).

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "HostConfig.h"
#include "IniProperties.h"

namespace {
constexpr char kConfigPath[] = "/etc/modemloader/host.ini";

[[noreturn]] void Violation(const char* what) {
    std::fprintf(stderr, "host configuration: %s\n", what);
    std::abort();
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    CIniProperties properties;
    if (CStatus loaded = properties.LoadText(text, kConfigPath); !loaded) {
        if (loaded.Message().empty()) {
            Violation("a failed load says nothing");
        }
        return 0;
    }
    // Every section the parser reports is there to be read, as the plug-in would read it.
    for (const std::string& section : properties.SectionNames()) {
        for (const auto& [key, value] : properties.Section(section)) {
            std::string found;
            if (!properties.GetProperty(section, key, found) || found != value) {
                Violation("a key of a loaded section cannot be read back");
            }
        }
    }
    THostConfig config;
    if (CStatus read = CHostConfig::Read(properties, kConfigPath, config); !read) {
        if (read.Message().find(kConfigPath) == std::string::npos) {
            Violation("a rejected configuration does not name its file");
        }
        return 0;
    }
    if (config.tickMs < 1 || config.feature.empty()) {
        Violation("an accepted configuration breaks the host's limits");
    }
    return 0;
}
