#include "MenderClient.h"

#include <unistd.h>

#include <filesystem>
#include <sstream>

namespace {
// Where client 3.4 looks for update modules and for the name of the artifact installed before
// its database knew one; both are bound over in the client's namespace.
constexpr char kModulesFolder[] = "/usr/share/mender/modules/v3";
constexpr char kConfigFolder[] = "/etc/mender";
constexpr char kModuleName[] = "modem-firmware";
// The slowest failing install (a modem that never syncs: five power-up attempts) takes about
// 40 s; the module gives the host 120 s, the client gets a margin beyond that.
constexpr char kHostTimeoutSeconds[] = "120";
constexpr auto kClientTimeout = std::chrono::seconds(180);

std::string JsonString(const std::string& text) {
    std::string quoted = "\"";
    for (char character : text) {
        if (character == '"' || character == '\\') {
            quoted += '\\';
        }
        quoted += character;
    }
    return quoted + "\"";
}
}  // namespace

std::string CMenderClient::ModulePath() { return MODEMLOADER_MENDER_SOURCE "/modem-firmware"; }

std::string CMenderClient::ArtifactMakerPath() {
    return MODEMLOADER_MENDER_SOURCE "/modem-artifact";
}

std::string CMenderClient::MissingPrerequisite() {
    if (::geteuid() != 0) {
        return "the Mender client's private mount namespace needs root";
    }
    for (const char* program : {"mender", "mender-artifact"}) {
        if (!IsInPath(program)) {
            return std::string(program) + " is not installed (Debian: " +
                   (std::string(program) == "mender" ? "mender-client" : program) + ")";
        }
    }
    if (!IsInPath("unshare")) {
        return "unshare is not installed (util-linux)";
    }
    for (const char* folder : {kModulesFolder, kConfigFolder}) {
        if (!std::filesystem::is_directory(folder)) {
            return std::string("no ") + folder + " to bind over: is mender-client installed?";
        }
    }
    return std::string();
}

CStatus CMenderClient::Create(const CSimulatedDevice& device, const TMenderSetup& setup,
                              std::unique_ptr<CMenderClient>& client) {
    std::unique_ptr<CMenderClient> made(new CMenderClient(device));
    if (CStatus status = made->Build(setup); !status) {
        return status.WithContext("setting up the Mender client");
    }
    client = std::move(made);
    return CStatus::Ok();
}

CStatus CMenderClient::Build(const TMenderSetup& setup) {
    if (CStatus status = m_directory.Made(); !status) {
        return status;
    }
    for (const char* folder : {"etc", "modules", "data"}) {
        std::error_code error;
        if (!std::filesystem::create_directory(PathOf(folder), error)) {
            return CStatus::Failure("making " + PathOf(folder) + ": " + error.message());
        }
    }
    std::error_code error;
    const std::string module = setup.module.empty() ? ModulePath() : setup.module;
    std::filesystem::copy_file(module, PathOf(std::string("modules/") + kModuleName), error);
    if (error) {
        return CStatus::Failure("copying " + module + ": " + error.message());
    }

    // The paths as the client sees them inside its namespace. ModulesPath, ModulesWorkPath and
    // ArtifactInfoFile are where 3.4 puts them anyway (it ignores these keys; later clients
    // read them).
    const std::string etc = kConfigFolder;
    std::ostringstream config;
    config << "{\n"
           << "  \"DeviceTypeFile\": " << JsonString(etc + "/device_type") << ",\n"
           << "  \"ArtifactInfoFile\": " << JsonString(etc + "/artifact_info") << ",\n"
           << "  \"ModulesPath\": " << JsonString(kModulesFolder) << ",\n"
           << "  \"ModulesWorkPath\": " << JsonString(PathOf("data/modules/v3")) << ",\n";
    if (!setup.verifyKey.empty()) {
        config << "  \"ArtifactVerifyKey\": " << JsonString(setup.verifyKey) << ",\n";
    }
    config << "  \"DBus\": {\"Enabled\": false}\n}\n";

    std::ostringstream settings;
    settings << "host = " << m_device.Programs().host << "\n"
             << "config = " << m_device.ConfigFile() << "\n"
             << "timeout = " << kHostTimeoutSeconds << "\n"
             << "runner = "
             << (setup.runner.empty() ? std::string(MODEMLOADER_UPDATE_RUNNER) : setup.runner)
             << "\n";
    for (const std::string& variable : m_device.HostEnvironment()) {
        settings << "environment = " << variable << "\n";
    }

    const std::pair<std::string, std::string> files[] = {
        {"etc/mender.conf", config.str()},
        {"etc/device_type", "device_type=" + setup.deviceType + "\n"},
        {"etc/artifact_info", "artifact_name=" + setup.artifactName + "\n"},
        {std::string("etc/") + kModuleName + ".conf", settings.str()},
        {"mender", ClientScript()},
    };
    for (const auto& [name, content] : files) {
        if (CStatus status = m_directory.WriteFile(name, content); !status) {
            return status;
        }
    }
    std::filesystem::permissions(PathOf("mender"), std::filesystem::perms::owner_exec,
                                 std::filesystem::perm_options::add, error);
    if (error) {
        return CStatus::Failure("making " + PathOf("mender") + " executable: " + error.message());
    }
    return CStatus::Ok();
}

std::string CMenderClient::ClientScript() const {
    // The client in a mount namespace of its own, where our modules/ and etc/ stand in for the
    // two folders 3.4 does not let its configuration move; every other path is given here. The
    // namespace first lets go of its copies of other storages' mounts, which would keep them
    // alive after their owners unmount them.
    std::ostringstream script;
    script << "#!/bin/sh\n"
           << "# The Mender client on the simulated device, isolated in " << Directory() << "\n"
           << "exec unshare --mount --propagation private sh -c '\n"
           << "    \"" << MODEMLOADER_RELEASE_LOOP_MOUNTS << "\" &&\n"
           << "    mount --bind \"$0/modules\" " << kModulesFolder << " &&\n"
           << "    mount --bind \"$0/etc\" " << kConfigFolder << " &&\n"
           << "    exec mender --config \"$0/etc/mender.conf\" --fallback-config "
              "\"$0/etc/fallback.conf\" \\\n"
           << "        --data \"$0/data\" --no-syslog \"$@\"' \"" << Directory() << "\" \"$@\"\n";
    return script.str();
}

std::vector<std::string> CMenderClient::ClientArguments(
    const std::vector<std::string>& arguments) const {
    std::vector<std::string> command{PathOf("mender")};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return command;
}

TChildResult CMenderClient::RunClient(const std::vector<std::string>& arguments,
                                      bool showOutput) const {
    TChildOptions options;
    options.timeout = kClientTimeout;
    options.captureOutput = !showOutput;
    return CChildProcess::Run(ClientArguments(arguments), options);
}

TChildResult CMenderClient::Install(const std::string& artifact, bool showOutput) const {
    return RunClient({"install", artifact}, showOutput);
}

TChildResult CMenderClient::ShowArtifact() const { return RunClient({"show-artifact"}, false); }

CStatus CMenderClient::MakeArtifact(const TArtifactRequest& request, std::string& artifact) const {
    artifact = PathOf(request.name + ".mender");
    std::vector<std::string> arguments{ArtifactMakerPath(), "--name",           request.name,
                                       "--device-type",     request.deviceType, "--revision",
                                       request.revision};
    const std::vector<std::string> files = m_device.UpdateFileOptions();
    arguments.insert(arguments.end(), files.begin(), files.end());
    arguments.insert(arguments.end(), {"--output", artifact});
    if (!request.key.empty()) {
        arguments.push_back("--key");
        arguments.push_back(request.key);
    }
    TChildOptions options;
    options.timeout = std::chrono::seconds(60);
    const TChildResult made = CChildProcess::Run(arguments, options);
    if (made.exitCode != 0) {
        return CStatus::Failure("making artifact " + artifact + ": " + Describe(made));
    }
    return CStatus::Ok();
}
