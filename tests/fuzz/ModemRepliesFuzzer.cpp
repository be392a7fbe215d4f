// The image loader against a modem whose every reply comes from the fuzz input: from the
// power-up that catches the boot code to Terminate, on one tick after another.
//
// Input:
//   byte 0   the power-up (0..5, taken modulo 6) on which the boot code echoes the sync probe;
//            0: never (the five attempts run out)
//   byte 1   the firmware's size, one of 0, 1, 300, 25600 (one whole chunk), 51500 (three
//            chunks, the last a short one), taken modulo 5
//   byte 2   a write that fails: 0 none; otherwise the (byte >> 1)-th write after the sync
//            echo, failing with a port error (even) or by taking one byte too few (odd)
//   rest     the modem's replies after the sync echo (encoding in FuzzSerialPort.h)
//
// A run ends at Terminate (Completed) or after a budget of ticks, whichever comes first; a run
// never completes more than once and never reports a progress value above the one before.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "FuzzDevice.h"
#include "FuzzInput.h"
#include "ImageLoader.h"
#include "MapProperties.h"
#include "PluginState.h"
#include "PseudoRandomBytes.h"
#include "RecordingEventBroker.h"
#include "RecordingLoaderCallback.h"

namespace {

using namespace fuzzdevice;

// Room for the erase's 60 wait ticks, three chunks and the write's 60-tick time-out, with some to
// spare. A run that needs more (a modem that keeps answering "." to every status read) is cut
// off here: it would only repeat the same tick.
constexpr unsigned kTickBudget = 200;

constexpr uint32_t kFirmwareSizes[] = {0, 1, 300, 25600, 51500};

const CPluginState& PluginState() {
    static const CPluginState state(MODEMLOADER_PLUGIN_SOURCES);
    return state;
}

// Invariants of the loader contract that hold for every modem: one Completed at most, and
// progress never rising.
[[noreturn]] void Violation(const char* what) {
    std::fprintf(stderr, "modem replies: %s\n", what);
    std::abort();
}

void CheckCallbacks(const CRecordingLoaderCallback& callback) {
    if (callback.CompletedCount() > 1) {
        Violation("the run completed more than once");
    }
    unsigned previous = 100;
    for (unsigned remaining : callback.ProgressRemaining()) {
        if (remaining > previous) {
            Violation("the remaining work rose");
        }
        previous = remaining;
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    PluginState();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    CFuzzInput input(data, size);
    const unsigned answeringPowerUp = input.Byte() % 6;
    const uint32_t firmwareSize = kFirmwareSizes[input.Byte() % 5];
    const uint8_t writeFault = input.Byte();

    CFuzzDevice device(PluginState());
    device.Port().AnswerOnPowerUp(answeringPowerUp);
    device.Port().SetWriteFault(writeFault >> 1, (writeFault & 1) != 0);
    device.Port().SetReplies(input.Bytes(input.Remaining()));
    device.Files().AddFile(kBootloader, PseudoRandomBytes(1237, 11));
    device.Files().AddFile(kFirmware, PseudoRandomBytes(firmwareSize, 5));

    std::string name = kName;
    CMapProperties properties(kName, {{"control", kControlPin},
                                      {"ready", kReadyInput},
                                      {"serial", kSerialDevice},
                                      {"bootloader", kBootloader},
                                      {"firmware", kFirmware}});
    CRecordingEventBroker broker;
    CRecordingLoaderCallback callback;
    {
        CImageLoader loader(name, broker, properties, callback);
        device.WatchPower(&loader.Power());
        // False for a firmware of 0 bytes ("could not determine firmware size"); the run is
        // started all the same, as the controller ignores the result.
        loader.Prepare();
        loader.Install();
        for (unsigned tick = 0; tick < kTickBudget && callback.CompletedCount() == 0; ++tick) {
            broker.Tick();
        }
        device.JoinPowerWorkers();
        device.WatchPower(nullptr);
    }
    CheckCallbacks(callback);
    // MODEMLOADER_FUZZ_VERBOSE=1 shows what an input made of the run (to read a reproducer).
    if (std::getenv("MODEMLOADER_FUZZ_VERBOSE") != nullptr) {
        for (const std::string& call : callback.Calls()) {
            std::printf("%s ", call.c_str());
        }
        std::printf("\n");
    }
    return 0;
}
