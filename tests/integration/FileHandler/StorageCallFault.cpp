#include "StorageCallFault.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <map>
#include <mutex>
#include <regex>
#include <vector>

#include "Descriptors.h"

namespace {
struct TCallFault {
    std::string call;
    std::regex path;
    int error;
    std::size_t times;
};

struct TFaultState {
    std::mutex mutex;
    bool armed = false;
    std::map<unsigned long, int> ioctlErrors;
    std::string readPath;
    int readError = 0;
    bool readOnce = false;  // the first read of readPath went through
    std::vector<TCallFault> callFaults;
    std::size_t failedCalls = 0;
};

// Never destroyed: the C library's calls made while the process exits (the coverage counters'
// files written then included) still pass through these stand-ins.
TFaultState& State() {
    static TFaultState* const state = new TFaultState;
    return *state;
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

bool HasCallFault(const TFaultState& state, const char* call) {
    for (const TCallFault& fault : state.callFaults) {
        if (fault.call == call) {
            return true;
        }
    }
    return false;
}

// The errno the call `call` on the path `path()` gives is to fail with, or 0 to let it run; the
// path is looked up only when some fault names the call.
template <typename TPath>
int CallError(const char* call, TPath path) {
    TFaultState& state = State();
    std::lock_guard<std::mutex> lock(state.mutex);
    if (!state.armed || !HasCallFault(state, call)) {
        return 0;
    }
    const std::string named = path();
    for (TCallFault& fault : state.callFaults) {
        if (fault.times > 0 && fault.call == call && std::regex_match(named, fault.path)) {
            --fault.times;
            ++state.failedCalls;
            return fault.error;
        }
    }
    return 0;
}

int DescriptorError(const char* call, int descriptor) {
    return CallError(call, [descriptor] { return DescriptorPath(descriptor); });
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
    State().callFaults.clear();
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

void CStorageCallFault::Fail(const std::string& call, const std::string& pathPattern, int error,
                             std::size_t times) {
    std::lock_guard<std::mutex> lock(State().mutex);
    State().callFaults.push_back(TCallFault{call, std::regex(pathPattern), error, times});
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
    if (const int error = DescriptorError("copy_file_range", input); error != 0) {
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
    if (const int error = DescriptorError("read", descriptor); error != 0) {
        errno = error;
        return -1;
    }
    static const auto next = Next<ssize_t (*)(int, void*, size_t)>("read");
    return next(descriptor, buffer, size);
}

extern "C" ssize_t write(int descriptor, const void* bytes, size_t size) {
    if (const int error = DescriptorError("write", descriptor); error != 0) {
        errno = error;
        return -1;
    }
    static const auto next = Next<ssize_t (*)(int, const void*, size_t)>("write");
    return next(descriptor, bytes, size);
}

// The names the C library gives open and fstat where off_t is made 64 bits wide by the build.
#ifdef __USE_FILE_OFFSET64
#define MODEMLOADER_LARGE_FILE_NAME(name) name "64"
#else
#define MODEMLOADER_LARGE_FILE_NAME(name) name
#endif

extern "C" int open(const char* path, int flags, ...) {
    mode_t mode = 0;
    if ((flags & (O_CREAT | O_TMPFILE)) != 0) {
        va_list arguments;
        va_start(arguments, flags);
        mode = static_cast<mode_t>(va_arg(arguments, unsigned int));
        va_end(arguments);
    }
    if (const int error = CallError("open", [path] { return std::string(path); }); error != 0) {
        errno = error;
        return -1;
    }
    static const auto next =
        Next<int (*)(const char*, int, ...)>(MODEMLOADER_LARGE_FILE_NAME("open"));
    return next(path, flags, mode);
}

extern "C" int fstat(int descriptor, struct stat* status) noexcept {
    if (const int error = DescriptorError("fstat", descriptor); error != 0) {
        errno = error;
        return -1;
    }
    static const auto next = Next<int (*)(int, struct stat*)>(MODEMLOADER_LARGE_FILE_NAME("fstat"));
    return next(descriptor, status);
}

extern "C" int fchmod(int descriptor, mode_t mode) noexcept {
    if (const int error = DescriptorError("fchmod", descriptor); error != 0) {
        errno = error;
        return -1;
    }
    static const auto next = Next<int (*)(int, mode_t)>("fchmod");
    return next(descriptor, mode);
}

extern "C" FILE* fdopen(int descriptor, const char* mode) noexcept {
    if (const int error = DescriptorError("fdopen", descriptor); error != 0) {
        errno = error;
        return nullptr;
    }
    static const auto next = Next<FILE* (*)(int, const char*)>("fdopen");
    return next(descriptor, mode);
}

// A failed close has released the descriptor all the same (Linux never keeps it open).
extern "C" int close(int descriptor) {
    const int error = DescriptorError("close", descriptor);
    static const auto next = Next<int (*)(int)>("close");
    const int result = next(descriptor);
    if (error != 0) {
        errno = error;
        return -1;
    }
    return result;
}

extern "C" int fclose(FILE* stream) {
    const int error = DescriptorError("fclose", fileno(stream));
    static const auto next = Next<int (*)(FILE*)>("fclose");
    const int result = next(stream);
    if (error != 0) {
        errno = error;
        return EOF;
    }
    return result;
}
