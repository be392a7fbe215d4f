#pragma once
// What an update system adds to a modem update: the wall time of its whole install of an update
// (client, artifact checks, module or handler or hook, the shared runner, the host) minus the
// wall time of the host's own run of the same update on a device made the same way (same
// settings, same seed, so the same loader and firmware bytes). Both runs must flash the modem
// with the firmware byte for byte; a figure of a failed install would measure the wrong thing.
// Needs root (the devices' loop devices, the clients' private mount namespaces).

#include <cstdint>
#include <string>

#include "Status.h"

struct TOverheadMeasurement {
    double installSeconds = 0;  // the update system's install, end to end
    double hostSeconds = 0;     // modemloader-host alone, the same update
    double OverheadSeconds() const { return installSeconds - hostSeconds; }
};

class CIntegrationOverhead {
public:
    // Empty when the Mender client can run here; otherwise why not.
    static std::string MenderMissing();
    // `mender install` of a signed artifact through the update module modem-firmware.
    [[nodiscard]] static CStatus MeasureMender(uint64_t seed, TOverheadMeasurement& measurement);
    // Empty when RAUC can run here; otherwise why not.
    static std::string RaucMissing();
    // `rauc install` of a bundle signed by the device's CA, through the bundle's hook.
    [[nodiscard]] static CStatus MeasureRauc(uint64_t seed, TOverheadMeasurement& measurement);

private:
    // The host's own run of the update on a fresh device with `seed`.
    static CStatus MeasureHost(uint64_t seed, double& seconds);
};
