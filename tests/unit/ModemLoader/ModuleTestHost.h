#pragma once
// A module object on fakes of the host services: the recording event broker, feature properties in
// a map, the in-memory file system with the movinand storage, and the captured log. Tests drive the
// module only as the host does, through controller events and ticks on the broker.

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "FakeFileHandler.h"
#include "LogCapture.h"
#include "MapProperties.h"
#include "ModemLoader.h"
#include "RecordingEventBroker.h"

namespace moduletest {

constexpr char kName[] = "modemloader";
constexpr char kControlPin[] = "/sys/class/modem/control";
// Read by the image loader's power control with the C library: a path that never exists keeps
// it from switching anything.
constexpr char kReadyInput[] = "/nonexistent/modemloader-test/ready";
constexpr char kSerialDevice[] = "/dev/ttyModemTest";
constexpr char kMovinand[] = "/dev/movinand";
constexpr char kMountPoint[] = "/mnt/movinand";
constexpr char kRevisionFile[] = "modem_revision";
constexpr char kFlagFile[] = "update.flag";
constexpr char kBootloader[] = "/media/update/boot.bin";
constexpr char kFirmware[] = "/media/update/firmware.bin";
constexpr char kProductConfig[] = "/media/update/product.cfg";
constexpr char kDaemonConfig[] = "/media/update/daemon.cfg";
constexpr char kTargetFolder[] = "modem";

// Every key any reader looks up, as a device with an update on offer is configured.
inline std::map<std::string, std::string> CompleteProperties() {
    return {{"control", kControlPin},
            {"ready", kReadyInput},
            {"serial", kSerialDevice},
            {"revision", "124"},
            {"removable", "1"},
            {"movinand", kMovinand},
            {"mountpoint", kMountPoint},
            {"revisionfile", kRevisionFile},
            {"flagfile", kFlagFile},
            {"bootloader", kBootloader},
            {"firmware", kFirmware},
            {"productconfig", kProductConfig},
            {"daemonconfig", kDaemonConfig},
            {"targetfolder", kTargetFolder}};
}

// The payload of 203, 205 and 208: the name in a zeroed 64-byte field, then the outcome.
inline std::vector<uint8_t> ReplyBytes(const std::string& name, int32_t outcome) {
    std::vector<uint8_t> bytes(68, 0);
    std::memcpy(bytes.data(), name.data(), name.size());
    std::memcpy(bytes.data() + 64, &outcome, sizeof outcome);
    return bytes;
}

// The payload of 206: the name in a zeroed 64-byte field, then the percent byte.
inline std::vector<uint8_t> ProgressBytes(const std::string& name, uint8_t percent) {
    std::vector<uint8_t> bytes(65, 0);
    std::memcpy(bytes.data(), name.data(), name.size());
    bytes[64] = percent;
    return bytes;
}

// A published event as the tests compare it: id, size and payload bytes (type is always 3).
struct TPublished {
    int32_t type;
    int32_t id;
    uint32_t size;
    std::vector<uint8_t> payload;
    bool operator==(const TPublished& other) const {
        return type == other.type && id == other.id && size == other.size &&
               payload == other.payload;
    }
};
inline void PrintTo(const TPublished& event, std::ostream* stream) {
    *stream << "{type " << event.type << ", id " << event.id << ", size " << event.size
            << ", payload";
    for (uint8_t byte : event.payload) {
        *stream << ' ' << static_cast<int>(byte);
    }
    *stream << "}";
}
inline TPublished Reply(int32_t id, int32_t outcome, const std::string& name = kName) {
    return {EVENT_TYPE_USER, id, 68, ReplyBytes(name, outcome)};
}
inline TPublished ProgressEvent(uint8_t percent, const std::string& name = kName) {
    return {EVENT_TYPE_USER, EVT_CONTROLLER_PROGRESS, 65, ProgressBytes(name, percent)};
}
inline TPublished InitDone(const std::string& name = kName) {
    return {EVENT_TYPE_USER, EVT_CONTROLLER_INIT_DONE, static_cast<uint32_t>(name.size()),
            std::vector<uint8_t>(name.begin(), name.end())};
}
inline std::vector<TPublished> Published(const CRecordingEventBroker& broker) {
    std::vector<TPublished> events;
    for (const TRecordedEvent& event : broker.Published()) {
        events.push_back({event.type, event.id, event.size, event.payload});
    }
    return events;
}

class CModuleTest : public ::testing::Test {
protected:
    CModuleTest() : m_properties(kName, CompleteProperties()) {
        m_files.AddFolder(kMountPoint);
        m_files.AddStorage(kMovinand);
    }

    void CreateModule() {
        m_module = std::make_unique<CModemLoader>(m_name, m_interfaces, m_broker, m_properties);
    }
    // The device has the modem's control pin: the image loader is the real loader.
    void AddControlPin() { m_files.AddFile(kControlPin, "1"); }
    // The update's four source files.
    void AddSources() {
        m_files.AddFile(kBootloader, "loader image");
        m_files.AddFile(kFirmware, "firmware image");
        m_files.AddFile(kProductConfig, "product=1\n");
        m_files.AddFile(kDaemonConfig, "daemon=1\n");
    }
    // Moves the whole configuration to `feature` (empty: no property at all).
    void ConfigureUnder(const std::string& feature) {
        for (const auto& [key, value] : CompleteProperties()) {
            m_properties.Remove(kName, key);
            if (!feature.empty()) {
                m_properties.Set(feature, key, value);
            }
        }
    }
    void StoreRevision(const std::string& content) {
        m_files.AddStorageFile(kMovinand, kRevisionFile, content);
    }

    void Init() { m_broker.DeliverController(EVT_CONTROLLER_INIT); }
    void Prepare(const std::string& name = kName) {
        m_broker.DeliverController(EVT_CONTROLLER_PREPARE, name);
    }
    void Install(const std::string& name = kName) {
        m_broker.DeliverController(EVT_CONTROLLER_INSTALL, name);
    }
    void Abort(const std::string& name = kName) {
        m_broker.DeliverController(EVT_CONTROLLER_ABORT, name);
    }

    std::vector<TPublished> PublishedEvents() const { return Published(m_broker); }

    std::string m_name = kName;
    IInterfaceBroker m_interfaces;
    CRecordingEventBroker m_broker;
    CMapProperties m_properties;
    CFakeFileHandler m_files;
    CLogCapture m_log;
    std::unique_ptr<CModemLoader> m_module;  // last: destroyed before the host it uses
};

}  // namespace moduletest
