// Whether the device tree exported at "/dev/fdtexport" announces an integrated GPRS modem.
// The export is simulated by the interposer linked into this test, backed by blobs that dtc and
// fdtput made at build time, and by corrupt blobs made here from one of them.

#include <dirent.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <fstream>
#include <iterator>

#include "FdtExportInterposer.h"
#include "ModuleTestHost.h"
#include "TestFiles.h"

namespace moduletest {
namespace {

std::string Blob(const std::string& name) {
    return std::string(FDT_BLOB_DIRECTORY) + "/" + name + ".dtb";
}

TLogEntry Trying() { return AlwaysEntry("HasIntegratedGPRS", "trying to check node"); }
TLogEntry PathOffset() { return ErrorEntry("HasIntegratedGPRS", "FDT path offset"); }
TLogEntry ModemFound() {
    return AlwaysEntry("HasIntegratedGPRS", "GPRS modem specified in FDT data");
}
// These three messages carry their own line end inside the parentheses.
TLogEntry NoCharacterDevice() { return ErrorEntry("HasIntegratedGPRS", "no character device!\n"); }
TLogEntry OpenFailure() { return ErrorEntry("HasIntegratedGPRS", "open failure\n"); }
TLogEntry MmapFailed() { return ErrorEntry("HasIntegratedGPRS", "mmap failed\n"); }

struct TExportCase {
    std::string name;
    TFdtExportKind kind;
    std::string blob;  // name of a built blob; empty for none
    bool expected;
    std::vector<TLogEntry> entries;
};
void PrintTo(const TExportCase& exportCase, std::ostream* stream) { *stream << exportCase.name; }

std::vector<TExportCase> ExportCases() {
    return {
        {"ExportMissing", eFdtExportMissing, "", false, {Trying(), PathOffset()}},
        {"RegularFile",
         eFdtExportRegular,
         "has-gprs-1",
         false,
         {NoCharacterDevice(), Trying(), PathOffset()}},
        {"Directory",
         eFdtExportDirectory,
         "has-gprs-1",
         false,
         {NoCharacterDevice(), Trying(), PathOffset()}},
        {"CharacterDeviceThatCannotBeOpened",
         eFdtExportUnopenable,
         "has-gprs-1",
         false,
         {OpenFailure(), Trying(), PathOffset()}},
        {"CharacterDeviceOfSizeZero", eFdtExportEmpty, "", false, {Trying(), PathOffset()}},
        // A failing lseek gives a size the mapping rejects; that failure alone skips the lookup.
        {"CharacterDeviceThatCannotSeek",
         eFdtExportUnseekable,
         "has-gprs-1",
         false,
         {MmapFailed()}},
        {"CharacterDeviceThatCannotBeMapped",
         eFdtExportUnmappable,
         "has-gprs-1",
         false,
         {MmapFailed()}},
        {"NoFeaturesNode", eFdtExportCharDevice, "no-features", false, {Trying(), PathOffset()}},
        {"FeaturesWithoutHasGprs",
         eFdtExportCharDevice,
         "features-without-has-gprs",
         false,
         {Trying()}},
        {"HasGprsOne", eFdtExportCharDevice, "has-gprs-1", true, {Trying(), ModemFound()}},
        {"HasGprsZero", eFdtExportCharDevice, "has-gprs-0", false, {Trying()}},
        {"HasGprsTwo", eFdtExportCharDevice, "has-gprs-2", false, {Trying()}},
        {"HasGprsOneStoredLittleEndian",
         eFdtExportCharDevice,
         "has-gprs-little-endian",
         false,
         {Trying()}},
        {"HasGprsFirstOfTwoCellsIsOne",
         eFdtExportCharDevice,
         "has-gprs-two-cells",
         true,
         {Trying(), ModemFound()}},
        {"BambooAsShipped", eFdtExportCharDevice, "bamboo", false, {Trying(), PathOffset()}},
        {"BambooWithModem",
         eFdtExportCharDevice,
         "bamboo-has-gprs-1",
         true,
         {Trying(), ModemFound()}},
        {"BambooWithoutModem", eFdtExportCharDevice, "bamboo-has-gprs-0", false, {Trying()}},
        {"CanyonlandsAsShipped",
         eFdtExportCharDevice,
         "canyonlands",
         false,
         {Trying(), PathOffset()}},
        {"CanyonlandsWithModem",
         eFdtExportCharDevice,
         "canyonlands-has-gprs-1",
         true,
         {Trying(), ModemFound()}},
        {"CanyonlandsWithoutModem",
         eFdtExportCharDevice,
         "canyonlands-has-gprs-0",
         false,
         {Trying()}},
    };
}

class IntegratedGprsTest : public CModuleTest {
protected:
    IntegratedGprsTest() { CreateModule(); }
    ~IntegratedGprsTest() override { FdtExportUseEnvironment(); }
};

class ExportTest : public IntegratedGprsTest, public ::testing::WithParamInterface<TExportCase> {};

TEST_P(ExportTest, AnswersAndLogsAsTheExportDictates) {
    const TExportCase& exportCase = GetParam();
    FdtExportUse(exportCase.kind,
                 exportCase.blob.empty() ? nullptr : Blob(exportCase.blob).c_str());
    EXPECT_EQ(m_module->HasIntegratedGPRS(), exportCase.expected);
    EXPECT_EQ(m_log.Entries(), exportCase.entries);
    EXPECT_TRUE(m_broker.Published().empty());
    EXPECT_TRUE(m_files.Calls().empty()) << "the export is read directly, not as a host file";
}

INSTANTIATE_TEST_SUITE_P(Exports, ExportTest, ::testing::ValuesIn(ExportCases()),
                         [](const auto& parameter) { return parameter.param.name; });

TEST_F(IntegratedGprsTest, RecordsGoToTheModulesChannelFromHasIntegratedGprs) {
    FdtExportUse(eFdtExportCharDevice, Blob("has-gprs-1").c_str());
    ASSERT_TRUE(m_module->HasIntegratedGPRS());
    const auto records = m_log.Records();
    ASSERT_EQ(records.size(), 2u);
    for (const auto& record : records) {
        EXPECT_EQ(record.channel, logging::ModemLoader);
        EXPECT_EQ(record.function, "HasIntegratedGPRS");
        EXPECT_EQ(record.file, "features/component/ModemLoader/src/ModemLoader");
    }
    EXPECT_EQ(records[0].text, "(trying to check node)\n");
    EXPECT_EQ(records[1].text, "(GPRS modem specified in FDT data)\n");
}

TEST_F(IntegratedGprsTest, EmbeddedLineEndsAreLoggedInsideTheParentheses) {
    FdtExportUse(eFdtExportRegular, Blob("has-gprs-1").c_str());
    EXPECT_FALSE(m_module->HasIntegratedGPRS());
    const auto records = m_log.Records();
    ASSERT_EQ(records.size(), 3u);
    EXPECT_EQ(records[0].category, logging::categories::Error);
    EXPECT_EQ(records[0].text, "(no character device!\n)\n");
    EXPECT_EQ(records[2].text, "(FDT path offset)\n");
}

// Corrupt blobs, made from a good one: each is treated like a tree without "/features".
void PutBigEndian(std::string& blob, std::size_t offset, uint32_t value) {
    for (int index = 0; index < 4; ++index) {
        blob[offset + static_cast<std::size_t>(index)] =
            static_cast<char>((value >> (24 - 8 * index)) & 0xFFu);
    }
}

uint32_t GetBigEndian(const std::string& blob, std::size_t offset) {
    uint32_t value = 0;
    for (int index = 0; index < 4; ++index) {
        value = (value << 8) | static_cast<uint8_t>(blob[offset + static_cast<std::size_t>(index)]);
    }
    return value;
}

// Offsets of the flattened tree header's words.
constexpr std::size_t kTotalSizeOffset = 4;
constexpr std::size_t kStructOffset = 8;
constexpr std::size_t kStringsOffset = 12;
constexpr std::size_t kVersionOffset = 20;
constexpr std::size_t kLastCompatibleVersionOffset = 24;
constexpr std::size_t kStructSizeOffset = 36;

struct TCorruption {
    std::string name;
    std::string (*corrupt)(std::string blob);
};
void PrintTo(const TCorruption& corruption, std::ostream* stream) { *stream << corruption.name; }

std::vector<TCorruption> Corruptions() {
    return {
        {"TruncatedToPartOfTheHeader", [](std::string blob) { return blob.substr(0, 20); }},
        {"TruncatedToThreeBytes", [](std::string blob) { return blob.substr(0, 3); }},
        {"TruncatedInsideTheStructure",
         [](std::string blob) { return blob.substr(0, blob.size() / 2); }},
        {"WrongMagic",
         [](std::string blob) {
             blob[0] = static_cast<char>(0xEF);
             return blob;
         }},
        {"TotalSizeLargerThanTheFile",
         [](std::string blob) {
             PutBigEndian(blob, kTotalSizeOffset, static_cast<uint32_t>(blob.size()) + 65536);
             return blob;
         }},
        {"StructureOffsetBeyondTheEnd",
         [](std::string blob) {
             PutBigEndian(blob, kStructOffset, 0xFFFFFF00u);
             return blob;
         }},
        {"StringsOffsetBeyondTheEnd",
         [](std::string blob) {
             PutBigEndian(blob, kStringsOffset, 0x7FFFFFF0u);
             return blob;
         }},
        {"StructureSizeBeyondTheEnd",
         [](std::string blob) {
             PutBigEndian(blob, kStructSizeOffset, 0x10000000u);
             return blob;
         }},
        {"GarbageStructureTokens",
         [](std::string blob) {
             const uint32_t structure = GetBigEndian(blob, kStructOffset);
             for (std::size_t index = structure + 8; index < structure + 40; ++index) {
                 blob[index] = static_cast<char>(0xFF);
             }
             return blob;
         }},
        {"AllZeroes", [](std::string blob) { return std::string(blob.size(), '\0'); }},
        // Found by the device-tree fuzz target (corpus: libfdt-old-version-crash.dtb): libfdt's
        // header check accepts a tree of a version before 16 that claims compatibility with
        // version 2, and its full check then crashed on it.
        {"HeaderVersionBeforeSixteen",
         [](std::string blob) {
             PutBigEndian(blob, kVersionOffset, 15);
             PutBigEndian(blob, kLastCompatibleVersionOffset, 2);
             return blob;
         }},
    };
}

class CorruptBlobTest : public IntegratedGprsTest,
                        public ::testing::WithParamInterface<TCorruption> {};

TEST_P(CorruptBlobTest, IsTreatedLikeATreeWithoutTheFeaturesNode) {
    const std::string good = ReadTestFile(Blob("has-gprs-1"));
    ASSERT_GT(good.size(), 64u);
    const std::string path = ::testing::TempDir() + "corrupt-" + GetParam().name + ".dtb";
    {
        std::ofstream stream(path, std::ios::binary | std::ios::trunc);
        stream << GetParam().corrupt(good);
    }
    FdtExportUse(eFdtExportCharDevice, path.c_str());
    EXPECT_FALSE(m_module->HasIntegratedGPRS());
    EXPECT_EQ(m_log.Entries(), (std::vector<TLogEntry>{Trying(), PathOffset()}));
    std::remove(path.c_str());
}

INSTANTIATE_TEST_SUITE_P(Corruptions, CorruptBlobTest, ::testing::ValuesIn(Corruptions()),
                         [](const auto& parameter) { return parameter.param.name; });

// Descriptors of this process open on `path`, and its mappings of `path`.
std::size_t OpenDescriptors(const std::string& path) {
    std::size_t count = 0;
    DIR* directory = opendir("/proc/self/fd");
    if (directory == nullptr) {
        return 0;
    }
    while (const dirent* entry = readdir(directory)) {
        char target[PATH_MAX] = {};
        const std::string link = std::string("/proc/self/fd/") + entry->d_name;
        const ssize_t length = readlink(link.c_str(), target, sizeof target - 1);
        count += length > 0 && path == std::string(target, static_cast<std::size_t>(length));
    }
    closedir(directory);
    return count;
}

std::size_t Mappings(const std::string& path) {
    std::ifstream maps("/proc/self/maps");
    std::size_t count = 0;
    for (std::string line; std::getline(maps, line);) {
        count += line.size() >= path.size() &&
                 line.compare(line.size() - path.size(), path.size(), path) == 0;
    }
    return count;
}

std::string RealPath(const std::string& path) {
    char resolved[PATH_MAX] = {};
    return realpath(path.c_str(), resolved) != nullptr ? resolved : path;
}

// The check runs once per install event and keeps what it opened: nothing is closed or unmapped.
TEST_F(IntegratedGprsTest, TwoInstallEventsLeaveTwoDescriptorsAndTwoMappingsOpen) {
    const std::string blob = RealPath(Blob("has-gprs-0"));
    FdtExportUse(eFdtExportCharDevice, blob.c_str());
    const std::size_t descriptors = OpenDescriptors(blob);
    const std::size_t mappings = Mappings(blob);
    const unsigned opens = FdtExportOpenCount();

    Install();
    EXPECT_EQ(OpenDescriptors(blob), descriptors + 1);
    EXPECT_EQ(Mappings(blob), mappings + 1);

    Install();
    EXPECT_EQ(OpenDescriptors(blob), descriptors + 2);
    EXPECT_EQ(Mappings(blob), mappings + 2);
    EXPECT_EQ(FdtExportOpenCount(), opens + 2);
}

TEST_F(IntegratedGprsTest, AMappingThatFailsStillLeavesItsDescriptorOpen) {
    const std::string blob = RealPath(Blob("has-gprs-1"));
    FdtExportUse(eFdtExportUnmappable, blob.c_str());
    const std::size_t descriptors = OpenDescriptors(blob);
    const std::size_t mappings = Mappings(blob);
    EXPECT_FALSE(m_module->HasIntegratedGPRS());
    EXPECT_EQ(OpenDescriptors(blob), descriptors + 1);
    EXPECT_EQ(Mappings(blob), mappings);
}

TEST_F(IntegratedGprsTest, AnExportThatIsNoCharacterDeviceIsNeverOpened) {
    FdtExportUse(eFdtExportRegular, Blob("has-gprs-1").c_str());
    const unsigned opens = FdtExportOpenCount();
    EXPECT_FALSE(m_module->HasIntegratedGPRS());
    EXPECT_EQ(FdtExportOpenCount(), opens);
}

// The controller asks on Install only, and only while an update is needed.
TEST_F(IntegratedGprsTest, InitPrepareAndAbortNeverLookAtTheExport) {
    FdtExportUse(eFdtExportCharDevice, Blob("has-gprs-1").c_str());
    const unsigned opens = FdtExportOpenCount();
    Init();
    Prepare();
    Abort();
    EXPECT_EQ(FdtExportOpenCount(), opens);
    for (const TLogEntry& entry : m_log.Entries()) {
        EXPECT_NE(entry.function, "HasIntegratedGPRS");
    }
}

TEST_F(IntegratedGprsTest, TheEnvironmentChoosesTheExportWhenNoTestDoes) {
    ASSERT_EQ(setenv("MODEMLOADER_FDT_FILE", Blob("bamboo-has-gprs-1").c_str(), 1), 0);
    unsetenv("MODEMLOADER_FDT_KIND");
    EXPECT_TRUE(m_module->HasIntegratedGPRS());
    ASSERT_EQ(setenv("MODEMLOADER_FDT_KIND", "missing", 1), 0);
    EXPECT_FALSE(m_module->HasIntegratedGPRS());
    unsetenv("MODEMLOADER_FDT_FILE");
    unsetenv("MODEMLOADER_FDT_KIND");
}

}  // namespace
}  // namespace moduletest
