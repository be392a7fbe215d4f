#include "LibcFaults.h"

#include <dlfcn.h>
#include <pthread.h>

#include <atomic>

namespace {
std::atomic<int> sThreadCreateError{0};
std::atomic<std::size_t> sThreadCreateCalls{0};

using TPthreadCreate = int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);

TPthreadCreate NextPthreadCreate() {
    static const TPthreadCreate next =
        reinterpret_cast<TPthreadCreate>(::dlsym(RTLD_NEXT, "pthread_create"));
    return next;
}
}  // namespace

CThreadCreateFault::CThreadCreateFault(int error) {
    sThreadCreateCalls = 0;
    sThreadCreateError = error;
}

CThreadCreateFault::~CThreadCreateFault() { sThreadCreateError = 0; }

std::size_t CThreadCreateFault::Calls() const { return sThreadCreateCalls; }

extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                              void* (*start)(void*), void* argument) {
    if (const int error = sThreadCreateError.load(); error != 0) {
        ++sThreadCreateCalls;
        return error;
    }
    return NextPthreadCreate()(thread, attributes, start, argument);
}
