// The fake loader: a simulated installation of twenty ticks, counted process-wide.

#include <gtest/gtest.h>

#include "FakeLoader.h"
#include "MapProperties.h"
#include "RecordingEventBroker.h"
#include "RecordingLoaderCallback.h"

namespace {

class FakeLoaderTest : public ::testing::Test {
protected:
    std::string m_name = "modemloader";
    CRecordingEventBroker m_broker;
    CMapProperties m_properties;
    CRecordingLoaderCallback m_callback;
};

std::vector<std::string> FirstInstallationCalls() {
    std::vector<std::string> calls;
    for (unsigned remaining = 95;; remaining -= 5) {
        calls.push_back("Progress(" + std::to_string(remaining) + ",100)");
        if (remaining == 0) {
            break;
        }
    }
    calls.push_back("Completed(1)");
    return calls;
}

TEST_F(FakeLoaderTest, InstallThenTwentyTicksCountsDownAndCompletesOnce) {
    CFakeLoader loader(m_name, m_broker, m_properties, m_callback);
    EXPECT_TRUE(m_broker.Subscriptions().empty()) << "the constructor subscribes to nothing";

    loader.Install();
    const auto subscriptions = m_broker.Subscriptions();
    ASSERT_EQ(subscriptions.size(), 1u);
    EXPECT_EQ(subscriptions[0].filter.type, 0);
    EXPECT_EQ(subscriptions[0].filter.id, 0);
    EXPECT_EQ(subscriptions[0].filter.size, 1000u);
    EXPECT_EQ(subscriptions[0].filter.data, reinterpret_cast<const void*>(1));

    m_broker.Tick(19);
    EXPECT_EQ(m_callback.CompletedCount(), 0);
    EXPECT_TRUE(m_broker.HasTickSubscribers());

    m_broker.Tick();
    EXPECT_EQ(m_callback.Calls(), FirstInstallationCalls());
    EXPECT_FALSE(m_broker.HasTickSubscribers()) << "unsubscribed after completing";

    const auto calls = m_broker.SubscriptionCalls();
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(calls[1].kind, TSubscriptionCall::eUnsubscribe);
    EXPECT_EQ(calls[1].subscription.filter.size, 1000u);
    EXPECT_EQ(calls[1].subscription.observer, static_cast<IEventObserver*>(&loader));
}

// Notes, at Completed, whether the loader was still subscribed to the tick.
class CSubscriptionAtCompletion : public ILoaderCallback {
public:
    explicit CSubscriptionAtCompletion(const CRecordingEventBroker& broker) : m_broker(broker) {}
    void Progress(unsigned int, unsigned int) override {}
    void Completed(int) override {
        m_subscribedAtCompletion = m_broker.HasTickSubscribers();
        m_unsubscribesAtCompletion = 0;
        for (const TSubscriptionCall& call : m_broker.SubscriptionCalls()) {
            m_unsubscribesAtCompletion += call.kind == TSubscriptionCall::eUnsubscribe ? 1 : 0;
        }
    }
    void Aborted() override {}

    const CRecordingEventBroker& m_broker;
    bool m_subscribedAtCompletion = false;
    int m_unsubscribesAtCompletion = -1;
};

TEST_F(FakeLoaderTest, TheLastTickCompletesBeforeItUnsubscribes) {
    CSubscriptionAtCompletion callback(m_broker);
    CFakeLoader loader(m_name, m_broker, m_properties, callback);
    loader.Install();
    m_broker.Tick(20);
    EXPECT_TRUE(callback.m_subscribedAtCompletion);
    EXPECT_EQ(callback.m_unsubscribesAtCompletion, 0);
    EXPECT_FALSE(m_broker.HasTickSubscribers()) << "and then unsubscribed";
}

TEST_F(FakeLoaderTest, SecondInstallationContinuesTheProcessWideTickCount) {
    CFakeLoader first(m_name, m_broker, m_properties, m_callback);
    first.Install();
    m_broker.Tick(20);

    CRecordingLoaderCallback secondCallback;
    CFakeLoader second(m_name, m_broker, m_properties, secondCallback);
    second.Install();
    m_broker.Tick();
    EXPECT_EQ(secondCallback.Calls(),
              (std::vector<std::string>{"Progress(4294967291,100)", "Completed(1)"}));
    EXPECT_FALSE(m_broker.HasTickSubscribers());
}

TEST_F(FakeLoaderTest, SecondInstallOnTheSameLoaderCompletesOnItsFirstTick) {
    CFakeLoader loader(m_name, m_broker, m_properties, m_callback);
    loader.Install();
    m_broker.Tick(20);
    loader.Install();
    m_broker.Tick();
    const auto calls = m_callback.Calls();
    ASSERT_EQ(calls.size(), 23u);
    EXPECT_EQ(calls[21], "Progress(4294967291,100)");
    EXPECT_EQ(calls[22], "Completed(1)");
}

TEST_F(FakeLoaderTest, AbortReportsAbortedAtOnceAndTheTicksStillComplete) {
    CFakeLoader loader(m_name, m_broker, m_properties, m_callback);
    loader.Install();
    m_broker.Tick(3);
    loader.Abort();
    EXPECT_EQ(m_callback.Calls().back(), "Aborted()");
    EXPECT_TRUE(m_broker.HasTickSubscribers()) << "abort leaves the subscription";

    m_broker.Tick(17);
    const auto calls = m_callback.Calls();
    EXPECT_EQ(calls.back(), "Completed(1)");
    EXPECT_EQ(std::count(calls.begin(), calls.end(), "Aborted()"), 1);
    EXPECT_EQ(m_callback.CompletedCount(), 1);
}

TEST_F(FakeLoaderTest, AbortWithoutInstallOnlyReportsAborted) {
    CFakeLoader loader(m_name, m_broker, m_properties, m_callback);
    loader.Abort();
    EXPECT_EQ(m_callback.Calls(), std::vector<std::string>{"Aborted()"});
    EXPECT_TRUE(m_broker.SubscriptionCalls().empty());
}

TEST_F(FakeLoaderTest, PrepareSucceedsAndDoesNothingElse) {
    CFakeLoader loader(m_name, m_broker, m_properties, m_callback);
    EXPECT_TRUE(loader.Prepare());
    EXPECT_TRUE(m_callback.Calls().empty());
    EXPECT_TRUE(m_broker.SubscriptionCalls().empty());
    EXPECT_TRUE(m_properties.Lookups().empty()) << "properties are kept, never read";
}

TEST_F(FakeLoaderTest, DestructionDoesNotUnsubscribe) {
    {
        CFakeLoader loader(m_name, m_broker, m_properties, m_callback);
        loader.Install();
    }
    EXPECT_EQ(m_broker.SubscriptionCalls().size(), 1u);
    EXPECT_EQ(m_broker.Subscriptions().size(), 1u);
}

}  // namespace
