#pragma once
// What an update system adds to a modem update: the wall time of its whole install of an update
// (client, artifact checks, module or handler or hook, the shared runner, the host) minus the
// wall time of the host's own run of the same update on a device made the same way (same
// settings, same seed, so the same loader and firmware bytes). Both runs must flash the modem
// with the firmware byte for byte; a figure of a failed install would measure the wrong thing.
// Each system runs isolated as in its end-to-end tests. Needs root (the devices' loop devices,
// the clients' private mount namespaces).

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "ChildProcess.h"
#include "SimulatedDevice.h"
#include "Status.h"

struct TOverheadMeasurement {
    double installSeconds = 0;  // the update system's install, end to end
    double hostSeconds = 0;     // modemloader-host alone, the same update
    double OverheadSeconds() const { return installSeconds - hostSeconds; }
};

class CIntegrationOverhead {
public:
    // The firmware of every device measured: the size SWUpdate's client needs to wait for its
    // install, the same for the three systems so that their figures compare.
    static std::size_t FirmwareBytes();
    // Empty when the system's client can run here; otherwise why not.
    static std::string MenderMissing();
    static std::string SwupdateMissing();
    static std::string RaucMissing();

    // `mender install` of a signed artifact through the update module modem-firmware.
    [[nodiscard]] static CStatus MeasureMender(uint64_t seed, TOverheadMeasurement& measurement);
    // `swupdate -i` of a signed .swu through the Lua handler.
    [[nodiscard]] static CStatus MeasureSwupdate(uint64_t seed, TOverheadMeasurement& measurement);
    // `rauc install` of a bundle signed by the device's CA, through the bundle's hook.
    [[nodiscard]] static CStatus MeasureRauc(uint64_t seed, TOverheadMeasurement& measurement);

private:
    // The host's own run of the update on a fresh device with `seed`, then a second device made
    // alike for the system's install.
    static CStatus HostRunAndDevice(uint64_t seed, TOverheadMeasurement& measurement,
                                    std::unique_ptr<CSimulatedDevice>& device);
    // Times `install`, stops the modem, and checks that the system's client exited 0 and that
    // the modem holds the firmware; `log`, if given, adds what the system logged elsewhere to a
    // failure.
    static CStatus TimeInstall(CSimulatedDevice& device, const std::string& context,
                               const std::function<TChildResult()>& install,
                               TOverheadMeasurement& measurement,
                               const std::function<std::string()>& log = {});
};
