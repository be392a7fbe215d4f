#include "StorageCallFault.h"

#include <dlfcn.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <map>
#include <mutex>

#include "Descriptors.h"

namespace {
struct TFaultState {
    std::mutex mutex;
    bool armed = false;
    std::map<unsigned long, int> ioctlErrors;
    std::string readPath;
    int readError = 0;
    bool readOnce = false;  // the first read of readPath went through
    std::size_t failedCalls = 0;
};

TFaultState& State() {
    static TFaultState state;
    return state;
}

// The errno a read from `descriptor` is to fail with, or 0 to let it run.
int ReadError(int descriptor) {
    TFaultState& state = State();
    std::lock_guard<std::mutex> lock(state.mutex);
    if (!state.armed || state.readError == 0 || DescriptorPath(descriptor) != state.readPath) {
        return 0;
    }
    if (!state.readOnce) {
        state.readOnce = true;
        return 0;
    }
    ++state.failedCalls;
    return state.readError;
}

template <typename TFunction>
TFunction Next(const char* name) {
    return reinterpret_cast<TFunction>(::dlsym(RTLD_NEXT, name));
}
}  // namespace

CStorageCallFault::CStorageCallFault() {
    std::lock_guard<std::mutex> lock(State().mutex);
    State().ioctlErrors.clear();
    State().readPath.clear();
    State().readError = 0;
    State().readOnce = false;
    State().failedCalls = 0;
    State().armed = true;
}

CStorageCallFault::~CStorageCallFault() {
    std::lock_guard<std::mutex> lock(State().mutex);
    State().armed = false;
}

void CStorageCallFault::FailIoctl(unsigned long request, int error) {
    std::lock_guard<std::mutex> lock(State().mutex);
    State().ioctlErrors[request] = error;
}

void CStorageCallFault::FailReadsOf(const std::string& path, int error) {
    std::lock_guard<std::mutex> lock(State().mutex);
    State().readPath = path;
    State().readError = error;
}

std::size_t CStorageCallFault::FailedCalls() const {
    std::lock_guard<std::mutex> lock(State().mutex);
    return State().failedCalls;
}

extern "C" int ioctl(int descriptor, unsigned long request, ...) noexcept {
    va_list arguments;
    va_start(arguments, request);
    void* argument = va_arg(arguments, void*);
    va_end(arguments);
    {
        TFaultState& state = State();
        std::lock_guard<std::mutex> lock(state.mutex);
        const auto failure = state.ioctlErrors.find(request);
        if (state.armed && failure != state.ioctlErrors.end()) {
            ++state.failedCalls;
            errno = failure->second;
            return -1;
        }
    }
    static const auto next = Next<int (*)(int, unsigned long, ...)>("ioctl");
    return next(descriptor, request, argument);
}

extern "C" ssize_t copy_file_range(int input, off64_t* inputOffset, int output,
                                   off64_t* outputOffset, size_t length,
                                   unsigned int flags) noexcept {
    if (const int error = ReadError(input); error != 0) {
        errno = error;
        return -1;
    }
    static const auto next =
        Next<ssize_t (*)(int, off64_t*, int, off64_t*, size_t, unsigned int)>("copy_file_range");
    return next(input, inputOffset, output, outputOffset, length, flags);
}

extern "C" ssize_t read(int descriptor, void* buffer, size_t size) {
    if (const int error = ReadError(descriptor); error != 0) {
        errno = error;
        return -1;
    }
    static const auto next = Next<ssize_t (*)(int, void*, size_t)>("read");
    return next(descriptor, buffer, size);
}
