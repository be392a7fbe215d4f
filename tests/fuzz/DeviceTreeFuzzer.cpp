// Arbitrary bytes as the device-tree export "/dev/fdtexport" (through the in-process stand-in),
// read by CModemLoader::HasIntegratedGPRS: the kernel's export is the boot firmware's blob, and
// a corrupt one must give an answer, not a crash.
//
// The check keeps the export's descriptor and mapping open for the life of the process, by
// design; CExportLeftovers releases them after each input.

#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "ExportLeftovers.h"
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
    static CExportLeftovers leftovers({BlobPath()});
    leftovers.Reclaim();
    return 0;
}
