#include "ModemLoader.h"

#include <fcntl.h>
#include <libfdt.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "ArchiveLoader.h"
#include "FakeLoader.h"
#include "FileHandler.h"
#include "ImageLoader.h"
#include "ModemLoaderLog.h"
#include "PlatSafecopy.h"

namespace {
constexpr char kLogSourceFile[] = "features/component/ModemLoader/src/ModemLoader";
constexpr char kFeatureType[] = "modemloader";
constexpr char kFdtExportPath[] = "/dev/fdtexport";

// Only the first three characters of a revision decide whether the modem is up to date.
constexpr std::size_t kRevisionCompareLength = 3;
// The revision file holds exactly four bytes of the configured revision, no line end.
constexpr std::size_t kRevisionWriteLength = 4;
constexpr int kRevisionLineSize = 32;

const unsigned char* Bytes(const std::string& text) {
    return reinterpret_cast<const unsigned char*>(text.c_str());
}

std::string PayloadText(const TEvent& event) {
    return event.size == 0 ? std::string()
                           : std::string(static_cast<const char*>(event.data), event.size);
}

// A blob may be corrupt or cut short. Before libfdt walks it, make sure its header is one libfdt
// accepts and that it claims no more bytes than were mapped, so no lookup can read outside the
// mapping. A bad blob is then treated as one without the "/features" node.
bool IsUsableBlob(const void* blob, off_t mappedSize) {
    if (static_cast<std::size_t>(mappedSize) < sizeof(struct fdt_header)) {
        return false;
    }
    if (fdt_check_header(blob) != 0 || fdt_totalsize(blob) > static_cast<uint32_t>(mappedSize)) {
        return false;
    }
    // libfdt's full check dereferences a null name in trees of a version before 16 (whose nodes
    // carry whole paths), although its header check accepts them; the kernel's export and dtc
    // write version 17.
    if (fdt_version(blob) < 16) {
        return false;
    }
    return fdt_check_full(blob, fdt_totalsize(blob)) == 0;
}
}  // namespace

extern "C" __attribute__((visibility("default"))) const char* FeatureType() { return kFeatureType; }

extern "C" __attribute__((visibility("default"))) IFeatureModule2* FeatureCreate2(
    const std::string& name, IInterfaceBroker& interfaces, IEventBroker& events,
    const IFeatureProperties& properties) {
    return new CModemLoader(name, interfaces, events, properties);
}

// The interface broker is accepted and neither kept nor used.
CModemLoader::CModemLoader(const std::string& name, IInterfaceBroker& /*interfaces*/,
                           IEventBroker& eventBroker, const IFeatureProperties& properties)
    : m_name(name), m_properties(properties), m_eventBroker(eventBroker) {
    std::memset(m_fdtDevice, 0, sizeof m_fdtDevice);
    SubscribeEvents();
    ILoaderCallback& callback = *this;
    m_imageLoader.reset(new CImageLoader(m_name, m_eventBroker, m_properties, callback));
    m_archiveLoader.reset(new CArchiveLoader(m_name, m_eventBroker, m_properties, callback));
    // Created once and never deleted: it outlives the module object.
    m_fakeLoader = new CFakeLoader(m_name, m_eventBroker, m_properties, callback);
}

CModemLoader::~CModemLoader() {
    m_imageLoader.reset();
    m_archiveLoader.reset();
    UnsubscribeEvents();
}

void CModemLoader::SubscribeEvents() {
    IEventObserver& observer = *this;
    const std::pair<TEvent*, int32_t> filters[] = {{&m_initFilter, EVT_CONTROLLER_INIT},
                                                   {&m_prepareFilter, EVT_CONTROLLER_PREPARE},
                                                   {&m_installFilter, EVT_CONTROLLER_INSTALL},
                                                   {&m_abortFilter, EVT_CONTROLLER_ABORT}};
    for (const auto& [filter, id] : filters) {
        filter->type = EVENT_TYPE_USER;
        filter->id = id;
        m_eventBroker.Subscribe(*filter, observer);
    }
}

// The Init registration is deliberately left in place (only Prepare, Install and Abort are
// removed), so a host must stop delivering Init itself once it has deleted the module.
void CModemLoader::UnsubscribeEvents() {
    IEventObserver& observer = *this;
    m_eventBroker.Unsubscribe(m_prepareFilter, observer);
    m_eventBroker.Unsubscribe(m_installFilter, observer);
    m_eventBroker.Unsubscribe(m_abortFilter, observer);
}

void CModemLoader::OnEvent(const TEvent& event) {
    if (event.type != EVENT_TYPE_USER) {
        MODEMLOADER_LOG(Error, __LINE__, "Unexpected event: " << event.type);
        return;
    }
    switch (event.id) {
        case EVT_CONTROLLER_INIT:
            HandleControllerInit();
            break;
        case EVT_CONTROLLER_PREPARE:
            if (PayloadText(event) == m_name) {
                HandleControllerPrepare();
            }
            break;
        case EVT_CONTROLLER_INSTALL:
            if (PayloadText(event) == m_name) {
                HandleControllerInstall();
            }
            break;
        case EVT_CONTROLLER_ABORT:
            // Whatever module the abort names, this module's current loader is aborted.
            HandleControllerAbort();
            break;
        default:
            MODEMLOADER_LOG(Error, __LINE__, "Unexpected user event received: " << event.id);
            break;
    }
}

bool CModemLoader::ParseProperties() {
    struct TKey {
        const char* key;
        std::string CModemLoader::*member;
        const char* missingMessage;
    };
    // The control pin is read from "control" while its message names 'controlpin'; the host's
    // log analysis knows the message by that text.
    static const TKey kKeys[] = {
        {"control", &CModemLoader::m_controlPin, "Failed to retrieve 'controlpin' property"},
        {"revision", &CModemLoader::m_revision, "Failed to retrieve 'revision' property"},
        {"mountpoint", &CModemLoader::m_mountPoint, "Failed to retrieve 'mountpoint' property"},
        {"movinand", &CModemLoader::m_movinand, "Failed to retrieve 'movinand' property"},
        {"revisionfile", &CModemLoader::m_revisionFile,
         "Failed to retrieve 'revisionfile' property"},
        {"flagfile", &CModemLoader::m_flagFile, "Failed to retrieve 'flagfile' property"},
        {"bootloader", &CModemLoader::m_bootloader, "Failed to retrieve 'bootloader' property"},
        {"firmware", &CModemLoader::m_firmware, "Failed to retrieve 'firmware' property"},
        {"productconfig", &CModemLoader::m_productConfig,
         "Failed to retrieve 'productconfig' property"},
        {"daemonconfig", &CModemLoader::m_daemonConfig,
         "Failed to retrieve 'daemonconfig' property"},
        {"removable", &CModemLoader::m_removable, "Failed to retrieve 'removable' property"},
    };
    // Every key is read and every missing one logged, so one Init shows all that is wrong.
    bool allFound = true;
    for (const TKey& key : kKeys) {
        if (!m_properties.GetProperty(m_name, std::string(key.key), this->*key.member)) {
            MODEMLOADER_LOG(Error, __LINE__, key.missingMessage);
            allFound = false;
        }
    }
    return allFound;
}

bool CModemLoader::HasIntegratedGPRS() {
    std::strncpy(m_fdtDevice, kFdtExportPath, sizeof m_fdtDevice);

    // The descriptor and the mapping are left open for the life of the process: the check runs at
    // most once per install request and the blob is the kernel's export of the boot firmware's
    // tree.
    const void* blob = nullptr;
    struct stat status;
    if (stat(m_fdtDevice, &status) == 0) {
        if (!S_ISCHR(status.st_mode)) {
            MODEMLOADER_LOG(Error, __LINE__, "no character device!\n");
        } else {
            const int descriptor = open(m_fdtDevice, O_RDONLY);
            if (descriptor < 0) {
                MODEMLOADER_LOG(Error, __LINE__, "open failure\n");
            } else {
                // A failing lseek yields -1, which the mapping below rejects.
                const off_t size = lseek(descriptor, 0, SEEK_END);
                if (size != 0) {
                    void* mapping = mmap(nullptr, static_cast<std::size_t>(size), PROT_READ,
                                         MAP_SHARED, descriptor, 0);
                    if (mapping == MAP_FAILED) {
                        MODEMLOADER_LOG(Error, __LINE__, "mmap failed\n");
                        return false;
                    }
                    blob = IsUsableBlob(mapping, size) ? mapping : nullptr;
                }
            }
        }
    }

    MODEMLOADER_LOG(Always, __LINE__, "trying to check node");
    const int node = blob != nullptr ? fdt_path_offset(blob, "/features") : -FDT_ERR_NOTFOUND;
    if (node < 0) {
        MODEMLOADER_LOG(Error, __LINE__, "FDT path offset");
        return false;
    }
    const void* property = fdt_getprop(blob, node, "has-gprs", nullptr);
    if (property == nullptr) {
        return false;
    }
    // One big-endian cell; its length is not examined.
    uint32_t cell = 0;
    std::memcpy(&cell, property, sizeof cell);
    if (fdt32_to_cpu(cell) != 1) {
        return false;
    }
    MODEMLOADER_LOG(Always, __LINE__, "GPRS modem specified in FDT data");
    return true;
}

void CModemLoader::HandleControllerInit() {
    if (ParseProperties()) {
        m_controlPinPresent = IFileHandler::FileExists(Bytes(m_controlPin)) == 0 ? 1 : 0;
    }
    // The reply carries the module name only, not whether the properties were complete.
    TEvent reply{EVENT_TYPE_USER, EVT_CONTROLLER_INIT_DONE, static_cast<uint32_t>(m_name.size()),
                 m_name.data()};
    m_eventBroker.Publish(reply);
}

void CModemLoader::HandleControllerPrepare() {
    // A stale mount would hide the storage's own revision file.
    if (IFileHandler::Umount(Bytes(m_mountPoint)) != 0) {
        MODEMLOADER_LOG(Error, __LINE__, "Couldn't umount " << m_mountPoint);
    }
    if (IFileHandler::Mount(Bytes(m_movinand), Bytes(m_mountPoint),
                            IFileHandler::eFormatMovinand) != 0) {
        MODEMLOADER_LOG(Error, __LINE__, "Couldn't mount " << m_movinand);
        PublishReply(EVT_CONTROLLER_PREPARE_DONE, 0);
        return;
    }

    const std::string revisionPath = StoragePath(m_revisionFile);
    if (IFileHandler::FileExists(Bytes(revisionPath)) == 0) {
        FILE* file = IFileHandler::FOpen(Bytes(revisionPath), "r");
        if (file != nullptr) {
            char line[kRevisionLineSize];
            if (IFileHandler::FGets(line, sizeof line, file) != nullptr) {
                const std::string stored(line);
                MODEMLOADER_LOG(Always, __LINE__, "current version: " << stored);
                if (stored.substr(0, kRevisionCompareLength) ==
                    m_revision.substr(0, kRevisionCompareLength)) {
                    MODEMLOADER_LOG(Always, __LINE__, "Modem already up to date");
                    m_updateNeeded = 0;
                }
            }
            IFileHandler::FClose(file);
        }
    }

    if (IFileHandler::Umount(Bytes(m_mountPoint)) != 0) {
        MODEMLOADER_LOG(Error, __LINE__, "Unable to unmount " << m_mountPoint);
    }
    PreparedLoader().Prepare();
    PublishReply(EVT_CONTROLLER_PREPARE_DONE, 1);
}

// Without an integrated GPRS modem the installation is simulated, although Prepare and Abort
// address the real loader: the host expects exactly that split.
void CModemLoader::HandleControllerInstall() {
    if (m_updateNeeded == 0 || !HasIntegratedGPRS()) {
        m_fakeLoader->Install();
        return;
    }
    (m_controlPinPresent != 0 ? *m_imageLoader : *m_archiveLoader).Install();
}

void CModemLoader::HandleControllerAbort() { PreparedLoader().Abort(); }

ILoader& CModemLoader::PreparedLoader() {
    if (m_updateNeeded == 0) {
        return *m_fakeLoader;
    }
    return m_controlPinPresent != 0 ? *m_imageLoader : *m_archiveLoader;
}

void CModemLoader::Progress(unsigned int remaining, unsigned int total) {
    unsigned char percent = 100;
    if (total != 0) {
        // Unsigned on purpose: more remaining than total wraps and reports above 100.
        const uint32_t done = total - remaining;
        const double value = 0.5 + (static_cast<double>(done) / static_cast<double>(total)) * 100.0;
        const uint32_t whole = value >= 4294967295.0 ? UINT32_MAX : static_cast<uint32_t>(value);
        percent = static_cast<unsigned char>(whole & 0xFFu);
    }
    HandleLoaderProgress(percent);
}

void CModemLoader::Completed(int result) {
    if (result == LOADER_FAILED) {
        HandleLoaderFailed();
    } else {
        HandleLoaderCompleted();
    }
}

void CModemLoader::Aborted() { HandleLoaderAborted(); }

void CModemLoader::HandleLoaderProgress(unsigned char percent) {
    TControllerProgress progress;
    std::memset(&progress, 0, sizeof progress);
    platSafecopy(progress.name, sizeof progress.name, m_name.c_str(), m_name.size() + 1);
    progress.percent = percent;
    const TEvent event{EVENT_TYPE_USER, EVT_CONTROLLER_PROGRESS, sizeof progress, &progress};
    m_eventBroker.Publish(event);
}

void CModemLoader::HandleLoaderFailed() { PublishReply(EVT_CONTROLLER_INSTALL_DONE, 0); }

void CModemLoader::HandleLoaderAborted() { PublishReply(EVT_CONTROLLER_ABORTED, 1); }

// Finishes an update on the storage. Only the control pin decides: a fake installation on a
// device with a control pin rewrites the revision and removes the sources all the same.
void CModemLoader::HandleLoaderCompleted() {
    if (m_controlPinPresent == 0) {
        // The archive loader has left everything on the storage already.
        PublishReply(EVT_CONTROLLER_INSTALL_DONE, 1);
        return;
    }
    if (IFileHandler::Umount(Bytes(m_mountPoint)) != 0) {
        MODEMLOADER_LOG(Error, __LINE__, "Couldn't umount " << m_mountPoint);
    }
    if (IFileHandler::Mount(Bytes(m_movinand), Bytes(m_mountPoint),
                            IFileHandler::eFormatMovinand) != 0) {
        MODEMLOADER_LOG(Error, __LINE__, "Couldn't mount " << m_movinand);
        PublishReply(EVT_CONTROLLER_INSTALL_DONE, 0);
        return;
    }
    const std::string flagPath = StoragePath(m_flagFile);
    const std::string revisionPath = StoragePath(m_revisionFile);

    // A revision file that cannot be opened is silently not written; the update still counts.
    int32_t outcome = 1;
    FILE* file = IFileHandler::FOpen(Bytes(revisionPath), "w");
    if (file != nullptr) {
        char revision[kRevisionWriteLength] = {};
        std::memcpy(revision, m_revision.c_str(),
                    std::min(m_revision.size() + 1, kRevisionWriteLength));
        if (IFileHandler::FWrite(revision, 1, kRevisionWriteLength, file) != kRevisionWriteLength) {
            MODEMLOADER_LOG(Error, __LINE__, "Could not write new revision");
            outcome = 0;
        }
        IFileHandler::FClose(file);
    }

    if (!m_removable.empty() && m_removable[0] == '1' && outcome == 1) {
        const std::pair<const std::string*, const char*> removals[] = {
            {&flagPath, "Could not remove flagfile"},
            {&m_bootloader, "Could not remove bootloader"},
            {&m_firmware, "Could not remove firmware"},
            {&m_daemonConfig, "Could not remove daemon config"},
            {&m_productConfig, "Could not remove product config"},
        };
        // Every removal is attempted; a file that is already gone does not spoil the outcome.
        for (const auto& [path, failureMessage] : removals) {
            if (IFileHandler::RemoveFile(Bytes(*path)) == IFileHandler::kRemoveFailed) {
                MODEMLOADER_LOG(Error, __LINE__, failureMessage);
                outcome = 0;
            }
        }
    }

    if (IFileHandler::Umount(Bytes(m_mountPoint)) != 0) {
        MODEMLOADER_LOG(Error, __LINE__, "Unable to unmount " << m_mountPoint);
    }
    PublishReply(EVT_CONTROLLER_INSTALL_DONE, outcome);
}

void CModemLoader::PublishReply(int32_t id, int32_t outcome) {
    TControllerReply reply;
    std::memset(&reply, 0, sizeof reply);
    platSafecopy(reply.name, sizeof reply.name, m_name.c_str(), m_name.size() + 1);
    reply.outcome = outcome;
    const TEvent event{EVENT_TYPE_USER, id, sizeof reply, &reply};
    m_eventBroker.Publish(event);
}

std::string CModemLoader::StoragePath(const std::string& name) const {
    return m_mountPoint + "/" + name;
}
