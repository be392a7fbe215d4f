#include "Footprint.h"

#include <sys/stat.h>

#include <sstream>

#include "ChildProcess.h"
#include "MountTable.h"

namespace {
CStatus FileBytes(const std::string& path, std::size_t& bytes) {
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0) {
        return CStatus::Failure("examining " + path);
    }
    bytes = static_cast<std::size_t>(status.st_size);
    return CStatus::Ok();
}
}  // namespace

std::size_t TFootprint::DependencyBytes() const {
    std::size_t total = 0;
    for (const TDependency& dependency : dependencies) {
        total += dependency.bytes;
    }
    return total;
}

CStatus CFootprintMeasure::MeasureStripped(const std::string& plugin, const std::string& strip,
                                           const std::string& scratchFolder,
                                           TFootprint& footprint) {
    footprint = TFootprint();
    if (CStatus status = FileBytes(plugin, footprint.builtBytes); !status) {
        return status;
    }
    const std::string stripped = scratchFolder + "/libmodemloader.stripped.so";
    const TChildResult stripRun = CChildProcess::Run({strip, "-o", stripped, plugin});
    if (stripRun.exitCode != 0) {
        return CStatus::Failure(strip + " " + plugin + ": " + Describe(stripRun));
    }
    return FileBytes(stripped, footprint.strippedBytes);
}

CStatus CFootprintMeasure::Measure(const std::string& plugin, const std::string& scratchFolder,
                                   TFootprint& footprint) {
    if (CStatus status = MeasureStripped(plugin, "strip", scratchFolder, footprint); !status) {
        return status;
    }

    // ldd prints "libfdt.so.1 => /lib/x86_64-linux-gnu/libfdt.so.1 (0x...)" for a library
    // found by name and "/lib64/ld-linux-x86-64.so.2 (0x...)" for the dynamic loader; the
    // kernel's vDSO has no file.
    const TChildResult ldd = CChildProcess::Run({"ldd", plugin});
    if (ldd.exitCode != 0) {
        return CStatus::Failure("ldd " + plugin + ": " + Describe(ldd));
    }
    std::istringstream lines(ldd.out);
    std::string line;
    while (std::getline(lines, line)) {
        std::istringstream fields(line);
        std::string name, arrow, path;
        fields >> name >> arrow;
        if (arrow == "=>") {
            fields >> path;
        } else if (!name.empty() && name[0] == '/') {
            path = name;
        }
        if (path.empty() || path[0] != '/') {
            continue;
        }
        TDependency dependency;
        dependency.name = name.substr(name.rfind('/') + 1);
        dependency.path = ResolvedPath(path);
        if (CStatus status = FileBytes(dependency.path, dependency.bytes); !status) {
            return status.WithContext("dependency " + name);
        }
        footprint.dependencies.push_back(dependency);
    }
    if (footprint.dependencies.empty()) {
        return CStatus::Failure("ldd " + plugin + " named no dependency: " + ldd.out);
    }
    return CStatus::Ok();
}
