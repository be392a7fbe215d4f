#pragma once
// The plug-in's process-wide variables, put back to their load-time values before every input.
//
// The plug-in keeps counters and flags at file scope that are never reset (the fake loader's
// ticks, the image loader's sync attempts, its erase and write progress, its firmware stream), so
// that a second update in the same process continues where the first one stopped. A fuzzing
// process runs thousands of updates; without this, each input would start from whatever the
// inputs before it left behind, and a finding could not be replayed on its own. With it, every
// input plays the first update after the device booted.
//
// The variables are found in this executable's own symbol table: every local data object defined
// in one of the plug-in's source files (the file symbols, which carry the source's file name,
// tell which). Nothing in the plug-in is changed for this, and a new counter is covered without
// touching the harness. Needs an unstripped executable (the fuzz and test builds are).

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

class CPluginState {
public:
    // Records the current bytes of every file-scope variable defined in one of `pluginSources`
    // (file names separated by ",", as "ImageLoader.cpp,FakeLoader.cpp"). Call once, before the
    // plug-in runs.
    explicit CPluginState(const std::string& pluginSources);

    // Writes the recorded bytes back. No plug-in code may run meanwhile (the power workers of
    // the previous input must have ended).
    void Restore() const;

    // The variables found, by symbol name ("_ZN12_GLOBAL__N_110sFakeTicksE"), for the check that
    // the harness sees them at all.
    std::vector<std::string> Names() const;

private:
    struct TVariable {
        std::string name;
        uint8_t* address;
        std::vector<uint8_t> loadTimeBytes;
    };
    std::vector<TVariable> m_variables;
};
