#pragma once
// An observer for the broker tests: records each delivery (type, id, payload, thread, time) and
// lets a test await a number of deliveries with a bounded wait. An optional action runs inside
// each delivery (to publish, unsubscribe, block or throw from there).

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "EventObserver.h"

struct TDelivery {
    int32_t type;
    int32_t id;
    uint32_t size;
    std::string payload;
    std::thread::id thread;
    std::chrono::steady_clock::time_point begin;
    std::chrono::steady_clock::time_point end;
};

class CRecordingObserver : public IEventObserver {
public:
    using TAction = std::function<void(const TEvent& event)>;

    explicit CRecordingObserver(TAction action = nullptr) : m_action(std::move(action)) {}

    void OnEvent(const TEvent& event) override {
        TDelivery delivery{event.type,
                           event.id,
                           event.size,
                           event.size > 0
                               ? std::string(static_cast<const char*>(event.data), event.size)
                               : std::string(),
                           std::this_thread::get_id(),
                           std::chrono::steady_clock::now(),
                           {}};
        if (m_action) {
            m_action(event);
        }
        delivery.end = std::chrono::steady_clock::now();
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_deliveries.push_back(delivery);
        }
        m_changed.notify_all();
    }

    // True when at least `count` deliveries have ended within `timeout`.
    bool Await(std::size_t count, std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_changed.wait_for(lock, timeout, [&] { return m_deliveries.size() >= count; });
    }

    std::vector<TDelivery> Deliveries() const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_deliveries;
    }

    std::vector<std::string> Payloads() const {
        std::vector<std::string> payloads;
        for (const TDelivery& delivery : Deliveries()) {
            payloads.push_back(delivery.payload);
        }
        return payloads;
    }

private:
    TAction m_action;
    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<TDelivery> m_deliveries;
};
