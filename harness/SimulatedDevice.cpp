#include "SimulatedDevice.h"

#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <sstream>

#include "ChildProcess.h"
#include "PseudoRandomBytes.h"
#include "WireCommands.h"

namespace {
using device::kFeature;
using device::kFlagFile;
using device::kRevisionFile;
using device::kTargetFolder;
// The loader and the firmware differ even for the same seed.
constexpr uint64_t kFirmwareSeedOffset = 0x5EED;
// A loader image that begins with the sync byte cannot be told from a late sync probe.
constexpr char kSyncByte = static_cast<char>(wire::kSync);
// A guard of our own beyond the host's --timeout, for a host that hangs on its way out.
constexpr double kHostGraceSeconds = 30;

std::string DeviceTreeName(TDeviceTree tree) {
    switch (tree) {
        case TDeviceTree::eHasGprs1:
            return "has-gprs-1.dtb";
        case TDeviceTree::eHasGprs0:
            return "has-gprs-0.dtb";
        case TDeviceTree::eNoFeaturesNode:
            return "no-features.dtb";
        case TDeviceTree::eMissing:
        case TDeviceTree::eNoInterposer:
            break;
    }
    return std::string();
}
}  // namespace

TDevicePrograms CSimulatedDevice::BuiltPrograms() {
    TDevicePrograms programs;
    programs.host = MODEMLOADER_HOST;
    programs.plugin = MODEMLOADER_PLUGIN;
    programs.modemSim = MODEMLOADER_MODEM_SIM;
    programs.interposer = MODEMLOADER_FDT_INTERPOSER;
    programs.blobFolder = MODEMLOADER_FDT_BLOBS;
    programs.asanRuntime = MODEMLOADER_ASAN_RUNTIME;
    programs.addressSanitizer = MODEMLOADER_ADDRESS_SANITIZER != 0;
    return programs;
}

std::string CSimulatedDevice::MissingPrerequisite(const TDevicePrograms& programs) {
    if (const std::string storage = CStorageImage::MissingPrerequisite(); !storage.empty()) {
        return storage;
    }
    if (::access("/dev/ptmx", R_OK | W_OK) != 0) {
        return "no /dev/ptmx: the modem's serial line needs a pseudo-terminal";
    }
    if (!programs.hostLauncher.empty() && !IsInPath(programs.hostLauncher.front())) {
        return programs.hostLauncher.front() + " is not installed, and the host needs it";
    }
    for (const std::string& path : {programs.host, programs.plugin, programs.modemSim,
                                    programs.interposer, programs.blobFolder}) {
        if (::access(path.c_str(), R_OK) != 0) {
            return path + " is not built";
        }
    }
    return std::string();
}

CSimulatedDevice::CSimulatedDevice(const TDeviceSettings& settings, const TDevicePrograms& programs)
    : m_settings(settings),
      m_programs(programs),
      m_directory("/tmp/modemloader-device-"),
      m_storage(m_directory.Path()) {}

CSimulatedDevice::~CSimulatedDevice() {
    nlohmann::json ignored;
    if (m_modem.IsRunning()) {
        static_cast<void>(m_modem.Stop(PathOf("modem-summary.json"), ignored));
    }
}

CStatus CSimulatedDevice::Create(const TDeviceSettings& settings,
                                 std::unique_ptr<CSimulatedDevice>& device,
                                 const TDevicePrograms& programs) {
    std::unique_ptr<CSimulatedDevice> made(new CSimulatedDevice(settings, programs));
    if (CStatus status = made->Build(); !status) {
        return status.WithContext("making a simulated device");
    }
    device = std::move(made);
    return CStatus::Ok();
}

std::string CSimulatedDevice::DaemonConfig() {
    return "# modem daemon\nport = /dev/ttyS1\nspeed = 115200\n";
}

std::string CSimulatedDevice::ProductConfig() { return "# product\nvariant = e2e\n"; }

CStatus CSimulatedDevice::Build() {
    if (CStatus status = m_directory.Made(); !status) {
        return status;
    }
    for (const char* folder : {"update", "storage-content"}) {
        if (::mkdir(PathOf(folder).c_str(), 0755) != 0) {
            return CStatus::Failure("making " + PathOf(folder));
        }
    }
    m_loader = PseudoRandomBytes(m_settings.loaderBytes, m_settings.seed);
    if (!m_loader.empty() && m_loader[0] == kSyncByte) {
        m_loader[0] = static_cast<char>(kSyncByte + 1);
    }
    m_firmware = PseudoRandomBytes(m_settings.firmwareBytes, m_settings.seed + kFirmwareSeedOffset);
    const std::pair<const char*, const std::string*> files[] = {
        {"update/loader.bin", &m_loader}, {"update/firmware.bin", &m_firmware}};
    for (const auto& [name, content] : files) {
        if (CStatus status = m_directory.WriteFile(name, *content); !status) {
            return status;
        }
    }
    if (CStatus status = m_directory.WriteFile("update/daemon.cfg", DaemonConfig()); !status) {
        return status;
    }
    if (CStatus status = m_directory.WriteFile("update/product.cfg", ProductConfig()); !status) {
        return status;
    }
    if (CStatus status = MakeStorage(); !status) {
        return status;
    }
    if (CStatus status = WriteConfig(); !status) {
        return status;
    }
    if (m_settings.controlPin) {
        // Released ("1"): a pin already low when the modem starts is no press.
        if (CStatus status = m_directory.WriteFile("control", "1\n"); !status) {
            return status;
        }
        if (CStatus status = StartModem(); !status) {
            return status;
        }
    }
    return CStatus::Ok();
}

CStatus CSimulatedDevice::MakeStorage() {
    if (m_settings.storedRevision) {
        if (CStatus status = m_directory.WriteFile(std::string("storage-content/") + kRevisionFile,
                                                   *m_settings.storedRevision);
            !status) {
            return status;
        }
    }
    if (m_settings.storageFillerBytes > 0) {
        if (CStatus status =
                m_directory.WriteFile(std::string("storage-content/") + device::kFillerFile,
                                      std::string(m_settings.storageFillerBytes, 'f'));
            !status) {
            return status;
        }
    }
    // Room for the archive loader's copies of the update beside the file system's own needs.
    const std::size_t needed = 2 * (m_loader.size() + m_firmware.size()) + (8u << 20);
    const std::size_t bytes = std::max(m_settings.storageBytes, needed);
    return m_storage.Make(bytes, PathOf("storage-content"));
}

CStatus CSimulatedDevice::WriteConfig() {
    std::ostringstream text;
    text << "[host]\n"
         << "plugin = " << m_programs.plugin << "\n"
         << "feature = " << kFeature << "\n"
         << "tick_ms = " << m_settings.tickMs << "\n"
         << "fs.2 = ext4\n"
         << "serial_read_timeout_ms = " << m_settings.serialReadTimeoutMs << "\n"
         << "log = " << m_settings.hostLog << "\n"
         << "\n[" << kFeature << "]\n"
         << "control = " << ControlFile() << "\n"
         << "ready = " << ReadyFile() << "\n"
         << "serial = " << SerialLink() << "\n"
         << "revision = " << m_settings.revision << "\n"
         << "removable = " << m_settings.removable << "\n"
         << "movinand = " << Image() << "\n"
         << "mountpoint = " << MountPoint() << "\n"
         << "revisionfile = " << kRevisionFile << "\n"
         << "flagfile = " << kFlagFile << "\n"
         << "bootloader = " << LoaderSource() << "\n"
         << "firmware = " << FirmwareSource() << "\n"
         << "productconfig = " << ProductConfigSource() << "\n"
         << "daemonconfig = " << DaemonConfigSource() << "\n"
         << "targetfolder = " << kTargetFolder << "\n";
    return m_directory.WriteFile("host.ini", text.str());
}

CStatus CSimulatedDevice::StartModem() {
    std::vector<std::string> arguments{m_programs.modemSim,
                                       "--link",
                                       SerialLink(),
                                       "--control",
                                       ControlFile(),
                                       "--ready",
                                       ReadyFile(),
                                       "--loader",
                                       LoaderSource(),
                                       "--flash-out",
                                       FlashFile(),
                                       "--power-on-ms",
                                       std::to_string(m_settings.powerOn.count()),
                                       "--erase-ms",
                                       std::to_string(m_settings.eraseTime.count()),
                                       "--trace",
                                       PathOf("modem-trace.txt"),
                                       "--summary",
                                       PathOf("modem-summary.json")};
    arguments.insert(arguments.end(), m_settings.modemOptions.begin(),
                     m_settings.modemOptions.end());
    return m_modem.Start(arguments, SerialLink(), PathOf("modem-output.txt"));
}

std::string CSimulatedDevice::DeviceTreeBlob() const {
    const std::string name = DeviceTreeName(m_settings.deviceTree);
    return name.empty() ? std::string() : m_programs.blobFolder + "/" + name;
}

std::vector<std::string> CSimulatedDevice::HostArguments(const TUpdateOptions& options) const {
    std::ostringstream timeout;
    timeout << options.timeoutSeconds;
    std::vector<std::string> arguments = m_programs.hostLauncher;
    for (const std::string& argument :
         {m_programs.host, std::string("update"), std::string("--config"), ConfigFile(),
          std::string("--trace"), TraceFile(), std::string("--timeout"), timeout.str()}) {
        arguments.push_back(argument);
    }
    if (options.abortAfterMs) {
        arguments.push_back("--abort-after-ms");
        arguments.push_back(std::to_string(*options.abortAfterMs));
    }
    if (options.quiet) {
        arguments.push_back("--quiet");
    }
    return arguments;
}

std::vector<std::string> CSimulatedDevice::HostEnvironment() const {
    // The interposer answers for "/dev/fdtexport" inside the host. An instrumented interposer
    // needs the AddressSanitizer runtime loaded before it (GCC links the runtime dynamically and
    // checks that it comes first).
    std::vector<std::string> environment;
    if (!m_programs.libraryPath.empty()) {
        environment.push_back("LD_LIBRARY_PATH=" + m_programs.libraryPath);
    }
    if (m_settings.deviceTree == TDeviceTree::eNoInterposer) {
        return environment;
    }
    std::string preload = m_programs.interposer;
    if (m_programs.addressSanitizer) {
        if (!m_programs.asanRuntime.empty() &&
            ::access(m_programs.asanRuntime.c_str(), R_OK) == 0) {
            preload = m_programs.asanRuntime + ":" + preload;
        }
        const char* inherited = ::getenv("ASAN_OPTIONS");
        std::string asanOptions = inherited != nullptr ? std::string(inherited) + ":" : "";
        environment.push_back("ASAN_OPTIONS=" + asanOptions + "verify_asan_link_order=0");
    }
    environment.push_back("LD_PRELOAD=" + preload);
    if (m_settings.deviceTree == TDeviceTree::eMissing) {
        environment.push_back("MODEMLOADER_FDT_KIND=missing");
    } else {
        environment.push_back("MODEMLOADER_FDT_FILE=" + DeviceTreeBlob());
        environment.push_back("MODEMLOADER_FDT_KIND=chardev");
    }
    return environment;
}

CStatus CSimulatedDevice::RunUpdate(const TUpdateOptions& options, TUpdateResult& result) {
    result = TUpdateResult();
    TChildOptions programOptions;
    programOptions.captureOutput = !options.showOutput;
    programOptions.extraEnvironment = HostEnvironment();
    programOptions.timeout = std::chrono::milliseconds(
        static_cast<long long>((options.timeoutSeconds + kHostGraceSeconds) * 1000));
    const TChildResult run = CChildProcess::Run(HostArguments(options), programOptions);
    if (!run.started) {
        return CStatus::Failure("running " + m_programs.host + ": " + run.error);
    }
    result.exitCode = run.exitCode;
    result.signal = run.signal;
    result.timedOut = run.timedOut;
    result.out = run.out;
    result.err = run.err;
    result.seconds = run.seconds;

    std::ifstream trace(TraceFile());
    if (!trace) {
        return CStatus::Failure("the host wrote no trace " + TraceFile() + ": " + Describe(run));
    }
    std::string line;
    while (std::getline(trace, line)) {
        nlohmann::json parsed = nlohmann::json::parse(line, nullptr, false);
        if (parsed.is_discarded()) {
            return CStatus::Failure("trace " + TraceFile() + ": not JSON: " + line);
        }
        result.trace.push_back(std::move(parsed));
    }
    if (m_modem.IsRunning()) {
        if (CStatus status = StopModem(result.modemSummary); !status) {
            return status;
        }
    }
    return CStatus::Ok();
}

CStatus CSimulatedDevice::StopModem(nlohmann::json& summary) {
    return m_modem.Stop(PathOf("modem-summary.json"), summary);
}

CStatus CSimulatedDevice::RestartModem(const std::vector<std::string>& modemOptions) {
    if (!m_settings.controlPin) {
        return CStatus::Failure("a device without a control pin has no modem");
    }
    if (m_modem.IsRunning()) {
        return CStatus::Failure("the modem is still running");
    }
    m_settings.modemOptions = modemOptions;
    if (CStatus status = m_directory.WriteFile("control", "1\n"); !status) {
        return status;
    }
    return StartModem().WithContext("restarting the modem");
}

CStatus CSimulatedDevice::ReadFlash(std::string& content) const {
    return ReadWholeFile(FlashFile(), content);
}

CStatus CSimulatedDevice::CheckFlashHoldsFirmware() const {
    std::string flash;
    if (CStatus status = ReadFlash(flash); !status) {
        return status;
    }
    if (flash != m_firmware) {
        return CStatus::Failure("the modem's flash does not hold the firmware (" +
                                std::to_string(flash.size()) + " bytes)");
    }
    return CStatus::Ok();
}

CStatus CSimulatedDevice::ReadStorageFile(const std::string& relativePath,
                                          std::string& content) const {
    return m_storage.ReadFromImage(relativePath, content);
}

std::vector<std::string> CSimulatedDevice::ListStorageFolder(
    const std::string& relativePath) const {
    std::vector<std::string> names = m_storage.ListImageFolder(relativePath);
    if (relativePath.empty()) {
        names.erase(std::remove(names.begin(), names.end(), "lost+found"), names.end());
    }
    return names;
}

bool CSimulatedDevice::IsStorageMounted() const { return m_storage.IsMounted(); }

std::vector<std::string> CSimulatedDevice::UpdateFileOptions() const {
    return {"--loader",         LoaderSource(),        "--firmware",      FirmwareSource(),
            "--product-config", ProductConfigSource(), "--daemon-config", DaemonConfigSource()};
}

std::vector<std::string> CSimulatedDevice::AttachedLoopDevices() const {
    return m_storage.AttachedLoopDevices();
}
