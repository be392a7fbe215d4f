#include "RaucService.h"

#include <unistd.h>

#include <filesystem>
#include <sstream>

namespace {
constexpr char kCompatible[] = "modemloader-sim";
// The slot RAUC takes as booted (--override-boot-slot): a stand-in for the device's root file
// system, so that the modem slot is an inactive one, which is what RAUC installs into.
constexpr char kBootName[] = "system0";
// The slowest failing install (a modem that never syncs: five power-up attempts) takes about
// 40 s; the hook gives the host 120 s, the client gets a margin beyond that.
constexpr char kHostTimeoutSeconds[] = "120";
constexpr auto kInstallTimeout = std::chrono::seconds(180);
constexpr auto kToolTimeout = std::chrono::seconds(60);

CStatus RunTool(const std::vector<std::string>& arguments, const std::string& what) {
    TChildOptions options;
    options.timeout = kToolTimeout;
    const TChildResult run = CChildProcess::Run(arguments, options);
    if (run.exitCode != 0) {
        return CStatus::Failure(what + ": " + Describe(run));
    }
    return CStatus::Ok();
}
}  // namespace

std::string CRaucService::BundleMakerPath() { return MODEMLOADER_RAUC_SOURCE "/modem-raucb"; }

std::string CRaucService::IsolationPath() {
    return MODEMLOADER_RAUC_SOURCE "/standalone/rauc-isolated";
}

std::string CRaucService::MissingPrerequisite() {
    if (::geteuid() != 0) {
        return "RAUC's namespaces, loop devices and mounts need root";
    }
    const std::pair<const char*, const char*> programs[] = {
        {"rauc", "rauc"},
        {"mksquashfs", "squashfs-tools"},
        {"dbus-run-session", "dbus-daemon"},
        {"gdbus", "libglib2.0-bin"},
        {"unshare", "util-linux"},
        {"openssl", "openssl"},
    };
    for (const auto& [program, package] : programs) {
        if (!IsInPath(program)) {
            return std::string(program) + " is not installed (Debian: " + package + ")";
        }
    }
    return std::string();
}

CStatus CRaucService::Create(const CSimulatedDevice& device, std::unique_ptr<CRaucService>& service,
                             const TRaucSetup& setup) {
    std::unique_ptr<CRaucService> made(new CRaucService(device, setup));
    if (CStatus status = made->Build(); !status) {
        return status.WithContext("setting up RAUC");
    }
    service = std::move(made);
    return CStatus::Ok();
}

CStatus CRaucService::Build() {
    if (CStatus status = m_directory.Made(); !status) {
        return status;
    }
    for (const char* folder : {"keys", "mnt", "data", "slots"}) {
        std::error_code error;
        if (!std::filesystem::create_directory(PathOf(folder), error)) {
            return CStatus::Failure("making " + PathOf(folder) + ": " + error.message());
        }
    }
    // The hook never writes the modem slot's device, but RAUC wants every slot's to exist.
    const std::pair<std::string, std::string> files[] = {
        {"system.conf", SystemConfig()},
        {"modem-firmware.conf", Settings()},
        {"slots/rootfs", ""},
        {"slots/modem", ""},
        {"service.log", ""},
    };
    for (const auto& [name, content] : files) {
        if (CStatus status = m_directory.WriteFile(name, content); !status) {
            return status;
        }
    }
    return MakeSigningKeys("fleet");
}

std::string CRaucService::SystemConfig() const {
    std::ostringstream config;
    config << "[system]\n"
           << "compatible=" << kCompatible << "\n"
           << "bootloader=noop\n"
           << "mountprefix=" << PathOf("mnt") << "\n"
           << "data-directory=" << PathOf("data") << "\n"
           << "bundle-formats=-verity\n\n"
           << "[keyring]\n"
           << "path=" << PathOf("keys/fleet-ca.pem") << "\n\n"
           << "[slot.rootfs.0]\n"
           << "device=" << PathOf("slots/rootfs") << "\n"
           << "bootname=" << kBootName << "\n\n"
           << "[slot.modem.0]\n"
           << "device=" << PathOf("slots/modem") << "\n"
           << "type=raw\n";
    return config.str();
}

std::string CRaucService::Settings() const {
    std::ostringstream settings;
    const std::string runner =
        m_setup.runner.empty() ? std::string(MODEMLOADER_UPDATE_RUNNER) : m_setup.runner;
    settings << "runner = " << runner << "\n"
             << "host = " << m_device.Programs().host << "\n"
             << "config = " << m_device.ConfigFile() << "\n"
             << "timeout = " << kHostTimeoutSeconds << "\n";
    for (const std::string& variable : m_device.HostEnvironment()) {
        settings << "environment = " << variable << "\n";
    }
    return settings.str();
}

CStatus CRaucService::MakeSigningKeys(const std::string& name) const {
    const std::string prefix = PathOf("keys/" + name);
    // EC keys: made in milliseconds, and accepted by RAUC's CMS signatures like RSA ones.
    const std::vector<std::string> newKey{"-newkey", "ec", "-pkeyopt",
                                          "ec_paramgen_curve:prime256v1", "-nodes"};
    std::vector<std::string> authority{"openssl", "req", "-x509"};
    authority.insert(authority.end(), newKey.begin(), newKey.end());
    authority.insert(authority.end(), {"-keyout", prefix + "-ca.key", "-out", prefix + "-ca.pem",
                                       "-days", "2", "-subj", "/CN=modemloader test CA " + name});
    std::vector<std::string> request{"openssl", "req"};
    request.insert(request.end(), newKey.begin(), newKey.end());
    request.insert(request.end(),
                   {"-keyout", prefix + "-signer.key", "-out", prefix + "-signer.csr", "-subj",
                    "/CN=modemloader test signer " + name});
    const std::vector<std::string> issue{"openssl",
                                         "x509",
                                         "-req",
                                         "-in",
                                         prefix + "-signer.csr",
                                         "-CA",
                                         prefix + "-ca.pem",
                                         "-CAkey",
                                         prefix + "-ca.key",
                                         "-set_serial",
                                         "2",
                                         "-days",
                                         "2",
                                         "-out",
                                         prefix + "-signer.pem"};
    for (const auto& [arguments, what] :
         {std::pair{authority, "making test CA " + name},
          std::pair{request, "making the signer key of " + name},
          std::pair{issue, "issuing the signer certificate of " + name}}) {
        if (CStatus status = RunTool(arguments, what); !status) {
            return status;
        }
    }
    return CStatus::Ok();
}

CStatus CRaucService::MakeBundle(const TBundleRequest& request, std::string& bundle) const {
    // Named after what sets it apart from the device's own kind of bundle.
    std::string name = "modem-firmware-" + request.revision;
    if (request.signer != "fleet") {
        name += "-" + request.signer;
    }
    if (request.compatible != kCompatible) {
        name += "-" + request.compatible;
    }
    bundle = PathOf(name + ".raucb");
    const std::string signer = PathOf("keys/" + request.signer + "-signer");
    const std::string maker = m_setup.bundleMaker.empty() ? BundleMakerPath() : m_setup.bundleMaker;
    std::vector<std::string> arguments{maker, "--compatible", request.compatible, "--revision",
                                       request.revision};
    const std::vector<std::string> files = m_device.UpdateFileOptions();
    arguments.insert(arguments.end(), files.begin(), files.end());
    arguments.insert(arguments.end(),
                     {"--cert", signer + ".pem", "--key", signer + ".key", "--output", bundle});
    return RunTool(arguments, "making bundle " + bundle);
}

std::vector<std::string> CRaucService::ClientArguments(
    const std::vector<std::string>& arguments) const {
    std::vector<std::string> command{IsolationPath(), "--boot-slot", kBootName, Directory()};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return command;
}

TChildResult CRaucService::Install(const std::string& bundle, bool showOutput) const {
    TChildOptions options;
    options.timeout = kInstallTimeout;
    options.captureOutput = !showOutput;
    return CChildProcess::Run(ClientArguments({"install", bundle}), options);
}

std::string CRaucService::ServiceLog() const {
    std::string log;
    (void)ReadWholeFile(PathOf("service.log"), log);
    return log;
}

std::string CRaucService::InstalledVersion() const {
    // RAUC's central status file, an ini file: "bundle.version=..." in [slot.modem.0].
    std::string status;
    if (!ReadWholeFile(PathOf("data/central.raucs"), status).IsOk()) {
        return std::string();
    }
    std::istringstream lines(status);
    std::string line;
    std::string section;
    std::string version;
    while (std::getline(lines, line)) {
        if (!line.empty() && line.front() == '[') {
            section = line;
        } else if (section == "[slot.modem.0]" && line.rfind("bundle.version=", 0) == 0) {
            version = line.substr(std::string("bundle.version=").size());
        }
    }
    return version;
}
