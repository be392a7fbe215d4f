#pragma once
// One "modemloader-host update" on a simulated device, run as our own child so that its process
// can be watched: its CPU time comes from wait4's resource usage (its own, its threads' and the
// shell commands it waited for); its resident memory is sampled from /proc/<pid>/status while it
// runs. wait4's peak resident memory is no use here: the kernel carries the high-water mark of
// the process across exec, so it would report the benchmark's own memory that the child had
// between fork and exec. VmHWM starts afresh with the host's program; its last sample, taken at
// most a millisecond before the host ended, is the peak.
//
// Resident memory counts the pages of program and library code that the process has touched;
// those are shared with every other process that uses the same libraries. The anonymous part is
// what the process itself holds, so both are kept.
//
// "Before Install" is the last sample taken before a look at the host's trace that did not yet
// show the Install request (204): every sample is read before the trace is looked at, so such a
// sample cannot be later than the request. The cadence is one sample a millisecond; a sample
// that falls before the end of Prepare counts less memory as the base and so makes the growth
// during Install look larger, never smaller.

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "SimulatedDevice.h"
#include "Status.h"

struct THostRun {
    int exitCode = -1;  // the host's exit status; -1 when it did not exit normally
    int signal = 0;     // the signal that ended it
    double wallSeconds = 0;
    double userSeconds = 0;
    double systemSeconds = 0;
    long peakResidentKiB = 0;            // VmHWM at the last sample before it ended
    long residentBeforeInstallKiB = -1;  // -1: no sample before Install
    // The same for the anonymous part of it (RssAnon: heap, stacks; no program or library
    // code); its peak is the largest sample, since the kernel keeps no high-water mark of it.
    long peakAnonymousKiB = 0;
    long anonymousBeforeInstallKiB = -1;
    std::vector<nlohmann::json> trace;  // its JSON Lines trace
    nlohmann::json modemSummary;        // modem-sim's summary, the modem stopped after the run

    double CpuSeconds() const { return userSeconds + systemSeconds; }
};

class CHostRun {
public:
    // Runs the host to its end (killed after options.timeoutSeconds and a grace period), then
    // stops the device's modem. Fails only when the run could not be made or observed.
    [[nodiscard]] static CStatus Run(CSimulatedDevice& device, const TUpdateOptions& options,
                                     THostRun& run);
};
