#include "log_recorder.h"

#include <cstdlib>

#include <gtest/gtest.h>
#include <syslog.h>
#include <unistd.h>

namespace {

TEST(LogRecorder, RecordsPriorityFacilityAndText) {
    LogRecorder log;
    openlog("recorded", LOG_PID, LOG_AUTH);
    syslog(LOG_WARNING, "a warning: [1] and\na second line");
    syslog(LOG_INFO, "%s", "");
    closelog();
    const auto messages = log.Take();
    ASSERT_EQ(messages.size(), 2u);
    EXPECT_EQ(messages[0],
              (LogMessage{LOG_WARNING, LOG_AUTH, "recorded", "a warning: [1] and\na second line"}));
    EXPECT_EQ(messages[1], (LogMessage{LOG_INFO, LOG_AUTH, "recorded", ""}));
    EXPECT_TRUE(log.Take().empty());
}

TEST(LogRecorder, SeesOtherProcesses) {
    LogRecorder log;
    ASSERT_EQ(std::system("logger -t other -p user.err 'from another process'"), 0);
    EXPECT_EQ(log.Take(),
              (std::vector{LogMessage{LOG_ERR, LOG_USER, "other", "from another process"}}));
}

TEST(LogRecorder, WaitsForWhatIsStillToCome) {
    LogRecorder log;
    ASSERT_EQ(std::system("(sleep 0.05; logger 'late') &"), 0);
    EXPECT_TRUE(log.Wait("late"));
    EXPECT_FALSE(log.Wait("never", std::chrono::milliseconds(1)));
}

TEST(LogRecorder, FollowsALibraryThatLoggedBefore) {
    openlog("before", LOG_NDELAY, LOG_USER);
    {
        LogRecorder log;
        syslog(LOG_ERR, "first");
        EXPECT_EQ(log.Take().size(), 1u);
    }
    LogRecorder log;
    syslog(LOG_ERR, "second");
    ASSERT_EQ(log.Take().size(), 1u);
    closelog();
}

} // namespace
