// Progress for people: a bar redrawn in place on a terminal, plain lines elsewhere, or nothing.

#include <gtest/gtest.h>

#include <regex>

#include "ProgressDisplay.h"

namespace {

class ProgressDisplayTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_NE(m_stream, nullptr); }
    void TearDown() override {
        if (m_stream != nullptr) {
            std::fclose(m_stream);
        }
    }

    std::string Written() {
        std::fflush(m_stream);
        std::rewind(m_stream);
        std::string text;
        char buffer[1024];
        std::size_t got = 0;
        while ((got = std::fread(buffer, 1, sizeof buffer, m_stream)) > 0) {
            text.append(buffer, got);
        }
        return text;
    }

    FILE* m_stream = std::tmpfile();
};

TEST(ProgressBarTest, FillsInProportionAndNeverOverflows) {
    EXPECT_EQ(CProgressDisplay::Bar(0, 10), "[          ]");
    EXPECT_EQ(CProgressDisplay::Bar(55, 10), "[#####     ]");
    EXPECT_EQ(CProgressDisplay::Bar(100, 10), "[##########]");
    EXPECT_EQ(CProgressDisplay::Bar(255, 10), "[##########]");
}

TEST_F(ProgressDisplayTest, PlainModeWritesOneLinePerChangeOfPercentage) {
    CProgressDisplay display(m_stream, CProgressDisplay::TMode::ePlain, "modemloader");
    display.Progress(5);
    display.Progress(5);
    display.Progress(10);
    display.Finish("update succeeded");
    EXPECT_TRUE(
        std::regex_match(Written(), std::regex(R"(modemloader: 5% \(step 1, \d+\.\d s\)\n)"
                                               R"(modemloader: 10% \(step 3, \d+\.\d s\)\n)"
                                               R"(modemloader: update succeeded \(\d+\.\d s\)\n)")))
        << Written();
}

TEST_F(ProgressDisplayTest, TerminalModeRedrawsOneLineAndEndsIt) {
    CProgressDisplay display(m_stream, CProgressDisplay::TMode::eTerminal, "modemloader");
    display.Progress(50);
    display.Progress(100);
    display.Finish("update failed");
    EXPECT_TRUE(std::regex_match(
        Written(), std::regex(R"(\rmodemloader \[##########          \]  50%  step 1  0:\d\d\.\d)"
                              R"(\rmodemloader \[####################\] 100%  step 2  0:\d\d\.\d\n)"
                              R"(modemloader: update failed \(\d+\.\d s\)\n)")))
        << Written();
}

TEST_F(ProgressDisplayTest, QuietModeWritesNothing) {
    CProgressDisplay display(m_stream, CProgressDisplay::TMode::eQuiet, "modemloader");
    display.Progress(50);
    display.Finish("update succeeded");
    EXPECT_EQ(Written(), "");
}

}  // namespace
