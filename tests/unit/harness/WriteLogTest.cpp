// The write-log reader against logs laid out here byte by byte as dm-log-writes lays them out:
// the listing of entries (writes, flushes, FUA writes, discards, marks) and the replay of a
// prefix onto a device image.

#include <gtest/gtest.h>

#include <string>

#include "TemporaryDirectory.h"
#include "WriteLog.h"

namespace {

constexpr uint32_t kSector = 512;

std::string Little(uint64_t value, int bytes) {
    std::string text;
    for (int byte = 0; byte < bytes; ++byte) {
        text.push_back(static_cast<char>((value >> (8 * byte)) & 0xff));
    }
    return text;
}

std::string Block(const std::string& content) {
    std::string block = content;
    block.resize(kSector, '\0');
    return block;
}

// Writes a log entry by entry, as the kernel target does.
class CLogBuilder {
public:
    void Write(uint64_t sector, const std::string& data, uint64_t flags = 0) {
        Entry(sector, data.size() / kSector, flags, "");
        m_body += data;
    }
    void Flush() { Entry(0, 0, writelog::kFlush, ""); }
    void Discard(uint64_t sector, uint64_t sectors) {
        Entry(sector, sectors, writelog::kDiscard, "");
    }
    void Mark(const std::string& name) { Entry(0, 0, writelog::kMark, name); }

    // The super counts `counted` entries (all of them by default).
    std::string Log(int64_t counted = -1) const {
        const uint64_t count = counted < 0 ? m_entries : static_cast<uint64_t>(counted);
        return Block(Little(writelog::kMagic, 8) + Little(writelog::kVersion, 8) +
                     Little(count, 8) + Little(kSector, 4)) +
               m_body;
    }

private:
    void Entry(uint64_t sector, uint64_t sectors, uint64_t flags, const std::string& mark) {
        m_body += Block(Little(sector, 8) + Little(sectors, 8) + Little(flags, 8) +
                        Little(mark.size(), 8) + mark);
        ++m_entries;
    }

    std::string m_body;
    uint64_t m_entries = 0;
};

std::string Filled(char byte, std::size_t sectors) { return std::string(sectors * kSector, byte); }

class WriteLogTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(m_directory.Made()) << m_directory.Made().Message();
        m_builder.Mark("start");
        m_builder.Write(2, Filled('a', 2));
        m_builder.Flush();
        m_builder.Write(0, Filled('b', 1), writelog::kFua);
        m_builder.Discard(3, 1);
        m_builder.Write(5, Filled('c', 3));
        m_builder.Mark("end");
    }

    // The device image: 8 sectors of '.'; replays entries [first, last) onto it.
    std::string Replayed(const CWriteLog& log, uint64_t first, uint64_t last) {
        EXPECT_TRUE(m_directory.WriteFile("device.img", Filled('.', 8)));
        const CStatus replayed = log.Replay(first, last, m_directory.Join("device.img"));
        EXPECT_TRUE(replayed) << replayed.Message();
        std::string image;
        EXPECT_TRUE(ReadWholeFile(m_directory.Join("device.img"), image));
        return image;
    }

    CTemporaryDirectory m_directory;
    CLogBuilder m_builder;
};

TEST_F(WriteLogTest, ListsEveryEntryWithItsKindSectorsAndMark) {
    ASSERT_TRUE(m_directory.WriteFile("log.img", m_builder.Log()));
    CWriteLog log;
    const CStatus opened = log.Open(m_directory.Join("log.img"));
    ASSERT_TRUE(opened) << opened.Message();
    EXPECT_EQ(log.SectorSize(), kSector);
    const std::vector<std::tuple<std::string, uint64_t, uint64_t, std::string, bool>> expected = {
        {"mark", 0, 0, "start", false}, {"write", 2, 2, "", false},   {"flush", 0, 0, "", true},
        {"write+fua", 0, 1, "", true},  {"discard", 3, 1, "", false}, {"write", 5, 3, "", false},
        {"mark", 0, 0, "end", false}};
    ASSERT_EQ(log.Entries().size(), expected.size());
    for (std::size_t index = 0; index < expected.size(); ++index) {
        const TWriteLogEntry& entry = log.Entries()[index];
        const auto& [kind, sector, sectors, mark, flushPoint] = expected[index];
        EXPECT_EQ(entry.index, index);
        EXPECT_EQ(entry.Kind(), kind) << index;
        EXPECT_EQ(entry.sector, sector) << index;
        EXPECT_EQ(entry.sectors, sectors) << index;
        EXPECT_EQ(entry.mark, mark) << index;
        EXPECT_EQ(entry.IsFlushOrFua(), flushPoint) << index;
    }
}

TEST_F(WriteLogTest, ReplaysEachPrefixOntoTheDeviceAsACutThereWouldLeaveIt) {
    ASSERT_TRUE(m_directory.WriteFile("log.img", m_builder.Log()));
    CWriteLog log;
    ASSERT_TRUE(log.Open(m_directory.Join("log.img")));
    const std::string untouched = Filled('.', 8);
    EXPECT_EQ(Replayed(log, 0, 0), untouched);
    EXPECT_EQ(Replayed(log, 0, 1), untouched);  // a mark writes nothing
    const std::string afterFirst = Filled('.', 2) + Filled('a', 2) + Filled('.', 4);
    EXPECT_EQ(Replayed(log, 0, 2), afterFirst);
    EXPECT_EQ(Replayed(log, 0, 3), afterFirst);  // a flush writes nothing
    const std::string afterFua = Filled('b', 1) + Filled('.', 1) + Filled('a', 2) + Filled('.', 4);
    EXPECT_EQ(Replayed(log, 0, 4), afterFua);
    const std::string afterDiscard =
        Filled('b', 1) + Filled('.', 1) + Filled('a', 1) + Filled('\0', 1) + Filled('.', 4);
    EXPECT_EQ(Replayed(log, 0, 5), afterDiscard);
    const std::string whole = Filled('b', 1) + Filled('.', 1) + Filled('a', 1) + Filled('\0', 1) +
                              Filled('.', 1) + Filled('c', 3);
    EXPECT_EQ(Replayed(log, 0, 7), whole);
    // Applied in two steps, the same as in one.
    std::string stepwise;
    EXPECT_EQ(Replayed(log, 0, 5), afterDiscard);
    ASSERT_TRUE(log.Replay(5, 7, m_directory.Join("device.img")));
    ASSERT_TRUE(ReadWholeFile(m_directory.Join("device.img"), stepwise));
    EXPECT_EQ(stepwise, whole);
}

TEST_F(WriteLogTest, ReadsOnlyTheEntriesTheSuperCounts) {
    ASSERT_TRUE(m_directory.WriteFile("log.img", m_builder.Log(3)));
    CWriteLog log;
    ASSERT_TRUE(log.Open(m_directory.Join("log.img")));
    ASSERT_EQ(log.Entries().size(), 3u);
    EXPECT_EQ(log.Entries()[2].Kind(), "flush");
    const CStatus beyond = log.Replay(0, 4, m_directory.Join("device.img"));
    EXPECT_EQ(beyond.Message(), "replaying entries 0 to 4 of a log of 3");
}

// A log of another, larger device: its writes would grow the image instead of changing it.
TEST_F(WriteLogTest, RefusesToWriteBeyondTheImage) {
    ASSERT_TRUE(m_directory.WriteFile("log.img", m_builder.Log()));
    CWriteLog log;
    ASSERT_TRUE(log.Open(m_directory.Join("log.img")));
    const std::string small = m_directory.Join("small.img");
    ASSERT_TRUE(m_directory.WriteFile("small.img", Filled('.', 2)));
    EXPECT_EQ(log.Replay(0, 2, small).Message(),
              small + ": entry 1: sectors 2 to 4 lie beyond the image's 2");
    std::string content;
    ASSERT_TRUE(ReadWholeFile(small, content));
    EXPECT_EQ(content, Filled('.', 2));
}

TEST_F(WriteLogTest, RefusesWhatIsNotALogOrIsCutShort) {
    CWriteLog log;
    ASSERT_TRUE(m_directory.WriteFile("zeros.img", Filled('\0', 4)));
    EXPECT_EQ(log.Open(m_directory.Join("zeros.img")).Message(),
              m_directory.Join("zeros.img") + ": not a dm-log-writes log (magic or version)");
    // Six entries counted, the last a write of three sectors: without the final mark's block and
    // one sector of that data, the write is cut short.
    std::string shortLog = m_builder.Log(6);
    shortLog.resize(shortLog.size() - 2 * kSector);
    ASSERT_TRUE(m_directory.WriteFile("short.img", shortLog));
    EXPECT_EQ(log.Open(m_directory.Join("short.img")).Message(),
              m_directory.Join("short.img") + ": entry 5: its data is cut short");
    EXPECT_EQ(
        log.Open(m_directory.Join("absent.img")).Message(),
        "opening the write log " + m_directory.Join("absent.img") + ": No such file or directory");
}

}  // namespace
