#include "quorel/log/log.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "quorel/testsupport/log_capture.h"

using Quorel::Iot::Testing::CLogCapture;

namespace {
constexpr const char kLogFile[] = "core-services/config-manager/common/log/test/log_test";
}

TEST(ALogger, HandsTheFormattedMessageWithFileAndFunctionToTheSink) {
    CLogCapture capture;
    QLOG(1, "handle_set, key:%s", "gw_vexa_switch");
    auto lines = capture.lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].level, 1);
    EXPECT_EQ(lines[0].message, "handle_set, key:gw_vexa_switch");
    EXPECT_EQ(lines[0].file, kLogFile);
    EXPECT_EQ(lines[0].function, "TestBody");
}

TEST(ALogger, CapturesDetailLinesEvenWhenTheyAreHiddenFromStandardError) {
    CLogCapture capture;
    QLOG(0, "arrayObj: %s", "[]");
    EXPECT_EQ(capture.count("arrayObj: []"), 1u);
}

TEST(ALogger, WritesWholeLinesWhenManyThreadsLogAtOnce) {
    // Redirect stderr into a pipe-backed temp file and check no line is torn.
    char path[] = "/tmp/cm-log-XXXXXX";
    int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    int saved = dup(STDERR_FILENO);
    dup2(fd, STDERR_FILENO);
    log_init("config-manager", 1, 0, 2);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([t] {
            for (int i = 0; i < 200; ++i) QLOG(1, "thread %d line %d %s", t, i, std::string(100, 'x').c_str());
        });
    }
    for (auto& th : threads) th.join();
    dup2(saved, STDERR_FILENO);
    close(saved);
    FILE* f = fopen(path, "r");
    ASSERT_NE(f, nullptr);
    char buf[4096];
    int lines = 0;
    while (fgets(buf, sizeof(buf), f) != nullptr) {
        std::string line(buf);
        ++lines;
        EXPECT_NE(line.find("config-manager L1 "), std::string::npos) << line;
        EXPECT_NE(line.find(std::string(100, 'x') + "\n"), std::string::npos) << line;
    }
    fclose(f);
    unlink(path);
    close(fd);
    EXPECT_EQ(lines, 800);
}
