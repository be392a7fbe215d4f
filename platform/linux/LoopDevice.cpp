#include "LoopDevice.h"

#include <fcntl.h>
#include <linux/loop.h>
#include <sys/ioctl.h>

#include <cerrno>
#include <cstring>
#include <utility>

namespace {
// How often a free device is asked for again when another process attached it first.
constexpr int kAttachAttempts = 16;

std::string ErrnoText(int error) { return std::strerror(error); }

// Binds `backing` to the opened loop device in one step where the kernel can (5.8 and later),
// else in the two steps of older kernels.
int Configure(int device, int backing, const std::string& backingFile, bool readOnly) {
    loop_config config;
    std::memset(&config, 0, sizeof config);
    config.fd = static_cast<__u32>(backing);
    config.info.lo_flags = LO_FLAGS_AUTOCLEAR | (readOnly ? LO_FLAGS_READ_ONLY : 0);
    std::strncpy(reinterpret_cast<char*>(config.info.lo_file_name), backingFile.c_str(),
                 LO_NAME_SIZE - 1);
    if (ioctl(device, LOOP_CONFIGURE, &config) == 0) {
        return 0;
    }
    if (errno != EINVAL && errno != ENOTTY) {
        return -1;
    }
    if (ioctl(device, LOOP_SET_FD, backing) != 0) {
        return -1;
    }
    if (ioctl(device, LOOP_SET_STATUS64, &config.info) != 0) {
        const int error = errno;
        ioctl(device, LOOP_CLR_FD, 0);
        errno = error;
        return -1;
    }
    return 0;
}
}  // namespace

CStatus CLoopDevice::Attach(const std::string& backingFile,
                            std::unique_ptr<CLoopDevice>& attached) {
    const std::string context = "attaching " + backingFile + " to a loop device";
    bool readOnly = false;
    CUniqueFd backing(open(backingFile.c_str(), O_RDWR | O_CLOEXEC));
    if (!backing.IsValid() && (errno == EROFS || errno == EACCES || errno == EPERM)) {
        readOnly = true;
        backing.Reset(open(backingFile.c_str(), O_RDONLY | O_CLOEXEC));
    }
    if (!backing.IsValid()) {
        return CStatus::Failure(context + ": opening the image: " + ErrnoText(errno));
    }
    CUniqueFd control(open("/dev/loop-control", O_RDWR | O_CLOEXEC));
    if (!control.IsValid()) {
        return CStatus::Failure(context + ": opening /dev/loop-control: " + ErrnoText(errno));
    }
    int lastError = 0;
    for (int attempt = 0; attempt < kAttachAttempts; ++attempt) {
        const int number = ioctl(control.Get(), LOOP_CTL_GET_FREE);
        if (number < 0) {
            return CStatus::Failure(context + ": asking for a free device: " + ErrnoText(errno));
        }
        const std::string path = "/dev/loop" + std::to_string(number);
        CUniqueFd device(open(path.c_str(), (readOnly ? O_RDONLY : O_RDWR) | O_CLOEXEC));
        if (!device.IsValid()) {
            return CStatus::Failure(context + ": opening " + path + ": " + ErrnoText(errno));
        }
        if (Configure(device.Get(), backing.Get(), backingFile, readOnly) == 0) {
            attached.reset(new CLoopDevice(path, std::move(device), readOnly));
            return CStatus::Ok();
        }
        lastError = errno;
        if (lastError != EBUSY) {
            return CStatus::Failure(context + ": binding " + path + ": " + ErrnoText(lastError));
        }
        // Another process bound the device between our question and our bind: ask again.
    }
    return CStatus::Failure(
        context + ": every free device was taken by another process: " + ErrnoText(lastError));
}

CLoopDevice::CLoopDevice(std::string path, CUniqueFd device, bool readOnly)
    : m_path(std::move(path)), m_device(std::move(device)), m_readOnly(readOnly) {}

CLoopDevice::~CLoopDevice() {
    // Detaches at once when nothing else holds the device; while a mount still holds it the
    // kernel only keeps the auto-clear flag and detaches it when that mount goes.
    ioctl(m_device.Get(), LOOP_CLR_FD, 0);
}
