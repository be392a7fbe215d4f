#include "ArchiveLoader.h"

#include <cstdio>
#include <utility>

#include "FileHandler.h"
#include "ModemLoaderLog.h"

namespace {
constexpr char kLogSourceFile[] = "features/component/ModemLoader/src/ArchiveLoader";

// The host's log analysis knows each of the installation's messages by its line.
constexpr int kLineMountFailed = 74;
constexpr int kLineBootloaderCopyFailed = 125;
constexpr int kLineFirmwareCopyFailed = 136;
constexpr int kLineDaemonConfigCopyFailed = 147;
constexpr int kLineProductConfigCopyFailed = 158;
constexpr int kLineCopied = 169;
constexpr int kLineFlagFileFailed = 180;
constexpr int kLineCopyPhaseFailed = 190;
constexpr int kLineUnmountFailed = 202;

constexpr int32_t kPrepareFailed = 1;
constexpr int32_t kInstallFailed = 2;

const unsigned char* Bytes(const std::string& text) {
    return reinterpret_cast<const unsigned char*>(text.c_str());
}

// The source's file name with its leading "/". A path without "/" (or an empty one) has none:
// substr then throws std::out_of_range ("basic_string::substr"), which leaves Install with the
// storage still mounted and no completion reported. Callers have always seen it so; it is kept.
std::string FileNameTail(const std::string& sourcePath) {
    return sourcePath.substr(sourcePath.rfind('/'));
}
}  // namespace

CArchiveLoader::CArchiveLoader(std::string& name, IEventBroker& /*eventBroker*/,
                               const IFeatureProperties& properties, ILoaderCallback& callback)
    : m_name(name), m_properties(properties), m_callback(callback), m_failureMark(0) {}

CArchiveLoader::~CArchiveLoader() {}

bool CArchiveLoader::FillProperties() {
    const std::pair<const char*, std::string*> keys[] = {
        {"bootloader", &m_bootloader},     {"firmware", &m_firmware},
        {"daemonconfig", &m_daemonConfig}, {"productconfig", &m_productConfig},
        {"flagfile", &m_flagFile},         {"mountpoint", &m_mountPoint},
        {"movinand", &m_movinand},         {"targetfolder", &m_targetFolder},
    };
    for (const auto& [key, member] : keys) {
        if (!m_properties.GetProperty(m_name, key, *member)) {
            return false;
        }
    }
    return true;
}

bool CArchiveLoader::Prepare() {
    if (!FillProperties()) {
        m_failureMark = kPrepareFailed;
        return false;
    }
    return true;
}

void CArchiveLoader::Install() {
    const bool mounted = IFileHandler::Mount(Bytes(m_movinand), Bytes(m_mountPoint),
                                             IFileHandler::eFormatMovinand) == 0;
    bool allCopied = false;
    if (!mounted) {
        MODEMLOADER_LOG(Error, kLineMountFailed, "Couldn't mount " << m_movinand);
    } else {
        const std::string targetFolder = m_mountPoint + "/" + m_targetFolder;
        // Only a folder reported missing is made; whether making it worked shows in the copies.
        if (IFileHandler::FolderExists(Bytes(targetFolder)) == IFileHandler::kFolderMissing) {
            IFileHandler::MakeFolder(Bytes(targetFolder));
        }
        // Every destination is built before the first copy, so a slash-less source path leaves
        // Install with nothing copied.
        const std::string bootloaderDestination = targetFolder + FileNameTail(m_bootloader);
        const std::string firmwareDestination = targetFolder + FileNameTail(m_firmware);
        const std::string daemonConfigDestination = targetFolder + FileNameTail(m_daemonConfig);
        const std::string productConfigDestination = targetFolder + FileNameTail(m_productConfig);

        // All four copies are always attempted, so that one log names every file that failed.
        allCopied = true;
        if (IFileHandler::CopyFile(Bytes(m_bootloader), Bytes(bootloaderDestination)) != 0) {
            MODEMLOADER_LOG(Error, kLineBootloaderCopyFailed,
                            "Unable to copy bootloader to " << bootloaderDestination);
            allCopied = false;
        }
        if (IFileHandler::CopyFile(Bytes(m_firmware), Bytes(firmwareDestination)) != 0) {
            MODEMLOADER_LOG(Error, kLineFirmwareCopyFailed,
                            "Unable to copy firmware to " << firmwareDestination);
            allCopied = false;
        }
        if (IFileHandler::CopyFile(Bytes(m_daemonConfig), Bytes(daemonConfigDestination)) != 0) {
            MODEMLOADER_LOG(Error, kLineDaemonConfigCopyFailed,
                            "Unable to copy daemon config file to " << daemonConfigDestination);
            allCopied = false;
        }
        if (IFileHandler::CopyFile(Bytes(m_productConfig), Bytes(productConfigDestination)) != 0) {
            MODEMLOADER_LOG(Error, kLineProductConfigCopyFailed,
                            "Unable to copy product config file to " << productConfigDestination);
            allCopied = false;
        }
    }

    if (allCopied) {
        MODEMLOADER_LOG(Always, kLineCopied, "Copied files to movinand");
        // The flag file sits beside the target folder, not in it, and stays empty: its presence
        // alone tells the device that a complete set of update files is on the storage.
        const std::string flagFile = m_mountPoint + "/" + m_flagFile;
        FILE* flag = IFileHandler::FOpen(Bytes(flagFile), "w");
        if (flag == nullptr) {
            MODEMLOADER_LOG(Error, kLineFlagFileFailed, "Unable to create flag file " << flagFile);
            m_failureMark = kInstallFailed;
        } else {
            IFileHandler::FClose(flag);
        }
    } else {
        MODEMLOADER_LOG(Error, kLineCopyPhaseFailed, "Unable to copy files to movinand");
        m_failureMark = kInstallFailed;
    }
    IFileHandler::Sync();

    if (mounted && IFileHandler::Umount(Bytes(m_mountPoint)) != 0) {
        // The files are flushed already; a storage left mounted does not change the outcome.
        MODEMLOADER_LOG(Error, kLineUnmountFailed, "Unable to unmount " << m_mountPoint);
    }
    Terminate();
}

void CArchiveLoader::Abort() { m_callback.Aborted(); }

void CArchiveLoader::Terminate() {
    m_callback.Completed(m_failureMark == 0 ? LOADER_SUCCEEDED : LOADER_FAILED);
}
