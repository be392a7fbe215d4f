#pragma once
// One device for one fuzz input: the in-memory file system, the command handler whose control-pin
// commands power the fuzzed modem up and down, the fuzzed serial line, the captured log and the
// virtual clock (CFuzzClock: a power-up attempt's 1.25 s takes no time). Built afresh for
// every input, after the plug-in's process-wide variables were put back (CPluginState), and torn
// down only after every power worker of the input has ended (CPowerWorkers).

#include <string>

#include "FakeFileHandler.h"
#include "FuzzSerialPort.h"
#include "LogCapture.h"
#include "ModemPower.h"
#include "PluginState.h"
#include "PowerWorkers.h"
#include "RecordingCmdHandler.h"

namespace fuzzdevice {
constexpr char kName[] = "modemloader";
constexpr char kControlPin[] = "/sys/class/modem/control";
// Read by the power control with the C library: a path that never exists, so the modem is
// always found switched off and no 7 s switch-off pulse is made.
constexpr char kReadyInput[] = "/nonexistent/modemloader-fuzz/ready";
constexpr char kSerialDevice[] = "/dev/ttyModemFuzz";
constexpr char kBootloader[] = "/media/update/boot.bin";
constexpr char kFirmware[] = "/media/update/firmware.bin";
}  // namespace fuzzdevice

class CFuzzDevice {
public:
    // The plug-in's variables are put back first, so the input starts as after a boot.
    explicit CFuzzDevice(const CPluginState& pluginState);
    // Joins the input's power workers before anything they use goes.
    ~CFuzzDevice();
    CFuzzDevice(const CFuzzDevice&) = delete;
    CFuzzDevice& operator=(const CFuzzDevice&) = delete;

    // While the modem is about to echo a probe, the power worker's polls wait for `power` to
    // leave eWaitingForAck, as a modem that answers does within the worker's window. Null: the
    // worker never waits (no loader whose power control is reachable).
    void WatchPower(CModemPower* power);
    // Waits for the power workers started so far. Call before `power` of WatchPower goes.
    void JoinPowerWorkers() { m_workers.JoinAll(); }

    CFakeFileHandler& Files() { return m_files; }
    CFuzzSerialPort& Port() { return m_port; }

private:
    CPowerWorkers m_workers;
    CLogCapture m_log;
    CFakeFileHandler m_files;
    CRecordingCmdHandler m_commands;
    CFuzzSerialPort m_port;
};
