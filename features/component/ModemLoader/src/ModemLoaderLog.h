#pragma once
// One log record on the module's channel, from the function that logs.
//
// The text is the message wrapped as "(" message ")\n". `kLogSourceFile` names the logging
// source file; each .cpp of the module defines it. `line` is the record's line: __LINE__, or the
// fixed number that the host's log analysis knows a message by.
//
//   MODEMLOADER_LOG(Error, __LINE__, "Couldn't mount " << m_movinand);

#include "Logging.h"

#define MODEMLOADER_LOG(category, line, message)                                                  \
    logging::internals::CLogHandle(logging::categories::category, logging::ModemLoader, __func__, \
                                   kLogSourceFile, line)                                          \
        << "(" << message << ")\n"
