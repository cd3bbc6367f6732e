// Child processes of the benchmark: start, output, memory, stop.
#include "bench_process.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include "quorel/testsupport/wait.h"

using Quorel::Iot::Bench::CChildProcess;
using Quorel::Iot::Testing::wait_until;

TEST(AChildProcess, StopsWithSigtermAndReportsTheSignal) {
    CChildProcess child;
    std::string error;
    ASSERT_TRUE(child.spawn({"/bin/sleep", "30"}, "", "", error)) << error;
    EXPECT_TRUE(child.running());
    EXPECT_TRUE(wait_until([&] { return child.rss_kib() > 0; }));
    EXPECT_EQ(child.stop(), 128 + 15);
    EXPECT_FALSE(child.running());
    EXPECT_EQ(child.rss_kib(), -1);
}

TEST(AChildProcess, WritesItsOutputToTheLogAndRunsInTheWorkDirectory) {
    char dir[] = "/tmp/cm-bench-child-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    const std::string log = std::string(dir) + "/out.log";
    CChildProcess child;
    std::string error;
    ASSERT_TRUE(child.spawn({"/bin/sh", "-c", "pwd; echo oops >&2"}, log, dir, error)) << error;
    ASSERT_TRUE(wait_until([&] { return !child.running(); }));
    std::ifstream in(log);
    std::stringstream text;
    text << in.rdbuf();
    EXPECT_EQ(text.str(), std::string(dir) + "\noops\n");
    unlink(log.c_str());
    rmdir(dir);
}

TEST(AChildProcess, RefusesAPathThatIsNotAnExecutable) {
    CChildProcess child;
    std::string error;
    EXPECT_FALSE(child.spawn({"/nonexistent/config-manager"}, "", "", error));
    EXPECT_NE(error.find("/nonexistent/config-manager"), std::string::npos);
    EXPECT_EQ(child.stop(), -1);
}
