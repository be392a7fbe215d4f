#pragma once
// A whole device for end-to-end runs of modemloader-host, made in a temporary directory:
//   movinand.img   the "movinand" storage: an ext4 image (mkfs.ext4), holding "revision" when
//                  a stored revision is set; mounted by the plug-in through the host's file
//                  handler ("fs.2 = ext4") on mnt/
//   update/        the update files: loader.bin, firmware.bin (deterministic pseudo-random
//                  bytes), daemon.cfg, product.cfg
//   control, ready the modem's control pin and ready input (without a control pin: neither)
//   modem.link     the serial line: modem-sim's pseudo-terminal
//   flash.bin      what the emulated modem's flash received
//   host.ini       the host's configuration: [host] and the feature's fourteen properties
//   host-trace.jsonl, modem-trace.txt, modem-summary.json, modem-output.txt
// "/dev/fdtexport" is played by the device-tree interposer, preloaded into the host with the
// chosen blob.
//
// Create() builds it all and starts modem-sim; RunUpdate() runs "modemloader-host update" to its
// end and then stops the modem to collect its summary. Destroying the device stops a modem still
// running, unmounts the storage if a killed host left it mounted (its loop device is auto-clear
// and goes with the mount) and removes the directory. Used from one thread.

#include <memory>
#include <string>
#include <vector>

#include "DeviceSettings.h"
#include "ModemProcess.h"
#include "Status.h"
#include "StorageImage.h"
#include "TemporaryDirectory.h"

class CSimulatedDevice {
public:
    // The programs this build made (paths fixed at build time).
    static TDevicePrograms BuiltPrograms();
    // Empty when a device can be made here; otherwise why not (root, loop devices, a
    // pseudo-terminal, e2fsprogs, the built programs).
    static std::string MissingPrerequisite(const TDevicePrograms& programs = BuiltPrograms());

    [[nodiscard]] static CStatus Create(const TDeviceSettings& settings,
                                        std::unique_ptr<CSimulatedDevice>& device,
                                        const TDevicePrograms& programs = BuiltPrograms());
    ~CSimulatedDevice();
    CSimulatedDevice(const CSimulatedDevice&) = delete;
    CSimulatedDevice& operator=(const CSimulatedDevice&) = delete;

    // Runs one update; `result` holds what the host did even when the run failed. Fails only
    // when the run could not be made or observed (no host, no trace, the modem's summary).
    [[nodiscard]] CStatus RunUpdate(const TUpdateOptions& options, TUpdateResult& result);

    // The host's command line and the environment it adds, for callers that run it themselves
    // (benchmarks under a profiler, tests that kill it): the modem must then be stopped with
    // StopModem().
    std::vector<std::string> HostArguments(const TUpdateOptions& options) const;
    std::vector<std::string> HostEnvironment() const;
    [[nodiscard]] CStatus StopModem(nlohmann::json& summary);
    // Starts the modem again once a run stopped it, with `modemOptions` instead of the settings'
    // (a fault taken away): switched off, the control pin released, as after the unit's reset.
    // It writes the same flash file, trace and summary, emptied.
    [[nodiscard]] CStatus RestartModem(const std::vector<std::string>& modemOptions);

    const TDeviceSettings& Settings() const { return m_settings; }
    const TDevicePrograms& Programs() const { return m_programs; }
    const std::string& Directory() const { return m_directory.Path(); }
    std::string PathOf(const std::string& name) const { return m_directory.Join(name); }
    const CStorageImage& Storage() const { return m_storage; }
    const std::string& Image() const { return m_storage.Image(); }
    const std::string& MountPoint() const { return m_storage.MountPoint(); }
    std::string ConfigFile() const { return PathOf("host.ini"); }
    std::string TraceFile() const { return PathOf("host-trace.jsonl"); }
    std::string ControlFile() const { return PathOf("control"); }
    std::string ReadyFile() const { return PathOf("ready"); }
    std::string SerialLink() const { return PathOf("modem.link"); }
    std::string FlashFile() const { return PathOf("flash.bin"); }
    std::string LoaderSource() const { return PathOf("update/loader.bin"); }
    std::string FirmwareSource() const { return PathOf("update/firmware.bin"); }
    std::string DaemonConfigSource() const { return PathOf("update/daemon.cfg"); }
    std::string ProductConfigSource() const { return PathOf("update/product.cfg"); }
    // The four update files as the update systems' package makers take them: --loader FILE
    // --firmware FILE --product-config FILE --daemon-config FILE.
    std::vector<std::string> UpdateFileOptions() const;

    // The update's contents, as made.
    const std::string& Loader() const { return m_loader; }
    const std::string& Firmware() const { return m_firmware; }
    static std::string DaemonConfig();
    static std::string ProductConfig();

    // What the emulated modem's flash holds.
    [[nodiscard]] CStatus ReadFlash(std::string& content) const;
    // Ok when the modem's flash holds the firmware byte for byte; otherwise says what it holds.
    [[nodiscard]] CStatus CheckFlashHoldsFirmware() const;
    // A file of the storage, read from the unmounted image (debugfs); fails when it is absent.
    [[nodiscard]] CStatus ReadStorageFile(const std::string& relativePath,
                                          std::string& content) const;
    // Names in a folder of the unmounted image, without "." and ".." (and "lost+found" at the
    // top), sorted.
    std::vector<std::string> ListStorageFolder(const std::string& relativePath) const;
    bool IsStorageMounted() const;
    std::vector<std::string> AttachedLoopDevices() const;

private:
    CSimulatedDevice(const TDeviceSettings& settings, const TDevicePrograms& programs);
    CStatus Build();
    CStatus MakeStorage();
    CStatus WriteConfig();
    CStatus StartModem();
    std::string DeviceTreeBlob() const;

    TDeviceSettings m_settings;
    TDevicePrograms m_programs;
    std::string m_loader;
    std::string m_firmware;
    // In this order, so that they go in the reverse one: the modem is stopped, then a mount that
    // a killed host left is detached, then the directory is removed.
    CTemporaryDirectory m_directory;
    CStorageImage m_storage;
    CModemProcess m_modem;
};
