#include "CmdHandler.h"

#include "BackendSlot.h"

namespace {
CBackendSlot<ICmdHandlerBackend> sBackend;
}

int ICmdHandler::SystemCmd(const unsigned char* commandLine) {
    ICmdHandlerBackend* backend = sBackend.Get();
    return backend != nullptr ? backend->SystemCmd(commandLine) : -1;
}

ICmdHandlerBackend* ICmdHandler::SetBackend(ICmdHandlerBackend* backend) {
    return sBackend.Exchange(backend);
}
