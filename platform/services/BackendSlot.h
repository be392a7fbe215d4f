#pragma once
// One installed backend of a static host service. Installed before use and read from any thread
// (the modem-power worker runs commands), so the pointer is atomic.

#include <atomic>

template <typename TBackend>
class CBackendSlot {
public:
    TBackend* Exchange(TBackend* backend) { return m_backend.exchange(backend); }
    TBackend* Get() const { return m_backend.load(); }

private:
    std::atomic<TBackend*> m_backend{nullptr};
};
