#include "SerialLineFaults.h"

#include <dlfcn.h>
#include <errno.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <atomic>

namespace {
constexpr int kAnyDescriptor = -1;
constexpr int kNoDescriptor = -2;

// One armed fault per call; the state the interposed calls read from any thread.
struct TArmedFault {
    std::atomic<int> descriptor{kNoDescriptor};
    std::atomic<int> error{0};
    std::atomic<std::size_t> left{0};
    std::atomic<std::size_t> calls{0};
};
TArmedFault sFaults[4];

std::atomic<int> sShortDescriptor{kNoDescriptor};
std::atomic<std::size_t> sShortBytes{0};
std::atomic<std::size_t> sShortCalls{0};

TArmedFault& FaultOf(TSerialCall call) { return sFaults[static_cast<int>(call)]; }

// True (with errno set) when the call on `descriptor` is to fail now.
bool Fails(TSerialCall call, int descriptor, int& error) {
    TArmedFault& fault = FaultOf(call);
    const int armed = fault.descriptor.load();
    if (armed == kNoDescriptor || (armed != kAnyDescriptor && armed != descriptor)) {
        return false;
    }
    std::size_t left = fault.left.load();
    do {
        if (left == 0) {
            return false;
        }
    } while (!fault.left.compare_exchange_weak(left, left - 1));
    ++fault.calls;
    error = fault.error.load();
    return true;
}

template <typename TFunction>
TFunction Next(const char* name) {
    return reinterpret_cast<TFunction>(::dlsym(RTLD_NEXT, name));
}
}  // namespace

CSerialCallFault::CSerialCallFault(TSerialCall call, int descriptor, int error, std::size_t times)
    : m_call(call) {
    TArmedFault& fault = FaultOf(call);
    fault.calls = 0;
    fault.error = error;
    fault.left = times;
    fault.descriptor = descriptor;
}

CSerialCallFault::~CSerialCallFault() {
    FaultOf(m_call).descriptor = kNoDescriptor;
    FaultOf(m_call).left = 0;
}

std::size_t CSerialCallFault::Calls() const { return FaultOf(m_call).calls; }

CShortWrites::CShortWrites(int descriptor, std::size_t bytes) {
    sShortCalls = 0;
    sShortBytes = bytes;
    sShortDescriptor = descriptor;
}

CShortWrites::~CShortWrites() { sShortDescriptor = kNoDescriptor; }

std::size_t CShortWrites::Calls() const { return sShortCalls; }

extern "C" int poll(pollfd* descriptors, nfds_t count, int timeout) {
    static const auto next = Next<int (*)(pollfd*, nfds_t, int)>("poll");
    int error = 0;
    if (count == 1 && Fails(TSerialCall::ePoll, descriptors[0].fd, error)) {
        errno = error;
        return -1;
    }
    return next(descriptors, count, timeout);
}

extern "C" ssize_t read(int descriptor, void* buffer, size_t length) {
    static const auto next = Next<ssize_t (*)(int, void*, size_t)>("read");
    int error = 0;
    if (Fails(TSerialCall::eRead, descriptor, error)) {
        errno = error;
        return -1;
    }
    return next(descriptor, buffer, length);
}

extern "C" ssize_t write(int descriptor, const void* data, size_t length) {
    static const auto next = Next<ssize_t (*)(int, const void*, size_t)>("write");
    int error = 0;
    if (Fails(TSerialCall::eWrite, descriptor, error)) {
        errno = error;
        return error == 0 ? 0 : -1;
    }
    if (descriptor == sShortDescriptor.load() && length > sShortBytes.load()) {
        ++sShortCalls;
        length = sShortBytes.load();
    }
    return next(descriptor, data, length);
}

extern "C" int tcsetattr(int descriptor, int when, const termios* settings) {
    static const auto next = Next<int (*)(int, int, const termios*)>("tcsetattr");
    int error = 0;
    if (Fails(TSerialCall::eTcsetattr, descriptor, error)) {
        errno = error;
        return -1;
    }
    return next(descriptor, when, settings);
}
