#pragma once
// A write log recorded by the kernel's dm-log-writes target: every write, flush and discard that
// reached the storage's block device, in the order the device completed them, plus the marks
// written into it with "dmsetup message ... mark NAME". The power-cut bench replays a prefix of
// it onto a copy of the storage as it was before the recording: that copy is the storage as a
// power cut after the prefix's last entry could have left it.
//
// The log's layout (little-endian), in units of the log's sector size S (the data device's
// logical block size):
//   block 0     the super: u64 magic 0x6a736677736872, u64 version 1, u64 entry count, u32 S
//   then, from block 1, one record per entry: a block holding u64 sector, u64 sector count,
//               u64 flags, u64 data length, followed in the same block by a mark's name (flag
//               MARK, the data length is its size); then, for a write, its sector count blocks
//               of data. Flushes, marks and discards carry no data blocks.
// The entry count in the super is rewritten on every flush and when the target is removed, so
// a log whose target was removed cleanly has all of its entries counted.

#include <cstdint>
#include <string>
#include <vector>

#include "Status.h"
#include "UniqueFd.h"

// Flags of an entry, as dm-log-writes writes them.
namespace writelog {
constexpr uint64_t kMagic = 0x6a736677736872ULL;
constexpr uint64_t kVersion = 1;
constexpr uint64_t kFlush = 1u << 0;
constexpr uint64_t kFua = 1u << 1;
constexpr uint64_t kDiscard = 1u << 2;
constexpr uint64_t kMark = 1u << 3;
constexpr uint64_t kMetadata = 1u << 4;
}  // namespace writelog

struct TWriteLogEntry {
    uint64_t index = 0;       // position in the log, from 0
    uint64_t sector = 0;      // first sector written (in the log's sector size)
    uint64_t sectors = 0;     // how many
    uint64_t flags = 0;       // writelog::k...
    std::string mark;         // the mark's name (flag kMark)
    uint64_t dataOffset = 0;  // where the written data starts in the log file

    bool IsFlushOrFua() const { return (flags & (writelog::kFlush | writelog::kFua)) != 0; }
    // "write", "flush", "fua", "discard", "mark", or several of them joined by "+".
    std::string Kind() const;
};

class CWriteLog {
public:
    // Reads the super and walks every counted entry; fails on a log that is not one or is cut
    // short.
    [[nodiscard]] CStatus Open(const std::string& path);

    uint32_t SectorSize() const { return m_sectorSize; }
    const std::vector<TWriteLogEntry>& Entries() const { return m_entries; }

    // Applies entries [first, last) to `image` (a file as large as the recorded device): writes
    // put their data at their sectors, discards write zeros, flushes and marks change nothing.
    [[nodiscard]] CStatus Replay(uint64_t first, uint64_t last, const std::string& image) const;

private:
    CUniqueFd m_log;
    uint32_t m_sectorSize = 0;
    std::vector<TWriteLogEntry> m_entries;
};
