#pragma once
// The one way to install a backend of a static host service (file handler, command handler,
// serial-port factory, log): for the life of a CInstalled object its backend is the service's,
// then the one installed before is put back, so nothing is left pointing at a destroyed backend.
// The host installs the Linux backends with it, every test its fakes. Installations nest; they
// must end in the reverse order of their start, as scopes do.
//
//   CInstalledFileHandler files(&linuxFileHandler);

#include "CmdHandler.h"
#include "FileHandler.h"
#include "Logging.h"
#include "SerialPort.h"

template <typename TBackend, TBackend* (*Exchange)(TBackend*)>
class CInstalled {
public:
    explicit CInstalled(TBackend* backend) : m_previous(Exchange(backend)) {}
    ~CInstalled() { Exchange(m_previous); }
    CInstalled(const CInstalled&) = delete;
    CInstalled& operator=(const CInstalled&) = delete;

private:
    TBackend* m_previous;
};

using CInstalledFileHandler = CInstalled<IFileHandlerBackend, &IFileHandler::SetBackend>;
using CInstalledCmdHandler = CInstalled<ICmdHandlerBackend, &ICmdHandler::SetBackend>;
using CInstalledSerialPorts = CInstalled<ISerialPortFactory, &ISerialPortFactory::SetFactory>;
using CInstalledLog = CInstalled<logging::internals::ILog, &logging::IControl::SetLog>;
