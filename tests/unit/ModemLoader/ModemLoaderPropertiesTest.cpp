// The module object's eleven feature properties: the order it reads them in, and one Error
// record for every key that is missing.

#include <gtest/gtest.h>

#include <algorithm>

#include "ModuleTestHost.h"

namespace moduletest {
namespace {

// The module's keys in the order they are read, with the text logged when one is missing.
const std::vector<std::pair<std::string, std::string>> kModuleKeys = {
    {"control", "Failed to retrieve 'controlpin' property"},
    {"revision", "Failed to retrieve 'revision' property"},
    {"mountpoint", "Failed to retrieve 'mountpoint' property"},
    {"movinand", "Failed to retrieve 'movinand' property"},
    {"revisionfile", "Failed to retrieve 'revisionfile' property"},
    {"flagfile", "Failed to retrieve 'flagfile' property"},
    {"bootloader", "Failed to retrieve 'bootloader' property"},
    {"firmware", "Failed to retrieve 'firmware' property"},
    {"productconfig", "Failed to retrieve 'productconfig' property"},
    {"daemonconfig", "Failed to retrieve 'daemonconfig' property"},
    {"removable", "Failed to retrieve 'removable' property"},
};

std::vector<std::pair<std::string, std::string>> ModuleLookups(const std::string& feature) {
    std::vector<std::pair<std::string, std::string>> lookups;
    for (const auto& [key, message] : kModuleKeys) {
        lookups.emplace_back(feature, key);
    }
    return lookups;
}

class ModemLoaderPropertiesTest : public CModuleTest {};

TEST_F(ModemLoaderPropertiesTest, AllElevenKeysFoundReadsThemInOrderUnderTheFeatureName) {
    CreateModule();
    EXPECT_TRUE(m_module->ParseProperties());
    EXPECT_EQ(m_properties.Lookups(), ModuleLookups(kName));
    EXPECT_TRUE(m_log.Entries().empty());
}

TEST_F(ModemLoaderPropertiesTest, EmptyPropertySetLogsElevenErrorsInKeyOrderAndFails) {
    ConfigureUnder("");
    CreateModule();
    EXPECT_FALSE(m_module->ParseProperties());
    std::vector<TLogEntry> expected;
    for (const auto& [key, message] : kModuleKeys) {
        expected.push_back(ErrorEntry("ParseProperties", message));
    }
    EXPECT_EQ(m_log.Entries(), expected);
    EXPECT_EQ(m_properties.Lookups(), ModuleLookups(kName));
}

// Every lookup is scoped by the module's own name: another feature's properties do not count.
TEST_F(ModemLoaderPropertiesTest, PropertiesOfAnotherFeatureAreNotFound) {
    ConfigureUnder("navigation");
    CreateModule();
    EXPECT_FALSE(m_module->ParseProperties());
    EXPECT_EQ(m_log.Entries().size(), 11u);
    EXPECT_EQ(m_properties.Lookups(), ModuleLookups(kName));
}

TEST_F(ModemLoaderPropertiesTest, LookupsUseTheNameTheModuleWasCreatedWith) {
    m_name = "modem2";
    ConfigureUnder("modem2");
    CreateModule();
    EXPECT_TRUE(m_module->ParseProperties());
    EXPECT_EQ(m_properties.Lookups(), ModuleLookups("modem2"));
}

// One key missing: one record naming it, false, and every other key still read.
class MissingKeyTest : public ModemLoaderPropertiesTest,
                       public ::testing::WithParamInterface<std::size_t> {};

TEST_P(MissingKeyTest, LogsExactlyThatKeysMessageReadsOnAndFails) {
    const auto& [key, message] = kModuleKeys[GetParam()];
    m_properties.Remove(kName, key);
    CreateModule();
    EXPECT_FALSE(m_module->ParseProperties());
    EXPECT_EQ(m_log.Entries(), std::vector<TLogEntry>{ErrorEntry("ParseProperties", message)});
    EXPECT_EQ(m_properties.Lookups(), ModuleLookups(kName)) << "the parse never stops early";
}

INSTANTIATE_TEST_SUITE_P(Keys, MissingKeyTest, ::testing::Range<std::size_t>(0, 11),
                         [](const auto& parameter) { return kModuleKeys[parameter.param].first; });

// The control pin is read from "control" but its message names 'controlpin'.
TEST_F(ModemLoaderPropertiesTest, MissingControlNamesControlpinInItsMessage) {
    m_properties.Remove(kName, "control");
    CreateModule();
    EXPECT_FALSE(m_module->ParseProperties());
    const auto records = m_log.Records();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].text, "(Failed to retrieve 'controlpin' property)\n");
    EXPECT_EQ(records[0].category, logging::categories::Error);
    EXPECT_EQ(records[0].channel, logging::ModemLoader);
    EXPECT_EQ(records[0].function, "ParseProperties");
}

// A later key that is found does not make up for an earlier one that was missing.
TEST_F(ModemLoaderPropertiesTest, FirstAndLastKeysMissingStillFailWithTwoRecords) {
    m_properties.Remove(kName, "control");
    m_properties.Remove(kName, "removable");
    CreateModule();
    EXPECT_FALSE(m_module->ParseProperties());
    EXPECT_EQ(m_log.Entries(),
              (std::vector<TLogEntry>{
                  ErrorEntry("ParseProperties", "Failed to retrieve 'controlpin' property"),
                  ErrorEntry("ParseProperties", "Failed to retrieve 'removable' property")}));
}

// Nothing is validated: empty values and odd flag values are accepted.
TEST_F(ModemLoaderPropertiesTest, EmptyAndUnusualValuesAreAccepted) {
    for (const auto& [key, message] : kModuleKeys) {
        m_properties.Set(kName, key, "");
    }
    m_properties.Set(kName, "removable", "true");
    CreateModule();
    EXPECT_TRUE(m_module->ParseProperties());
    EXPECT_TRUE(m_log.Entries().empty());
}

TEST_F(ModemLoaderPropertiesTest, EveryInitReadsAllKeysAgain) {
    CreateModule();
    Init();
    Init();
    auto expected = ModuleLookups(kName);
    const auto once = expected;
    expected.insert(expected.end(), once.begin(), once.end());
    EXPECT_EQ(m_properties.Lookups(), expected);
}

// A second Init overwrites the values with what is configured then.
TEST_F(ModemLoaderPropertiesTest, ASecondInitOverwritesTheValues) {
    m_files.AddFolder("/mnt/other");
    CreateModule();
    Init();
    m_properties.Set(kName, "mountpoint", "/mnt/other");
    Init();
    m_files.AddStorage(kMovinand);
    Prepare();
    const auto calls = m_files.Calls();
    EXPECT_NE(std::find(calls.begin(), calls.end(), "Mount /dev/movinand /mnt/other 2"),
              calls.end());
}

// A key that goes missing on a later Init leaves the value the earlier one read.
TEST_F(ModemLoaderPropertiesTest, AKeyMissingOnALaterInitKeepsTheEarlierValue) {
    CreateModule();
    Init();
    m_properties.Remove(kName, "mountpoint");
    Init();
    EXPECT_EQ(m_log.Entries(), std::vector<TLogEntry>{ErrorEntry(
                                   "ParseProperties", "Failed to retrieve 'mountpoint' property")});
    Prepare();
    const auto calls = m_files.Calls();
    EXPECT_NE(std::find(calls.begin(), calls.end(), "Mount /dev/movinand /mnt/movinand 2"),
              calls.end());
}

}  // namespace
}  // namespace moduletest
