#include "SyncCallLog.h"

#include <dlfcn.h>
#include <unistd.h>

#include <cerrno>
#include <map>
#include <mutex>

#include "Descriptors.h"

namespace {
struct TLogState {
    std::mutex mutex;
    bool recording = false;
    std::vector<std::string> calls;
    std::map<std::string, int> failures;
};

TLogState& State() {
    static TLogState state;
    return state;
}

std::string Named(int descriptor) {
    const std::string path = DescriptorPath(descriptor);
    return path.empty() ? "fd " + std::to_string(descriptor) : path;
}

// Records `call`; returns the errno it is to fail with, or 0 to run it.
int Record(const std::string& call) {
    TLogState& state = State();
    std::lock_guard<std::mutex> lock(state.mutex);
    if (!state.recording) {
        return 0;
    }
    state.calls.push_back(call);
    const auto failure = state.failures.find(call);
    return failure == state.failures.end() ? 0 : failure->second;
}

template <typename TFunction>
TFunction Next(const char* name) {
    return reinterpret_cast<TFunction>(::dlsym(RTLD_NEXT, name));
}

int Failed(int error) {
    errno = error;
    return -1;
}
}  // namespace

CSyncCallLog::CSyncCallLog() {
    std::lock_guard<std::mutex> lock(State().mutex);
    State().calls.clear();
    State().failures.clear();
    State().recording = true;
}

CSyncCallLog::~CSyncCallLog() {
    std::lock_guard<std::mutex> lock(State().mutex);
    State().recording = false;
    State().failures.clear();
}

void CSyncCallLog::Fail(const std::string& call, int error) {
    std::lock_guard<std::mutex> lock(State().mutex);
    State().failures[call] = error;
}

std::vector<std::string> CSyncCallLog::Calls() const {
    std::lock_guard<std::mutex> lock(State().mutex);
    return State().calls;
}

extern "C" int fsync(int descriptor) {
    if (const int error = Record("fsync " + Named(descriptor)); error != 0) {
        return Failed(error);
    }
    static const auto next = Next<int (*)(int)>("fsync");
    return next(descriptor);
}

extern "C" int fdatasync(int descriptor) {
    if (const int error = Record("fdatasync " + Named(descriptor)); error != 0) {
        return Failed(error);
    }
    static const auto next = Next<int (*)(int)>("fdatasync");
    return next(descriptor);
}

extern "C" int syncfs(int descriptor) noexcept {
    if (const int error = Record("syncfs " + Named(descriptor)); error != 0) {
        return Failed(error);
    }
    static const auto next = Next<int (*)(int)>("syncfs");
    return next(descriptor);
}

extern "C" int rename(const char* from, const char* to) noexcept {
    if (const int error = Record(std::string("rename ") + from + " " + to); error != 0) {
        return Failed(error);
    }
    static const auto next = Next<int (*)(const char*, const char*)>("rename");
    return next(from, to);
}
