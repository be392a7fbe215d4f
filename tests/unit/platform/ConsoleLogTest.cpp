// Log lines for people: "time category function: message", one per record.

#include <gtest/gtest.h>
#include <syslog.h>

#include <cstdarg>
#include <cstdio>
#include <regex>
#include <string>
#include <vector>

#include "ConsoleLog.h"
#include "InstalledBackend.h"

// The system log as this executable sees it: openlog, syslog and closelog stand in for the C
// library's (the log daemon is not there to be asked what it received), writing down each call.
namespace {
std::vector<std::string> sSystemLog;

void NoteSyslog(int priority, const char* format, va_list arguments) {
    char message[512];
    std::vsnprintf(message, sizeof message, format, arguments);
    sSystemLog.push_back("syslog " + std::to_string(priority) + " " + message);
}
}  // namespace

extern "C" void openlog(const char* ident, int option, int facility) {
    sSystemLog.push_back("openlog " + std::string(ident) + " " + std::to_string(option) + " " +
                         std::to_string(facility));
}

extern "C" void closelog() { sSystemLog.push_back("closelog"); }

extern "C" void syslog(int priority, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    NoteSyslog(priority, format, arguments);
    va_end(arguments);
}

// What a fortified build calls instead of syslog.
extern "C" void __syslog_chk(int priority, int /*flag*/, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    NoteSyslog(priority, format, arguments);
    va_end(arguments);
}

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
    EXPECT_EQ(LogMessageText("("), "(");
    EXPECT_EQ(LogMessageText("unopened)"), "unopened)");
    EXPECT_EQ(LogMessageText("(\n"), "(");
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

TEST(ConsoleLogTest, AMessageEndingInACarriageReturnAndLineEndStaysOnOneLine) {
    const std::string line =
        CConsoleLog::FormatLine(Record(logging::categories::Always, "(AT+CGMR\r\n)\n"));
    EXPECT_TRUE(
        std::regex_match(line, std::regex(R"(\S+ Always HandleControllerPrepare: AT\+CGMR)")))
        << line;
}

TEST(ConsoleLogTest, ToTheSystemLogOnlyEachRecordIsOneEntryWithItsPriority) {
    sSystemLog.clear();
    {
        CConsoleLog log(nullptr, true);
        log.Write(Record(logging::categories::Error, "(Unable to unmount /mnt)\n"));
        log.Write(Record(logging::categories::Always, "(Modem already up to date)\n"));
    }
    const std::vector<std::string> expected{
        "openlog modemloader-host " + std::to_string(LOG_PID) + " " + std::to_string(LOG_DAEMON),
        "syslog " + std::to_string(LOG_ERR) +
            " Error HandleControllerPrepare: Unable to unmount /mnt",
        "syslog " + std::to_string(LOG_NOTICE) +
            " Always HandleControllerPrepare: Modem already up to date",
        "closelog"};
    EXPECT_EQ(sSystemLog, expected);
}

TEST(ConsoleLogTest, WritesOneLinePerRecordToItsStream) {
    sSystemLog.clear();
    FILE* stream = std::tmpfile();
    ASSERT_NE(stream, nullptr);
    {
        CConsoleLog log(stream, false);
        log.Write(Record(logging::categories::Always, "(Modem already up to date)\n"));
        log.Write(Record(logging::categories::Error, "(Unable to unmount /mnt)\n"));
    }
    EXPECT_TRUE(sSystemLog.empty());  // a log to a stream alone leaves the system log alone
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
