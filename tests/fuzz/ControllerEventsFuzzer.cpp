// The module object as the host drives it, with whatever events a host could deliver: any type,
// id and payload, through the broker (to whoever subscribed) or straight to the module's
// observer, with ticks in between.
//
// Input:
//   byte 0   the device: bit 0 the modem's control pin exists (image loader, else archive
//            loader); bits 1-2 the device-tree export (0 missing, 1 has-gprs 1, 2 has-gprs 0,
//            3 a regular file); bit 3 the storage holds the configured revision; bit 4 the
//            update's source files exist; bit 5 the storage can be mounted
//   then records, until the input ends:
//     kind (byte) modulo 3:
//       0  ticks: (next byte modulo 64) + 1 of them
//       1  an event through the broker: type (4 bytes LE), id (4 bytes LE), payload length
//          (1 byte) and the payload; `size` is the payload's length
//       2  the same event handed straight to the module's observer
//
// Every module reply must be one of the module's own ids with its record's size; the module
// never publishes anything else.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "ExportLeftovers.h"
#include "FdtExportInterposer.h"
#include "FuzzDevice.h"
#include "FuzzInput.h"
#include "InterfaceBroker.h"
#include "MapProperties.h"
#include "ModemLoader.h"
#include "PluginState.h"
#include "RecordingEventBroker.h"

namespace {

using namespace fuzzdevice;

constexpr char kMovinand[] = "/dev/movinand";
constexpr char kMountPoint[] = "/mnt/movinand";
constexpr char kRevisionFile[] = "modem_revision";

const CPluginState& PluginState() {
    static const CPluginState state(MODEMLOADER_PLUGIN_SOURCES);
    return state;
}

[[noreturn]] void Violation(const char* what) {
    std::fprintf(stderr, "controller events: %s\n", what);
    std::abort();
}

void CheckPublished(const CRecordingEventBroker& broker, const std::string& name) {
    for (const TRecordedEvent& event : broker.Published()) {
        if (event.type != EVENT_TYPE_USER) {
            Violation("published an event that is not a controller reply");
        }
        switch (event.id) {
            case EVT_CONTROLLER_INIT_DONE:
                if (event.PayloadText() != name) {
                    Violation("201 does not carry the module name");
                }
                break;
            case EVT_CONTROLLER_PREPARE_DONE:
            case EVT_CONTROLLER_INSTALL_DONE:
            case EVT_CONTROLLER_ABORTED:
                if (event.size != 68 || event.ReplyName() != name ||
                    (event.ReplyOutcome() != 0 && event.ReplyOutcome() != 1)) {
                    Violation("a reply record is malformed");
                }
                break;
            case EVT_CONTROLLER_PROGRESS:
                if (event.size != 65) {
                    Violation("a progress record is not 65 bytes");
                }
                break;
            default:
                Violation("published an id that is not a reply");
        }
    }
}

// Two boards' trees from the device-tree target's seeds: "/features" with has-gprs 1 and 0.
const std::string kHasGprs = std::string(FUZZ_CORPUS_DIRECTORY) + "/device_tree/has-gprs-1.dtb";
const std::string kNoGprs = std::string(FUZZ_CORPUS_DIRECTORY) + "/device_tree/has-gprs-0.dtb";

void UseDeviceTree(unsigned kind) {
    switch (kind) {
        case 0:
            FdtExportUse(eFdtExportMissing, nullptr);
            break;
        case 1:
            FdtExportUse(eFdtExportCharDevice, kHasGprs.c_str());
            break;
        case 2:
            FdtExportUse(eFdtExportCharDevice, kNoGprs.c_str());
            break;
        default:
            FdtExportUse(eFdtExportRegular, kHasGprs.c_str());
            break;
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    PluginState();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    CFuzzInput input(data, size);
    const uint8_t deviceBits = input.Byte();

    CFuzzDevice device(PluginState());
    UseDeviceTree((deviceBits >> 1) & 3);
    CFakeFileHandler& files = device.Files();
    if ((deviceBits & 1) != 0) {
        files.AddFile(kControlPin, "1");
    }
    if ((deviceBits & (1 << 5)) != 0) {
        files.AddFolder(kMountPoint);
        files.AddStorage(kMovinand);
    }
    if ((deviceBits & (1 << 3)) != 0) {
        files.AddStorageFile(kMovinand, kRevisionFile, "124\n");
    }
    if ((deviceBits & (1 << 4)) != 0) {
        files.AddFile(kBootloader, std::string(37, 'L'));
        files.AddFile(kFirmware, std::string(300, 'F'));
        files.AddFile("/media/update/product.cfg", "product=1\n");
        files.AddFile("/media/update/daemon.cfg", "daemon=1\n");
    }

    std::string name = kName;
    CMapProperties properties(kName, {{"control", kControlPin},
                                      {"ready", kReadyInput},
                                      {"serial", kSerialDevice},
                                      {"revision", "124"},
                                      {"removable", "1"},
                                      {"movinand", kMovinand},
                                      {"mountpoint", kMountPoint},
                                      {"revisionfile", kRevisionFile},
                                      {"flagfile", "update.flag"},
                                      {"bootloader", kBootloader},
                                      {"firmware", kFirmware},
                                      {"productconfig", "/media/update/product.cfg"},
                                      {"daemonconfig", "/media/update/daemon.cfg"},
                                      {"targetfolder", "modem"}});
    IInterfaceBroker interfaces;
    CRecordingEventBroker broker;
    {
        CModemLoader module(name, interfaces, broker, properties);
        IEventObserver& observer = module;
        while (!input.Exhausted()) {
            const uint8_t kind = input.Byte() % 3;
            if (kind == 0) {
                broker.Tick(input.Byte() % 64 + 1u);
                continue;
            }
            TEvent event;
            event.type = static_cast<int32_t>(input.Word());
            event.id = static_cast<int32_t>(input.Word());
            const std::string payload = input.Bytes(input.Byte());
            event.size = static_cast<uint32_t>(payload.size());
            event.data = payload.data();
            if (kind == 1) {
                broker.Deliver(event);
            } else {
                observer.OnEvent(event);
            }
        }
        device.JoinPowerWorkers();
    }
    FdtExportUse(eFdtExportMissing, nullptr);
    static CExportLeftovers leftovers({kHasGprs, kNoGprs});
    leftovers.Reclaim();
    CheckPublished(broker, name);
    return 0;
}
