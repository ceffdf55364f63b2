#include "vela/timer.h"

#include <gtest/gtest.h>

#include <string>

namespace {

TEST(Timer, FormatsEveryUnitWithThreeDecimals) {
    using namespace vela::timer;
    EXPECT_EQ(formatTime(12.5, MILLISECONDS), "12.500 msec");
    EXPECT_EQ(formatTime(1500, SECONDS), "1.500 sec");
    EXPECT_EQ(formatTime(90000, MINUTES), "1.500 min");
    EXPECT_EQ(formatTime(5400000, HOURS), "1.500 h");
    EXPECT_EQ(formatTime(3723500, HMS), "1:02:03.500");
    EXPECT_EQ(formatTime(999, AUTO), "999.000 msec");
    EXPECT_EQ(formatTime(1000, AUTO), "1.000 sec");
    EXPECT_EQ(formatTime(60000, AUTO), "1.000 min");
    EXPECT_EQ(formatTime(3600000, AUTO), "1.000 h");
}

TEST(Timer, AccumulatesUntilResetAndPrintsOneLinePerTimer) {
    using namespace vela::timer;
    reset("t.a");
    start("t.a");
    stop("t.a");
    start("t.a");
    stop("t.a");
    stop("t.a");  // a stop without a start adds nothing
    EXPECT_EQ(count("t.a"), 2);
    EXPECT_GE(milliseconds("t.a"), 0.0);
    reset("t.a");
    EXPECT_EQ(count("t.a"), 0);
    EXPECT_EQ(milliseconds("t.a"), 0.0);
    EXPECT_EQ(milliseconds("never.used"), 0.0);

    start("t.b");
    stop("t.b");
    testing::internal::CaptureStdout();
    printToScreen("> ", 6, 0, true);
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(out.find("t.a"), std::string::npos) << "timers without an interval are left out: " << out;
    EXPECT_EQ(out.rfind("> t.b: ", 0), 0u) << out;
    EXPECT_NE(out.find("(1 interval)"), std::string::npos) << out;
}

}  // namespace
