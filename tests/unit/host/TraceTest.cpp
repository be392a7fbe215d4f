// The host's JSON Lines trace: one object per line, "t" and "kind" first, then the kind's fields.

#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <regex>
#include <sstream>

#include "TemporaryDirectory.h"
#include "Trace.h"

namespace {

class TraceTest : public ::testing::Test {
protected:
    void SetUp() override {
        const CStatus status = m_trace.Open(m_path);
        ASSERT_TRUE(status.IsOk()) << status.Message();
    }

    // The lines written so far, each without its leading {"t":<seconds>,
    std::vector<std::string> Lines() const {
        std::ifstream file(m_path);
        std::vector<std::string> lines;
        std::string line;
        const std::regex time(R"(^\{"t":[0-9.e-]+,)");
        while (std::getline(file, line)) {
            EXPECT_TRUE(std::regex_search(line, time)) << line;
            lines.push_back(std::regex_replace(line, time, "{"));
        }
        return lines;
    }

    CTemporaryDirectory m_directory;
    std::string m_path = m_directory.Path() + "/trace.jsonl";
    CTrace m_trace;
};

TEST_F(TraceTest, ARequestCarriesItsNameText) {
    const std::string name = "modemloader";
    m_trace.Event(CTrace::TDirection::eIn, TEvent{3, 204, 11, name.data()});
    m_trace.Event(CTrace::TDirection::eIn, TEvent{3, 200, 0, nullptr});
    // A size without the bytes it claims: the size is traced as given, no name is made up.
    m_trace.Event(CTrace::TDirection::eIn, TEvent{3, 202, 11, nullptr});
    EXPECT_EQ(Lines(),
              (std::vector<std::string>{
                  R"({"kind":"event","dir":"in","type":3,"id":204,"size":11,"name":"modemloader"})",
                  R"({"kind":"event","dir":"in","type":3,"id":200,"size":0})",
                  R"({"kind":"event","dir":"in","type":3,"id":202,"size":11})"}));
}

TEST_F(TraceTest, RepliesCarryTheirNameFieldAndOutcomeProgressItsPercent) {
    TControllerReply reply{};
    std::strcpy(reply.name, "modemloader");
    reply.outcome = 0;
    TControllerProgress progress{};
    std::strcpy(progress.name, "modemloader");
    progress.percent = 105;
    m_trace.Event(CTrace::TDirection::eOut, TEvent{3, 205, sizeof reply, &reply});
    m_trace.Event(CTrace::TDirection::eOut, TEvent{3, 206, sizeof progress, &progress});
    reply.outcome = 1;
    m_trace.Event(CTrace::TDirection::eOut, TEvent{3, 208, sizeof reply, &reply});
    EXPECT_EQ(
        Lines(),
        (std::vector<std::string>{
            R"({"kind":"event","dir":"out","type":3,"id":205,"size":68,"name":"modemloader","outcome":0})",
            R"({"kind":"event","dir":"out","type":3,"id":206,"size":65,"name":"modemloader","percent":105})",
            R"({"kind":"event","dir":"out","type":3,"id":208,"size":68,"name":"modemloader","outcome":1})"}));
}

TEST_F(TraceTest, ATruncatedReplyOrProgressKeepsItsNameButNoFieldItLacks) {
    // A feature that sends only the name field: no outcome and no percent are made up.
    char name[kControllerNameSize] = "modemloader";
    m_trace.Event(CTrace::TDirection::eOut, TEvent{3, 203, sizeof name, name});
    m_trace.Event(CTrace::TDirection::eOut, TEvent{3, 206, sizeof name, name});
    // Shorter than a name field: the bytes are the name, as for a request.
    m_trace.Event(CTrace::TDirection::eOut, TEvent{3, 205, 5, name});
    // Not a controller event at all: the payload's bytes are its name.
    m_trace.Event(CTrace::TDirection::eIn, TEvent{1, 0, 4, "tick"});
    EXPECT_EQ(
        Lines(),
        (std::vector<std::string>{
            R"({"kind":"event","dir":"out","type":3,"id":203,"size":64,"name":"modemloader"})",
            R"({"kind":"event","dir":"out","type":3,"id":206,"size":64,"name":"modemloader"})",
            R"({"kind":"event","dir":"out","type":3,"id":205,"size":5,"name":"modem"})",
            R"({"kind":"event","dir":"in","type":1,"id":0,"size":4,"name":"tick"})"}));
}

TEST_F(TraceTest, ALogRecordLosesItsWrappingOnly) {
    m_trace.Log(logging::TLogRecord{logging::categories::Always, logging::ModemLoader,
                                    "HandleControllerPrepare", "src/ModemLoader", 246,
                                    "(current version: 123\n)\n"});
    EXPECT_EQ(Lines(), std::vector<std::string>{
                           R"({"kind":"log","category":"Always","channel":"ModemLoader",)"
                           R"("function":"HandleControllerPrepare","file":"src/ModemLoader",)"
                           R"("line":246,"text":"current version: 123\n"})"});
}

TEST_F(TraceTest, CommandsAndMountsCarryTheirStatus) {
    m_trace.Command("echo 0 > /sys/class/gpio/gpio42/value", 0);
    m_trace.Mount("/dev/loop3", "/mnt/movinand", 2, -1);
    m_trace.Umount("/mnt/movinand", 0);
    EXPECT_EQ(
        Lines(),
        (std::vector<std::string>{
            R"({"kind":"cmd","line":"echo 0 > /sys/class/gpio/gpio42/value","status":0})",
            R"({"kind":"mount","device":"/dev/loop3","mountpoint":"/mnt/movinand","format":2,"status":-1})",
            R"({"kind":"umount","mountpoint":"/mnt/movinand","status":0})"}));
}

TEST_F(TraceTest, BytesThatAreNoTextDoNotBreakTheTrace) {
    const char name[] = {'m', '\xff', 'l'};
    m_trace.Event(CTrace::TDirection::eIn, TEvent{3, 202, 3, name});
    EXPECT_EQ(Lines(), std::vector<std::string>{
                           "{\"kind\":\"event\",\"dir\":\"in\",\"type\":3,\"id\":202,\"size\":3,"
                           "\"name\":\"m\xEF\xBF\xBDl\"}"});
}

TEST(TraceOpenTest, AFileThatCannotBeCreatedIsNamed) {
    CTrace trace;
    const CStatus status = trace.Open("/nonexistent-folder/trace.jsonl");
    EXPECT_EQ(status.Message(), "trace /nonexistent-folder/trace.jsonl: No such file or directory");
    EXPECT_FALSE(trace.IsOpen());
    trace.Command("true", 0);  // writes nothing, and does not fail
    trace.Log(logging::TLogRecord{});
    trace.Mount("/dev/loop3", "/mnt/x", 2, 0);
    trace.Umount("/mnt/x", 0);
    trace.Event(CTrace::TDirection::eIn, TEvent{3, 200, 0, nullptr});
    EXPECT_TRUE(trace.WriteStatus());
}

// A trace on a file system that has filled up: the lines are lost, the update is not, and the
// first failure is kept for the host to report.
TEST(TraceWriteTest, ALineThatCannotBeWrittenIsKeptAsTheTracesFailure) {
    CTrace trace;
    ASSERT_TRUE(trace.Open("/dev/full"));
    EXPECT_TRUE(trace.WriteStatus());
    trace.Command("echo 1 > /sys/class/gpio/value", 0);
    trace.Umount("/mnt/x", 0);
    EXPECT_EQ(trace.WriteStatus().Message(), "trace /dev/full: writing: No space left on device");
}

TEST(TraceWriteTest, OpeningAgainStartsANewFileWithAClearRecord) {
    CTemporaryDirectory directory;
    ASSERT_TRUE(directory.Made()) << directory.Made().Message();
    CTrace trace;
    ASSERT_TRUE(trace.Open("/dev/full"));
    trace.Command("true", 0);
    ASSERT_FALSE(trace.WriteStatus());
    const std::string path = directory.Join("trace.jsonl");
    ASSERT_TRUE(trace.Open(path));
    EXPECT_TRUE(trace.WriteStatus());
    trace.Command("true", 0);
    std::ifstream file(path);
    std::string line;
    ASSERT_TRUE(std::getline(file, line));
    EXPECT_TRUE(std::regex_match(
        line, std::regex(R"(\{"t":[0-9.e-]+,"kind":"cmd","line":"true","status":0\})")))
        << line;
    EXPECT_FALSE(std::getline(file, line));
}

}  // namespace
