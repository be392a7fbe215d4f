// The SDK's example feature: it subscribes to Prepare alone, answers Prepare done with outcome 1
// for its own name only, logs one record, and leaves no subscription behind.

#include <gtest/gtest.h>

#include <algorithm>

#include "HelloFeature.h"
#include "LogCapture.h"
#include "RecordingEventBroker.h"

namespace {

class HelloFeatureTest : public ::testing::Test {
protected:
    CRecordingEventBroker m_broker;
    CLogCapture m_log;
};

TEST_F(HelloFeatureTest, SubscribesToPrepareOnly) {
    CHelloFeature feature("hello", m_broker);
    const std::vector<TSubscription> subscriptions = m_broker.Subscriptions();
    ASSERT_EQ(subscriptions.size(), 1u);
    EXPECT_EQ(subscriptions[0].filter.type, EVENT_TYPE_USER);
    EXPECT_EQ(subscriptions[0].filter.id, EVT_CONTROLLER_PREPARE);
    EXPECT_EQ(subscriptions[0].observer, &feature);
}

TEST_F(HelloFeatureTest, AnswersPrepareForItsNameWithOutcomeOne) {
    CHelloFeature feature("hello", m_broker);
    m_broker.DeliverController(EVT_CONTROLLER_PREPARE, "hello");

    const std::vector<TRecordedEvent> published = m_broker.Published();
    ASSERT_EQ(published.size(), 1u);
    EXPECT_EQ(published[0].type, EVENT_TYPE_USER);
    EXPECT_EQ(published[0].id, EVT_CONTROLLER_PREPARE_DONE);
    EXPECT_EQ(published[0].size, 68u);
    std::vector<uint8_t> expected(68, 0);
    std::copy_n("hello", 5, expected.begin());
    expected[64] = 1;
    EXPECT_EQ(published[0].payload, expected);
    EXPECT_EQ(m_log.Entries(),
              (std::vector<TLogEntry>{AlwaysEntry("ReplyPrepared", "Hello from hello")}));
}

TEST_F(HelloFeatureTest, IgnoresPrepareForAnotherNameOrWithATrailingTerminator) {
    CHelloFeature feature("hello", m_broker);
    m_broker.DeliverController(EVT_CONTROLLER_PREPARE, "modemloader");
    m_broker.DeliverController(EVT_CONTROLLER_PREPARE, std::string("hello\0", 6));
    m_broker.DeliverController(EVT_CONTROLLER_PREPARE, "");
    EXPECT_TRUE(m_broker.Published().empty());
    EXPECT_TRUE(m_log.Entries().empty());
}

TEST_F(HelloFeatureTest, LeavesNoSubscriptionBehind) {
    { CHelloFeature feature("hello", m_broker); }
    EXPECT_TRUE(m_broker.Subscriptions().empty());
}

}  // namespace
