#pragma once
// An image loader on fakes of the host services: properties for its five keys, the loader and
// firmware sources in the in-memory file system, a ready input in a real temporary file (the power
// control reads it with stdio), a command handler whose pin commands power the scripted modem up
// and down, the scripted serial port, the captured log and the virtual clock.

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Await.h"
#include "FakeFileHandler.h"
#include "ImageLoader.h"
#include "LogCapture.h"
#include "MapProperties.h"
#include "PseudoRandomBytes.h"
#include "RecordingCmdHandler.h"
#include "RecordingEventBroker.h"
#include "RecordingLoaderCallback.h"
#include "ScriptedSerialPort.h"
#include "TemporaryDirectory.h"
#include "TestFiles.h"
#include "VirtualClock.h"
#include "WireCommands.h"

namespace imageloadertest {

constexpr char kName[] = "modemloader";
constexpr char kControlPin[] = "/sys/class/modem/control";
constexpr char kSerialDevice[] = "/dev/ttyModem";
constexpr char kLoaderPath[] = "/media/update/boot.bin";
constexpr char kFirmwarePath[] = "/media/update/firmware.bin";
constexpr uint32_t kChunk = wire::kChunkBytes;

inline std::string PinLow() { return std::string("echo 0 > ") + kControlPin; }
inline std::string PinHigh() { return std::string("echo 1 > ") + kControlPin; }

inline TBytes Concat(std::initializer_list<TBytes> parts) {
    TBytes all;
    for (const TBytes& part : parts) {
        all.insert(all.end(), part.begin(), part.end());
    }
    return all;
}

inline TBytes LittleEndian(uint32_t value) {
    return Bytes({static_cast<int>(value & 0xFF), static_cast<int>((value >> 8) & 0xFF),
                  static_cast<int>((value >> 16) & 0xFF), static_cast<int>(value >> 24)});
}

// The wire commands of a run.
using wire::BaudrateCommand;
using wire::EraseRangeCommand;
using wire::FlowControlCommand;
using wire::ReadRangeCommand;
using wire::WriteRangeCommand;

inline std::size_t Count(const std::vector<TLogEntry>& entries, const TLogEntry& entry) {
    std::size_t count = 0;
    for (const TLogEntry& candidate : entries) {
        count += candidate == entry ? 1 : 0;
    }
    return count;
}

inline std::vector<TSleep> Repeat(const TSleep& sleep, std::size_t times) {
    return std::vector<TSleep>(times, sleep);
}

class ImageLoaderTestHost : public ::testing::Test {
protected:
    void SetUp() override {
        CVirtualClock::Clear();
        CVirtualClock::SetRealTimeDivisor(1000);
        m_mainThread = std::this_thread::get_id();
        m_readyPath = WriteTestFile(m_directory, "ready", "0");
        m_properties.Set(kName, "control", kControlPin);
        m_properties.Set(kName, "ready", m_readyPath);
        m_properties.Set(kName, "serial", kSerialDevice);
        m_properties.Set(kName, "bootloader", kLoaderPath);
        m_properties.Set(kName, "firmware", kFirmwarePath);
        m_loaderSource = PseudoRandomBytes(300, 11);
        SetFirmware(PseudoRandomBytes(3 * kChunk + 1000, 5));
        m_files.AddFile(kLoaderPath, m_loaderSource);
        // The control pin low powers the modem up, high releases it.
        m_commands.OnCommand([this](const std::string& line) {
            if (line == PinLow()) {
                m_port.PowerUp();
            } else if (line == PinHigh()) {
                m_port.PowerDown();
            }
        });
        // A modem that answers does so within the power worker's window: while an echo is
        // on its way, the worker's polls wait for the loader to take it, however slow the
        // machine running the test.
        CVirtualClock::OnSleep([this](const TSleep& sleep) {
            if (sleep.thread == m_mainThread || !m_port.AnswersProbes()) {
                return;
            }
            Await([this] { return !AnyLoaderWaitingForAck(); });
        });
    }

    void TearDown() override {
        // Every power worker must be done before the loader and the recorders go.
        EXPECT_TRUE(Await([this] { return FinishedAckThreads() >= AckThreadsStarted(); }))
            << "a power worker is still running: " << FinishedAckThreads() << " of "
            << AckThreadsStarted() << " finished";
        CVirtualClock::OnSleep(nullptr);
        ExpectSourceFiles();
    }

    // Every record names its class's source file: the power control's three messages name
    // ModemPower, every other record of these tests is the image loader's, from whichever of its
    // .cpp files, and names ImageLoader.
    void ExpectSourceFiles() const {
        for (const logging::TLogRecord& record : m_log.Records()) {
            const std::string text = record.text;
            const bool power = text == LogText("Modem was switched on") ||
                               text == LogText("could not toggle control pin") ||
                               text == LogText("Finished ACK thread");
            EXPECT_EQ(record.file, power ? "features/component/ModemLoader/src/ModemPower"
                                         : "features/component/ModemLoader/src/ImageLoader")
                << record.function << ": " << text;
        }
    }

    void SetFirmware(const std::string& content) {
        m_firmware = content;
        m_files.AddFile(kFirmwarePath, m_firmware);
    }

    CImageLoader& MakeLoader() {
        m_loader = std::make_unique<CImageLoader>(m_name, m_broker, m_properties, m_callback);
        Watch(*m_loader);
        return *m_loader;
    }

    // Loaders whose power workers wait for an answering modem (see SetUp).
    void Watch(CImageLoader& loader) {
        std::lock_guard<std::mutex> lock(m_watchedMutex);
        m_watched.push_back(&loader);
    }

    bool AnyLoaderWaitingForAck() {
        std::lock_guard<std::mutex> lock(m_watchedMutex);
        for (CImageLoader* loader : m_watched) {
            if (loader->Power().GetState() == CModemPower::eWaitingForAck) {
                return true;
            }
        }
        return false;
    }

    // A loader after a successful Prepare, with the log of Prepare cleared.
    CImageLoader& PreparedLoader() {
        CImageLoader& loader = MakeLoader();
        EXPECT_TRUE(loader.Prepare());
        m_log.Clear();
        return loader;
    }

    // Threads other than the test's that slept: the power workers.
    std::size_t AckThreadsStarted() const {
        std::size_t workers = 0;
        for (const std::thread::id& thread : CVirtualClock::Threads()) {
            workers += thread == m_mainThread ? 0 : 1;
        }
        return workers;
    }

    std::size_t FinishedAckThreads() const {
        return Count(m_log.Entries(), AlwaysEntry("Work", "Finished ACK thread"));
    }

    // Ticks until the run completes, at most `limit` ticks.
    void TickUntilCompleted(unsigned limit = 100000) {
        for (unsigned tick = 0; tick < limit && m_callback.CompletedCount() == 0; ++tick) {
            m_broker.Tick();
        }
        ASSERT_EQ(m_callback.CompletedCount(), 1);
    }

    // The log without the power worker's closing line (its time is the worker's own).
    std::vector<TLogEntry> LoaderLog() const {
        std::vector<TLogEntry> entries;
        for (const TLogEntry& entry : m_log.Entries()) {
            if (!(entry == AlwaysEntry("Work", "Finished ACK thread"))) {
                entries.push_back(entry);
            }
        }
        return entries;
    }

    // The script of a modem that flashes m_firmware: the firmware's chunks each answered with
    // ".", and "0" once the file is done; the erase reported done on its `eraseTick`-th wait.
    void ScriptSuccessfulModem(unsigned eraseTick) {
        const uint32_t size = static_cast<uint32_t>(m_firmware.size());
        m_port.PlayBootCode();
        m_port.Expect(Bytes(m_loaderSource), Bytes("0"));
        ScriptFromConfigure();
        m_port.Expect(EraseRangeCommand(size), Bytes({0x09}));
        m_port.Expect(Bytes({0x03}), Bytes({0x03}));
        m_port.ReplyAfterEmptyReads(10 * (eraseTick - 1), Bytes("0"));
        m_port.Expect(WriteRangeCommand(size), Bytes({0x04}));
        m_port.Expect(Bytes({0x01}), Bytes({0x01}));
        ScriptFirmwareChunks(".0");
    }

    void ScriptFromConfigure() {
        m_port.Expect(BaudrateCommand(), Bytes({0x07}));
        m_port.Expect(FlowControlCommand(), Bytes({0x05}));
        m_port.Expect(ReadRangeCommand(), Bytes({0x04}));
        m_port.Expect(Bytes({0x02}), Bytes({0x02}));
    }

    // Each chunk answered with "."; the last one with `lastReply`.
    void ScriptFirmwareChunks(const std::string& lastReply) {
        for (std::size_t offset = 0; offset < m_firmware.size(); offset += kChunk) {
            const std::string chunk = m_firmware.substr(offset, kChunk);
            const bool last = offset + kChunk >= m_firmware.size();
            m_port.Expect(Bytes(chunk), Bytes(last ? lastReply : "."));
        }
    }

    std::string m_name = kName;
    std::thread::id m_mainThread;
    CTemporaryDirectory m_directory;
    std::string m_readyPath;
    std::string m_loaderSource;
    std::string m_firmware;
    CLogCapture m_log;
    CRecordingEventBroker m_broker;
    CMapProperties m_properties;
    CRecordingLoaderCallback m_callback;
    CFakeFileHandler m_files;
    CRecordingCmdHandler m_commands;
    CScriptedSerialPort m_port;
    std::mutex m_watchedMutex;
    std::vector<CImageLoader*> m_watched;
    std::unique_ptr<CImageLoader> m_loader;
};

}  // namespace imageloadertest
