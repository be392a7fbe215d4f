// The [host] section as the host reads it: every key and value it takes, how a relative plug-in
// path is anchored at the configuration file's folder, and the message for each wrong value.

#include <gtest/gtest.h>

#include <limits>

#include "HostConfig.h"

namespace {

struct TReadCase {
    const char* name;
    std::string hostSection;  // the [host] section's lines
    std::string configPath;   // where the configuration is said to come from
    std::string message;      // empty: read without error
    THostConfig expected;     // compared when read without error
};

void PrintTo(const TReadCase& testCase, std::ostream* stream) { *stream << testCase.name; }

THostConfig With(void (*change)(THostConfig&)) {
    THostConfig config;
    change(config);
    return config;
}

class HostConfigTest : public ::testing::TestWithParam<TReadCase> {};

TEST_P(HostConfigTest, ReadsTheHostSectionOrNamesTheProblem) {
    CIniProperties properties;
    ASSERT_TRUE(properties.LoadText("[host]\n" + GetParam().hostSection + "[modemloader]\nx = 1\n",
                                    GetParam().configPath));
    THostConfig config;
    config.feature = "left over";
    const CStatus status = CHostConfig::Read(properties, GetParam().configPath, config);
    if (!GetParam().message.empty()) {
        ASSERT_FALSE(status.IsOk());
        EXPECT_EQ(status.Message(), GetParam().configPath + ": [host]: " + GetParam().message);
        return;
    }
    ASSERT_TRUE(status.IsOk()) << status.Message();
    const THostConfig& expected = GetParam().expected;
    EXPECT_EQ(config.pluginPath, expected.pluginPath);
    EXPECT_EQ(config.feature, expected.feature);
    EXPECT_EQ(config.tickMs, expected.tickMs);
    EXPECT_EQ(config.fsTypes, expected.fsTypes);
    EXPECT_EQ(config.serialReadTimeoutMs, expected.serialReadTimeoutMs);
    EXPECT_EQ(config.log, expected.log);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, HostConfigTest,
    ::testing::Values(
        TReadCase{"NothingConfiguredGivesTheDefaults", "", "/etc/host.ini", "", THostConfig{}},
        TReadCase{"EveryKey",
                  "plugin = /usr/lib/feature.so\nfeature = radio\ntick_ms = 5\n"
                  "serial_read_timeout_ms = 0\nlog = both\nfs.2 = ext4\nfs.0 = vfat\n",
                  "/etc/host.ini", "", With([](THostConfig& config) {
                      config.pluginPath = "/usr/lib/feature.so";
                      config.feature = "radio";
                      config.tickMs = 5;
                      config.serialReadTimeoutMs = 0;
                      config.log = THostConfig::TLogTarget::eBoth;
                      config.fsTypes = {{0, "vfat"}, {2, "ext4"}};
                  })},
        TReadCase{"LogToSyslog", "log = syslog\n", "/etc/host.ini", "",
                  With([](THostConfig& config) { config.log = THostConfig::TLogTarget::eSyslog; })},
        TReadCase{"LogNowhere", "log = none\n", "/etc/host.ini", "",
                  With([](THostConfig& config) { config.log = THostConfig::TLogTarget::eNone; })},
        TReadCase{"LogToStderr", "log = stderr\n", "/etc/host.ini", "", THostConfig{}},
        TReadCase{"ARelativePluginIsBesideTheConfiguration", "plugin = lib/feature.so\n",
                  "/etc/modem/host.ini", "", With([](THostConfig& config) {
                      config.pluginPath = "/etc/modem/lib/feature.so";
                  })},
        TReadCase{"AConfigurationInTheRootFolder", "plugin = feature.so\n", "/host.ini", "",
                  With([](THostConfig& config) { config.pluginPath = "/feature.so"; })},
        TReadCase{"AConfigurationNamedWithoutAFolder", "plugin = feature.so\n", "host.ini", "",
                  With([](THostConfig& config) { config.pluginPath = "./feature.so"; })},
        TReadCase{"AnEmptyPluginIsNoPlugin", "plugin =\n", "/etc/host.ini", "", THostConfig{}},
        TReadCase{"TheLargestTick", "tick_ms = 4294967295\n", "/etc/host.ini", "",
                  With([](THostConfig& config) {
                      config.tickMs = std::numeric_limits<uint32_t>::max();
                  })},
        TReadCase{"TheLargestFormat", "fs.2147483647 = ext4\n", "/etc/host.ini", "",
                  With([](THostConfig& config) {
                      config.fsTypes = {{std::numeric_limits<int>::max(), "ext4"}};
                  })},
        TReadCase{"UnknownKey", "colour = red\n", "/etc/host.ini", "unknown key 'colour'", {}},
        TReadCase{"EmptyFeature", "feature =\n", "/etc/host.ini", "feature must not be empty", {}},
        TReadCase{
            "EmptyTick", "tick_ms =\n", "/etc/host.ini", "tick_ms = '' is not a whole number", {}},
        TReadCase{"ZeroTick", "tick_ms = 0\n", "/etc/host.ini", "tick_ms must be at least 1", {}},
        TReadCase{"TickJustTooLarge",
                  "tick_ms = 4294967296\n",
                  "/etc/host.ini",
                  "tick_ms = '4294967296' is too large",
                  {}},
        TReadCase{"TickBeyondAnyNumber",
                  "tick_ms = 99999999999999999999999\n",
                  "/etc/host.ini",
                  "tick_ms = '99999999999999999999999' is too large",
                  {}},
        TReadCase{"NegativeReadTimeout",
                  "serial_read_timeout_ms = -1\n",
                  "/etc/host.ini",
                  "serial_read_timeout_ms = '-1' is not a whole number",
                  {}},
        TReadCase{"UnknownLogTarget",
                  "log = loud\n",
                  "/etc/host.ini",
                  "log = 'loud' is not one of stderr, syslog, both, none",
                  {}},
        TReadCase{"FormatWithoutNumber",
                  "fs. = ext4\n",
                  "/etc/host.ini",
                  "fs. = '' is not a whole number",
                  {}},
        TReadCase{"FormatNotANumber",
                  "fs.x = ext4\n",
                  "/etc/host.ini",
                  "fs.x = 'x' is not a whole number",
                  {}},
        TReadCase{"FormatBeyondAnInt",
                  "fs.2147483648 = ext4\n",
                  "/etc/host.ini",
                  "fs.2147483648: format number too large",
                  {}},
        TReadCase{"FormatWithoutType",
                  "fs.2 =\n",
                  "/etc/host.ini",
                  "fs.2 names no file-system type",
                  {}}),
    [](const ::testing::TestParamInfo<TReadCase>& testCase) {
        return std::string(testCase.param.name);
    });

}  // namespace
