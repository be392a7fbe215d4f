#include "PowerWorkers.h"

#include <atomic>

namespace {
// The one collector alive; the wrapper cannot be handed one, so it finds it here.
std::atomic<CPowerWorkers*> sCollector{nullptr};

thread_local bool tPowerWorker = false;

// What a recorded thread runs: marks itself, then the entry it was created with.
struct TWorkerStart {
    void* (*start)(void*);
    void* argument;
};

void* RunWorker(void* startRecord) {
    const TWorkerStart workerStart = *static_cast<TWorkerStart*>(startRecord);
    delete static_cast<TWorkerStart*>(startRecord);
    tPowerWorker = true;
    return workerStart.start(workerStart.argument);
}
}  // namespace

extern "C" {
int __real_pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                          void* (*start)(void*), void* argument);

// Reached instead of pthread_create by every object of the fuzz executable (-Wl,--wrap).
int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                          void* (*start)(void*), void* argument) {
    if (sCollector.load() == nullptr) {
        return __real_pthread_create(thread, attributes, start, argument);
    }
    auto* workerStart = new TWorkerStart{start, argument};
    const int result = __real_pthread_create(thread, attributes, &RunWorker, workerStart);
    if (result == 0) {
        CPowerWorkers::Record(*thread);
    } else {
        delete workerStart;
    }
    return result;
}
}

CPowerWorkers::CPowerWorkers() { sCollector.store(this); }

CPowerWorkers::~CPowerWorkers() {
    JoinAll();
    sCollector.store(nullptr);
}

bool CPowerWorkers::OnPowerWorker() { return tPowerWorker; }

void CPowerWorkers::Record(pthread_t thread) {
    CPowerWorkers* collector = sCollector.load();
    if (collector != nullptr) {
        std::lock_guard<std::mutex> lock(collector->m_mutex);
        collector->m_threads.push_back(thread);
    }
}

std::size_t CPowerWorkers::JoinAll() {
    std::vector<pthread_t> threads;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        threads.swap(m_threads);
    }
    for (pthread_t thread : threads) {
        pthread_join(thread, nullptr);
    }
    return threads.size();
}
