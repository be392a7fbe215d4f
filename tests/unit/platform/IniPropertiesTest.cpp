// Feature properties from an INI file: one section per feature, exact keys, readable failures.

#include <gtest/gtest.h>

#include "IniProperties.h"
#include "TemporaryDirectory.h"
#include "TestFiles.h"

namespace {

std::string Lookup(const CIniProperties& properties, const std::string& feature,
                   const std::string& key) {
    std::string value = "<untouched>";
    return properties.GetProperty(feature, key, value) ? value : "<missing>";
}

TEST(IniPropertiesTest, EachSectionHoldsTheKeysOfOneFeature) {
    CTemporaryDirectory directory;
    const std::string path = WriteTestFile(directory, "host.ini",
                                           "[host]\n"
                                           "tick_ms = 10\n"
                                           "\n"
                                           "[modemloader]\n"
                                           "control = /sys/class/gpio/gpio7/value\n"
                                           "mountpoint=/mnt/movinand\n"
                                           "removable = 1\n"
                                           "[navigation]\n"
                                           "control = /dev/null\n");
    CIniProperties properties;
    const CStatus status = properties.Load(path);
    ASSERT_TRUE(status.IsOk()) << status.Message();

    EXPECT_EQ(Lookup(properties, "modemloader", "control"), "/sys/class/gpio/gpio7/value");
    EXPECT_EQ(Lookup(properties, "modemloader", "mountpoint"), "/mnt/movinand");
    EXPECT_EQ(Lookup(properties, "modemloader", "removable"), "1");
    EXPECT_EQ(Lookup(properties, "navigation", "control"), "/dev/null");
    EXPECT_EQ(Lookup(properties, "modemloader", "tick_ms"), "<missing>");
    EXPECT_EQ(Lookup(properties, "nosuchfeature", "control"), "<missing>");
    EXPECT_EQ(properties.SectionNames(),
              (std::vector<std::string>{"host", "modemloader", "navigation"}));
    EXPECT_EQ(properties.Section("host"), (CIniProperties::TSection{{"tick_ms", "10"}}));
    EXPECT_EQ(properties.Section("nosuchfeature"), CIniProperties::TSection());
}

TEST(IniPropertiesTest, KeysAreExactCommentsAreSkippedAndTheLastValueWins) {
    CIniProperties properties;
    const CStatus status = properties.LoadText(
        "; the modem loader\n"
        "[modemloader]\n"
        "# a comment line\n"
        "Revision = 999\n"
        "revision = 122\n"
        "revision = 123   ; inline comment\n"
        "firmware =\n"
        "bootloader   =   /data/loader.bin  \n",
        "test.ini");
    ASSERT_TRUE(status.IsOk()) << status.Message();
    EXPECT_EQ(Lookup(properties, "modemloader", "revision"), "123");
    EXPECT_EQ(Lookup(properties, "modemloader", "Revision"), "999");
    EXPECT_EQ(Lookup(properties, "modemloader", "firmware"), "");
    EXPECT_EQ(Lookup(properties, "modemloader", "bootloader"), "/data/loader.bin");
    EXPECT_EQ(Lookup(properties, "Modemloader", "revision"), "<missing>");
}

TEST(IniPropertiesTest, AMissingFileNamesThePathAndTheReason) {
    CTemporaryDirectory directory;
    CIniProperties properties;
    const CStatus status = properties.Load(directory.Path() + "/absent.ini");
    EXPECT_FALSE(status.IsOk());
    EXPECT_EQ(status.Message(),
              directory.Path() + "/absent.ini: cannot open: No such file or directory");
}

TEST(IniPropertiesTest, AFolderIsNotAConfigurationFile) {
    CTemporaryDirectory directory;
    CIniProperties properties;
    const CStatus status = properties.Load(directory.Path());
    EXPECT_FALSE(status.IsOk());
    EXPECT_EQ(status.Message(), directory.Path() + ": cannot read: is a directory");
}

struct TBadText {
    const char* name;
    const char* text;
    int line;
};

void PrintTo(const TBadText& testCase, std::ostream* stream) { *stream << testCase.name; }

class IniPropertiesBadTextTest : public ::testing::TestWithParam<TBadText> {};

TEST_P(IniPropertiesBadTextTest, NamesTheFirstBadLineAndKeepsWhatWasLoadedBefore) {
    CIniProperties properties;
    ASSERT_TRUE(properties.LoadText("[kept]\nkey = value\n", "first.ini").IsOk());

    const CStatus status = properties.LoadText(GetParam().text, "bad.ini");
    EXPECT_FALSE(status.IsOk());
    EXPECT_EQ(status.Message(), "bad.ini: line " + std::to_string(GetParam().line) +
                                    ": not a section header or key = value line");
    EXPECT_EQ(properties.SectionNames(), std::vector<std::string>{"kept"});
    EXPECT_EQ(Lookup(properties, "kept", "key"), "value");
}

INSTANTIATE_TEST_SUITE_P(
    Cases, IniPropertiesBadTextTest,
    ::testing::Values(TBadText{"LineWithoutEquals", "[modemloader]\nrevision 123\n", 2},
                      TBadText{"UnclosedSection", "[modemloader\nrevision = 123\n", 1},
                      TBadText{"SecondOfTwoBadLines", "[a]\nx = 1\njunk\nmore junk\n", 3}),
    [](const ::testing::TestParamInfo<TBadText>& testCase) {
        return std::string(testCase.param.name);
    });

}  // namespace
