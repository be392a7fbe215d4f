#include "StorageImage.h"

#include <dirent.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <thread>

extern char** environ;

namespace {
std::string Resolved(const std::string& path) {
    char* resolved = realpath(path.c_str(), nullptr);
    if (resolved == nullptr) {
        return path;
    }
    std::string result = resolved;
    free(resolved);
    return result;
}

// /proc/self/mountinfo writes blanks and backslashes in paths as octal escapes.
std::string Unescape(const std::string& field) {
    std::string text;
    for (std::size_t index = 0; index < field.size(); ++index) {
        if (field[index] == '\\' && index + 3 < field.size()) {
            text += static_cast<char>(std::stoi(field.substr(index + 1, 3), nullptr, 8));
            index += 3;
        } else {
            text += field[index];
        }
    }
    return text;
}

bool InPath(const std::string& program) {
    return RunProgram({"sh", "-c", "command -v " + program}) == 0;
}
}  // namespace

int RunProgram(const std::vector<std::string>& arguments, std::string* output) {
    std::vector<char*> argv;
    for (const std::string& argument : arguments) {
        argv.push_back(const_cast<char*>(argument.c_str()));
    }
    argv.push_back(nullptr);
    int pipeEnds[2];
    if (pipe2(pipeEnds, O_CLOEXEC) != 0) {
        return -1;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, pipeEnds[1], STDOUT_FILENO);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    pid_t child = 0;
    const int spawned = posix_spawnp(&child, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(pipeEnds[1]);
    std::string collected;
    char buffer[65536];
    for (;;) {
        const ssize_t count = read(pipeEnds[0], buffer, sizeof buffer);
        if (count <= 0) {
            break;
        }
        collected.append(buffer, static_cast<std::size_t>(count));
    }
    close(pipeEnds[0]);
    if (spawned != 0) {
        return -1;
    }
    int status = 0;
    while (waitpid(child, &status, 0) < 0) {
    }
    if (output != nullptr) {
        *output = collected;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool IsMountPoint(const std::string& path) {
    const std::string target = Resolved(path);
    std::ifstream table("/proc/self/mountinfo");
    std::string line;
    while (std::getline(table, line)) {
        std::istringstream fields(line);
        std::string id, parent, numbers, root, mountPoint;
        fields >> id >> parent >> numbers >> root >> mountPoint;
        if (Unescape(mountPoint) == target) {
            return true;
        }
    }
    return false;
}

std::string CStorageImage::MissingPrerequisite() {
    if (geteuid() != 0) {
        return "mounting a storage image needs root";
    }
    if (access("/dev/loop-control", R_OK | W_OK) != 0) {
        return "no /dev/loop-control: loop devices are not available";
    }
    for (const char* program : {"mkfs.ext4", "tune2fs", "debugfs"}) {
        if (!InPath(program)) {
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
    const std::string image = Resolved(m_image);
    std::vector<std::string> devices;
    DIR* block = opendir("/sys/block");
    if (block == nullptr) {
        return devices;
    }
    while (const dirent* entry = readdir(block)) {
        const std::string name = entry->d_name;
        if (name.compare(0, 4, "loop") != 0) {
            continue;
        }
        std::ifstream backing("/sys/block/" + name + "/loop/backing_file");
        std::string backingFile;
        if (std::getline(backing, backingFile) && backingFile == image) {
            devices.push_back("/dev/" + name);
        }
    }
    closedir(block);
    std::sort(devices.begin(), devices.end());
    return devices;
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
