// modemloader-host as its users run it: a child process with a configuration file, the real
// plug-in and a real ext4 storage image, observed through its exit status, its JSON Lines trace
// and what it prints.

#include <gtest/gtest.h>
#include <pwd.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <regex>
#include <sstream>

#include "Await.h"
#include "ChildProcess.h"
#include "MountTable.h"
#include "Prerequisite.h"
#include "StorageImage.h"
#include "TemporaryDirectory.h"
#include "TestFiles.h"

namespace {

using nlohmann::json;
using namespace std::chrono_literals;

constexpr char kLogFile[] = "features/component/ModemLoader/src/ModemLoader";
// Trace lines of requests the host has published, as they start.
constexpr char kInstallSent[] = R"("dir":"in","type":3,"id":204,)";
constexpr char kPrepareSent[] = R"("dir":"in","type":3,"id":202,)";
constexpr char kAbortSent[] = R"("dir":"in","type":3,"id":207,)";
constexpr char kStoppingOnSigterm[] =
    "modemloader-host: stopping on SIGTERM; sending Abort (207) and waiting for the feature's "
    "result; a second signal leaves at once\n";

std::vector<json> ReadTrace(const std::string& path) {
    std::vector<json> lines;
    std::ifstream file(path);
    std::string line;
    while (std::getline(file, line)) {
        lines.push_back(json::parse(line));
    }
    return lines;
}

// One trace line in a few words, for comparing whole conversations at a glance.
std::string Summary(const json& line) {
    const std::string kind = line.at("kind");
    std::string text;
    if (kind == "event") {
        text = line.at("dir").get<std::string>() + " " + std::to_string(line.at("id").get<int>());
        if (line.contains("percent")) {
            text += " " + std::to_string(line.at("percent").get<int>()) + "%";
        }
        if (line.contains("outcome")) {
            text += " outcome " + std::to_string(line.at("outcome").get<int>());
        }
    } else if (kind == "log") {
        text = "log " + line.at("category").get<std::string>() + " " +
               line.at("function").get<std::string>() + ": " + line.at("text").get<std::string>();
    } else if (kind == "mount") {
        text = "mount " + line.at("device").get<std::string>() + " on " +
               line.at("mountpoint").get<std::string>() + " format " +
               std::to_string(line.at("format").get<int>()) +
               (line.at("status").get<int>() == 0 ? " ok" : " failed");
    } else if (kind == "umount") {
        text = "umount " + line.at("mountpoint").get<std::string>() +
               (line.at("status").get<int>() == 0 ? " ok" : " failed");
    } else {
        text = line.dump();
    }
    return text;
}

std::vector<std::string> Summaries(const std::vector<json>& lines) {
    std::vector<std::string> summaries;
    for (const json& line : lines) {
        summaries.push_back(Summary(line));
    }
    return summaries;
}

// The line without its time stamp.
json Untimed(json line) {
    line.erase("t");
    return line;
}

std::vector<std::string> FakeLoaderProgress() {
    std::vector<std::string> lines;
    for (int percent = 5; percent <= 100; percent += 5) {
        lines.push_back("out 206 " + std::to_string(percent) + "%");
    }
    return lines;
}

class HostProgramTest : public ::testing::Test {
protected:
    std::string Path(const std::string& name) const { return m_directory.Path() + "/" + name; }

    // A configuration with the eleven properties the module reads; `changes` replaces or adds
    // properties ("" as value removes one). The plug-in comes from the command line.
    std::string WriteConfig(const std::map<std::string, std::string>& changes = {},
                            const std::string& hostSection = "tick_ms = 10\nfs.2 = ext4\n") {
        std::map<std::string, std::string> properties{{"control", Path("control")},
                                                      {"revision", "123"},
                                                      {"mountpoint", Path("mnt")},
                                                      {"movinand", Path("absent-device")},
                                                      {"revisionfile", "revision"},
                                                      {"flagfile", "update.flag"},
                                                      {"bootloader", Path("loader.bin")},
                                                      {"firmware", Path("firmware.bin")},
                                                      {"productconfig", Path("product.cfg")},
                                                      {"daemonconfig", Path("daemon.cfg")},
                                                      {"removable", "0"}};
        for (const auto& [key, value] : changes) {
            if (value.empty()) {
                properties.erase(key);
            } else {
                properties[key] = value;
            }
        }
        std::string text = "[host]\n" + hostSection + "\n[modemloader]\n";
        for (const auto& [key, value] : properties) {
            text += key + " = " + value + "\n";
        }
        ::mkdir(Path("mnt").c_str(), 0755);
        return WriteTestFile(m_directory, "host.ini", text);
    }

    TChildResult RunHost(std::vector<std::string> arguments, TChildOptions options = {}) {
        arguments.insert(arguments.begin(), MODEMLOADER_HOST);
        options.timeout = 60s;
        return CChildProcess::Run(arguments, options);
    }

    TChildResult RunUpdate(const std::string& config, std::vector<std::string> extra = {},
                           TChildOptions options = {}) {
        std::vector<std::string> arguments{"update",           "--config",         config,
                                           "--plugin",         MODEMLOADER_PLUGIN, "--trace",
                                           Path("trace.jsonl")};
        arguments.insert(arguments.end(), extra.begin(), extra.end());
        return RunHost(arguments, options);
    }

    std::vector<json> Trace() const { return ReadTrace(Path("trace.jsonl")); }

    // The host in the background, to be signalled; its output goes to out.txt and err.txt here.
    void StartHost(CChildProcess& host, std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), MODEMLOADER_HOST);
        TStartOptions options;
        options.outputPath = Path("out.txt");
        options.errorPath = Path("err.txt");
        const CStatus started = host.Start(arguments, options);
        ASSERT_TRUE(started) << started.Message();
    }

    // Awaits `text` in the file (the trace is written line by line as the update goes).
    bool AwaitInFile(const std::string& name, const std::string& text) const {
        return Await([&] { return ReadTestFile(Path(name)).find(text) != std::string::npos; });
    }

    CTemporaryDirectory m_directory;
};

TEST_F(HostProgramTest, HelpPrintsTheUsageAndExitsZero) {
    const TChildResult result = RunHost({"--help"});
    EXPECT_EQ(result.exitCode, 0) << Describe(result);
    // The help is generated from the grammar: both commands, each with its options.
    EXPECT_EQ(result.out.rfind("Loads a feature plug-in", 0), 0u) << result.out;
    EXPECT_NE(result.out.find("Usage: modemloader-host [OPTIONS] [SUBCOMMAND]"), std::string::npos)
        << result.out;
    EXPECT_NE(result.out.find("\nupdate\n"), std::string::npos) << result.out;
    EXPECT_NE(result.out.find("\ninfo\n"), std::string::npos) << result.out;
    EXPECT_NE(result.out.find("--abort-after-ms N"), std::string::npos) << result.out;
    EXPECT_NE(result.out.find("--plugin PATH"), std::string::npos) << result.out;
    EXPECT_NE(result.out.find("exit status: 0 update succeeded"), std::string::npos) << result.out;
    EXPECT_EQ(result.err, "");
}

// info loads any feature plug-in, the SDK's example among them; only update insists on the type.
struct TInfoCase {
    const char* name;
    const char* plugin;
    const char* featureType;
};

void PrintTo(const TInfoCase& testCase, std::ostream* stream) { *stream << testCase.name; }

class HostProgramInfoTest : public HostProgramTest,
                            public ::testing::WithParamInterface<TInfoCase> {};

TEST_P(HostProgramInfoTest, PrintsThePathTheFeatureTypeAndTheEntryPoints) {
    const TChildResult result = RunHost({"info", "--plugin", GetParam().plugin});
    EXPECT_EQ(result.exitCode, 0) << Describe(result);
    EXPECT_EQ(result.out, std::string("plugin: ") + GetParam().plugin +
                              "\nfeature type: " + GetParam().featureType +
                              "\nentry points: FeatureType, FeatureCreate2\n");
    EXPECT_EQ(result.err, "");
}

INSTANTIATE_TEST_SUITE_P(
    Cases, HostProgramInfoTest,
    ::testing::Values(TInfoCase{"ModemLoader", MODEMLOADER_PLUGIN, "modemloader"},
                      TInfoCase{"AnotherFeatureType", OTHER_TYPE_PLUGIN, "navigation"},
                      TInfoCase{"SdkExampleFeature", HELLO_FEATURE_PLUGIN, "hello"},
                      TInfoCase{"AFeatureThatNamesNoType", UNTYPED_PLUGIN, ""}),
    [](const ::testing::TestParamInfo<TInfoCase>& testCase) {
        return std::string(testCase.param.name);
    });

struct TUsageCase {
    const char* name;
    std::vector<std::string> arguments;
    std::string message;
};

void PrintTo(const TUsageCase& testCase, std::ostream* stream) { *stream << testCase.name; }

class HostProgramUsageTest : public HostProgramTest,
                             public ::testing::WithParamInterface<TUsageCase> {};

TEST_P(HostProgramUsageTest, ExitsTwoWithOneLineNamingTheProblem) {
    const TChildResult result = RunHost(GetParam().arguments);
    EXPECT_EQ(result.exitCode, 2) << Describe(result);
    EXPECT_EQ(result.err,
              "modemloader-host: " + GetParam().message + " (see modemloader-host --help)\n");
    EXPECT_EQ(result.out, "");
}

INSTANTIATE_TEST_SUITE_P(
    Cases, HostProgramUsageTest,
    ::testing::Values(
        TUsageCase{"NoCommand", {}, "no command given"},
        TUsageCase{"UnknownCommand", {"frobnicate"}, "unknown command 'frobnicate'"},
        TUsageCase{"UpdateWithoutConfig", {"update"}, "update needs --config FILE"},
        TUsageCase{"OptionWithoutValue", {"update", "--config"}, "--config needs a value"},
        TUsageCase{"UnknownOption",
                   {"update", "--config", "x.ini", "--colour", "red"},
                   "unknown option '--colour' for update"},
        TUsageCase{"TickNotANumber",
                   {"update", "--config", "x.ini", "--tick-ms", "ten"},
                   "--tick-ms: 'ten' is not a whole number"},
        TUsageCase{"ZeroTick",
                   {"update", "--config", "x.ini", "--tick-ms", "0"},
                   "--tick-ms: the period must be at least 1"},
        TUsageCase{"NegativeTimeout",
                   {"update", "--config", "x.ini", "--timeout", "-1"},
                   "--timeout: '-1' is not a number of seconds"},
        TUsageCase{"TimeoutNotANumber",
                   {"update", "--config", "x.ini", "--timeout", "nan"},
                   "--timeout: 'nan' is not a number of seconds"},
        TUsageCase{"EndlessTimeout",
                   {"update", "--config", "x.ini", "--timeout", "1e300"},
                   "--timeout: '1e300' is too long (at most 1e9 seconds)"},
        TUsageCase{"TickTooLarge",
                   {"update", "--config", "x.ini", "--tick-ms", "4294967296"},
                   "--tick-ms: '4294967296' is too large"},
        TUsageCase{"AbortDelayNotANumber",
                   {"update", "--config", "x.ini", "--abort-after-ms", "soon"},
                   "--abort-after-ms: 'soon' is not a whole number"},
        TUsageCase{"TimeoutWithAUnit",
                   {"update", "--config", "x.ini", "--timeout", "5s"},
                   "--timeout: '5s' is not a number of seconds"},
        TUsageCase{"AStrayWord",
                   {"update", "--config", "x.ini", "now"},
                   "unknown option 'now' for update"},
        TUsageCase{"TickEmpty",
                   {"update", "--config", "x.ini", "--tick-ms", ""},
                   "--tick-ms: '' is not a whole number"},
        TUsageCase{"TickBeyondAnyNumber",
                   {"update", "--config", "x.ini", "--tick-ms", "99999999999999999999999"},
                   "--tick-ms: '99999999999999999999999' is too large"},
        TUsageCase{"AbortDelayTooLarge",
                   {"update", "--config", "x.ini", "--abort-after-ms", "4294967296"},
                   "--abort-after-ms: '4294967296' is too large"},
        TUsageCase{"TimeoutEmpty",
                   {"update", "--config", "x.ini", "--timeout", ""},
                   "--timeout: '' is not a number of seconds"},
        TUsageCase{"TimeoutBeyondAnyNumber",
                   {"update", "--config", "x.ini", "--timeout", "1e999"},
                   "--timeout: '1e999' is not a number of seconds"},
        TUsageCase{"InfiniteTimeout",
                   {"update", "--config", "x.ini", "--timeout", "inf"},
                   "--timeout: 'inf' is not a number of seconds"},
        TUsageCase{"AnOptionBeforeTheCommand",
                   {"--colour", "update", "--config", "x.ini"},
                   "unknown option '--colour' for update"},
        TUsageCase{"AFlagGivenAValue",
                   {"update", "--config", "x.ini", "--quiet=loud"},
                   "Could not convert: --quiet = loud"},
        TUsageCase{"InfoWithoutPlugin", {"info"}, "info needs --plugin PATH"},
        TUsageCase{"UpdateOptionForInfo",
                   {"info", "--plugin", "x.so", "--quiet"},
                   "unknown option '--quiet' for info"}),
    [](const ::testing::TestParamInfo<TUsageCase>& testCase) {
        return std::string(testCase.param.name);
    });

struct TConfigCase {
    const char* name;
    std::string hostSection;  // the [host] section's lines
    std::string message;      // after "modemloader-host: configuration <path>"
};

void PrintTo(const TConfigCase& testCase, std::ostream* stream) { *stream << testCase.name; }

class HostProgramConfigTest : public HostProgramTest,
                              public ::testing::WithParamInterface<TConfigCase> {};

TEST_P(HostProgramConfigTest, ExitsTwoWithOneLineNamingTheFileAndTheProblem) {
    const std::string config = WriteConfig({}, GetParam().hostSection);
    const TChildResult result = RunUpdate(config);
    EXPECT_EQ(result.exitCode, 2) << Describe(result);
    EXPECT_EQ(result.err, "modemloader-host: configuration " + config + GetParam().message + "\n");
    EXPECT_EQ(result.out, "");
}

INSTANTIATE_TEST_SUITE_P(
    Cases, HostProgramConfigTest,
    ::testing::Values(
        TConfigCase{"UnknownKey", "colour = red\n", ": [host]: unknown key 'colour'"},
        TConfigCase{"MisspelledKey", "tickms = 10\n", ": [host]: unknown key 'tickms'"},
        TConfigCase{"TickNotANumber", "tick_ms = fast\n",
                    ": [host]: tick_ms = 'fast' is not a whole number"},
        TConfigCase{"ZeroTick", "tick_ms = 0\n", ": [host]: tick_ms must be at least 1"},
        TConfigCase{"TickTooLarge", "tick_ms = 99999999999\n",
                    ": [host]: tick_ms = '99999999999' is too large"},
        TConfigCase{"ReadTimeoutNotANumber", "serial_read_timeout_ms = soon\n",
                    ": [host]: serial_read_timeout_ms = 'soon' is not a whole number"},
        TConfigCase{"FormatTooLarge", "fs.4294967295 = ext4\n",
                    ": [host]: fs.4294967295: format number too large"},
        TConfigCase{"FormatWithoutType", "fs.2 =\n", ": [host]: fs.2 names no file-system type"},
        TConfigCase{"UnknownLogTarget", "log = loud\n",
                    ": [host]: log = 'loud' is not one of stderr, syslog, both, none"},
        TConfigCase{"FormatNotANumber", "fs.movinand = ext4\n",
                    ": [host]: fs.movinand = 'movinand' is not a whole number"},
        TConfigCase{"EmptyFeatureName", "feature =\n", ": [host]: feature must not be empty"},
        TConfigCase{"NotIni", "this line is no setting\n",
                    ": line 2: not a section header or key = value line"}),
    [](const ::testing::TestParamInfo<TConfigCase>& testCase) {
        return std::string(testCase.param.name);
    });

TEST_F(HostProgramTest, AMissingConfigurationFileIsNamed) {
    const TChildResult result = RunUpdate(Path("absent.ini"));
    EXPECT_EQ(result.exitCode, 2) << Describe(result);
    EXPECT_EQ(result.err, "modemloader-host: configuration " + Path("absent.ini") +
                              ": cannot open: No such file or directory\n");
}

TEST_F(HostProgramTest, AnUnreadableConfigurationIsNamed) {
    const TChildResult result = RunUpdate(m_directory.Path());
    EXPECT_EQ(result.exitCode, 2) << Describe(result);
    EXPECT_EQ(result.err, "modemloader-host: configuration " + m_directory.Path() +
                              ": cannot read: is a directory\n");
}

TEST_F(HostProgramTest, AConfigurationWithoutPluginNeedsOneOnTheCommandLine) {
    const std::string config = WriteConfig();
    const TChildResult result = RunHost({"update", "--config", config});
    EXPECT_EQ(result.exitCode, 2) << Describe(result);
    EXPECT_EQ(result.err, "modemloader-host: no plug-in: give --plugin PATH or [host] plugin in " +
                              config + "\n");
}

TEST_F(HostProgramTest, AMissingPluginIsNamedWithTheLoadersReason) {
    const std::string config = WriteConfig();
    const TChildResult result =
        RunHost({"update", "--config", config, "--plugin", Path("absent.so")});
    EXPECT_EQ(result.exitCode, 2) << Describe(result);
    EXPECT_EQ(result.err, "modemloader-host: plug-in " + Path("absent.so") +
                              ": cannot load: " + Path("absent.so") +
                              ": cannot open shared object file: No such file or directory\n");
    const TChildResult info = RunHost({"info", "--plugin", Path("absent.so")});
    EXPECT_EQ(info.exitCode, 2) << Describe(info);
    EXPECT_EQ(info.err, result.err);
    EXPECT_EQ(info.out, "");
}

TEST_F(HostProgramTest, ALibraryThatIsNoFeatureIsRefused) {
    const std::string config = WriteConfig();
    const TChildResult result =
        RunHost({"update", "--config", config, "--plugin", NOT_A_FEATURE_PLUGIN});
    EXPECT_EQ(result.exitCode, 2) << Describe(result);
    EXPECT_EQ(result.err, std::string("modemloader-host: plug-in ") + NOT_A_FEATURE_PLUGIN +
                              ": not a feature plug-in (no FeatureType)\n");
}

TEST_F(HostProgramTest, AFeatureOfAnotherTypeIsRefused) {
    const std::string config = WriteConfig();
    const TChildResult result =
        RunHost({"update", "--config", config, "--plugin", OTHER_TYPE_PLUGIN});
    EXPECT_EQ(result.exitCode, 2) << Describe(result);
    EXPECT_EQ(result.err, std::string("modemloader-host: plug-in ") + OTHER_TYPE_PLUGIN +
                              ": a feature of type 'navigation', not 'modemloader'\n");
    const TChildResult untyped =
        RunHost({"update", "--config", config, "--plugin", UNTYPED_PLUGIN});
    EXPECT_EQ(untyped.exitCode, 2) << Describe(untyped);
    EXPECT_EQ(untyped.err, std::string("modemloader-host: plug-in ") + UNTYPED_PLUGIN +
                               ": a feature of type '', not 'modemloader'\n");
}

TEST_F(HostProgramTest, AFeatureWithoutItsCreateEntryPointIsRefusedBeforeAnythingRuns) {
    const std::string config = WriteConfig();
    const TChildResult result = RunHost({"update", "--config", config, "--plugin", NO_CREATE_PLUGIN,
                                         "--trace", Path("trace.jsonl")});
    EXPECT_EQ(result.exitCode, 2) << Describe(result);
    EXPECT_EQ(result.err, std::string("modemloader-host: plug-in ") + NO_CREATE_PLUGIN +
                              ": not a feature plug-in (no FeatureCreate2)\n");
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(ReadTestFile(Path("trace.jsonl")), "") << "no event before the refusal";
    const TChildResult info = RunHost({"info", "--plugin", NO_CREATE_PLUGIN});
    EXPECT_EQ(info.exitCode, 2) << Describe(info);
    EXPECT_EQ(info.err, result.err);
    EXPECT_EQ(info.out, "");
}

TEST_F(HostProgramTest, AFeatureWhoseCreateMakesNoModuleIsNamed) {
    const std::string config = WriteConfig();
    const TChildResult result = RunHost({"update", "--config", config, "--plugin", NO_MODULE_PLUGIN,
                                         "--trace", Path("trace.jsonl")});
    EXPECT_EQ(result.exitCode, 2) << Describe(result);
    EXPECT_EQ(result.err, std::string("modemloader-host: plug-in ") + NO_MODULE_PLUGIN +
                              ": FeatureCreate2 made no module\n");
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(ReadTestFile(Path("trace.jsonl")), "") << "no event before the refusal";
}

// The host runs as root and hands configured values to the shell: a configuration or plug-in
// that others could change is refused before it is read or loaded, naming the file, its owner and
// its mode.
std::string PermissionRefusal(const std::string& subject, const std::string& fault,
                              const std::string& mode) {
    const passwd* user = ::getpwuid(::geteuid());
    const std::string owner = std::string(user != nullptr ? user->pw_name : "?") + " (uid " +
                              std::to_string(::geteuid()) + ")";
    return "modemloader-host: refusing " + subject + ": it " + fault + " (owner " + owner +
           ", mode " + mode + "); whoever can change it runs code as root here; make it " +
           "writable only by " + (::getuid() == 0 ? "root" : "root or " + owner) +
           ", or pass --insecure-permissions\n";
}

TEST_F(HostProgramTest, AWorldWritableConfigurationIsRefused) {
    const std::string config = WriteConfig();
    ASSERT_EQ(::chmod(config.c_str(), 0666), 0);
    const TChildResult result = RunUpdate(config);
    EXPECT_EQ(result.exitCode, 2) << Describe(result);
    EXPECT_EQ(result.err,
              PermissionRefusal("the configuration " + config, "is writable by others", "0666"));
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(ReadTestFile(Path("trace.jsonl")), "") << "nothing may run before the refusal";
}

TEST_F(HostProgramTest, AGroupWritablePluginIsRefused) {
    const std::string config = WriteConfig();
    const std::string plugin = Path("libmodemloader.so");
    const std::string bytes = ReadTestFile(MODEMLOADER_PLUGIN);
    ASSERT_FALSE(bytes.empty());
    WriteTestFile(m_directory, "libmodemloader.so", bytes);
    ASSERT_EQ(::chmod(plugin.c_str(), 0664), 0);
    const TChildResult update = RunHost({"update", "--config", config, "--plugin", plugin});
    EXPECT_EQ(update.exitCode, 2) << Describe(update);
    EXPECT_EQ(update.err,
              PermissionRefusal("the plug-in " + plugin, "is writable by its group", "0664"));
    const TChildResult info = RunHost({"info", "--plugin", plugin});
    EXPECT_EQ(info.exitCode, 2) << Describe(info);
    EXPECT_EQ(info.err, update.err);
    EXPECT_EQ(info.out, "");
}

TEST_F(HostProgramTest, AConfigurationInAWorldWritableDirectoryIsRefused) {
    const std::string shared = Path("shared");
    ASSERT_EQ(::mkdir(shared.c_str(), 0700), 0);
    ASSERT_EQ(::chmod(shared.c_str(), 0777), 0);
    const std::string config =
        WriteTestFile(m_directory, "shared/host.ini", ReadTestFile(WriteConfig()));
    const TChildResult result = RunUpdate(config);
    EXPECT_EQ(result.exitCode, 2) << Describe(result);
    EXPECT_EQ(result.err,
              PermissionRefusal("the directory " + shared + " of the configuration " + config,
                                "is writable by others", "0777"));
}

TEST_F(HostProgramTest, InsecurePermissionsLoadsThemAnyway) {
    const std::string config = WriteConfig();
    ASSERT_EQ(::chmod(config.c_str(), 0666), 0);
    const TChildResult result = RunUpdate(config, {"--insecure-permissions"});
    // The update goes as far as the storage, which this set-up does not have.
    EXPECT_EQ(result.exitCode, 1) << Describe(result);
    EXPECT_EQ(result.err.find("refusing"), std::string::npos) << result.err;
    ASSERT_FALSE(Trace().empty());
    EXPECT_EQ(Summary(Trace().front()), "in 200");
}

TEST_F(HostProgramTest, TheConfiguredPluginIsFoundBesideTheConfigurationFile) {
    // A relative [host] plugin path is taken from the configuration file's folder.
    ASSERT_EQ(::symlink(OTHER_TYPE_PLUGIN, Path("feature.so").c_str()), 0);
    const std::string config = WriteConfig({}, "plugin = feature.so\n");
    const TChildResult result = RunHost({"update", "--config", config});
    EXPECT_EQ(result.exitCode, 2) << Describe(result);
    EXPECT_EQ(result.err, "modemloader-host: plug-in " + Path("feature.so") +
                              ": a feature of type 'navigation', not 'modemloader'\n");
}

TEST_F(HostProgramTest, AStorageThatCannotBeMountedFailsThePrepare) {
    const std::string config = WriteConfig();
    const TChildResult result = RunUpdate(config);
    EXPECT_EQ(result.exitCode, 1) << Describe(result);
    EXPECT_EQ(Summaries(Trace()),
              (std::vector<std::string>{
                  "in 200",
                  "out 201",
                  "in 202",
                  "umount " + Path("mnt") + " failed",
                  "log Error HandleControllerPrepare: Couldn't umount " + Path("mnt"),
                  "log Error Mount: mounting " + Path("absent-device") + " on " + Path("mnt") +
                      ": examining the device: No such file or directory",
                  "mount " + Path("absent-device") + " on " + Path("mnt") + " format 2 failed",
                  "log Error HandleControllerPrepare: Couldn't mount " + Path("absent-device"),
                  "out 203 outcome 0",
              }));
    EXPECT_EQ(result.out.rfind("modemloader: update failed: Prepare reported failure (", 0), 0u)
        << result.out;
    // The records for people, one line each on stderr.
    EXPECT_TRUE(std::regex_match(
        result.err,
        std::regex(
            R"(\d\d:\d\d:\d\d\.\d\d\d Error HandleControllerPrepare: Couldn't umount .*/mnt\n)"
            R"(\d\d:\d\d:\d\d\.\d\d\d Error Mount: mounting .*/absent-device on .*/mnt: )"
            R"(examining the device: No such file or directory\n)"
            R"(\d\d:\d\d:\d\d\.\d\d\d Error HandleControllerPrepare: Couldn't mount .*/absent-device\n)")))
        << result.err;
}

TEST_F(HostProgramTest, WithLogNoneNothingIsWrittenToStderr) {
    const std::string config = WriteConfig({}, "tick_ms = 10\nfs.2 = ext4\nlog = none\n");
    // A time-out well above what the update takes changes nothing.
    const TChildResult result = RunUpdate(config, {"--quiet", "--timeout", "30.5"});
    EXPECT_EQ(result.exitCode, 1) << Describe(result);
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(Summaries(Trace()).back(), "out 203 outcome 0") << "the trace still has everything";
}

TEST_F(HostProgramTest, ATooLongFeatureNameIsRefused) {
    const std::string config = WriteConfig();
    const std::string name(64, 'n');
    const TChildResult result = RunUpdate(config, {"--feature", name});
    EXPECT_EQ(result.exitCode, 2) << Describe(result);
    EXPECT_EQ(result.err,
              "modemloader-host: feature name '" + name + "' must have 1 to 63 characters\n");
    const TChildResult unnamed = RunUpdate(config, {"--feature", ""});
    EXPECT_EQ(unnamed.exitCode, 2) << Describe(unnamed);
    EXPECT_EQ(unnamed.err, "modemloader-host: feature name '' must have 1 to 63 characters\n");
}

TEST_F(HostProgramTest, ATraceThatCannotBeWrittenIsNamed) {
    const std::string config = WriteConfig();
    const TChildResult result =
        RunHost({"update", "--config", config, "--plugin", MODEMLOADER_PLUGIN, "--trace",
                 Path("absent-folder/trace.jsonl")});
    EXPECT_EQ(result.exitCode, 2) << Describe(result);
    EXPECT_EQ(result.err, "modemloader-host: trace " + Path("absent-folder/trace.jsonl") +
                              ": No such file or directory\n");
}

TEST_F(HostProgramTest, ATraceThatCannotBeWrittenToTheEndIsReportedAndTheUpdateStillEnds) {
    const std::string config = WriteConfig({}, "tick_ms = 10\nfs.2 = ext4\nlog = none\n");
    const TChildResult result = RunHost({"update", "--config", config, "--plugin",
                                         MODEMLOADER_PLUGIN, "--trace", "/dev/full", "--quiet"});
    // The update ends as it would with a trace (the storage is absent here: Prepare fails).
    EXPECT_EQ(result.exitCode, 1) << Describe(result);
    EXPECT_EQ(result.err,
              "modemloader-host: trace /dev/full: writing: No space left on device; the trace is "
              "incomplete\n");
    EXPECT_EQ(result.out, "");
}

// Where the records for people go: stderr, syslog, both or nowhere. Syslog is not read back
// here (no syslog daemon runs); what matters is that stderr has the lines exactly when asked.
struct TLogTargetCase {
    const char* name;
    const char* target;
    bool onStderr;
};

void PrintTo(const TLogTargetCase& testCase, std::ostream* stream) { *stream << testCase.name; }

class HostProgramLogTargetTest : public HostProgramTest,
                                 public ::testing::WithParamInterface<TLogTargetCase> {};

TEST_P(HostProgramLogTargetTest, StderrHasTheRecordsExactlyWhenTheTargetSaysSo) {
    const std::string config = WriteConfig(
        {}, std::string("tick_ms = 10\nfs.2 = ext4\nlog = ") + GetParam().target + "\n");
    const TChildResult result = RunUpdate(config, {"--quiet"});
    EXPECT_EQ(result.exitCode, 1) << Describe(result);
    if (GetParam().onStderr) {
        EXPECT_TRUE(std::regex_match(
            result.err,
            std::regex(
                R"(\d\d:\d\d:\d\d\.\d\d\d Error HandleControllerPrepare: Couldn't umount .*/mnt\n)"
                R"(\d\d:\d\d:\d\d\.\d\d\d Error Mount: mounting .*/absent-device on .*/mnt: )"
                R"(examining the device: No such file or directory\n)"
                R"(\d\d:\d\d:\d\d\.\d\d\d Error HandleControllerPrepare: Couldn't mount .*/absent-device\n)")))
            << result.err;
    } else {
        EXPECT_EQ(result.err, "");
    }
    EXPECT_EQ(Summaries(Trace()).back(), "out 203 outcome 0");
}

INSTANTIATE_TEST_SUITE_P(Targets, HostProgramLogTargetTest,
                         ::testing::Values(TLogTargetCase{"Stderr", "stderr", true},
                                           TLogTargetCase{"Syslog", "syslog", false},
                                           TLogTargetCase{"Both", "both", true}),
                         [](const auto& parameter) { return std::string(parameter.param.name); });

TEST_F(HostProgramTest, AnAbsoluteConfiguredPluginIsTakenAsItIs) {
    const std::string config = WriteConfig({}, std::string("plugin = ") + OTHER_TYPE_PLUGIN + "\n");
    const TChildResult result = RunHost({"update", "--config", config});
    EXPECT_EQ(result.exitCode, 2) << Describe(result);
    EXPECT_EQ(result.err, std::string("modemloader-host: plug-in ") + OTHER_TYPE_PLUGIN +
                              ": a feature of type 'navigation', not 'modemloader'\n");
}

TEST_F(HostProgramTest, APluginNamedWithoutAFolderIsTakenFromTheWorkingDirectory) {
    // Not from the library search path: a bare name is a file here, as on any command line.
    const std::string plugin = OTHER_TYPE_PLUGIN;
    const std::string folder = plugin.substr(0, plugin.find_last_of('/'));
    const std::string file = plugin.substr(plugin.find_last_of('/') + 1);
    TChildOptions options;
    options.workingDirectory = folder;
    const TChildResult result = RunHost({"info", "--plugin", file}, options);
    EXPECT_EQ(result.exitCode, 0) << Describe(result);
    EXPECT_EQ(result.out.substr(0, result.out.find('\n')), "plugin: " + file);
    EXPECT_NE(result.out.find("feature type: navigation\n"), std::string::npos) << result.out;
}

TEST_F(HostProgramTest, TheHelpCommandPrintsTheUsageAsTheOptionDoes) {
    const TChildResult command = RunHost({"help"});
    const TChildResult option = RunHost({"--help"});
    EXPECT_EQ(command.exitCode, 0) << Describe(command);
    EXPECT_EQ(command.err, "");
    EXPECT_FALSE(command.out.empty());
    EXPECT_EQ(command.out, option.out);
}

TEST_F(HostProgramTest, TheFeatureNameChoosesThePropertySection) {
    // [othername] does not exist: the module finds none of its eleven properties, and still
    // answers Init.
    const std::string config = WriteConfig();
    const TChildResult result = RunUpdate(config, {"--feature", "othername"});
    EXPECT_EQ(result.exitCode, 1) << Describe(result);
    const std::vector<json> trace = Trace();
    ASSERT_GE(trace.size(), 14u);
    EXPECT_EQ(Untimed(trace[12]),
              json::parse(R"({"kind":"event","dir":"out","type":3,"id":201,"size":9,)"
                          R"("name":"othername"})"));
    std::vector<std::string> parseErrors;
    for (std::size_t index = 1; index < 12; ++index) {
        parseErrors.push_back(Summary(trace[index]));
    }
    const std::vector<std::string> keys{"controlpin",    "revision",     "mountpoint", "movinand",
                                        "revisionfile",  "flagfile",     "bootloader", "firmware",
                                        "productconfig", "daemonconfig", "removable"};
    std::vector<std::string> expected;
    for (const std::string& key : keys) {
        expected.push_back("log Error ParseProperties: Failed to retrieve '" + key + "' property");
    }
    EXPECT_EQ(parseErrors, expected);
    EXPECT_EQ(Untimed(trace[13]),
              json::parse(R"({"kind":"event","dir":"in","type":3,"id":202,"size":9,)"
                          R"("name":"othername"})"));
    EXPECT_EQ(Summary(trace.back()), "out 203 outcome 0");
}

TEST_F(HostProgramTest, TraceLinesCarryTheirFieldsInOrder) {
    const std::string config = WriteConfig();
    const TChildResult result = RunUpdate(config);
    ASSERT_EQ(result.exitCode, 1) << Describe(result);
    const std::vector<json> trace = Trace();
    ASSERT_EQ(trace.size(), 9u);
    double previous = 0;
    for (const json& line : trace) {
        ASSERT_TRUE(line.at("t").is_number_float()) << line.dump();
        EXPECT_GE(line.at("t").get<double>(), previous);
        previous = line.at("t").get<double>();
    }
    EXPECT_EQ(Untimed(trace[0]).dump(),
              R"({"dir":"in","id":200,"kind":"event","size":0,"type":3})");
    EXPECT_EQ(Untimed(trace[1]),
              json::parse(R"({"kind":"event","dir":"out","type":3,"id":201,"size":11,)"
                          R"("name":"modemloader"})"));
    EXPECT_EQ(Untimed(trace[2]),
              json::parse(R"({"kind":"event","dir":"in","type":3,"id":202,"size":11,)"
                          R"("name":"modemloader"})"));
    EXPECT_EQ(Untimed(trace[8]),
              json::parse(R"({"kind":"event","dir":"out","type":3,"id":203,"size":68,)"
                          R"("name":"modemloader","outcome":0})"));
    json log = Untimed(trace[7]);
    EXPECT_GT(log.at("line").get<int>(), 0);
    log.erase("line");
    EXPECT_EQ(log, json({{"kind", "log"},
                         {"category", "Error"},
                         {"channel", "ModemLoader"},
                         {"function", "HandleControllerPrepare"},
                         {"file", kLogFile},
                         {"text", "Couldn't mount " + Path("absent-device")}}));
    // Keys in the documented order: "t" and "kind" first.
    const std::string firstLine = ReadTestFile(Path("trace.jsonl")).substr(0, 20);
    EXPECT_EQ(firstLine.rfind("{\"t\":", 0), 0u) << firstLine;
}

TEST_F(HostProgramTest, AFeatureThatNeverFinishesTimesOutWithExitThree) {
    const std::string config = WriteConfig();
    const TChildResult result = RunHost({"update", "--config", config, "--plugin",
                                         SILENT_FEATURE_PLUGIN, "--timeout", "1.5", "--quiet"});
    EXPECT_EQ(result.exitCode, 3) << Describe(result);
    EXPECT_EQ(result.err,
              "modemloader-host: timed out after 1.5 s waiting for Install done (205)\n");
    EXPECT_EQ(result.out, "");
}

TEST_F(HostProgramTest, ASignalAfterInstallSendsAbortAndKeepsWaitingUpToTheTimeOut) {
    const std::string config = WriteConfig();
    CChildProcess host;
    StartHost(host, {"update", "--config", config, "--plugin", SILENT_FEATURE_PLUGIN, "--trace",
                     Path("trace.jsonl"), "--timeout", "3", "--quiet"});
    ASSERT_TRUE(AwaitInFile("trace.jsonl", kInstallSent));
    ASSERT_TRUE(host.Signal(SIGTERM));
    const std::optional<TChildExit> exit = host.Wait(30s);
    ASSERT_TRUE(exit) << "the host never ended";
    EXPECT_EQ(exit->exitCode, 3);
    EXPECT_EQ(ReadTestFile(Path("err.txt")),
              std::string(kStoppingOnSigterm) +
                  "modemloader-host: timed out after 3 s waiting for Install done (205)\n");
    EXPECT_EQ(Summaries(Trace()),
              (std::vector<std::string>{"in 200", "out 201", "in 202", "out 203 outcome 1",
                                        "in 204", "in 207"}));
}

TEST_F(HostProgramTest, ASecondSignalWhileStoppingLeavesAtOnce) {
    const std::string config = WriteConfig();
    CChildProcess host;
    // The default time-out (600 s): only the second signal can end this run in time.
    StartHost(host, {"update", "--config", config, "--plugin", SILENT_FEATURE_PLUGIN, "--trace",
                     Path("trace.jsonl"), "--quiet"});
    ASSERT_TRUE(AwaitInFile("trace.jsonl", kInstallSent));
    ASSERT_TRUE(host.Signal(SIGTERM));
    ASSERT_TRUE(AwaitInFile("err.txt", kStoppingOnSigterm));
    ASSERT_TRUE(AwaitInFile("trace.jsonl", kAbortSent));
    ASSERT_TRUE(host.Signal(SIGINT));
    const std::optional<TChildExit> exit = host.Wait(20s);
    ASSERT_TRUE(exit) << "the second signal did not end the host";
    EXPECT_EQ(exit->exitCode, 128 + SIGINT);
    EXPECT_EQ(ReadTestFile(Path("err.txt")),
              std::string(kStoppingOnSigterm) +
                  "modemloader-host: SIGINT while stopping; leaving at once without waiting for "
                  "the feature\n");
    EXPECT_EQ(ReadTestFile(Path("out.txt")), "");
    EXPECT_EQ(Summaries(Trace()),
              (std::vector<std::string>{"in 200", "out 201", "in 202", "out 203 outcome 1",
                                        "in 204", "in 207"}));
}

TEST_F(HostProgramTest, ASignalBeforeInstallEndsTheUpdateWithExitFour) {
    const std::string config = WriteConfig({{"prepare", "never"}});
    CChildProcess host;
    StartHost(host, {"update", "--config", config, "--plugin", SILENT_FEATURE_PLUGIN, "--trace",
                     Path("trace.jsonl")});
    ASSERT_TRUE(AwaitInFile("trace.jsonl", kPrepareSent));
    ASSERT_TRUE(host.Signal(SIGINT));
    const std::optional<TChildExit> exit = host.Wait(20s);
    ASSERT_TRUE(exit) << "the host never ended";
    EXPECT_EQ(exit->exitCode, 4);
    EXPECT_EQ(ReadTestFile(Path("err.txt")),
              "modemloader-host: stopping on SIGINT; ending the update before Install; a second "
              "signal leaves at once\n");
    const std::string out = ReadTestFile(Path("out.txt"));
    EXPECT_EQ(out.rfind("modemloader: stopped by SIGINT before Install (", 0), 0u) << out;
    EXPECT_EQ(Summaries(Trace()), (std::vector<std::string>{"in 200", "out 201", "in 202"}));
}

// The fake-loader path on a real storage: an ext4 image, made here, whose revision file already
// holds the configured revision, loop-mounted by the host's file handler.
class HostProgramStorageTest : public HostProgramTest {
protected:
    void SetUp() override {
        if (const std::string missing = CStorageImage::MissingPrerequisite(); !missing.empty()) {
            MODEMLOADER_MISSING_PREREQUISITE(missing);
        }
        ASSERT_EQ(::mkdir(Path("content").c_str(), 0755), 0);
        WriteTestFile(m_directory, "content/revision", "123\n");
        const CStatus made = m_storage.Make(8 << 20, Path("content"));
        ASSERT_TRUE(made) << made.Message();
    }

    std::string WriteStorageConfig(std::map<std::string, std::string> changes = {}) {
        changes.emplace("movinand", m_storage.Image());
        return WriteConfig(changes);
    }

    // The file's content on the (unmounted) image.
    std::string ReadFromImage(const std::string& name) {
        std::string content;
        const CStatus read = m_storage.ReadFromImage(name, content);
        EXPECT_TRUE(read) << read.Message();
        return content;
    }

    bool IsMounted(const std::string& mountPoint) { return IsMountPoint(mountPoint); }

    std::vector<std::string> PrepareUpToDate() const {
        const std::string mountPoint = Path("mnt");
        return {"in 200",
                "out 201",
                "in 202",
                "umount " + mountPoint + " failed",
                "log Error HandleControllerPrepare: Couldn't umount " + mountPoint,
                "mount " + Path("movinand.img") + " on " + mountPoint + " format 2 ok",
                "log Always HandleControllerPrepare: current version: 123\n",
                "log Always HandleControllerPrepare: Modem already up to date",
                "umount " + mountPoint + " ok",
                "out 203 outcome 1",
                "in 204"};
    }

    // Goes before the test's directory, which holds it: a mount left behind is detached first.
    CStorageImage m_storage{m_directory.Path()};
};

TEST_F(HostProgramStorageTest, AnUpToDateModemCompletesThroughTheFakeLoader) {
    const std::string config = WriteStorageConfig();
    const TChildResult result = RunUpdate(config);
    EXPECT_EQ(result.exitCode, 0) << Describe(result);

    std::vector<std::string> expected = PrepareUpToDate();
    for (const std::string& line : FakeLoaderProgress()) {
        expected.push_back(line);
    }
    expected.push_back("out 205 outcome 1");
    EXPECT_EQ(Summaries(Trace()), expected);
    EXPECT_FALSE(IsMounted(Path("mnt")));
    EXPECT_EQ(ReadFromImage("revision"), "123\n") << "the archive-loader case rewrites nothing";

    // Not a terminal: one plain line per change, then the result.
    std::istringstream lines(result.out);
    std::string line;
    for (int percent = 5, step = 1; percent <= 100; percent += 5, ++step) {
        ASSERT_TRUE(std::getline(lines, line));
        const std::string expectedStart =
            "modemloader: " + std::to_string(percent) + "% (step " + std::to_string(step) + ", ";
        EXPECT_EQ(line.rfind(expectedStart, 0), 0u) << line;
    }
    ASSERT_TRUE(std::getline(lines, line));
    EXPECT_EQ(line.rfind("modemloader: update succeeded (", 0), 0u) << line;
    EXPECT_FALSE(std::getline(lines, line)) << "unexpected: " << line;
}

TEST_F(HostProgramStorageTest, WithAControlPinTheRevisionIsWrittenAfterCompletion) {
    // The control path exists, so completion mounts the storage again and writes the revision's
    // four bytes (its three characters and the terminator).
    const std::string config =
        WriteStorageConfig({{"control", WriteTestFile(m_directory, "pin", "")}});
    const TChildResult result = RunUpdate(config);
    EXPECT_EQ(result.exitCode, 0) << Describe(result);

    const std::vector<std::string> summaries = Summaries(Trace());
    const std::vector<std::string> tail(summaries.end() - 4, summaries.end());
    EXPECT_EQ(tail, (std::vector<std::string>{
                        "log Error HandleLoaderCompleted: Couldn't umount " + Path("mnt"),
                        "mount " + Path("movinand.img") + " on " + Path("mnt") + " format 2 ok",
                        "umount " + Path("mnt") + " ok", "out 205 outcome 1"}));
    EXPECT_EQ(ReadFromImage("revision"), std::string("123\0", 4));
    EXPECT_FALSE(IsMounted(Path("mnt")));
}

TEST_F(HostProgramStorageTest, QuietPrintsNothing) {
    const std::string config = WriteStorageConfig();
    const TChildResult result = RunUpdate(config, {"--quiet"});
    EXPECT_EQ(result.exitCode, 0) << Describe(result);
    EXPECT_EQ(result.out, "");
}

TEST_F(HostProgramStorageTest, OnATerminalProgressIsOneBarRedrawnInPlace) {
    const std::string config = WriteStorageConfig();
    TChildOptions options;
    options.stdoutOnTerminal = true;
    const TChildResult result = RunUpdate(config, {}, options);
    EXPECT_EQ(result.exitCode, 0) << Describe(result);
    EXPECT_EQ(result.out.rfind("\rmodemloader [#                   ]   5%  step 1  0:", 0), 0u)
        << result.out;
    EXPECT_NE(result.out.find("\rmodemloader [##########          ]  50%  step 10  0:"),
              std::string::npos)
        << result.out;
    EXPECT_NE(result.out.find("\rmodemloader [####################] 100%  step 20  0:"),
              std::string::npos)
        << result.out;
    // The terminal turns each line end into "\r\n".
    const std::string last = result.out.substr(result.out.rfind("\r\n", result.out.size() - 3));
    EXPECT_EQ(last.rfind("\r\nmodemloader: update succeeded (", 0), 0u) << last;
    EXPECT_EQ(std::count(result.out.begin(), result.out.end(), '\n'), 2);
}

TEST_F(HostProgramStorageTest, AbortIsAcknowledgedAndTheInstallationStillCompletes) {
    const std::string config = WriteStorageConfig();
    const TChildResult result = RunUpdate(config, {"--abort-after-ms", "0", "--tick-ms", "50"});
    EXPECT_EQ(result.exitCode, 0) << Describe(result);

    const std::vector<std::string> summaries = Summaries(Trace());
    const auto position = [&](const std::string& summary) {
        return std::find(summaries.begin(), summaries.end(), summary) - summaries.begin();
    };
    ASSERT_LT(position("in 207"), static_cast<long>(summaries.size()))
        << ::testing::PrintToString(summaries);
    EXPECT_LT(position("in 207"), position("out 208 outcome 1"));
    EXPECT_EQ(std::count(summaries.begin(), summaries.end(), "out 208 outcome 1"), 1);
    EXPECT_LT(position("in 204"), position("in 207"));
    EXPECT_LT(position("out 208 outcome 1"), position("out 205 outcome 1"));
    EXPECT_EQ(summaries.back(), "out 205 outcome 1");
    EXPECT_EQ(std::count_if(summaries.begin(), summaries.end(),
                            [](const std::string& line) { return line.rfind("out 206", 0) == 0; }),
              20);
}

TEST_F(HostProgramStorageTest, AFirstSignalAfterInstallAbortsAndTheResultStillCounts) {
    const std::string config = WriteStorageConfig();
    CChildProcess host;
    // Twenty ticks of 100 ms leave the fake loader two seconds to be signalled in.
    StartHost(host, {"update", "--config", config, "--plugin", MODEMLOADER_PLUGIN, "--trace",
                     Path("trace.jsonl"), "--tick-ms", "100"});
    ASSERT_TRUE(AwaitInFile("trace.jsonl", kInstallSent));
    ASSERT_TRUE(host.Signal(SIGTERM));
    const std::optional<TChildExit> exit = host.Wait(30s);
    ASSERT_TRUE(exit) << "the host never ended";
    EXPECT_EQ(exit->exitCode, 0) << ReadTestFile(Path("err.txt"));

    const std::string err = ReadTestFile(Path("err.txt"));
    const std::size_t line = err.find(kStoppingOnSigterm);
    ASSERT_NE(line, std::string::npos) << err;
    EXPECT_TRUE(line == 0 || err[line - 1] == '\n') << err;
    const std::vector<std::string> summaries = Summaries(Trace());
    const auto position = [&](const std::string& summary) {
        return std::find(summaries.begin(), summaries.end(), summary) - summaries.begin();
    };
    EXPECT_EQ(std::count(summaries.begin(), summaries.end(), "in 207"), 1)
        << ::testing::PrintToString(summaries);
    EXPECT_LT(position("in 204"), position("in 207"));
    EXPECT_LT(position("in 207"), position("out 208 outcome 1"));
    EXPECT_LT(position("out 208 outcome 1"), position("out 205 outcome 1"));
    EXPECT_EQ(summaries.back(), "out 205 outcome 1");
    const std::string out = ReadTestFile(Path("out.txt"));
    EXPECT_NE(out.find("\nmodemloader: update succeeded (abort acknowledged) ("), std::string::npos)
        << out;
}

}  // namespace
