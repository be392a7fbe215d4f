#include "SwupdateClient.h"

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>

namespace {
// The slowest failing install (a write that times out) takes a few seconds; the handler gives
// the host 120 s, the installer gets a margin beyond that.
constexpr char kHostTimeoutSeconds[] = "120";
constexpr auto kInstallerTimeout = std::chrono::seconds(180);
constexpr auto kToolTimeout = std::chrono::seconds(60);

// Single quotes for sh, around any text.
std::string Quoted(const std::string& text) {
    std::string quoted = "'";
    for (char character : text) {
        if (character == '\'') {
            quoted += "'\\''";
        } else {
            quoted += character;
        }
    }
    return quoted + "'";
}

CStatus RunTool(const std::vector<std::string>& arguments, const std::string& what) {
    TChildOptions options;
    options.timeout = kToolTimeout;
    const TChildResult result = CChildProcess::Run(arguments, options);
    if (result.exitCode != 0) {
        return CStatus::Failure(what + ": " + Describe(result));
    }
    return CStatus::Ok();
}
}  // namespace

std::string CSwupdateClient::HandlerFolder() { return MODEMLOADER_SWUPDATE_SOURCE; }

std::string CSwupdateClient::ImageMakerPath() { return MODEMLOADER_SWUPDATE_SOURCE "/modem-swu"; }

std::string CSwupdateClient::MissingPrerequisite() {
    if (::geteuid() != 0) {
        return "SWUpdate's private mount namespace needs root";
    }
    for (const char* program : {"swupdate", "openssl", "cpio", "unshare"}) {
        if (!IsInPath(program)) {
            return std::string(program) + " is not installed";
        }
    }
    return std::string();
}

CStatus CSwupdateClient::Create(const CSimulatedDevice& device, const TSwupdateSetup& setup,
                                std::unique_ptr<CSwupdateClient>& client) {
    std::unique_ptr<CSwupdateClient> made(new CSwupdateClient(device));
    if (CStatus status = made->Build(setup); !status) {
        return status.WithContext("setting up SWUpdate");
    }
    client = std::move(made);
    return CStatus::Ok();
}

CStatus CSwupdateClient::Build(const TSwupdateSetup& setup) {
    if (CStatus status = m_directory.Made(); !status) {
        return status;
    }
    m_imageMaker = setup.imageMaker.empty() ? ImageMakerPath() : setup.imageMaker;
    std::error_code error;
    if (!std::filesystem::create_directory(PathOf("t"), error)) {
        return CStatus::Failure("making " + PathOf("t") + ": " + error.message());
    }
    for (const char* signer : {"fleet", "other"}) {
        if (CStatus status = MakeSigner(signer); !status) {
            return status;
        }
    }

    // The installed software as SWUpdate would read it from /etc/sw-versions; its log level
    // (trace) shows the handler's messages and the reason of every refusal: an image without
    // sw-description.sig is refused with a trace only, before the installer drops it.
    const std::string config =
        "globals : {\n"
        "    loglevel = 4;\n"
        "};\n"
        "versions : (\n"
        "    { name = \"modem\"; version = \"100\"; }\n"
        ");\n";
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
        {"swupdate.cfg", config},
        {"modem-firmware.conf", settings.str()},
        {"swupdate", InstallerScript(setup)},
    };
    for (const auto& [name, content] : files) {
        if (CStatus status = m_directory.WriteFile(name, content); !status) {
            return status;
        }
    }
    std::filesystem::permissions(PathOf("swupdate"), std::filesystem::perms::owner_exec,
                                 std::filesystem::perm_options::add, error);
    if (error) {
        return CStatus::Failure("making " + PathOf("swupdate") + " executable: " + error.message());
    }
    return CStatus::Ok();
}

CStatus CSwupdateClient::MakeSigner(const std::string& name) const {
    return RunTool({"openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt",
                    "ec_paramgen_curve:prime256v1", "-nodes", "-keyout", PathOf(name + ".key"),
                    "-out", PathOf(name + ".crt"), "-subj", "/CN=" + name, "-days", "30"},
                   "making the signer " + name);
}

std::string CSwupdateClient::InstallerScript(const TSwupdateSetup& setup) const {
    // TMPDIR is the folder's own t/: SWUpdate puts its control and progress sockets and the
    // extracted images there. Its notifier listens on the abstract socket "@NotifyServer",
    // which no TMPDIR moves: a network namespace of its own keeps it from the machine's
    // SWUpdate and from another test's (two would share one notifier, and the second to bind
    // exits at once). The mount namespace keeps whatever a handler mounts out of the machine's
    // view; it first lets go of its copies of other storages' mounts, which would keep them
    // alive after their owners unmount them.
    const std::string handlers =
        setup.handlerFolder.empty() ? HandlerFolder() : setup.handlerFolder;
    std::ostringstream script;
    script << "#!/bin/sh\n"
           << "# SWUpdate on the simulated device, isolated in " << Directory() << "\n"
           << "folder=" << Quoted(Directory()) << "\n"
           << "exec unshare --mount --net --propagation private sh -c '\"$0\" && exec \"$@\"' \\\n"
           << "    " << Quoted(MODEMLOADER_RELEASE_LOOP_MOUNTS) << " env TMPDIR=\"$folder/t\" \\\n"
           << "    LUA_PATH_5_3=" << Quoted(handlers + "/?.lua;;") << " \\\n"
           << "    MODEMLOADER_SWUPDATE_SETTINGS=\"$folder/modem-firmware.conf\" \\\n"
           << "    swupdate -f \"$folder/swupdate.cfg\" -k \"$folder/fleet.crt\" -B none -m -M \\\n"
           << "    -H " << Quoted(setup.board + ":" + setup.hardwareRevision) << " -i \"$@\"\n";
    return script.str();
}

std::vector<std::string> CSwupdateClient::InstallerArguments(const std::string& image) const {
    return {PathOf("swupdate"), image};
}

TChildResult CSwupdateClient::Install(const std::string& image, bool showOutput) const {
    TChildOptions options;
    options.timeout = kInstallerTimeout;
    options.captureOutput = !showOutput;
    return CChildProcess::Run(InstallerArguments(image), options);
}

CStatus CSwupdateClient::MakeImage(const TSwuRequest& request, std::string& image) const {
    image = PathOf("modem-firmware-" + request.revision + "-" + request.board + "-" +
                   (request.signer.empty() ? "unsigned" : request.signer) + ".swu");
    std::vector<std::string> arguments{m_imageMaker,
                                       "--board",
                                       request.board,
                                       "--hardware-revision",
                                       request.hardwareRevision,
                                       "--revision",
                                       request.revision,
                                       "--output",
                                       image};
    const std::vector<std::string> files = m_device.UpdateFileOptions();
    arguments.insert(arguments.end(), files.begin(), files.end());
    if (request.signer.empty()) {
        arguments.push_back("--unsigned");
    } else {
        arguments.insert(arguments.end(), {"--certificate", PathOf(request.signer + ".crt"),
                                           "--key", PathOf(request.signer + ".key")});
    }
    return RunTool(arguments, "making " + image);
}

CStatus CSwupdateClient::Tamper(const std::string& image, const std::string& member,
                                std::string& tampered) const {
    const std::string folder = PathOf("tampered");
    tampered = image + ".tampered";
    std::error_code error;
    std::filesystem::remove_all(folder, error);
    if (!std::filesystem::create_directory(folder, error)) {
        return CStatus::Failure("making " + folder + ": " + error.message());
    }
    if (CStatus status =
            RunTool({"sh", "-c", "cd \"$0\" && cpio -i --quiet <\"$1\"", folder, image},
                    "unpacking " + image);
        !status) {
        return status;
    }
    const std::string path = folder + "/" + member;
    {
        std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
        char first = 0;
        if (!file.read(&first, 1)) {
            return CStatus::Failure(image + " has no member " + member);
        }
        file.seekp(0);
        first = static_cast<char>(~first);
        if (!file.write(&first, 1)) {
            return CStatus::Failure("changing " + path);
        }
    }
    return RunTool(
        {"sh", "-c", "cd \"$0\" && cpio -it --quiet <\"$1\" | cpio -o -H crc --quiet >\"$2\"",
         folder, image, tampered},
        "archiving " + tampered);
}
