#pragma once
// What a simulated device is made of and how an update is run on it: the records that
// CSimulatedDevice takes and gives back.

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

// The names the device's configuration gives the feature and its files on the storage.
namespace device {
constexpr char kFeature[] = "modemloader";
constexpr char kRevisionFile[] = "revision";  // "revisionfile"
constexpr char kFlagFile[] = "update.flag";   // "flagfile"
constexpr char kTargetFolder[] = "update";    // "targetfolder"
constexpr char kFillerFile[] = "filler";      // other data on the storage (storageFillerBytes)
}  // namespace device

// What "/dev/fdtexport" holds on the device.
enum class TDeviceTree {
    eHasGprs1,        // "/features" with "has-gprs" = <1>: an integrated GPRS modem
    eHasGprs0,        // "/features" with "has-gprs" = <0>: no integrated modem
    eNoFeaturesNode,  // a tree without "/features"
    eMissing,         // no "/dev/fdtexport" at all
    eNoInterposer,    // nothing preloaded: the host sees this machine's own "/dev/fdtexport"
};

// The programs a device is driven with; by default the ones this build made.
struct TDevicePrograms {
    std::string host;  // modemloader-host
    // What the host is started with when it is built for another machine (qemu-arm-static for
    // the armhf build): empty to start it directly.
    std::vector<std::string> hostLauncher;
    std::string plugin;       // libmodemloader.so
    std::string modemSim;     // modem-sim
    std::string interposer;   // libfdtexport_interposer.so
    std::string blobFolder;   // the device-tree blobs made by the build
    std::string asanRuntime;  // preloaded before the interposer in AddressSanitizer builds
    bool addressSanitizer = false;
    // The host's LD_LIBRARY_PATH: the libraries of installed programs unpacked under a temporary
    // root; empty for this build's programs, which find theirs by their run path.
    std::string libraryPath;
};

struct TDeviceSettings {
    // The movinand storage: an ext4 image, at least this large (grown to hold the archive
    // loader's copies).
    std::size_t storageBytes = 16u << 20;
    // A file "filler" of this many bytes on the storage before the update: other data taking its
    // room. The room made for the archive loader's copies does not count it, so a filler near
    // the storage's size leaves too little room for them.
    std::size_t storageFillerBytes = 0;
    // The revision file "revision" on the storage before the update; none when empty.
    std::optional<std::string> storedRevision = std::string("100");

    // The update on offer.
    std::string revision = "124";
    std::string removable = "1";
    std::size_t loaderBytes = 1024;
    std::size_t firmwareBytes = 60000;
    uint64_t seed = 1;  // of the loader's and the firmware's pseudo-random bytes

    // The device: with a control pin the image loader flashes the modem (modem-sim plays it);
    // without one the archive loader copies the files and no modem is started.
    bool controlPin = true;
    TDeviceTree deviceTree = TDeviceTree::eHasGprs1;

    // modem-sim: its timings and any further options ("--initially-on", "--fault", "no-sync").
    std::chrono::milliseconds powerOn{50};
    std::chrono::milliseconds eraseTime{20};
    std::vector<std::string> modemOptions;

    // The host's [host] section.
    uint32_t tickMs = 10;
    uint32_t serialReadTimeoutMs = 10;
    std::string hostLog = "stderr";  // stderr | syslog | both | none
};

struct TUpdateOptions {
    std::optional<uint32_t> abortAfterMs;  // the host sends Abort this long after Install
    double timeoutSeconds = 120;           // the host's own --timeout (it then exits 3)
    bool quiet = true;                     // no progress output
    // The host writes to our standard output and error instead of being captured (a person
    // watches the progress bar).
    bool showOutput = false;
};

struct TUpdateResult {
    int exitCode = -1;                  // the host's exit status; -1 when it did not exit normally
    int signal = 0;                     // the signal that ended it
    bool timedOut = false;              // it outlived its time-out by far and was killed
    std::string out;                    // its standard output (empty with showOutput)
    std::string err;                    // its standard error (empty with showOutput)
    double seconds = 0;                 // wall time of the host process
    std::vector<nlohmann::json> trace;  // the host's JSON Lines trace, one object a line
    nlohmann::json modemSummary;        // modem-sim's summary; null without a modem
};
