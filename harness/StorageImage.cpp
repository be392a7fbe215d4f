#include "StorageImage.h"

#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <sstream>

#include "Await.h"
#include "ChildProcess.h"
#include "MountTable.h"

namespace {
// A storage program (mkfs.ext4, tune2fs, debugfs) to its end.
TChildResult RunStorageTool(const std::vector<std::string>& arguments) {
    TChildOptions options;
    options.timeout = std::chrono::minutes(2);
    return CChildProcess::Run(arguments, options);
}

CStatus Succeeded(const TChildResult& result, const std::string& what) {
    if (result.started && result.exitCode == 0) {
        return CStatus::Ok();
    }
    return CStatus::Failure(what + ": " + Describe(result));
}
}  // namespace

std::string CStorageImage::MissingPrerequisite() {
    if (::geteuid() != 0) {
        return "mounting a storage image needs root";
    }
    if (::access("/dev/loop-control", R_OK | W_OK) != 0) {
        return "no /dev/loop-control: loop devices are not available";
    }
    for (const char* program : {"mkfs.ext4", "tune2fs", "debugfs"}) {
        if (!IsInPath(program)) {
            return std::string(program) + " is not installed (e2fsprogs)";
        }
    }
    return std::string();
}

CStorageImage::CStorageImage(const std::string& folder)
    : m_folder(folder), m_image(folder + "/movinand.img"), m_mountPoint(folder + "/mnt") {}

CStorageImage::CStorageImage(std::size_t sizeBytes)
    : m_ownFolder(std::make_unique<CTemporaryDirectory>()),
      m_folder(m_ownFolder->Path()),
      m_image(m_folder + "/movinand.img"),
      m_mountPoint(m_folder + "/mnt") {
    m_made = m_ownFolder->Made() ? Make(sizeBytes) : m_ownFolder->Made();
}

CStorageImage::~CStorageImage() {
    if (!m_folder.empty() && IsMounted()) {
        ::umount2(m_mountPoint.c_str(), MNT_DETACH);
    }
    if (!m_folder.empty()) {
        AwaitNoLoopDevice();
    }
}

CStatus CStorageImage::Make(std::size_t sizeBytes, const std::string& contentFolder) {
    if (::mkdir(m_mountPoint.c_str(), 0755) != 0 && errno != EEXIST) {
        return m_made = CStatus::Failure("making " + m_mountPoint);
    }
    // Inode tables and journal written at once: no background initialisation of the file system
    // competes with what is measured or awaited on it later.
    std::vector<std::string> arguments{"mkfs.ext4", "-q", "-F", "-E",
                                       "lazy_itable_init=0,lazy_journal_init=0"};
    if (!contentFolder.empty()) {
        arguments.insert(arguments.end(), {"-d", contentFolder});
    }
    arguments.insert(arguments.end(), {m_image, std::to_string(sizeBytes / 1024) + "k"});
    return m_made = Succeeded(RunStorageTool(arguments), "mkfs.ext4 " + m_image);
}

CStatus CStorageImage::MakeReadOnlyFileSystem() const {
    if (CStatus released = AwaitReleased(); !released) {
        return released;
    }
    return Succeeded(RunStorageTool({"tune2fs", "-O", "read-only", m_image}), "tune2fs " + m_image);
}

CStatus CStorageImage::MakeWritableFileSystem() const {
    if (CStatus released = AwaitReleased(); !released) {
        return released;
    }
    return Succeeded(RunStorageTool({"tune2fs", "-O", "^read-only", m_image}),
                     "tune2fs " + m_image);
}

CStatus CStorageImage::RemoveFromImage(const std::string& relativePath) const {
    if (CStatus released = AwaitReleased(); !released) {
        return released;
    }
    static_cast<void>(RunStorageTool({"debugfs", "-w", "-R", "rm /" + relativePath, m_image}));
    // debugfs reports its own errors only on standard error: look for the file instead.
    const TChildResult found = RunStorageTool({"debugfs", "-R", "stat /" + relativePath, m_image});
    if (found.exitCode == 0 && found.out.find("Inode:") != std::string::npos) {
        return CStatus::Failure("debugfs left " + relativePath + " on " + m_image);
    }
    return CStatus::Ok();
}

CStatus CStorageImage::MakeFolderOnImage(const std::string& relativePath) const {
    if (CStatus released = AwaitReleased(); !released) {
        return released;
    }
    static_cast<void>(RunStorageTool({"debugfs", "-w", "-R", "mkdir /" + relativePath, m_image}));
    // debugfs reports its own errors only on standard error: look for the folder instead.
    const std::size_t slash = relativePath.rfind('/');
    const std::string parent = slash == std::string::npos ? "" : relativePath.substr(0, slash);
    const std::string name =
        slash == std::string::npos ? relativePath : relativePath.substr(slash + 1);
    const auto names = ListImageFolder(parent);
    if (std::find(names.begin(), names.end(), name) == names.end()) {
        return CStatus::Failure("debugfs made no folder " + relativePath + " on " + m_image);
    }
    return CStatus::Ok();
}

CStatus CStorageImage::ReadFromImage(const std::string& relativePath, std::string& content) const {
    if (CStatus released = AwaitReleased(); !released) {
        return released;
    }
    // "stat" succeeds only for an existing inode; "cat" prints nothing for a missing one.
    const TChildResult found = RunStorageTool({"debugfs", "-R", "stat /" + relativePath, m_image});
    if (found.exitCode != 0 || found.out.find("Inode:") == std::string::npos) {
        return CStatus::Failure("no " + relativePath + " on " + m_image);
    }
    const TChildResult read = RunStorageTool({"debugfs", "-R", "cat /" + relativePath, m_image});
    if (CStatus status = Succeeded(read, "debugfs cat /" + relativePath); !status) {
        return status;
    }
    content = read.out;
    return CStatus::Ok();
}

std::vector<std::string> CStorageImage::ListImageFolder(const std::string& relativePath) const {
    // A listing has no failure to return: an image still held is listed as it is.
    static_cast<void>(AwaitReleased());
    const TChildResult listing =
        RunStorageTool({"debugfs", "-R", "ls -p /" + relativePath, m_image});
    // One entry a line: /inode/mode/uid/gid/name/size/
    std::vector<std::string> names;
    std::istringstream lines(listing.out);
    std::string line;
    while (std::getline(lines, line)) {
        std::vector<std::string> fields;
        std::istringstream parts(line);
        std::string part;
        while (std::getline(parts, part, '/')) {
            fields.push_back(part);
        }
        if (fields.size() >= 6 && fields[5] != "." && fields[5] != ".." && !fields[5].empty()) {
            names.push_back(fields[5]);
        }
    }
    std::sort(names.begin(), names.end());
    return names;
}

bool CStorageImage::IsMounted() const { return IsMountPoint(m_mountPoint); }

std::vector<std::string> CStorageImage::AttachedLoopDevices() const {
    return LoopDevicesBackedBy(m_image);
}

CStatus CStorageImage::AwaitReleased() const {
    if (IsMounted() || AwaitNoLoopDevice()) {
        return CStatus::Ok();
    }
    std::string devices;
    for (const std::string& device : AttachedLoopDevices()) {
        devices += (devices.empty() ? "" : ", ") + device;
    }
    return CStatus::Failure(m_image + " is still held by " + devices +
                            ": its file system may not have reached the image yet");
}

bool CStorageImage::AwaitNoLoopDevice(std::chrono::milliseconds timeout) const {
    return Await([this] { return AttachedLoopDevices().empty(); }, timeout,
                 std::chrono::milliseconds(5));
}
