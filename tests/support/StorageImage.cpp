#include "StorageImage.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <thread>

#include "ChildProcess.h"
#include "MountTable.h"

int RunProgram(const std::vector<std::string>& arguments, std::string* output) {
    TChildOptions options;
    options.timeout = std::chrono::minutes(2);
    const TChildResult result = CChildProcess::Run(arguments, options);
    if (output != nullptr) {
        *output = result.out;
    }
    return result.started ? result.exitCode : -1;
}

std::string CStorageImage::MissingPrerequisite() {
    if (geteuid() != 0) {
        return "mounting a storage image needs root";
    }
    if (access("/dev/loop-control", R_OK | W_OK) != 0) {
        return "no /dev/loop-control: loop devices are not available";
    }
    for (const char* program : {"mkfs.ext4", "tune2fs", "debugfs"}) {
        if (!IsInPath(program)) {
            return std::string(program) + " is not installed (e2fsprogs)";
        }
    }
    return std::string();
}

CStorageImage::CStorageImage(std::size_t sizeBytes)
    : m_image(m_directory.Path() + "/movinand.img"), m_mountPoint(m_directory.Path() + "/mnt") {
    if (mkdir(m_mountPoint.c_str(), 0755) != 0) {
        m_error = "cannot make " + m_mountPoint;
        return;
    }
    const int image = open(m_image.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644);
    const bool sized = image >= 0 && ftruncate(image, static_cast<off_t>(sizeBytes)) == 0;
    if (image >= 0) {
        close(image);
    }
    if (!sized) {
        m_error = "cannot make an image of " + std::to_string(sizeBytes) + " bytes at " + m_image;
        return;
    }
    if (RunProgram({"mkfs.ext4", "-q", "-F", m_image}) != 0) {
        m_error = "mkfs.ext4 failed on " + m_image;
    }
}

CStorageImage::~CStorageImage() {
    if (IsMounted()) {
        umount2(m_mountPoint.c_str(), MNT_DETACH);
    }
}

bool CStorageImage::MakeReadOnlyFileSystem() {
    return RunProgram({"tune2fs", "-O", "read-only", m_image}) == 0;
}

bool CStorageImage::MakeFolderOnImage(const std::string& relativePath) {
    RunProgram({"debugfs", "-w", "-R", "mkdir /" + relativePath, m_image});
    // debugfs reports its own errors only on standard error: look for the folder instead.
    const std::size_t slash = relativePath.rfind('/');
    const std::string parent = slash == std::string::npos ? "" : relativePath.substr(0, slash);
    const std::string name =
        slash == std::string::npos ? relativePath : relativePath.substr(slash + 1);
    const auto names = ListImageFolder(parent);
    return std::find(names.begin(), names.end(), name) != names.end();
}

bool CStorageImage::ReadFromImage(const std::string& relativePath, std::string& content) const {
    std::string listing;
    // "stat" succeeds only for an existing inode; "cat" prints nothing for a missing one.
    if (RunProgram({"debugfs", "-R", "stat /" + relativePath, m_image}, &listing) != 0 ||
        listing.find("Inode:") == std::string::npos) {
        return false;
    }
    return RunProgram({"debugfs", "-R", "cat /" + relativePath, m_image}, &content) == 0;
}

std::vector<std::string> CStorageImage::ListImageFolder(const std::string& relativePath) const {
    std::string listing;
    RunProgram({"debugfs", "-R", "ls -p /" + relativePath, m_image}, &listing);
    // One entry a line: /inode/mode/uid/gid/name/size/
    std::vector<std::string> names;
    std::istringstream lines(listing);
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

bool CStorageImage::AwaitNoLoopDevice(std::chrono::milliseconds timeout) const {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!AttachedLoopDevices().empty()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}
