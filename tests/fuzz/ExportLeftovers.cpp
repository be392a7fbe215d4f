#include "ExportLeftovers.h"

#include <dirent.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <utility>

#include "FdtExportInterposer.h"

namespace {
bool EndsWith(const std::string& text, const std::string& end) {
    return text.size() >= end.size() &&
           text.compare(text.size() - end.size(), end.size(), end) == 0;
}
}  // namespace

CExportLeftovers::CExportLeftovers(std::vector<std::string> blobFiles)
    : m_blobFiles(std::move(blobFiles)), m_openCount(FdtExportOpenCount()) {}

std::size_t CExportLeftovers::Reclaim() {
    const unsigned openCount = FdtExportOpenCount();
    if (openCount == m_openCount) {
        return 0;
    }
    m_openCount = openCount;
    auto isBlob = [this](const std::string& path) {
        return std::any_of(m_blobFiles.begin(), m_blobFiles.end(),
                           [&path](const std::string& blob) { return EndsWith(path, blob); });
    };

    std::vector<std::pair<uintptr_t, uintptr_t>> mappings;
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);) {
        if (!isBlob(line)) {
            continue;
        }
        std::istringstream fields(line);
        uintptr_t start = 0;
        uintptr_t end = 0;
        char dash = 0;
        fields >> std::hex >> start >> dash >> end;
        mappings.emplace_back(start, end);
    }
    for (const auto& [start, end] : mappings) {
        munmap(reinterpret_cast<void*>(start), end - start);
    }

    std::vector<int> descriptors;
    if (DIR* folder = opendir("/proc/self/fd")) {
        while (dirent* entry = readdir(folder)) {
            const std::string link = std::string("/proc/self/fd/") + entry->d_name;
            char target[4096];
            const ssize_t length = readlink(link.c_str(), target, sizeof target - 1);
            if (length > 0 && isBlob(std::string(target, static_cast<std::size_t>(length)))) {
                descriptors.push_back(std::atoi(entry->d_name));
            }
        }
        closedir(folder);
    }
    for (int descriptor : descriptors) {
        close(descriptor);
    }
    return mappings.size() + descriptors.size();
}
