// The host's update controller against the real broker and a scripted feature: the requests it
// sends, in order, and the exit status each answer leads to.

#include <gtest/gtest.h>
#include <signal.h>

#include <cstring>
#include <functional>

#include "LinuxEventBroker.h"
#include "UpdateController.h"

namespace {

using namespace std::chrono_literals;

const std::string kFeature = "modemloader";

// Plays a feature: records the requests it receives and answers them as told.
class CScriptedFeature : public IEventObserver {
public:
    using TAnswer = std::function<void(CScriptedFeature& feature, int32_t id)>;

    CScriptedFeature(IEventBroker& broker, TAnswer answer)
        : m_broker(broker), m_answer(std::move(answer)) {
        for (int32_t id : {200, 202, 204, 207}) {
            m_broker.Subscribe(TEvent{EVENT_TYPE_USER, id, 0, nullptr}, *this);
        }
    }

    void OnEvent(const TEvent& event) override {
        std::string request = std::to_string(event.id);
        if (event.size > 0) {
            request += " " + std::string(static_cast<const char*>(event.data), event.size);
        }
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_requests.push_back(request);
        }
        m_answer(*this, event.id);
    }

    void Reply(int32_t id, int32_t outcome, const std::string& name = kFeature) {
        TControllerReply reply{};
        std::strncpy(reply.name, name.c_str(), sizeof reply.name - 1);
        reply.outcome = outcome;
        m_broker.Publish(TEvent{EVENT_TYPE_USER, id, sizeof reply, &reply});
    }
    void InitDone() {
        m_broker.Publish(
            TEvent{EVENT_TYPE_USER, 201, static_cast<uint32_t>(kFeature.size()), kFeature.data()});
    }

    std::vector<std::string> Requests() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_requests;
    }

private:
    IEventBroker& m_broker;
    TAnswer m_answer;
    std::mutex m_mutex;
    std::vector<std::string> m_requests;
};

class HostUpdateControllerTest : public ::testing::Test {
protected:
    HostUpdateControllerTest()
        : m_broker(1h, nullptr),
          m_progress(nullptr, CProgressDisplay::TMode::eQuiet, kFeature),
          m_controller(m_broker, kFeature, m_trace, m_progress) {}

    // Runs the conversation with the feature that the test subscribed to the broker.
    CUpdateController::TExitCode Run(CUpdateController::TSettings settings = {}) {
        EXPECT_TRUE(m_broker.Start().IsOk());
        const auto result = m_controller.Run(settings, m_summary);
        m_broker.Stop();
        return result;
    }

    CEventBroker m_broker;
    CTrace m_trace;
    CProgressDisplay m_progress;
    CUpdateController m_controller;
    std::string m_summary;
};

TEST_F(HostUpdateControllerTest, InitPrepareInstallInOrderThenSuccess) {
    CScriptedFeature feature(m_broker, [](CScriptedFeature& self, int32_t id) {
        if (id == 200) self.InitDone();
        if (id == 202) self.Reply(203, 1);
        if (id == 204) self.Reply(205, 1);
    });
    EXPECT_EQ(Run(), CUpdateController::eSucceeded);
    EXPECT_EQ(feature.Requests(),
              (std::vector<std::string>{"200", "202 modemloader", "204 modemloader"}));
    EXPECT_EQ(m_summary, "update succeeded");
}

TEST_F(HostUpdateControllerTest, AFailedInstallationExitsOne) {
    CScriptedFeature feature(m_broker, [](CScriptedFeature& self, int32_t id) {
        if (id == 200) self.InitDone();
        if (id == 202) self.Reply(203, 1);
        if (id == 204) self.Reply(205, 0);
    });
    EXPECT_EQ(Run(), CUpdateController::eFailed);
    EXPECT_EQ(m_summary, "update failed");
}

TEST_F(HostUpdateControllerTest, AFailedPrepareExitsOneWithoutInstalling) {
    CScriptedFeature feature(m_broker, [](CScriptedFeature& self, int32_t id) {
        if (id == 200) self.InitDone();
        if (id == 202) self.Reply(203, 0);
    });
    EXPECT_EQ(Run(), CUpdateController::eFailed);
    EXPECT_EQ(feature.Requests(), (std::vector<std::string>{"200", "202 modemloader"}));
    EXPECT_EQ(m_summary, "update failed: Prepare reported failure");
}

TEST_F(HostUpdateControllerTest, RepliesOfAnotherFeatureAreNotOurs) {
    CScriptedFeature feature(m_broker, [](CScriptedFeature& self, int32_t id) {
        if (id == 200) self.InitDone();
        if (id == 202) self.Reply(203, 1);
        if (id == 204) {
            self.Reply(205, 0, "navigation");
            self.Reply(205, 1);
        }
    });
    EXPECT_EQ(Run(), CUpdateController::eSucceeded);
}

TEST_F(HostUpdateControllerTest, AbortIsSentAfterTheDelayAndTheResultStillAwaited) {
    CScriptedFeature feature(m_broker, [](CScriptedFeature& self, int32_t id) {
        if (id == 200) self.InitDone();
        if (id == 202) self.Reply(203, 1);
        if (id == 207) {
            self.Reply(208, 1);
            self.Reply(205, 1);  // the work went on to its end
        }
    });
    CUpdateController::TSettings settings;
    settings.abortAfter = 20ms;
    EXPECT_EQ(Run(settings), CUpdateController::eSucceeded);
    EXPECT_EQ(feature.Requests(), (std::vector<std::string>{"200", "202 modemloader",
                                                            "204 modemloader", "207 modemloader"}));
    EXPECT_EQ(m_summary, "update succeeded (abort acknowledged)");
}

TEST_F(HostUpdateControllerTest, NoAbortWhenTheResultCameFirst) {
    CScriptedFeature feature(m_broker, [](CScriptedFeature& self, int32_t id) {
        if (id == 200) self.InitDone();
        if (id == 202) self.Reply(203, 1);
        if (id == 204) self.Reply(205, 1);
    });
    CUpdateController::TSettings settings;
    settings.abortAfter = 10s;
    EXPECT_EQ(Run(settings), CUpdateController::eSucceeded);
    EXPECT_EQ(feature.Requests().size(), 3u);
}

TEST_F(HostUpdateControllerTest, NoInitReplyTimesOut) {
    CScriptedFeature feature(m_broker, [](CScriptedFeature&, int32_t) {});
    CUpdateController::TSettings settings;
    settings.timeout = std::chrono::duration<double>(0.05);
    EXPECT_EQ(Run(settings), CUpdateController::eTimedOut);
    EXPECT_EQ(m_summary, "timed out after 0.05 s waiting for Init done (201)");
    EXPECT_EQ(feature.Requests(), std::vector<std::string>{"200"});
}

// Replies that were already delivered when the conversation starts (the controller keeps what it
// heard), some of them not ours or not whole records: what the conversation makes of them.
struct TDelivery {
    int32_t type;
    int32_t id;
    uint32_t size;  // bytes of the record delivered: a name, then an outcome or a percentage
    int32_t value;  // the outcome, or the percentage of a 206
};

struct THeardCase {
    const char* name;
    std::vector<TDelivery> deliveries;
    CUpdateController::TExitCode exitCode;
    std::string summary;
};

void PrintTo(const THeardCase& testCase, std::ostream* stream) { *stream << testCase.name; }

class HostUpdateControllerHeardTest : public HostUpdateControllerTest,
                                      public ::testing::WithParamInterface<THeardCase> {};

TEST_P(HostUpdateControllerHeardTest, EndsAsTheRepliesHeardSay) {
    for (const TDelivery& delivery : GetParam().deliveries) {
        char record[sizeof(TControllerReply)] = {};
        std::memcpy(record, kFeature.data(), kFeature.size());
        if (delivery.id == EVT_CONTROLLER_PROGRESS) {
            record[kControllerNameSize] = static_cast<char>(delivery.value);
        } else {
            std::memcpy(record + kControllerNameSize, &delivery.value, sizeof delivery.value);
        }
        m_controller.OnEvent(TEvent{delivery.type, delivery.id, delivery.size,
                                    delivery.size > 0 ? record : nullptr});
    }
    CUpdateController::TSettings settings;
    settings.timeout = std::chrono::duration<double>(0.05);
    EXPECT_EQ(Run(settings), GetParam().exitCode);
    EXPECT_EQ(m_summary, GetParam().summary);
}

constexpr uint32_t kName = 11;  // "modemloader" without a terminator, as 201 carries it
constexpr TDelivery kInitDone{EVENT_TYPE_USER, EVT_CONTROLLER_INIT_DONE, kName, 0};
constexpr TDelivery kPrepared{EVENT_TYPE_USER, EVT_CONTROLLER_PREPARE_DONE,
                              sizeof(TControllerReply), 1};

INSTANTIATE_TEST_SUITE_P(
    Cases, HostUpdateControllerHeardTest,
    ::testing::Values(
        THeardCase{"AnInitDoneOfAnotherFamilyIsNotOurs",
                   {{EVENT_TYPE_TICK, EVT_CONTROLLER_INIT_DONE, kName, 0}},
                   CUpdateController::eTimedOut,
                   "timed out after 0.05 s waiting for Init done (201)"},
        THeardCase{"AnInitDoneWithoutANameIsNotOurs",
                   {{EVENT_TYPE_USER, EVT_CONTROLLER_INIT_DONE, 0, 0}},
                   CUpdateController::eTimedOut,
                   "timed out after 0.05 s waiting for Init done (201)"},
        THeardCase{"APrepareDoneShorterThanANameIsNotOurs",
                   {kInitDone, {EVENT_TYPE_USER, EVT_CONTROLLER_PREPARE_DONE, kName, 1}},
                   CUpdateController::eTimedOut,
                   "timed out after 0.05 s waiting for Prepare done (203)"},
        THeardCase{
            "APrepareDoneWithoutItsOutcomeIsNoReply",
            {kInitDone, {EVENT_TYPE_USER, EVT_CONTROLLER_PREPARE_DONE, kControllerNameSize, 1}},
            CUpdateController::eTimedOut,
            "timed out after 0.05 s waiting for Prepare done (203)"},
        THeardCase{"NoInstallDoneTimesOut",
                   {kInitDone, kPrepared},
                   CUpdateController::eTimedOut,
                   "timed out after 0.05 s waiting for Install done (205)"},
        THeardCase{"OnlyTheFirstInstallResultCounts",
                   {kInitDone,
                    kPrepared,
                    {EVENT_TYPE_USER, EVT_CONTROLLER_INSTALL_DONE, sizeof(TControllerReply), 0},
                    {EVENT_TYPE_USER, EVT_CONTROLLER_INSTALL_DONE, sizeof(TControllerReply), 1}},
                   CUpdateController::eFailed,
                   "update failed"},
        THeardCase{"ProgressWholeOrCutShortLeavesTheOutcomeAlone",
                   {kInitDone,
                    kPrepared,
                    {EVENT_TYPE_USER, EVT_CONTROLLER_PROGRESS, sizeof(TControllerProgress), 40},
                    {EVENT_TYPE_USER, EVT_CONTROLLER_PROGRESS, kControllerNameSize, 50},
                    {EVENT_TYPE_USER, EVT_CONTROLLER_INSTALL_DONE, sizeof(TControllerReply), 1}},
                   CUpdateController::eSucceeded,
                   "update succeeded"},
        THeardCase{"AnAbortAcknowledgedUnaskedIsStillReported",
                   {kInitDone,
                    kPrepared,
                    {EVENT_TYPE_USER, EVT_CONTROLLER_ABORTED, sizeof(TControllerReply), 1},
                    {EVENT_TYPE_USER, EVT_CONTROLLER_INSTALL_DONE, sizeof(TControllerReply), 1}},
                   CUpdateController::eSucceeded,
                   "update succeeded (abort acknowledged)"}),
    [](const ::testing::TestParamInfo<THeardCase>& testCase) {
        return std::string(testCase.param.name);
    });

// A stop comes from the host's signal watcher, on a thread of its own; here it comes from the
// delivery thread, at a known point of the conversation.
TEST_F(HostUpdateControllerTest, AStopBeforeInstallEndsTheUpdateWithoutInstalling) {
    std::string what;
    CScriptedFeature feature(m_broker, [&](CScriptedFeature& self, int32_t id) {
        if (id == 200) self.InitDone();
        if (id == 202) {
            what = m_controller.Stop(SIGTERM);
            self.Reply(203, 1);
        }
    });
    EXPECT_EQ(Run(), CUpdateController::eStopped);
    EXPECT_EQ(what, "ending the update before Install");
    EXPECT_EQ(feature.Requests(), (std::vector<std::string>{"200", "202 modemloader"}));
    EXPECT_EQ(m_summary, "stopped by SIGTERM before Install");
    EXPECT_EQ(m_controller.Stop(SIGINT), "the update has ended; waiting for the feature's threads");
}

TEST_F(HostUpdateControllerTest, AStopAfterInstallSendsAbortAndAwaitsTheResult) {
    std::string what;
    CScriptedFeature feature(m_broker, [&](CScriptedFeature& self, int32_t id) {
        if (id == 200) self.InitDone();
        if (id == 202) self.Reply(203, 1);
        if (id == 204) what = m_controller.Stop(SIGINT);
        if (id == 207) {
            self.Reply(208, 1);
            self.Reply(205, 0);  // the work went on, and failed
        }
    });
    EXPECT_EQ(Run(), CUpdateController::eFailed);
    EXPECT_EQ(what, "sending Abort (207) and waiting for the feature's result");
    EXPECT_EQ(feature.Requests(), (std::vector<std::string>{"200", "202 modemloader",
                                                            "204 modemloader", "207 modemloader"}));
    EXPECT_EQ(m_summary, "update failed (abort acknowledged)");
}

TEST_F(HostUpdateControllerTest, AStopAfterTheAbortDelaySendsNoSecondAbort) {
    std::string what;
    CScriptedFeature feature(m_broker, [&](CScriptedFeature& self, int32_t id) {
        if (id == 200) self.InitDone();
        if (id == 202) self.Reply(203, 1);
        if (id == 207) {
            what = m_controller.Stop(SIGTERM);
            self.Reply(208, 1);
            self.Reply(205, 1);
        }
    });
    CUpdateController::TSettings settings;
    settings.abortAfter = 0ms;
    EXPECT_EQ(Run(settings), CUpdateController::eSucceeded);
    EXPECT_EQ(what, "Abort (207) was sent already; waiting for the feature's result");
    EXPECT_EQ(feature.Requests(), (std::vector<std::string>{"200", "202 modemloader",
                                                            "204 modemloader", "207 modemloader"}));
}

}  // namespace
