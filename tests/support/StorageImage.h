#pragma once
// A movinand storage for tests on real storage: an ext4 image made with mkfs.ext4 in a fresh
// temporary directory, with an empty folder beside it to mount it on. The image is examined
// without mounting it (debugfs), and the kernel's state is checked directly: whether the mount
// point is mounted (/proc/self/mountinfo) and which loop devices are attached to the image
// (/sys/block/loop*/loop/backing_file).
//
// If a test leaves the image mounted, the destructor detaches the mount before the directory is
// removed, so that a failing test never deletes through a live mount.

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

#include "TemporaryDirectory.h"

class CStorageImage {
public:
    // Empty when tests on real storage can run here; otherwise why not (for
    // MODEMLOADER_MISSING_PREREQUISITE).
    static std::string MissingPrerequisite();

    // An image of `sizeBytes`, formatted with mkfs.ext4; check Error() after construction.
    explicit CStorageImage(std::size_t sizeBytes);
    ~CStorageImage();
    CStorageImage(const CStorageImage&) = delete;
    CStorageImage& operator=(const CStorageImage&) = delete;

    const std::string& Error() const { return m_error; }  // empty when the image was made
    const std::string& Image() const { return m_image; }
    const std::string& MountPoint() const { return m_mountPoint; }
    const CTemporaryDirectory& Directory() const { return m_directory; }

    // Sets the ext4 "read-only" feature: the kernel then mounts the storage only read-only.
    bool MakeReadOnlyFileSystem();
    // A folder on the image, made through debugfs while it is not mounted.
    bool MakeFolderOnImage(const std::string& relativePath);

    // Content of a file on the (unmounted) image; false when it is not there.
    bool ReadFromImage(const std::string& relativePath, std::string& content) const;
    // Names in a folder of the (unmounted) image, without "." and "..", sorted.
    std::vector<std::string> ListImageFolder(const std::string& relativePath) const;

    bool IsMounted() const;
    std::vector<std::string> AttachedLoopDevices() const;  // "/dev/loop3", ...
    // Waits (bounded) until no loop device is attached to the image; true when none is.
    bool AwaitNoLoopDevice(std::chrono::milliseconds timeout = std::chrono::seconds(5)) const;

private:
    CTemporaryDirectory m_directory;
    std::string m_image;
    std::string m_mountPoint;
    std::string m_error;
};

// Runs `arguments` (searched in PATH), collects its standard output; returns the exit status
// (-1 when it could not run). Standard error is discarded.
int RunProgram(const std::vector<std::string>& arguments, std::string* output = nullptr);
