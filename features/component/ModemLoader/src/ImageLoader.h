#pragma once
// The loader that flashes the modem over a serial line, one step per tick.
//
// Prepare reads the five properties, holds the whole loader source in memory, sizes the
// firmware, switches the modem off if it is on and opens the serial port at 115200 baud. Install
// subscribes to the tick; each tick runs at most one step: Sync (catch the boot code while the
// power worker holds the control pin), PrepareFlash (download the loader source), Configure,
// Read, Erase (many ticks), Write (one 25600-byte chunk per tick), Terminate (unsubscribe and
// Completed).
//
// Threads: everything runs on the thread that delivers the controller calls and the ticks; only
// the embedded CModemPower has a thread of its own. Sync and PrepareFlash block that thread.
//
// Ownership: the serial port, the loader-source copy (while PrepareFlash has not run) and the
// chunk buffer (while the last chunk has not gone out) are never released by the loader, and
// the destructor does not unsubscribe. Several counters of the sequence are process-wide and
// never reset, so a later run in the same process continues from where an earlier one stopped.

#include <cstdint>
#include <string>

#include "EventBroker.h"
#include "FeatureProperties.h"
#include "Loader.h"
#include "LoaderCallback.h"
#include "ModemPower.h"
#include "SerialPort.h"

// The source file every log record of CImageLoader names, whichever of the class's three .cpp
// files (ImageLoader, ImageLoaderLink, ImageLoaderFlash) writes it: the host's log analysis knows
// a class by one file.
namespace imageloader {
constexpr char kLogSourceFile[] = "features/component/ModemLoader/src/ImageLoader";
}

enum TImageLoaderStep : int32_t {
    eStepStart = 0,
    eStepSync = 1,
    eStepPrepareFlash = 2,
    eStepConfigure = 3,
    eStepRead = 4,
    eStepErase = 5,
    eStepWrite = 6,
    eStepTerminate = 7,
};

// Set by the step that failed, together with m_step = eStepTerminate.
enum TImageLoaderError : int32_t {
    eLoaderErrorNone = 0,
    eLoaderErrorSync = 2,
    eLoaderErrorLoaderSource = 3,
    eLoaderErrorConfigure = 4,
    eLoaderErrorRead = 5,
    eLoaderErrorErase = 6,
    eLoaderErrorWrite = 7,
};

class CImageLoader : public ILoader, public IEventObserver {
public:
    CImageLoader(std::string& name, IEventBroker& eventBroker, const IFeatureProperties& properties,
                 ILoaderCallback& callback);
    ~CImageLoader() override;

    bool Prepare() override;
    void Install() override;
    void Abort() override;
    // The tick: runs m_step when a step is pending. The event's contents are not looked at.
    void OnEvent(const TEvent& event) override;

    // True only when all five keys were found; all five are always looked up.
    bool FillProperties();

    // Serial-link primitives. WriteBuffer sends `length` bytes in one port write; ReadAck waits
    // for `length` (at most 128) bytes equal to `expected`, reading at most `tries` times with
    // 25 ms between tries; FlushSerial drains whatever the port has buffered.
    bool WriteBuffer(const unsigned char* data, unsigned int length);
    bool ReadAck(unsigned int length, const unsigned char* expected, unsigned int tries);
    void FlushSerial();

    // The steps. Each leaves its result in m_step, m_error and m_stepPending.
    void Sync();
    void PrepareFlash();
    void Configure();
    void Read();
    void Erase();
    void Write();
    void Terminate();

    TImageLoaderStep Step() const { return m_step; }
    // Meaningful once a step has set it (every way to eStepTerminate does).
    TImageLoaderError Error() const { return m_error; }
    bool StepPending() const { return m_stepPending != 0; }
    CModemPower& Power() { return m_power; }

private:
    std::string m_name;
    IEventBroker& m_eventBroker;
    const IFeatureProperties& m_properties;
    ILoaderCallback& m_callback;
    CModemPower m_power;
    ISerialPort* m_serial = nullptr;
    TEvent m_tickEvent;
    TImageLoaderError m_error;
    TImageLoaderStep m_step = eStepStart;
    uint32_t m_stepPending = 0;
    std::string m_controlPin;
    std::string m_readyPin;
    std::string m_serialDevice;
    std::string m_loaderPath;
    std::string m_firmwarePath;
    int32_t m_loaderSize = 0;
    unsigned char* m_loaderImage = nullptr;
    int32_t m_firmwareSize = 0;
    unsigned char* m_chunkBuffer = nullptr;
};
