// A failing platform call leaves one record that says why; a succeeding one leaves none.

#include <gtest/gtest.h>

#include "LogCapture.h"
#include "PlatformLog.h"

namespace {

TEST(PlatformLogTest, AFailureIsOneErrorRecordOfThePlatformChannelNamedAfterTheCall) {
    CLogCapture capture;
    const CStatus failure =
        CStatus::Failure("mounting /dev/loop3 on /mnt/x: Device or resource busy");
    const int line = __LINE__ + 1;
    const CStatus& returned = PLATFORM_LOG_FAILURE("Mount", failure);

    EXPECT_EQ(&returned, &failure);
    const std::vector<logging::TLogRecord> records = capture.Records();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].category, logging::categories::Error);
    EXPECT_EQ(records[0].channel, logging::Platform);
    EXPECT_STREQ(logging::IControl::ChannelName(records[0].channel), "Platform");
    EXPECT_EQ(records[0].function, "Mount");
    EXPECT_EQ(records[0].file, __FILE__);
    EXPECT_EQ(records[0].line, line);
    EXPECT_EQ(records[0].text, "mounting /dev/loop3 on /mnt/x: Device or resource busy\n");
}

TEST(PlatformLogTest, ASuccessLogsNothing) {
    CLogCapture capture;
    EXPECT_TRUE(PLATFORM_LOG_FAILURE("CopyFile", CStatus::Ok()));
    EXPECT_TRUE(capture.Records().empty());
}

}  // namespace
