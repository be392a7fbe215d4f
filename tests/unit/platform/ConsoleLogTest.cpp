// Log lines for people: "time category function: message", one per record.

#include <gtest/gtest.h>

#include <regex>

#include "ConsoleLog.h"
#include "InstalledBackend.h"

namespace {

logging::TLogRecord Record(logging::categories::TCategory category, const std::string& text) {
    return logging::TLogRecord{category,
                               logging::ModemLoader,
                               "HandleControllerPrepare",
                               "features/component/ModemLoader/src/ModemLoader",
                               230,
                               text};
}

TEST(LogMessageTextTest, DropsTheWrappingTheFeaturesLogWith) {
    EXPECT_EQ(LogMessageText("(Couldn't mount /dev/loop3)\n"), "Couldn't mount /dev/loop3");
    EXPECT_EQ(LogMessageText("(current version: 123\n)\n"), "current version: 123\n");
    EXPECT_EQ(LogMessageText("()\n"), "");
    EXPECT_EQ(LogMessageText("plain text\n"), "plain text");
    EXPECT_EQ(LogMessageText("(unclosed\n"), "(unclosed");
    EXPECT_EQ(LogMessageText(""), "");
}

TEST(ConsoleLogTest, FormatsTimeCategoryFunctionAndMessage) {
    const std::string line =
        CConsoleLog::FormatLine(Record(logging::categories::Error, "(Couldn't mount /x)\n"));
    EXPECT_TRUE(std::regex_match(
        line,
        std::regex(R"(\d\d:\d\d:\d\d\.\d\d\d Error HandleControllerPrepare: Couldn't mount /x)")))
        << line;
}

TEST(ConsoleLogTest, AMessageEndingInALineEndStaysOnOneLine) {
    const std::string line =
        CConsoleLog::FormatLine(Record(logging::categories::Always, "(current version: 123\n)\n"));
    EXPECT_TRUE(std::regex_match(
        line, std::regex(R"(\S+ Always HandleControllerPrepare: current version: 123)")))
        << line;
}

TEST(ConsoleLogTest, WritesOneLinePerRecordToItsStream) {
    FILE* stream = std::tmpfile();
    ASSERT_NE(stream, nullptr);
    {
        CConsoleLog log(stream, false);
        log.Write(Record(logging::categories::Always, "(Modem already up to date)\n"));
        log.Write(Record(logging::categories::Error, "(Unable to unmount /mnt)\n"));
    }
    std::rewind(stream);
    char buffer[512] = {};
    const std::size_t got = std::fread(buffer, 1, sizeof buffer - 1, stream);
    std::fclose(stream);
    const std::string text(buffer, got);
    EXPECT_TRUE(std::regex_match(
        text, std::regex(R"(\S+ Always HandleControllerPrepare: Modem already up to date\n)"
                         R"(\S+ Error HandleControllerPrepare: Unable to unmount /mnt\n)")))
        << text;
}

TEST(ConsoleLogTest, ReceivesTheFeaturesRecordsOnceInstalled) {
    FILE* stream = std::tmpfile();
    ASSERT_NE(stream, nullptr);
    {
        CConsoleLog log(stream, false);
        CInstalledLog installed(&log);
        logging::internals::CLogHandle(logging::categories::Error, logging::ModemLoader, "OnEvent",
                                       "ModemLoader", 1)
            << "("
            << "Unexpected event: " << 5 << ")\n";
    }
    std::rewind(stream);
    char buffer[256] = {};
    const std::size_t got = std::fread(buffer, 1, sizeof buffer - 1, stream);
    std::fclose(stream);
    EXPECT_TRUE(std::regex_match(std::string(buffer, got),
                                 std::regex(R"(\S+ Error OnEvent: Unexpected event: 5\n)")))
        << std::string(buffer, got);
}

}  // namespace
