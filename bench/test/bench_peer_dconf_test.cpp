// dconf as a peer: its writes and reads, kept inside a directory of the run. Skipped where dconf
// is not installed or cm-bench was built without it. dconf's client keeps its bus connection
// for the life of the process, so this binary starts the peer once.
#include "bench_peer_dconf.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <chrono>
#include <thread>

using Quorel::Iot::Bench::CDconfPeer;

TEST(ADconfPeer, ReadsBackWhatItWroteFromADatabaseInsideItsDirectoryAndEndsQuietly) {
    if (!CDconfPeer::missing().empty()) GTEST_SKIP() << CDconfPeer::missing();
    char tmpl[] = "/tmp/cm-bench-dconf-XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    const std::string parent = tmpl;
    const char* home = getenv("HOME");
    const std::string home_before = home != nullptr ? home : "";
    {
        CDconfPeer dconf;
        std::string error;
        ASSERT_TRUE(dconf.start(parent + "/dconf", error)) << error;
        ASSERT_TRUE(dconf.write("/bench/one", "1", error)) << error;
        ASSERT_TRUE(dconf.write_all({{"/bench/two", "2"}, {"/bench/three", "3"}}, error)) << error;
        std::string value;
        EXPECT_TRUE(dconf.read("/bench/one", value));
        EXPECT_EQ(value, "1");
        EXPECT_TRUE(dconf.read("/bench/three", value));
        EXPECT_EQ(value, "3");
        EXPECT_FALSE(dconf.read("/bench/four", value));
        EXPECT_EQ(dconf.database_path(), parent + "/dconf/config/dconf/user");
        EXPECT_EQ(access(dconf.database_path().c_str(), R_OK), 0);
        dconf.stop();
    }
    // Its bus is gone now: a client connection still set to end the process when that happens
    // would have raised SIGTERM by the time this wait is over.
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    home = getenv("HOME");
    EXPECT_EQ(home != nullptr ? home : "", home_before);
    const std::string command = "rm -rf '" + parent + "'";
    EXPECT_EQ(system(command.c_str()), 0);
}
