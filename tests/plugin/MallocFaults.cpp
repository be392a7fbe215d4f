#include "MallocFaults.h"

#include <atomic>
#include <cerrno>

// The C library's allocator under its own name: calling it needs no symbol look-up, which
// would itself allocate.
extern "C" void* __libc_malloc(std::size_t size);

namespace {
// Plain atomics, not a lock: malloc runs on every thread, the power workers' included, and
// before any constructor of this file.
std::atomic<std::size_t> sFailSize{0};
std::atomic<std::size_t> sFailuresLeft{0};
std::atomic<std::size_t> sFailed{0};
}  // namespace

CMallocFault::CMallocFault(std::size_t size, std::size_t times) {
    sFailed = 0;
    sFailSize = size;
    sFailuresLeft = times;
}

CMallocFault::~CMallocFault() {
    sFailuresLeft = 0;
    sFailSize = 0;
}

std::size_t CMallocFault::Failed() const { return sFailed; }

extern "C" void* malloc(std::size_t size) {
    if (size != 0 && size == sFailSize.load()) {
        std::size_t left = sFailuresLeft.load();
        while (left != 0) {
            if (sFailuresLeft.compare_exchange_weak(left, left - 1)) {
                ++sFailed;
                errno = ENOMEM;
                return nullptr;
            }
        }
    }
    return __libc_malloc(size);
}
