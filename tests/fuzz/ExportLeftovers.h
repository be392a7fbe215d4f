#pragma once
// Closes what the device-tree check leaves open on the export, between fuzz inputs.
//
// CModemLoader::HasIntegratedGPRS keeps the export's descriptor and mapping for the life of the
// process, by design: it runs once per install request. A fuzzing process makes millions of
// requests and would run out of descriptors. After each input, Reclaim closes every descriptor
// of this process open on one of the blob files that stood for the export, and unmaps every
// mapping of them, as /proc/self lists them; nothing else is touched. It looks only when the
// export was opened since the last time (FdtExportOpenCount), so it costs nothing otherwise.

#include <string>
#include <vector>

class CExportLeftovers {
public:
    explicit CExportLeftovers(std::vector<std::string> blobFiles);

    // Returns how many descriptors and mappings it released.
    std::size_t Reclaim();

private:
    std::vector<std::string> m_blobFiles;
    unsigned m_openCount = 0;
};
