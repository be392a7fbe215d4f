// The host's event broker: one delivery thread, ordered and copied events, re-entrant publishes,
// exact unsubscription, observers that throw, and ticks that catch up after a long delivery.

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <set>
#include <stdexcept>
#include <thread>

#include "DescriptorLimit.h"
#include "Descriptors.h"
#include "LinuxEventBroker.h"
#include "RecordingObserver.h"

namespace {

using namespace std::chrono_literals;

const TEvent kTickFilter{EVENT_TYPE_TICK, 0, 1000, reinterpret_cast<const void*>(1)};

TEvent UserEvent(int32_t id, const std::string& payload) {
    return TEvent{EVENT_TYPE_USER, id, static_cast<uint32_t>(payload.size()),
                  payload.empty() ? nullptr : payload.data()};
}

TEvent Filter(int32_t id) { return TEvent{EVENT_TYPE_USER, id, 0, nullptr}; }

class LinuxEventBrokerTest : public ::testing::Test {
protected:
    // A long tick period keeps ticks out of the tests that do not look at them.
    explicit LinuxEventBrokerTest(std::chrono::milliseconds period = 1h)
        : m_broker(period, [this](const std::string& message) {
              std::lock_guard<std::mutex> lock(m_errorsMutex);
              m_errors.push_back(message);
          }) {}

    // Stops the broker when it goes out of scope. Declared after a test's observers, it ends the
    // deliveries before they are destroyed (the broker may deliver to a subscribed observer at
    // any time, a tick for example).
    class CRunning {
    public:
        explicit CRunning(CEventBroker& broker) : m_running(broker) {}
        ~CRunning() { m_running.Stop(); }
        CRunning(const CRunning&) = delete;
        CRunning& operator=(const CRunning&) = delete;

    private:
        CEventBroker& m_running;
    };

    [[nodiscard]] std::unique_ptr<CRunning> Start() {
        const CStatus status = m_broker.Start();
        EXPECT_TRUE(status.IsOk()) << status.Message();
        return std::make_unique<CRunning>(m_broker);
    }

    std::vector<std::string> Errors() {
        std::lock_guard<std::mutex> lock(m_errorsMutex);
        return m_errors;
    }

    std::mutex m_errorsMutex;
    std::vector<std::string> m_errors;
    CEventBroker m_broker;
};

TEST_F(LinuxEventBrokerTest, DeliversEventsInPublishOrderOnOneThreadOfItsOwn) {
    CRecordingObserver observer;
    ASSERT_TRUE(m_broker.Subscribe(Filter(201), observer));
    ASSERT_TRUE(m_broker.Subscribe(Filter(203), observer));
    const auto running = Start();

    EXPECT_TRUE(m_broker.Publish(UserEvent(201, "first")));
    EXPECT_TRUE(m_broker.Publish(UserEvent(203, "second")));
    EXPECT_TRUE(m_broker.Publish(UserEvent(201, "third")));
    ASSERT_TRUE(observer.Await(3));

    const auto deliveries = observer.Deliveries();
    ASSERT_EQ(deliveries.size(), 3u);
    EXPECT_EQ(observer.Payloads(), (std::vector<std::string>{"first", "second", "third"}));
    EXPECT_EQ(deliveries[1].id, 203);
    EXPECT_EQ(deliveries[1].size, 6u);
    EXPECT_NE(deliveries[0].thread, std::this_thread::get_id());
    EXPECT_EQ(deliveries[0].thread, deliveries[1].thread);
    EXPECT_EQ(deliveries[1].thread, deliveries[2].thread);
}

TEST_F(LinuxEventBrokerTest, PublishCopiesRecordAndPayloadBeforeItReturns) {
    CRecordingObserver observer;
    ASSERT_TRUE(m_broker.Subscribe(Filter(206), observer));
    {
        // Published before the thread runs, then overwritten: only a copy can still be right.
        std::string payload = "modemloader\x05";
        TEvent event = UserEvent(206, payload);
        ASSERT_TRUE(m_broker.Publish(event));
        payload.assign(payload.size(), 'X');
        event.id = 999;
    }
    const auto running = Start();
    ASSERT_TRUE(observer.Await(1));
    EXPECT_EQ(observer.Payloads(), std::vector<std::string>{"modemloader\x05"});
    EXPECT_EQ(observer.Deliveries()[0].id, 206);
}

TEST_F(LinuxEventBrokerTest, SubscriptionsMatchOnTypeAndIdOnly) {
    CRecordingObserver observer;
    CRecordingObserver sentinel;
    // The filter's third and fourth words play no part in matching.
    ASSERT_TRUE(m_broker.Subscribe(TEvent{EVENT_TYPE_USER, 205, 68, &observer}, observer));
    ASSERT_TRUE(m_broker.Subscribe(Filter(1), sentinel));
    const auto running = Start();

    ASSERT_TRUE(m_broker.Publish(UserEvent(205, "matches")));
    ASSERT_TRUE(m_broker.Publish(UserEvent(204, "other id")));
    ASSERT_TRUE(m_broker.Publish(TEvent{5, 205, 0, nullptr}));
    // A size without data carries no payload.
    ASSERT_TRUE(m_broker.Publish(TEvent{EVENT_TYPE_USER, 205, 4, nullptr}));
    ASSERT_TRUE(m_broker.Publish(UserEvent(1, "sentinel")));
    ASSERT_TRUE(sentinel.Await(1));

    EXPECT_EQ(observer.Payloads(), (std::vector<std::string>{"matches", ""}));
    EXPECT_EQ(observer.Deliveries()[1].size, 0u);
}

TEST_F(LinuxEventBrokerTest, ASecondSubscriptionOfTheSamePairIsRefused) {
    CRecordingObserver observer;
    CRecordingObserver sentinel;
    EXPECT_TRUE(m_broker.Subscribe(Filter(201), observer));
    EXPECT_FALSE(m_broker.Subscribe(Filter(201), observer));
    // Neither the same observer of another id nor another observer of the same id is a second.
    CRecordingObserver other;
    EXPECT_TRUE(m_broker.Subscribe(Filter(202), observer));
    EXPECT_TRUE(m_broker.Subscribe(Filter(201), other));
    EXPECT_TRUE(m_broker.Subscribe(TEvent{5, 201, 0, nullptr}, observer));
    ASSERT_TRUE(m_broker.Subscribe(Filter(1), sentinel));
    const auto running = Start();

    ASSERT_TRUE(m_broker.Publish(UserEvent(201, "once")));
    ASSERT_TRUE(m_broker.Publish(UserEvent(1, "")));
    ASSERT_TRUE(sentinel.Await(1));
    EXPECT_EQ(observer.Payloads(), std::vector<std::string>{"once"});
}

TEST_F(LinuxEventBrokerTest, PublishFromInsideADeliveryIsDeliveredAfterItReturns) {
    std::vector<std::string> order;  // only touched on the delivery thread until awaited
    CRecordingObserver replies([&](const TEvent&) { order.push_back("201"); });
    CRecordingObserver requests([&](const TEvent&) {
        order.push_back("200 begins");
        ASSERT_TRUE(m_broker.Publish(UserEvent(201, "modemloader")));
        order.push_back("200 ends");
    });
    ASSERT_TRUE(m_broker.Subscribe(Filter(200), requests));
    ASSERT_TRUE(m_broker.Subscribe(Filter(201), replies));
    const auto running = Start();

    ASSERT_TRUE(m_broker.Publish(UserEvent(200, "")));
    ASSERT_TRUE(replies.Await(1));
    EXPECT_EQ(order, (std::vector<std::string>{"200 begins", "200 ends", "201"}));
    EXPECT_EQ(replies.Payloads(), std::vector<std::string>{"modemloader"});
}

TEST_F(LinuxEventBrokerTest, AnObserverMayUnsubscribeItselfInsideADelivery) {
    CRecordingObserver sentinel;
    CRecordingObserver* self = nullptr;
    CRecordingObserver observer(
        [&](const TEvent&) { EXPECT_TRUE(m_broker.Unsubscribe(Filter(204), *self)); });
    self = &observer;
    ASSERT_TRUE(m_broker.Subscribe(Filter(204), observer));
    ASSERT_TRUE(m_broker.Subscribe(Filter(1), sentinel));
    const auto running = Start();

    ASSERT_TRUE(m_broker.Publish(UserEvent(204, "first")));
    ASSERT_TRUE(m_broker.Publish(UserEvent(204, "second")));
    ASSERT_TRUE(m_broker.Publish(UserEvent(1, "")));
    ASSERT_TRUE(sentinel.Await(1));
    EXPECT_EQ(observer.Payloads(), std::vector<std::string>{"first"});
}

TEST_F(LinuxEventBrokerTest, AnObserverUnsubscribedByAnEarlierOneGetsNoMoreOfTheSameEvent) {
    CRecordingObserver second;
    CRecordingObserver first(
        [&](const TEvent&) { EXPECT_TRUE(m_broker.Unsubscribe(Filter(202), second)); });
    CRecordingObserver sentinel;
    ASSERT_TRUE(m_broker.Subscribe(Filter(202), first));
    ASSERT_TRUE(m_broker.Subscribe(Filter(202), second));
    ASSERT_TRUE(m_broker.Subscribe(Filter(1), sentinel));
    const auto running = Start();

    ASSERT_TRUE(m_broker.Publish(UserEvent(202, "modemloader")));
    ASSERT_TRUE(m_broker.Publish(UserEvent(1, "")));
    ASSERT_TRUE(sentinel.Await(1));
    EXPECT_EQ(first.Deliveries().size(), 1u);
    EXPECT_TRUE(second.Deliveries().empty());
}

TEST_F(LinuxEventBrokerTest, UnsubscribeFromAnotherThreadReturnsOnlyAfterTheDeliveryUnderWay) {
    std::promise<void> entered;
    std::atomic<bool> unsubscribing{false};
    std::atomic<bool> deliveryEnded{false};
    CRecordingObserver observer([&](const TEvent&) {
        entered.set_value();
        while (!unsubscribing) {
            std::this_thread::yield();
        }
        // A delivery that takes a while (a slow serial write, say) after Unsubscribe was called.
        std::this_thread::sleep_for(50ms);
        deliveryEnded = true;
    });
    ASSERT_TRUE(m_broker.Subscribe(Filter(204), observer));
    const auto running = Start();
    ASSERT_TRUE(m_broker.Publish(UserEvent(204, "")));
    ASSERT_EQ(entered.get_future().wait_for(10s), std::future_status::ready);

    unsubscribing = true;
    EXPECT_TRUE(m_broker.Unsubscribe(Filter(204), observer));
    EXPECT_TRUE(deliveryEnded) << "Unsubscribe returned while the observer was still running";
}

TEST_F(LinuxEventBrokerTest, AnUnsubscribedObserverReceivesNothingMore) {
    CRecordingObserver observer;
    CRecordingObserver sentinel;
    ASSERT_TRUE(m_broker.Subscribe(Filter(206), observer));
    ASSERT_TRUE(m_broker.Subscribe(Filter(1), sentinel));
    const auto running = Start();
    ASSERT_TRUE(m_broker.Publish(UserEvent(206, "before")));
    ASSERT_TRUE(observer.Await(1));

    EXPECT_TRUE(m_broker.Unsubscribe(Filter(206), observer));
    EXPECT_FALSE(m_broker.Unsubscribe(Filter(206), observer)) << "nothing left to remove";
    ASSERT_TRUE(m_broker.Publish(UserEvent(206, "after")));
    ASSERT_TRUE(m_broker.Publish(UserEvent(1, "")));
    ASSERT_TRUE(sentinel.Await(1));
    EXPECT_EQ(observer.Payloads(), std::vector<std::string>{"before"});
}

TEST_F(LinuxEventBrokerTest, AnObserverThatThrowsIsReportedAndDeliveryGoesOn) {
    CRecordingObserver thrower([](const TEvent& event) {
        // What it throws need not be an exception class.
        if (event.size == 3) {
            throw std::runtime_error("serial line gone");
        }
        throw 42;
    });
    CRecordingObserver next;
    ASSERT_TRUE(m_broker.Subscribe(Filter(205), thrower));
    ASSERT_TRUE(m_broker.Subscribe(Filter(205), next));
    const auto running = Start();

    ASSERT_TRUE(m_broker.Publish(UserEvent(205, "one")));
    ASSERT_TRUE(m_broker.Publish(UserEvent(205, "two")));
    ASSERT_TRUE(m_broker.Publish(UserEvent(205, "three")));
    ASSERT_TRUE(next.Await(3));
    EXPECT_EQ(next.Payloads(), (std::vector<std::string>{"one", "two", "three"}));
    EXPECT_EQ(Errors(),
              (std::vector<std::string>{
                  "event broker: observer of event type 3 id 205 threw: serial line gone",
                  "event broker: observer of event type 3 id 205 threw: serial line gone",
                  "event broker: observer of event type 3 id 205 threw an unknown exception"}));
}

TEST(LinuxEventBrokerReporter, WithoutAReporterAThrowingObserverIsReportedOnStderr) {
    CEventBroker broker(std::chrono::hours(1), nullptr);
    CRecordingObserver thrower([](const TEvent&) { throw std::runtime_error("no modem"); });
    CRecordingObserver next;
    ASSERT_TRUE(broker.Subscribe(Filter(205), thrower));
    ASSERT_TRUE(broker.Subscribe(Filter(205), next));
    ::testing::internal::CaptureStderr();
    ASSERT_TRUE(broker.Start().IsOk());
    ASSERT_TRUE(broker.Publish(UserEvent(205, "")));
    ASSERT_TRUE(next.Await(1));
    broker.Stop();
    EXPECT_EQ(::testing::internal::GetCapturedStderr(),
              "event broker: observer of event type 3 id 205 threw: no modem\n");
}

// The host stopping while an event is being delivered: the observers of that event not yet
// reached get nothing more.
TEST_F(LinuxEventBrokerTest, AStopDuringADeliveryReachesNoFurtherObserverOfThatEvent) {
    std::thread stopper;
    std::promise<void> stopping;
    CRecordingObserver first([&](const TEvent&) {
        stopper = std::thread([this] { m_broker.Stop(); });
        // Publishing is refused from the moment the stop has begun.
        while (m_broker.Publish(UserEvent(9, ""))) {
            std::this_thread::yield();
        }
        stopping.set_value();
    });
    CRecordingObserver second;
    ASSERT_TRUE(m_broker.Subscribe(Filter(210), first));
    ASSERT_TRUE(m_broker.Subscribe(Filter(210), second));
    const auto running = Start();

    ASSERT_TRUE(m_broker.Publish(UserEvent(210, "last")));
    stopping.get_future().wait();
    stopper.join();  // the delivery thread has ended
    EXPECT_EQ(first.Payloads(), std::vector<std::string>{"last"});
    EXPECT_TRUE(second.Deliveries().empty());
    EXPECT_TRUE(Errors().empty());
}

TEST_F(LinuxEventBrokerTest, AfterStopNothingIsDeliveredAndPublishIsRefused) {
    CRecordingObserver observer;
    ASSERT_TRUE(m_broker.Subscribe(Filter(200), observer));
    const auto running = Start();
    ASSERT_TRUE(m_broker.Publish(UserEvent(200, "")));
    ASSERT_TRUE(observer.Await(1));

    m_broker.Stop();
    EXPECT_FALSE(m_broker.Publish(UserEvent(200, "")));
    m_broker.Stop();  // idempotent
    EXPECT_EQ(observer.Deliveries().size(), 1u);
}

TEST_F(LinuxEventBrokerTest, StartingTwiceFails) {
    const auto running = Start();
    const CStatus second = m_broker.Start();
    EXPECT_FALSE(second.IsOk());
    EXPECT_EQ(second.Message(), "event broker: already started");
}

TEST(LinuxEventBrokerPeriod, AZeroTickPeriodIsRefused) {
    CEventBroker broker(std::chrono::milliseconds(0), nullptr);
    const CStatus status = broker.Start();
    EXPECT_FALSE(status.IsOk());
    EXPECT_EQ(status.Message(), "event broker: the tick period must be positive");
}

TEST_F(LinuxEventBrokerTest, UnsubscribingWhatWasNeverSubscribedIsRefused) {
    CRecordingObserver observer;
    CRecordingObserver other;
    ASSERT_TRUE(m_broker.Subscribe(Filter(200), observer));
    EXPECT_FALSE(m_broker.Unsubscribe(Filter(201), observer));
    EXPECT_FALSE(m_broker.Unsubscribe(Filter(200), other));
    EXPECT_FALSE(m_broker.Unsubscribe(TEvent{5, 200, 0, nullptr}, observer));
    EXPECT_TRUE(m_broker.Unsubscribe(Filter(200), observer));
    EXPECT_FALSE(m_broker.Unsubscribe(Filter(200), observer));
}

struct TStartFailure {
    const char* name;
    int spareDescriptors;
    const char* message;
};

void PrintTo(const TStartFailure& fault, std::ostream* stream) { *stream << fault.name; }

class LinuxEventBrokerStartFailureTest : public ::testing::TestWithParam<TStartFailure> {};

TEST_P(LinuxEventBrokerStartFailureTest, SaysWhichCallFailedLeavesNothingOpenAndCanStartLater) {
    std::vector<std::string> errors;
    CEventBroker broker(1h, [&](const std::string& message) { errors.push_back(message); });
    CRecordingObserver observer;
    ASSERT_TRUE(broker.Subscribe(Filter(200), observer));
    ASSERT_TRUE(broker.Publish(UserEvent(200, "queued")));
    const std::set<int> before = OpenDescriptors();
    CStatus status = CStatus::Ok();
    {
        CDescriptorLimit limit(GetParam().spareDescriptors);
        ASSERT_TRUE(limit.Lowered());
        status = broker.Start();
    }
    EXPECT_EQ(status.Message(), GetParam().message);
    EXPECT_EQ(OpenDescriptors(), before);
    // Nothing was delivered, and nothing was lost: a later start delivers what was queued.
    EXPECT_TRUE(observer.Deliveries().empty());
    ASSERT_TRUE(broker.Start());
    EXPECT_TRUE(observer.Await(1));
    broker.Stop();
    EXPECT_TRUE(errors.empty());
}

INSTANTIATE_TEST_SUITE_P(
    DescriptorsUsedUp, LinuxEventBrokerStartFailureTest,
    ::testing::Values(TStartFailure{"NoneLeftForTheWakeUp", 0,
                                    "event broker: eventfd: Too many open files"},
                      TStartFailure{"NoneLeftForTheTimer", 1,
                                    "event broker: timerfd_create: Too many open files"}),
    [](const auto& parameter) { return std::string(parameter.param.name); });

class LinuxEventBrokerTickTest : public LinuxEventBrokerTest {
protected:
    static constexpr std::chrono::milliseconds kPeriod{200};
    LinuxEventBrokerTickTest() : LinuxEventBrokerTest(kPeriod) {}
};

TEST_F(LinuxEventBrokerTickTest, TicksReachTickSubscribersOncePerPeriod) {
    CRecordingObserver ticks;
    CRecordingObserver controller;
    ASSERT_TRUE(m_broker.Subscribe(kTickFilter, ticks));
    ASSERT_TRUE(m_broker.Subscribe(Filter(200), controller));
    const auto started = std::chrono::steady_clock::now();
    const auto running = Start();
    ASSERT_TRUE(ticks.Await(4));

    const auto deliveries = ticks.Deliveries();
    for (const TDelivery& delivery : deliveries) {
        EXPECT_EQ(delivery.type, EVENT_TYPE_TICK);
        EXPECT_EQ(delivery.id, 0);
        EXPECT_EQ(delivery.size, 0u);
    }
    // The timer never runs fast: the n-th tick comes n periods after the start at the earliest
    // (a busy machine may deliver later, never earlier).
    for (std::size_t index = 0; index < deliveries.size(); ++index) {
        EXPECT_GE(deliveries[index].begin - started, static_cast<int>(index + 1) * kPeriod)
            << "tick " << index + 1;
    }
    EXPECT_TRUE(controller.Deliveries().empty()) << "a tick is not a controller event";
}

TEST_F(LinuxEventBrokerTickTest, AfterADeliveryOverranPeriodsTheNextTickComesAtOnce) {
    // The first tick blocks for 3.3 periods, like a long write to a slow serial line.
    std::atomic<int> tickCount{0};
    CRecordingObserver ticks([&](const TEvent&) {
        if (++tickCount == 1) {
            std::this_thread::sleep_for(kPeriod * 33 / 10);
        }
    });
    ASSERT_TRUE(m_broker.Subscribe(kTickFilter, ticks));
    const auto running = Start();
    ASSERT_TRUE(ticks.Await(3));

    const auto deliveries = ticks.Deliveries();
    // Caught up at once: the line stays busy (the next period would start 0.7 periods later).
    EXPECT_LT(deliveries[1].begin - deliveries[0].end, kPeriod / 4);
    // One tick only: the periods missed are not replayed back to back.
    EXPECT_GE(deliveries[2].begin - deliveries[1].begin, kPeriod / 3);
}

TEST_F(LinuxEventBrokerTickTest, ControllerEventsAndTicksShareTheOneDeliveryThread) {
    CRecordingObserver ticks;
    CRecordingObserver controller;
    ASSERT_TRUE(m_broker.Subscribe(kTickFilter, ticks));
    ASSERT_TRUE(m_broker.Subscribe(Filter(204), controller));
    const auto running = Start();
    ASSERT_TRUE(m_broker.Publish(UserEvent(204, "modemloader")));
    ASSERT_TRUE(controller.Await(1));
    ASSERT_TRUE(ticks.Await(1));
    EXPECT_EQ(ticks.Deliveries()[0].thread, controller.Deliveries()[0].thread);
}

}  // namespace
