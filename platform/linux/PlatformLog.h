#pragma once
// Failures of the reference platform as records of the host's logging service.
//
// The services answer the feature with bare codes (0 or not, a null stream), so the feature's
// own record says only what it tried ("Couldn't mount /dev/loop3"). The record made here says
// why: category Error, channel Platform, the service call that failed as the function
// ("Mount", "CopyFile", "Write"), and the failure's message, which names what was being done,
// the path or device, and the errno text ("mounting /dev/loop3 on /mnt/x: Device or resource
// busy"). Safe from any thread, as the logging service is.

#include "Logging.h"
#include "Status.h"

// Logs `status` when it is a failure; returns it unchanged so a caller can pass it on.
#define PLATFORM_LOG_FAILURE(call, status) LogPlatformFailure((call), (status), __FILE__, __LINE__)

inline const CStatus& LogPlatformFailure(const char* call, const CStatus& status, const char* file,
                                         int line) {
    if (!status) {
        logging::internals::CLogHandle(logging::categories::Error, logging::Platform, call, file,
                                       line)
            << status.Message() << "\n";
    }
    return status;
}
