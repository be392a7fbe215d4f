#pragma once
// A file-system image attached to a loop device, so that it can be mounted like a storage device.
//
// The attachment is made with the kernel's auto-clear flag: once neither this object nor a mount
// holds the device, the kernel detaches it, even when the process dies while the image is still
// mounted. Destroying the object therefore detaches a device that is not mounted at once, and
// one that is mounted as soon as that mount goes. Not copyable; one owner.

#include <memory>
#include <string>

#include "Status.h"
#include "UniqueFd.h"

class CLoopDevice {
public:
    // Attaches `backingFile` to a free loop device: read-write when the file can be opened so,
    // read-only otherwise (a write-protected image). Retries when another process takes the
    // device it was offered first.
    [[nodiscard]] static CStatus Attach(const std::string& backingFile,
                                        std::unique_ptr<CLoopDevice>& attached);

    ~CLoopDevice();
    CLoopDevice(const CLoopDevice&) = delete;
    CLoopDevice& operator=(const CLoopDevice&) = delete;

    const std::string& Path() const { return m_path; }  // "/dev/loop3"
    bool IsReadOnly() const { return m_readOnly; }

private:
    CLoopDevice(std::string path, CUniqueFd device, bool readOnly);

    std::string m_path;
    CUniqueFd m_device;
    bool m_readOnly;
};
