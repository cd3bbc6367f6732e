#include "quorel/testsupport/child_process.h"

#include <gtest/gtest.h>
#include <signal.h>

using namespace Quorel::Iot::Testing;

TEST(AChildProcess, KeepsOutputErrorAndExitCodeApart) {
    const CProcessResult r = run_process({"sh", "-c", "cat; echo oops >&2; exit 3"}, {}, "line one\nline two\n");
    EXPECT_EQ(3, r.status);
    EXPECT_EQ("line one\nline two\n", r.out);
    EXPECT_EQ("oops\n", r.err);
}

TEST(AChildProcess, SeesTheVariablesItWasGivenOverTheInheritedOnes) {
    setenv("CM_CHILD_TEST_A", "inherited", 1);
    setenv("CM_CHILD_TEST_B", "kept", 1);
    const CProcessResult r = run_process({"sh", "-c", "echo $CM_CHILD_TEST_A $CM_CHILD_TEST_B $CM_CHILD_TEST_C"},
                                         {"CM_CHILD_TEST_A=given", "CM_CHILD_TEST_C=added"});
    EXPECT_EQ(0, r.status);
    EXPECT_EQ("given kept added\n", r.out);
}

TEST(AChildProcess, ReportsAProgramThatCannotBeStarted) {
    CChildProcess child;
    EXPECT_FALSE(child.start({"/nonexistent/program"}));
    EXPECT_NE(std::string::npos, child.error().find("No such file")) << child.error();
}

TEST(AChildProcess, TellsTheSignalThatEndedIt) {
    CChildProcess child;
    ASSERT_TRUE(child.start({"sleep", "30"}));
    EXPECT_TRUE(child.running());
    EXPECT_FALSE(child.wait_exit(std::chrono::milliseconds(50)));
    ASSERT_TRUE(child.signal(SIGTERM));
    ASSERT_TRUE(child.wait_exit(std::chrono::seconds(5)));
    EXPECT_EQ(128 + SIGTERM, child.exit_status());
}

TEST(AChildProcess, IsKilledWhenItOutlivesItsTimeOut) {
    const CProcessResult r = run_process({"sleep", "30"}, {}, "", std::chrono::milliseconds(100));
    EXPECT_EQ(-1, r.status);
}
