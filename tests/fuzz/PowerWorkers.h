#pragma once
// Joins the modem-power workers that the plug-in starts and, by its design, never joins.
//
// Every power-up attempt of the image loader runs on a worker thread of its own that nobody
// joins; on the device a few attempts per boot cost nothing. A fuzzing process makes thousands,
// and joinable threads that are never joined keep their stacks until the process runs out of
// address space or threads. The fuzz executables are linked with --wrap=pthread_create, so every
// thread created while a CPowerWorkers is alive is recorded here, and JoinAll waits for them
// after each input (which also guarantees that no worker touches the loader after the input's
// test host is gone).

#include <pthread.h>

#include <mutex>
#include <vector>

class CPowerWorkers {
public:
    CPowerWorkers();
    ~CPowerWorkers();
    CPowerWorkers(const CPowerWorkers&) = delete;
    CPowerWorkers& operator=(const CPowerWorkers&) = delete;

    // Waits for every recorded thread to end; returns how many there were.
    std::size_t JoinAll();

    // True on a thread created while a CPowerWorkers was alive (a power worker).
    static bool OnPowerWorker();

    // Called by the pthread_create wrapper for each thread it created.
    static void Record(pthread_t thread);

private:
    std::mutex m_mutex;
    std::vector<pthread_t> m_threads;
};
