#pragma once
// The command line of modemloader-host, parsed with CLI11:
//   modemloader-host update --config FILE [--plugin PATH] [--feature NAME] [--tick-ms N]
//                           [--trace FILE] [--abort-after-ms N] [--timeout S] [--quiet]
//                           [--insecure-permissions]
//   modemloader-host info --plugin PATH [--insecure-permissions]
//   modemloader-host --help
// A wrong command line is a failure whose message names the problem; the caller exits 2.

#include <cstdint>
#include <optional>
#include <string>

#include "Status.h"

struct THostOptions {
    enum class TCommand { eHelp, eUpdate, eInfo };

    TCommand command = TCommand::eHelp;
    std::string configPath;
    std::optional<std::string> pluginPath;  // overrides [host] plugin
    std::optional<std::string> feature;     // overrides [host] feature
    std::optional<uint32_t> tickMs;         // overrides [host] tick_ms
    std::string tracePath;                  // empty: no trace
    std::optional<uint32_t> abortAfterMs;   // Abort this long after Install
    double timeoutSeconds = 600.0;          // for the whole conversation, until 205
    bool quiet = false;                     // no progress output
    bool insecurePermissions = false;  // skip the ownership and mode checks (FilePermissions.h)
};

class CCommandLine {
public:
    // Fills `options` from argv; a failure says which argument is wrong.
    [[nodiscard]] static CStatus Parse(int argc, const char* const* argv, THostOptions& options);
    // The help text, generated from the same grammar that parses.
    static std::string Usage();
};
