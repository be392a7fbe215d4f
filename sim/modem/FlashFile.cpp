#include "FlashFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace {
constexpr size_t kFlushThreshold = 64 * 1024;
}

CStatus CFlashFile::Open(const std::string& path, bool nonVolatile) {
    m_path = path;
    m_nonVolatile = nonVolatile;
    // O_DSYNC: each write returns once its bytes are on the storage, before any acknowledgement.
    const int mode = nonVolatile ? O_DSYNC : O_TRUNC;
    m_file.Reset(::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | mode, 0644));
    if (!m_file.IsValid()) {
        return CStatus::Failure("opening the flash file " + path + ": " + std::strerror(errno));
    }
    return CStatus::Ok();
}

void CFlashFile::BeginProgramming(uint32_t, uint32_t) {
    m_pending.clear();
    m_digest = CSha256();
    if (m_nonVolatile) {
        // Programmed in place from the start (a block device cannot be truncated): a cut during
        // the write leaves the new image's first bytes over what the flash held before. Erasing
        // the range first would cost a synchronous write of the whole range while the host
        // waits for the command's answer.
        if (m_failure.IsOk() && ::lseek(m_file.Get(), 0, SEEK_SET) != 0) {
            m_failure = CStatus::Failure("rewinding the flash file " + m_path + ": " +
                                         std::strerror(errno));
        }
        return;
    }
    if (m_failure.IsOk() &&
        (::ftruncate(m_file.Get(), 0) != 0 || ::lseek(m_file.Get(), 0, SEEK_SET) != 0)) {
        m_failure =
            CStatus::Failure("emptying the flash file " + m_path + ": " + std::strerror(errno));
    }
}

void CFlashFile::Program(const uint8_t* data, size_t count) {
    m_digest.Update(data, count);
    m_pending.insert(m_pending.end(), data, data + count);
    if (m_pending.size() >= kFlushThreshold) {
        (void)Flush();
    }
}

CStatus CFlashFile::Flush() {
    size_t written = 0;
    while (m_failure.IsOk() && written < m_pending.size()) {
        const ssize_t result =
            ::write(m_file.Get(), m_pending.data() + written, m_pending.size() - written);
        if (result < 0) {
            if (errno == EINTR) {
                continue;
            }
            m_failure =
                CStatus::Failure("writing the flash file " + m_path + ": " + std::strerror(errno));
            break;
        }
        written += static_cast<size_t>(result);
    }
    m_pending.clear();
    return m_failure;
}
