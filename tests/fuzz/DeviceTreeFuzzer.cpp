// Arbitrary bytes as the device-tree export "/dev/fdtexport" (through the in-process stand-in),
// read by CModemLoader::HasIntegratedGPRS: the kernel's export is the boot firmware's blob, and
// a corrupt one must give an answer, not a crash.
//
// The check keeps the export's descriptor and mapping open for the life of the process, by
// design (it runs once per install request). A fuzzing process asks it millions of times, so
// after each call the harness closes the descriptors and unmaps the mappings of its own blob
// file, which it finds in /proc/self; nothing else of the process is touched.

#include <dirent.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "FdtExportInterposer.h"
#include "InterfaceBroker.h"
#include "LogCapture.h"
#include "MapProperties.h"
#include "ModemLoader.h"
#include "RecordingEventBroker.h"

namespace {

[[noreturn]] void Violation(const std::string& what) {
    std::fprintf(stderr, "device tree: %s\n", what.c_str());
    std::abort();
}

// The blob file behind the export, in a folder of its own that goes when the process ends.
class CBlobFile {
public:
    CBlobFile() {
        char folder[] = "/tmp/modemloader-fdt-fuzz-XXXXXX";
        if (mkdtemp(folder) == nullptr) {
            Violation("cannot make a folder for the blob");
        }
        m_folder = folder;
        m_path = m_folder + "/export.dtb";
    }
    ~CBlobFile() {
        unlink(m_path.c_str());
        rmdir(m_folder.c_str());
    }
    CBlobFile(const CBlobFile&) = delete;
    CBlobFile& operator=(const CBlobFile&) = delete;

    const std::string& Path() const { return m_path; }

private:
    std::string m_folder;
    std::string m_path;
};

const std::string& BlobPath() {
    static const CBlobFile file;
    return file.Path();
}

void WriteBlob(const uint8_t* data, std::size_t size) {
    const int descriptor = open(BlobPath().c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (descriptor < 0) {
        Violation("cannot write the blob");
    }
    std::size_t written = 0;
    while (written < size) {
        const ssize_t result = write(descriptor, data + written, size - written);
        if (result <= 0) {
            Violation("cannot write the blob");
        }
        written += static_cast<std::size_t>(result);
    }
    close(descriptor);
}

// Closes the descriptors and unmaps the mappings that the check left on the blob file.
void ReclaimExport() {
    const std::string& path = BlobPath();
    std::ifstream maps("/proc/self/maps");
    std::string line;
    std::vector<std::pair<uintptr_t, uintptr_t>> ranges;
    while (std::getline(maps, line)) {
        if (line.size() < path.size() ||
            line.compare(line.size() - path.size(), path.size(), path) != 0) {
            continue;
        }
        std::istringstream fields(line);
        uintptr_t start = 0;
        uintptr_t end = 0;
        char dash = 0;
        fields >> std::hex >> start >> dash >> end;
        ranges.emplace_back(start, end);
    }
    for (const auto& [start, end] : ranges) {
        munmap(reinterpret_cast<void*>(start), end - start);
    }
    DIR* descriptors = opendir("/proc/self/fd");
    if (descriptors == nullptr) {
        Violation("cannot list /proc/self/fd");
    }
    std::vector<int> toClose;
    while (dirent* entry = readdir(descriptors)) {
        const std::string link = std::string("/proc/self/fd/") + entry->d_name;
        char target[4096];
        const ssize_t length = readlink(link.c_str(), target, sizeof target - 1);
        if (length > 0 && std::string(target, static_cast<std::size_t>(length)) == path) {
            toClose.push_back(std::atoi(entry->d_name));
        }
    }
    closedir(descriptors);
    for (int descriptor : toClose) {
        close(descriptor);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    WriteBlob(data, size);
    FdtExportUse(eFdtExportCharDevice, BlobPath().c_str());

    std::string name = "modemloader";
    IInterfaceBroker interfaces;
    CRecordingEventBroker broker;
    CMapProperties properties;
    CLogCapture log;
    {
        CModemLoader module(name, interfaces, broker, properties);
        const bool present = module.HasIntegratedGPRS();
        // The only record that says yes is the one that comes with a yes.
        const bool saidYes =
            !log.Entries().empty() &&
            log.Entries().back() ==
                AlwaysEntry("HasIntegratedGPRS", "GPRS modem specified in FDT data");
        if (present != saidYes) {
            Violation("the answer and the log disagree");
        }
    }
    ReclaimExport();
    return 0;
}
