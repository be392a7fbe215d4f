#include "ImageLoader.h"

#include <cstdio>
#include <cstdlib>

#include "FileHandler.h"
#include "ModemLoaderLog.h"

namespace {
using imageloader::kLogSourceFile;

// The modem's boot code is spoken to at this rate, and the line is never reconfigured.
constexpr uint32_t kSerialSpeed = 115200;

const unsigned char* Path(const std::string& path) {
    return reinterpret_cast<const unsigned char*>(path.c_str());
}
}  // namespace

CImageLoader::CImageLoader(std::string& name, IEventBroker& eventBroker,
                           const IFeatureProperties& properties, ILoaderCallback& callback)
    : m_name(name),
      m_eventBroker(eventBroker),
      m_properties(properties),
      m_callback(callback),
      m_tickEvent{EVENT_TYPE_TICK, 0, 1000, reinterpret_cast<const void*>(1)} {}

// The port, the loader-source copy and the chunk buffer are deliberately left alone, and the
// tick subscription stays: the owner deletes the loader only when the host drops the module.
CImageLoader::~CImageLoader() {}

bool CImageLoader::FillProperties() {
    bool found = m_properties.GetProperty(m_name, std::string("control"), m_controlPin);
    found &= m_properties.GetProperty(m_name, std::string("ready"), m_readyPin);
    found &= m_properties.GetProperty(m_name, std::string("serial"), m_serialDevice);
    found &= m_properties.GetProperty(m_name, std::string("bootloader"), m_loaderPath);
    found &= m_properties.GetProperty(m_name, std::string("firmware"), m_firmwarePath);
    return found;
}

bool CImageLoader::Prepare() {
    bool ready = true;
    if (!FillProperties()) {
        MODEMLOADER_LOG(Error, __LINE__, "error encountered while reading properties");
        ready = false;
    } else {
        // The loader source goes to the modem in one piece, so it is held whole in memory.
        if (IFileHandler::FileExists(Path(m_loaderPath)) != 0) {
            MODEMLOADER_LOG(Error, __LINE__, "Could not find loader source: " << m_loaderPath);
            ready = false;
        } else {
            m_loaderSize = IFileHandler::FileSize(Path(m_loaderPath));
            if (m_loaderSize < 1) {
                MODEMLOADER_LOG(Error, __LINE__, "could not determine loader size");
                ready = false;
            } else {
                FILE* file = IFileHandler::FOpen(Path(m_loaderPath), "rb");
                if (file == nullptr) {
                    ready = false;
                } else {
                    m_loaderImage = static_cast<unsigned char*>(malloc(m_loaderSize));
                    if (m_loaderImage == nullptr) {
                        ready = false;
                    } else {
                        const std::size_t bytesRead =
                            IFileHandler::FRead(m_loaderImage, 1, m_loaderSize, file);
                        if (bytesRead != static_cast<std::size_t>(m_loaderSize)) {
                            MODEMLOADER_LOG(Error, __LINE__, "could not load file into memory");
                            free(m_loaderImage);
                            m_loaderImage = nullptr;
                            ready = false;
                        }
                        IFileHandler::FClose(file);
                    }
                }
            }
        }
        // The firmware is only sized here; the write step streams it chunk by chunk.
        if (IFileHandler::FileExists(Path(m_firmwarePath)) != 0) {
            MODEMLOADER_LOG(Error, __LINE__, "could not find firmware source: " << m_firmwarePath);
            ready = false;
        } else {
            m_firmwareSize = IFileHandler::FileSize(Path(m_firmwarePath));
            if (m_firmwareSize < 1) {
                MODEMLOADER_LOG(Error, __LINE__, "could not determine firmware size");
                ready = false;
            }
        }
    }
    // Power control and port are set up whatever failed above.
    m_power.Init(m_readyPin, m_controlPin);
    m_power.Prepare();
    m_serial = ISerialPort::Create(m_serialDevice, kSerialSpeed, 0);
    if (m_serial == nullptr) {
        MODEMLOADER_LOG(Error, __LINE__, "Error opening serial port");
        ready = false;
    }
    return ready;
}

void CImageLoader::Install() {
    m_stepPending = 1;
    m_eventBroker.Subscribe(m_tickEvent, *static_cast<IEventObserver*>(this));
}

// A run under way goes on to its own Terminate and Completed.
void CImageLoader::Abort() { m_callback.Aborted(); }

void CImageLoader::OnEvent(const TEvent& /*event*/) {
    // Clear while a step runs (or after the run ended), so a tick delivered meanwhile does not
    // start a second step.
    if (m_stepPending == 0) {
        return;
    }
    m_stepPending = 0;
    switch (m_step) {
        case eStepStart:
            m_step = eStepSync;
            m_stepPending = 1;
            break;
        case eStepSync:
            Sync();
            break;
        case eStepPrepareFlash:
            PrepareFlash();
            break;
        case eStepConfigure:
            Configure();
            break;
        case eStepRead:
            Read();
            break;
        case eStepErase:
            Erase();
            break;
        case eStepWrite:
            Write();
            break;
        case eStepTerminate:
            Terminate();
            break;
    }
}
