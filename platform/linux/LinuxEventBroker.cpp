#include "LinuxEventBroker.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>

namespace {
std::string SystemError(const std::string& what) { return what + ": " + std::strerror(errno); }

std::string EventName(int32_t type, int32_t id) {
    return "event type " + std::to_string(type) + " id " + std::to_string(id);
}
}  // namespace

CEventBroker::CEventBroker(std::chrono::milliseconds tickPeriod, TErrorReporter reportError)
    : m_tickPeriod(tickPeriod), m_reportError(std::move(reportError)) {}

void CEventBroker::ReportError(const std::string& message) const {
    if (m_reportError) {
        m_reportError(message);
    } else {
        std::fprintf(stderr, "%s\n", message.c_str());
    }
}

CEventBroker::~CEventBroker() { Stop(); }

CStatus CEventBroker::Start() {
    if (m_thread.joinable()) {
        return CStatus::Failure("event broker: already started");
    }
    if (m_tickPeriod.count() <= 0) {
        return CStatus::Failure("event broker: the tick period must be positive");
    }
    CUniqueFd wakeFd(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!wakeFd.IsValid()) {
        return CStatus::Failure(SystemError("event broker: eventfd"));
    }
    CUniqueFd timerFd(::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK));
    if (!timerFd.IsValid()) {
        return CStatus::Failure(SystemError("event broker: timerfd_create"));
    }
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(m_tickPeriod);
    const auto nanoseconds =
        std::chrono::duration_cast<std::chrono::nanoseconds>(m_tickPeriod - seconds);
    itimerspec period{};
    period.it_interval.tv_sec = static_cast<time_t>(seconds.count());
    period.it_interval.tv_nsec = static_cast<long>(nanoseconds.count());
    period.it_value = period.it_interval;
    if (::timerfd_settime(timerFd.Get(), 0, &period, nullptr) != 0) {
        return CStatus::Failure(SystemError("event broker: timerfd_settime"));
    }
    m_wakeFd = std::move(wakeFd);
    m_timerFd = std::move(timerFd);
    m_thread = std::thread([this] { Run(); });
    return CStatus::Ok();
}

void CEventBroker::Stop() {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stopping = true;
        m_queue.clear();
    }
    if (m_thread.joinable()) {
        Wake();
        m_thread.join();
    }
}

bool CEventBroker::Subscribe(const TEvent& filter, IEventObserver& observer) {
    std::lock_guard<std::mutex> lock(m_mutex);
    const bool present = std::any_of(
        m_subscriptions.begin(), m_subscriptions.end(), [&](const TSubscription& subscription) {
            return subscription.type == filter.type && subscription.id == filter.id &&
                   subscription.observer == &observer;
        });
    if (present) {
        return false;
    }
    m_subscriptions.push_back(TSubscription{filter.type, filter.id, &observer, m_nextSerial++});
    return true;
}

bool CEventBroker::Unsubscribe(const TEvent& filter, IEventObserver& observer) {
    std::unique_lock<std::mutex> lock(m_mutex);
    const auto found = std::find_if(
        m_subscriptions.begin(), m_subscriptions.end(), [&](const TSubscription& subscription) {
            return subscription.type == filter.type && subscription.id == filter.id &&
                   subscription.observer == &observer;
        });
    if (found == m_subscriptions.end()) {
        return false;
    }
    m_subscriptions.erase(found);
    // Another thread may be inside this observer's OnEvent right now; once we return, the caller
    // may destroy the observer, so wait for that delivery to end. On the delivery thread itself
    // that delivery is our caller, and the removal above is enough.
    if (m_deliveryThread != std::this_thread::get_id()) {
        m_deliveryEnded.wait(lock, [&] { return m_deliveringTo != &observer; });
    }
    return true;
}

bool CEventBroker::Publish(const TEvent& event) {
    TQueuedEvent queued{event.type, event.id, {}};
    if (event.size > 0 && event.data != nullptr) {
        const auto* bytes = static_cast<const uint8_t*>(event.data);
        queued.payload.assign(bytes, bytes + event.size);
    }
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_stopping) {
            return false;
        }
        m_queue.push_back(std::move(queued));
    }
    Wake();
    return true;
}

void CEventBroker::Wake() {
    if (!m_wakeFd.IsValid()) {
        return;  // not started yet: Start's first pass drains the queue
    }
    const uint64_t one = 1;
    // The counter only saturates after 2^64 - 2 unread wake-ups; a failed write cannot lose one.
    [[maybe_unused]] const ssize_t written = ::write(m_wakeFd.Get(), &one, sizeof one);
}

void CEventBroker::Run() {
    pollfd descriptors[2] = {{m_wakeFd.Get(), POLLIN, 0}, {m_timerFd.Get(), POLLIN, 0}};
    bool tickDue = false;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_deliveryThread = std::this_thread::get_id();
    }
    for (;;) {
        // Deliver everything queued, including what those deliveries publish, then a due tick.
        for (;;) {
            TQueuedEvent event;
            {
                std::lock_guard<std::mutex> lock(m_mutex);
                if (m_stopping) {
                    return;
                }
                if (m_queue.empty()) {
                    break;
                }
                event = std::move(m_queue.front());
                m_queue.pop_front();
            }
            Deliver(event.type, event.id, event.payload);
        }
        if (tickDue) {
            tickDue = false;
            Deliver(EVENT_TYPE_TICK, 0, {});
            continue;  // the tick may have published; and a long tick leaves the timer readable
        }
        if (::poll(descriptors, 2, -1) < 0) {
            if (errno == EINTR) {
                continue;
            }
            ReportError(SystemError("event broker: poll"));
            return;
        }
        uint64_t count = 0;
        if ((descriptors[0].revents & POLLIN) != 0) {
            [[maybe_unused]] const ssize_t got = ::read(m_wakeFd.Get(), &count, sizeof count);
        }
        // However many periods expired while a delivery ran, one tick catches up at once.
        if ((descriptors[1].revents & POLLIN) != 0 &&
            ::read(m_timerFd.Get(), &count, sizeof count) == sizeof count && count > 0) {
            tickDue = true;
        }
    }
}

void CEventBroker::Deliver(int32_t type, int32_t id, const std::vector<uint8_t>& payload) {
    std::vector<TSubscription> targets;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        for (const TSubscription& subscription : m_subscriptions) {
            if (subscription.type == type && subscription.id == id) {
                targets.push_back(subscription);
            }
        }
    }
    const TEvent event{type, id, static_cast<uint32_t>(payload.size()),
                       payload.empty() ? nullptr : payload.data()};
    for (const TSubscription& target : targets) {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            // An earlier observer of this same event may have unsubscribed this one.
            const bool stillSubscribed =
                std::any_of(m_subscriptions.begin(), m_subscriptions.end(),
                            [&](const TSubscription& subscription) {
                                return subscription.serial == target.serial;
                            });
            if (!stillSubscribed || m_stopping) {
                continue;
            }
            m_deliveringTo = target.observer;
        }
        try {
            target.observer->OnEvent(event);
        } catch (const std::exception& exception) {
            ReportError("event broker: observer of " + EventName(type, id) +
                        " threw: " + exception.what());
        } catch (...) {
            ReportError("event broker: observer of " + EventName(type, id) +
                        " threw an unknown exception");
        }
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_deliveringTo = nullptr;
        }
        m_deliveryEnded.notify_all();
    }
}
