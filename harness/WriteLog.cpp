#include "WriteLog.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace {
// Sizes of the super and of an entry's header, as laid out on the log.
constexpr std::size_t kSuperBytes = 8 + 8 + 8 + 4;
constexpr std::size_t kHeaderBytes = 4 * 8;
// Copies in slices of this size, so that a large write does not need its size in memory.
constexpr std::size_t kCopySlice = 1u << 20;
// The largest sector size taken: the kernel's logical blocks are 512 bytes to a few KiB.
constexpr uint32_t kLargestSectorBytes = 64u << 10;

// The little-endian number in the `count` bytes at `bytes` (no byte past them is read).
uint64_t LittleEndian(const unsigned char* bytes, int count) {
    uint64_t value = 0;
    for (int byte = count - 1; byte >= 0; --byte) {
        value = (value << 8) | bytes[byte];
    }
    return value;
}

uint64_t Little64(const unsigned char* bytes) { return LittleEndian(bytes, 8); }

uint32_t Little32(const unsigned char* bytes) {
    return static_cast<uint32_t>(LittleEndian(bytes, 4));
}

CStatus ReadExactly(int descriptor, void* into, std::size_t count, uint64_t offset,
                    const std::string& what) {
    std::size_t done = 0;
    while (done < count) {
        const ssize_t got = ::pread(descriptor, static_cast<char*>(into) + done, count - done,
                                    static_cast<off_t>(offset + done));
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            return CStatus::Failure(
                what + ": " +
                (got == 0 ? std::string("the log ends early") : std::string(std::strerror(errno))));
        }
        done += static_cast<std::size_t>(got);
    }
    return CStatus::Ok();
}

CStatus WriteExactly(int descriptor, const void* from, std::size_t count, uint64_t offset,
                     const std::string& what) {
    std::size_t done = 0;
    while (done < count) {
        const ssize_t put = ::pwrite(descriptor, static_cast<const char*>(from) + done,
                                     count - done, static_cast<off_t>(offset + done));
        if (put < 0 && errno == EINTR) {
            continue;
        }
        if (put <= 0) {
            return CStatus::Failure(
                what + ": " +
                (put == 0 ? std::string("nothing written") : std::string(std::strerror(errno))));
        }
        done += static_cast<std::size_t>(put);
    }
    return CStatus::Ok();
}
}  // namespace

std::string TWriteLogEntry::Kind() const {
    std::string kind;
    const auto add = [&kind](const char* name) {
        kind += (kind.empty() ? "" : "+") + std::string(name);
    };
    if (flags & writelog::kMark) {
        add("mark");
    }
    if (flags & writelog::kFlush) {
        add("flush");
    }
    if (flags & writelog::kDiscard) {
        add("discard");
    } else if (sectors > 0) {
        add("write");
    }
    if (flags & writelog::kFua) {
        add("fua");
    }
    return kind.empty() ? "empty" : kind;
}

CStatus CWriteLog::Open(const std::string& path) {
    m_entries.clear();
    m_log.Reset(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!m_log.IsValid()) {
        return CStatus::Failure("opening the write log " + path + ": " + std::strerror(errno));
    }
    unsigned char super[kSuperBytes];
    if (CStatus status = ReadExactly(m_log.Get(), super, sizeof super, 0, "reading its super");
        !status) {
        return status.WithContext(path);
    }
    if (Little64(super) != writelog::kMagic || Little64(super + 8) != writelog::kVersion) {
        return CStatus::Failure(path + ": not a dm-log-writes log (magic or version)");
    }
    const uint64_t count = Little64(super + 16);
    m_sectorSize = Little32(super + 24);
    if (m_sectorSize < kHeaderBytes || m_sectorSize > kLargestSectorBytes ||
        (m_sectorSize & (m_sectorSize - 1)) != 0) {
        return CStatus::Failure(path + ": sector size " + std::to_string(m_sectorSize));
    }
    struct stat logStat {};
    if (::fstat(m_log.Get(), &logStat) != 0) {
        return CStatus::Failure("measuring the write log " + path + ": " + std::strerror(errno));
    }
    const uint64_t logBytes = static_cast<uint64_t>(logStat.st_size);
    std::vector<unsigned char> block(m_sectorSize);
    uint64_t offset = m_sectorSize;
    for (uint64_t index = 0; index < count; ++index) {
        const std::string what = "entry " + std::to_string(index);
        if (CStatus status = ReadExactly(m_log.Get(), block.data(), block.size(), offset, what);
            !status) {
            return status.WithContext(path);
        }
        TWriteLogEntry entry;
        entry.index = index;
        entry.sector = Little64(block.data());
        entry.sectors = Little64(block.data() + 8);
        entry.flags = Little64(block.data() + 16);
        const uint64_t dataLength = Little64(block.data() + 24);
        offset += m_sectorSize;
        if (entry.flags & writelog::kMark) {
            if (dataLength > m_sectorSize - kHeaderBytes) {
                return CStatus::Failure(path + ": " + what + ": a mark of " +
                                        std::to_string(dataLength) + " bytes");
            }
            entry.mark.assign(reinterpret_cast<const char*>(block.data()) + kHeaderBytes,
                              dataLength);
            entry.mark.resize(std::strlen(entry.mark.c_str()));
        } else if (!(entry.flags & writelog::kDiscard)) {
            // Compared by division, so that a damaged count cannot wrap the offset around.
            if (offset > logBytes || entry.sectors > (logBytes - offset) / m_sectorSize) {
                return CStatus::Failure(path + ": " + what + ": its data is cut short");
            }
            entry.dataOffset = offset;
            offset += entry.sectors * m_sectorSize;
        }
        m_entries.push_back(std::move(entry));
    }
    return CStatus::Ok();
}

CStatus CWriteLog::Replay(uint64_t first, uint64_t last, const std::string& image) const {
    if (first > last || last > m_entries.size()) {
        return CStatus::Failure("replaying entries " + std::to_string(first) + " to " +
                                std::to_string(last) + " of a log of " +
                                std::to_string(m_entries.size()));
    }
    CUniqueFd target(::open(image.c_str(), O_WRONLY | O_CLOEXEC));
    struct stat imageStat {};
    if (!target.IsValid() || ::fstat(target.Get(), &imageStat) != 0) {
        return CStatus::Failure("opening " + image + ": " + std::strerror(errno));
    }
    // The image is as large as the recorded device: a write beyond it would grow the file
    // instead of reporting a log of another device.
    const uint64_t imageSectors = static_cast<uint64_t>(imageStat.st_size) / m_sectorSize;
    std::vector<unsigned char> slice;
    for (uint64_t index = first; index < last; ++index) {
        const TWriteLogEntry& entry = m_entries[index];
        const bool discard = (entry.flags & writelog::kDiscard) != 0;
        if ((entry.flags & writelog::kMark) || entry.sectors == 0) {
            continue;
        }
        const std::string what = image + ": entry " + std::to_string(index);
        if (entry.sector > imageSectors || entry.sectors > imageSectors - entry.sector) {
            return CStatus::Failure(what + ": sectors " + std::to_string(entry.sector) + " to " +
                                    std::to_string(entry.sector + entry.sectors) +
                                    " lie beyond the image's " + std::to_string(imageSectors));
        }
        uint64_t remaining = entry.sectors * m_sectorSize;
        uint64_t from = entry.dataOffset;
        uint64_t to = entry.sector * m_sectorSize;
        while (remaining > 0) {
            const std::size_t count =
                static_cast<std::size_t>(std::min<uint64_t>(remaining, kCopySlice));
            slice.assign(count, 0);
            if (!discard) {
                if (CStatus status = ReadExactly(m_log.Get(), slice.data(), count, from, what);
                    !status) {
                    return status;
                }
            }
            if (CStatus status = WriteExactly(target.Get(), slice.data(), count, to, what);
                !status) {
                return status;
            }
            remaining -= count;
            from += count;
            to += count;
        }
    }
    return CStatus::Ok();
}
