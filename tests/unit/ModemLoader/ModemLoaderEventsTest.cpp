// The module object's entry points and its dispatch of the host's events.

#include <gtest/gtest.h>

#include "ModuleTestHost.h"

namespace moduletest {
namespace {

class ModemLoaderEventsTest : public CModuleTest {
protected:
    IEventObserver* Observer() const { return static_cast<IEventObserver*>(m_module.get()); }
};

TEST(ModemLoaderEntryTest, FeatureTypeIsModemloader) { EXPECT_STREQ(FeatureType(), "modemloader"); }

TEST_F(ModemLoaderEventsTest, ConstructionSubscribesInitPrepareInstallAbortInThatOrder) {
    CreateModule();
    const auto calls = m_broker.SubscriptionCalls();
    ASSERT_EQ(calls.size(), 4u);
    const int32_t ids[] = {200, 202, 204, 207};
    for (std::size_t index = 0; index < calls.size(); ++index) {
        SCOPED_TRACE(index);
        EXPECT_EQ(calls[index].kind, TSubscriptionCall::eSubscribe);
        EXPECT_EQ(calls[index].subscription.filter.type, 3);
        EXPECT_EQ(calls[index].subscription.filter.id, ids[index]);
        EXPECT_EQ(calls[index].subscription.filter.size, 0u);
        EXPECT_EQ(calls[index].subscription.filter.data, nullptr);
        EXPECT_EQ(calls[index].subscription.observer, Observer())
            << "the broker is handed the module's IEventObserver base";
    }
}

TEST_F(ModemLoaderEventsTest, ConstructionReadsNoPropertyPublishesNothingAndTouchesNoFile) {
    CreateModule();
    EXPECT_TRUE(m_properties.Lookups().empty());
    EXPECT_TRUE(m_broker.Published().empty());
    EXPECT_TRUE(m_files.Calls().empty());
    EXPECT_TRUE(m_log.Entries().empty());
}

TEST_F(ModemLoaderEventsTest, FeatureCreate2MakesAModuleTheHostDeletesThroughItsInterface) {
    IFeatureModule2* module = FeatureCreate2(m_name, m_interfaces, m_broker, m_properties);
    ASSERT_NE(module, nullptr);
    auto* modemLoader = dynamic_cast<CModemLoader*>(module);
    ASSERT_NE(modemLoader, nullptr);
    EXPECT_EQ(m_broker.CountSubscriptions(*modemLoader, 3, 200), 1u);
    EXPECT_EQ(m_broker.CountSubscriptions(*modemLoader, 3, 207), 1u);
    EXPECT_TRUE(m_properties.Lookups().empty()) << "properties are read on Init, not at creation";

    delete module;
    EXPECT_EQ(m_broker.Subscriptions().size(), 1u);
}

// The three loaders exist from construction on: before any Init, Abort reaches the archive
// loader and Install (no integrated modem here) the fake loader, which takes the tick.
TEST_F(ModemLoaderEventsTest, LoadersExistFromConstructionBeforeAnyInit) {
    CreateModule();
    Abort();
    EXPECT_EQ(PublishedEvents(), std::vector<TPublished>{Reply(208, 1)});

    Install();
    const auto subscriptions = m_broker.Subscriptions();
    ASSERT_EQ(subscriptions.size(), 5u);
    EXPECT_EQ(subscriptions[4].filter.type, EVENT_TYPE_TICK);
    EXPECT_NE(subscriptions[4].observer, Observer()) << "a loader, not the module, takes ticks";
    m_broker.Tick();
    EXPECT_EQ(PublishedEvents().back(), ProgressEvent(5));
}

TEST_F(ModemLoaderEventsTest, AfterDestructionOnlyTheInitRegistrationRemains) {
    CreateModule();
    const IEventObserver* observer = Observer();
    m_module.reset();

    const auto subscriptions = m_broker.Subscriptions();
    ASSERT_EQ(subscriptions.size(), 1u);
    EXPECT_EQ(subscriptions[0].observer, observer);
    EXPECT_EQ(subscriptions[0].filter.type, 3);
    EXPECT_EQ(subscriptions[0].filter.id, 200);

    const auto calls = m_broker.SubscriptionCalls();
    ASSERT_EQ(calls.size(), 7u);
    const int32_t unsubscribed[] = {202, 204, 207};
    for (std::size_t index = 0; index < 3; ++index) {
        EXPECT_EQ(calls[4 + index].kind, TSubscriptionCall::eUnsubscribe);
        EXPECT_EQ(calls[4 + index].subscription.filter.type, 3);
        EXPECT_EQ(calls[4 + index].subscription.filter.id, unsubscribed[index]);
        EXPECT_EQ(calls[4 + index].subscription.observer, observer);
    }
}

TEST_F(ModemLoaderEventsTest, InitIsAnsweredWhateverItsPayload) {
    CreateModule();
    m_broker.DeliverController(EVT_CONTROLLER_INIT, "another module");
    EXPECT_EQ(PublishedEvents(), std::vector<TPublished>{InitDone()});
}

TEST_F(ModemLoaderEventsTest, PrepareWithThisModulesNameIsHandled) {
    CreateModule();
    Init();
    Prepare();
    EXPECT_EQ(PublishedEvents().back(), Reply(203, 1));
}

TEST_F(ModemLoaderEventsTest, InstallWithThisModulesNameIsHandled) {
    CreateModule();
    Install();
    EXPECT_TRUE(m_broker.HasTickSubscribers());
    EXPECT_EQ(m_log.Entries().front(), AlwaysEntry("HasIntegratedGPRS", "trying to check node"));
}

// Prepare and Install compare the payload with the name: same length, same bytes.
class ForeignNameTest : public ModemLoaderEventsTest,
                        public ::testing::WithParamInterface<std::pair<const char*, std::string>> {
};

TEST_P(ForeignNameTest, PrepareAndInstallForAnotherNameAreIgnoredSilently) {
    CreateModule();
    const std::string payload = GetParam().second;
    Prepare(payload);
    Install(payload);
    EXPECT_TRUE(m_broker.Published().empty());
    EXPECT_TRUE(m_files.Calls().empty()) << "Prepare mounted nothing";
    EXPECT_FALSE(m_broker.HasTickSubscribers()) << "Install started no loader";
    EXPECT_TRUE(m_log.Entries().empty());
}

INSTANTIATE_TEST_SUITE_P(Payloads, ForeignNameTest,
                         ::testing::Values(std::make_pair("NameWithTrailingNul",
                                                          std::string("modemloader", 12)),
                                           std::make_pair("OtherModule", std::string("navigation")),
                                           std::make_pair("Prefix", std::string("modem")),
                                           std::make_pair("Longer", std::string("modemloader2")),
                                           std::make_pair("OtherCase", std::string("ModemLoader")),
                                           std::make_pair("Empty", std::string())),
                         [](const auto& parameter) { return std::string(parameter.param.first); });

// Abort copies the name but never compares it.
class AbortNameTest : public ModemLoaderEventsTest,
                      public ::testing::WithParamInterface<std::pair<const char*, std::string>> {};

TEST_P(AbortNameTest, AbortAbortsThisModulesLoaderWhateverNameItCarries) {
    CreateModule();
    Abort(GetParam().second);
    EXPECT_EQ(PublishedEvents(), std::vector<TPublished>{Reply(208, 1)})
        << "the reply carries this module's name, not the event's";
    EXPECT_TRUE(m_log.Entries().empty());
}

INSTANTIATE_TEST_SUITE_P(Payloads, AbortNameTest,
                         ::testing::Values(std::make_pair("ThisModule", std::string("modemloader")),
                                           std::make_pair("OtherModule", std::string("navigation")),
                                           std::make_pair("NameWithTrailingNul",
                                                          std::string("modemloader", 12)),
                                           std::make_pair("Empty", std::string())),
                         [](const auto& parameter) { return std::string(parameter.param.first); });

class UnexpectedTypeTest : public ModemLoaderEventsTest,
                           public ::testing::WithParamInterface<int32_t> {};

TEST_P(UnexpectedTypeTest, LogsOneErrorWithTheTypeAndDoesNothingElse) {
    CreateModule();
    const TEvent event{GetParam(), EVT_CONTROLLER_INIT, 0, nullptr};
    m_module->OnEvent(event);
    EXPECT_EQ(m_log.Entries(), std::vector<TLogEntry>{ErrorEntry(
                                   "OnEvent", "Unexpected event: " + std::to_string(GetParam()))});
    EXPECT_TRUE(m_broker.Published().empty());
    EXPECT_TRUE(m_properties.Lookups().empty());
    EXPECT_TRUE(m_files.Calls().empty());
}

INSTANTIATE_TEST_SUITE_P(Types, UnexpectedTypeTest, ::testing::Values(0, 5, 1, 4, -1),
                         [](const auto& parameter) {
                             return parameter.param < 0 ? "Minus" + std::to_string(-parameter.param)
                                                        : "Type" + std::to_string(parameter.param);
                         });

class UnexpectedIdTest : public ModemLoaderEventsTest,
                         public ::testing::WithParamInterface<int32_t> {};

TEST_P(UnexpectedIdTest, LogsOneErrorWithTheIdAndDoesNothingElse) {
    CreateModule();
    const std::string payload = kName;
    const TEvent event{EVENT_TYPE_USER, GetParam(), static_cast<uint32_t>(payload.size()),
                       payload.data()};
    m_module->OnEvent(event);
    EXPECT_EQ(m_log.Entries(),
              std::vector<TLogEntry>{ErrorEntry(
                  "OnEvent", "Unexpected user event received: " + std::to_string(GetParam()))});
    EXPECT_TRUE(m_broker.Published().empty());
    EXPECT_TRUE(m_properties.Lookups().empty());
    EXPECT_TRUE(m_files.Calls().empty());
}

INSTANTIATE_TEST_SUITE_P(Ids, UnexpectedIdTest,
                         ::testing::Values(201, 203, 205, 206, 208, 199, 209, 0, -200),
                         [](const auto& parameter) {
                             return parameter.param < 0 ? "Minus" + std::to_string(-parameter.param)
                                                        : "Id" + std::to_string(parameter.param);
                         });

TEST_F(ModemLoaderEventsTest, LogRecordsGoToTheModulesChannelWithTheirSourceFile) {
    CreateModule();
    m_module->OnEvent(TEvent{7, 0, 0, nullptr});
    const auto records = m_log.Records();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].category, logging::categories::Error);
    EXPECT_EQ(records[0].channel, logging::ModemLoader);
    EXPECT_EQ(records[0].function, "OnEvent");
    EXPECT_EQ(records[0].file, "features/component/ModemLoader/src/ModemLoader");
    EXPECT_EQ(records[0].text, "(Unexpected event: 7)\n");
}

TEST_F(ModemLoaderEventsTest, ProgressPayloadIsPublishedWith65BytesNot68) {
    CreateModule();
    m_module->Progress(50, 100);
    const auto published = m_broker.Published();
    ASSERT_EQ(published.size(), 1u);
    EXPECT_EQ(published[0].type, 3);
    EXPECT_EQ(published[0].id, 206);
    EXPECT_EQ(published[0].size, 65u);
    EXPECT_EQ(published[0].payload, ProgressBytes(kName, 50));
}

// A name longer than the 63 characters the reply's name field holds is cut there, terminated.
TEST_F(ModemLoaderEventsTest, ReplyNameFieldHoldsAtMost63CharactersAndItsTerminator) {
    m_name = std::string(70, 'm');
    CreateModule();
    Abort();
    const auto published = m_broker.Published();
    ASSERT_EQ(published.size(), 1u);
    EXPECT_EQ(published[0].payload, ReplyBytes(std::string(63, 'm'), 1));
}

}  // namespace
}  // namespace moduletest
