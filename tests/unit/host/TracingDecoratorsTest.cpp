// The tracing wrappers around the host services: everything is forwarded unchanged, and the
// commands, mounts, unmounts and published events are traced with their results.

#include <gtest/gtest.h>

#include <fstream>
#include <regex>

#include "FakeFileHandler.h"
#include "RecordingCmdHandler.h"
#include "RecordingEventBroker.h"
#include "TemporaryDirectory.h"
#include "TracingCmdHandler.h"
#include "TracingEventBroker.h"
#include "TracingFileHandler.h"
#include "TracingLog.h"

namespace {

const unsigned char* Bytes(const char* text) {
    return reinterpret_cast<const unsigned char*>(text);
}

class TracingDecoratorsTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(m_trace.Open(m_path).IsOk()); }

    // The trace's lines without their time stamps.
    std::vector<std::string> Lines() const {
        std::ifstream file(m_path);
        std::vector<std::string> lines;
        std::string line;
        while (std::getline(file, line)) {
            lines.push_back(std::regex_replace(line, std::regex(R"(^\{"t":[0-9.e-]+,)"), "{"));
        }
        return lines;
    }

    CTemporaryDirectory m_directory;
    std::string m_path = m_directory.Path() + "/trace.jsonl";
    CTrace m_trace;
};

TEST_F(TracingDecoratorsTest, CommandsAreRunAndTracedWithTheirStatus) {
    CRecordingCmdHandler commands;
    commands.SetStatus("echo 1", 3);
    CTracingCmdHandler tracing(commands, m_trace);
    EXPECT_EQ(tracing.SystemCmd(Bytes("echo 0 > /sys/class/gpio/gpio42/value")), 0);
    EXPECT_EQ(tracing.SystemCmd(Bytes("echo 1 > /sys/class/gpio/gpio42/value")), 3);
    EXPECT_EQ(commands.Lines(),
              (std::vector<std::string>{"echo 0 > /sys/class/gpio/gpio42/value",
                                        "echo 1 > /sys/class/gpio/gpio42/value"}));
    EXPECT_EQ(Lines(),
              (std::vector<std::string>{
                  R"({"kind":"cmd","line":"echo 0 > /sys/class/gpio/gpio42/value","status":0})",
                  R"({"kind":"cmd","line":"echo 1 > /sys/class/gpio/gpio42/value","status":3})"}));
}

TEST_F(TracingDecoratorsTest, MountsAndUnmountsAreTracedOtherOperationsOnlyForwarded) {
    CFakeFileHandler files;
    files.AddStorage("/dev/movinand");
    files.AddStorageFile("/dev/movinand", "revision", "123\n");
    files.AddFolder("/mnt/movinand");
    CTracingFileHandler tracing(files, m_trace);

    EXPECT_EQ(tracing.Mount(Bytes("/dev/movinand"), Bytes("/mnt/movinand"),
                            IFileHandler::eFormatMovinand),
              0);
    EXPECT_EQ(tracing.FileExists(Bytes("/mnt/movinand/revision")), 0);
    FILE* file = tracing.FOpen(Bytes("/mnt/movinand/revision"), "r");
    ASSERT_NE(file, nullptr);
    char line[32] = {};
    EXPECT_NE(tracing.FGets(line, sizeof line, file), nullptr);
    EXPECT_STREQ(line, "123\n");
    tracing.FClose(file);
    EXPECT_EQ(tracing.Umount(Bytes("/mnt/movinand")), 0);
    EXPECT_NE(tracing.Umount(Bytes("/mnt/movinand")), 0);
    EXPECT_NE(
        tracing.Mount(Bytes("/dev/absent"), Bytes("/mnt/movinand"), IFileHandler::eFormatMovinand),
        0);

    EXPECT_FALSE(files.IsMounted("/mnt/movinand"));
    const std::vector<std::string> lines = Lines();
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(
        lines[0],
        R"({"kind":"mount","device":"/dev/movinand","mountpoint":"/mnt/movinand","format":2,"status":0})");
    EXPECT_EQ(lines[1], R"({"kind":"umount","mountpoint":"/mnt/movinand","status":0})");
    EXPECT_TRUE(std::regex_match(
        lines[2],
        std::regex(R"(\{"kind":"umount","mountpoint":"/mnt/movinand","status":-?[1-9]\d*\})")))
        << lines[2];
    EXPECT_TRUE(std::regex_match(
        lines[3],
        std::regex(
            R"(\{"kind":"mount","device":"/dev/absent","mountpoint":"/mnt/movinand","format":2,"status":-?[1-9]\d*\})")))
        << lines[3];
}

TEST_F(TracingDecoratorsTest, TheFeaturesPublishesAreTracedAsOutAndForwarded) {
    CRecordingEventBroker broker;
    CTracingEventBroker tracing(broker, m_trace);
    const std::string name = "modemloader";
    EXPECT_TRUE(tracing.Publish(TEvent{3, 201, 11, name.data()}));
    ASSERT_EQ(broker.PublishedIds(), std::vector<int32_t>{201});
    EXPECT_EQ(broker.Published()[0].PayloadText(), "modemloader");
    EXPECT_EQ(
        Lines(),
        std::vector<std::string>{
            R"({"kind":"event","dir":"out","type":3,"id":201,"size":11,"name":"modemloader"})"});
}

TEST_F(TracingDecoratorsTest, SubscriptionsPassThroughUntraced) {
    CRecordingEventBroker broker;
    CTracingEventBroker tracing(broker, m_trace);
    struct CNoObserver : IEventObserver {
        void OnEvent(const TEvent&) override {}
    } observer;
    const TEvent tick{0, 0, 1000, reinterpret_cast<const void*>(1)};
    tracing.Subscribe(tick, observer);
    EXPECT_TRUE(broker.HasTickSubscribers());
    tracing.Unsubscribe(tick, observer);
    EXPECT_FALSE(broker.HasTickSubscribers());
    EXPECT_TRUE(Lines().empty());
}

TEST_F(TracingDecoratorsTest, LogRecordsGoToTheTraceAndOnToTheNextSink) {
    struct CCountingLog : logging::internals::ILog {
        void Write(const logging::TLogRecord& record) override { texts.push_back(record.text); }
        std::vector<std::string> texts;
    } next;
    CTracingLog log(m_trace, &next);
    log.Write(logging::TLogRecord{logging::categories::Error, logging::ModemLoader, "Prepare",
                                  "src/ImageLoader", 12,
                                  "(error encountered while reading properties)\n"});
    EXPECT_EQ(next.texts,
              std::vector<std::string>{"(error encountered while reading properties)\n"});
    EXPECT_EQ(
        Lines(),
        std::vector<std::string>{
            R"({"kind":"log","category":"Error","channel":"ModemLoader","function":"Prepare",)"
            R"("file":"src/ImageLoader","line":12,"text":"error encountered while reading properties"})"});
}

}  // namespace
