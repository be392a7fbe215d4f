#pragma once
// What installing the plug-in costs a device in storage: the plug-in stripped of its symbols
// and debug information (as a device image ships it; only its two exported entry points must
// stay), and the shared libraries it needs, as ldd(1) resolves them on this machine.

#include <cstddef>
#include <string>
#include <vector>

#include "Status.h"

struct TDependency {
    std::string name;  // as the plug-in names it ("libfdt.so.1")
    std::string path;  // the file ldd resolved it to, links followed
    std::size_t bytes = 0;
};

struct TFootprint {
    std::size_t builtBytes = 0;     // the plug-in as built
    std::size_t strippedBytes = 0;  // after strip(1)
    std::vector<TDependency> dependencies;

    std::size_t DependencyBytes() const;
};

class CFootprintMeasure {
public:
    // Strips a copy of `plugin` in `scratchFolder` and resolves its dependencies.
    [[nodiscard]] static CStatus Measure(const std::string& plugin,
                                         const std::string& scratchFolder, TFootprint& footprint);
    // Only the sizes as built and stripped, with `strip` (the target's own strip for a plug-in
    // built for another machine, which ldd cannot resolve here).
    [[nodiscard]] static CStatus MeasureStripped(const std::string& plugin,
                                                 const std::string& strip,
                                                 const std::string& scratchFolder,
                                                 TFootprint& footprint);
};
