#pragma once
// The "movinand" storage of a simulated device: an ext4 image made with mkfs.ext4, and an empty
// folder beside it to mount it on. The image is examined without mounting it (debugfs), and the
// kernel's state is checked directly: whether the mount point is mounted (/proc/self/mountinfo)
// and which loop devices are attached to the image (/sys/block/loop*/loop/backing_file). An
// image not mounted here is examined only once no loop device holds it (see AwaitReleased).
//
// The storage is made in a folder its owner keeps (a simulated device's directory) or in a
// temporary directory of its own. If something (a test, a killed host) leaves the image mounted,
// the destructor detaches the mount and waits for the auto-clear loop device to go before the
// folder can be removed, so that nothing is ever deleted through a live mount.

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "Status.h"
#include "TemporaryDirectory.h"

class CStorageImage {
public:
    // Empty when a storage can be made and mounted here; otherwise why not (for
    // MODEMLOADER_MISSING_PREREQUISITE).
    static std::string MissingPrerequisite();

    // The storage of `folder`: folder/movinand.img, mounted on folder/mnt. Nothing is made
    // until Make().
    explicit CStorageImage(const std::string& folder);
    // A storage of `sizeBytes` in a fresh temporary directory of its own, made at once; Made()
    // says whether it was.
    explicit CStorageImage(std::size_t sizeBytes);
    ~CStorageImage();
    CStorageImage(const CStorageImage&) = delete;
    CStorageImage& operator=(const CStorageImage&) = delete;

    // Formats an image of `sizeBytes` holding the files below `contentFolder` (an empty file
    // system when it is empty) and makes the mount point.
    [[nodiscard]] CStatus Make(std::size_t sizeBytes, const std::string& contentFolder = "");
    const CStatus& Made() const { return m_made; }

    const std::string& Image() const { return m_image; }
    const std::string& MountPoint() const { return m_mountPoint; }

    // Sets the ext4 "read-only" feature: the kernel then mounts the storage only read-only.
    [[nodiscard]] CStatus MakeReadOnlyFileSystem() const;
    // Clears that feature again: the storage mounts read-write.
    [[nodiscard]] CStatus MakeWritableFileSystem() const;
    // A folder on the image, made through debugfs while it is not mounted.
    [[nodiscard]] CStatus MakeFolderOnImage(const std::string& relativePath) const;

    // Removes a file from the (unmounted) image through debugfs; fails when it is still there.
    [[nodiscard]] CStatus RemoveFromImage(const std::string& relativePath) const;
    // Content of a file on the (unmounted) image; fails when it is not there.
    [[nodiscard]] CStatus ReadFromImage(const std::string& relativePath,
                                        std::string& content) const;
    // Names in a folder of the (unmounted) image, without "." and "..", sorted.
    std::vector<std::string> ListImageFolder(const std::string& relativePath) const;

    bool IsMounted() const;
    std::vector<std::string> AttachedLoopDevices() const;  // "/dev/loop3", ...
    // Waits (bounded) until no loop device is attached to the image; true when none is. The
    // kernel clears an auto-clear device once the last mount of its file system has gone, and a
    // private mount namespace made meanwhile holds a copy of that mount for as long as it lives
    // (seconds, for an update system's install in another test), hence the long bound.
    bool AwaitNoLoopDevice(std::chrono::milliseconds timeout = std::chrono::seconds(30)) const;

private:
    // A file system reaches its image only when its last mount anywhere has gone. A private
    // mount namespace made while the storage was mounted (an update system's isolation, in a
    // test running beside this one) holds a copy of the mount, and with it the auto-clear loop
    // device and the last writes, after the owner's unmount here. So an image that is not
    // mounted here is examined or changed once its loop device has gone; a failure names the
    // devices still attached after the wait.
    [[nodiscard]] CStatus AwaitReleased() const;

    std::unique_ptr<CTemporaryDirectory> m_ownFolder;  // only for a storage of its own
    std::string m_folder;
    std::string m_image;
    std::string m_mountPoint;
    CStatus m_made = CStatus::Failure("the storage is not made yet");
};
