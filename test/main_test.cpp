// The whole config-manager binary as a child process, against a private bus with the fake
// keychain and the fake MQTT bridge.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <json/json.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <map>
#include <sstream>

#include "adapter_harness.h"
#include "quorel/configmanager/base64.h"
#include "quorel/testsupport/fake_subscriber.h"

using namespace Quorel::Iot::Testing;

namespace {

std::string read_file(const std::string& path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

class AProcess : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(bus.start());
        bus.export_address();
        keychain.reset(new CFakeKeychain(bus.address()));
        bridge.reset(new CFakeBridge(bus.address()));
        ASSERT_TRUE(keychain->start() && bridge->start());
        char tmpl[] = "/tmp/cm-process-XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(tmpl));
        dir = tmpl;
        std::ofstream(dir + "/default.json") << identity_defaults();
    }

    void TearDown() override {
        if (pid > 0) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
        for (const char* name : {"/default.json", "/stdout", "/stderr"}) unlink((dir + name).c_str());
        rmdir(dir.c_str());
    }

    // Starts the binary with stdout and stderr in files of the test's directory.
    void spawn() {
        // The child only makes system calls: the parent's other threads may hold the allocator.
        const std::string out = dir + "/stdout";
        const std::string err = dir + "/stderr";
        const std::string defaults = dir + "/default.json";
        pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            dup2(open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), STDOUT_FILENO);
            dup2(open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), STDERR_FILENO);
            execl(CM_BINARY, CM_BINARY, defaults.c_str(), static_cast<char*>(nullptr));
            _exit(127);
        }
    }

    // Both services are up once the adapter has asked the cloud for the shadow.
    bool wait_started() {
        const bool up = bridge->wait_for_count("publish", 1);
        bridge->clear_received();
        return up;
    }

    // The exit status, or -1 when the process did not end within the deadline (or died by a signal).
    int wait_exit(std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
        int status = 0;
        const bool ended = wait_until([&] { return waitpid(pid, &status, WNOHANG) == pid; }, timeout);
        if (!ended) return -1;
        pid = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    CPrivateBus bus;
    std::unique_ptr<CFakeKeychain> keychain;
    std::unique_ptr<CFakeBridge> bridge;
    std::string dir;
    pid_t pid = -1;
};

TEST_F(AProcess, PrintsTheSignalAndExitsWithZeroOnSigterm) {
    spawn();
    ASSERT_TRUE(wait_started());
    kill(pid, SIGTERM);
    EXPECT_EQ(0, wait_exit());
    EXPECT_EQ("Caught signal: Terminated, exiting...\n", read_file(dir + "/stdout"));
    EXPECT_NE(std::string::npos, read_file(dir + "/stderr").find("main, config-manager service stop."));
}

TEST_F(AProcess, ExitsWith255WhenItsBusNameIsTaken) {
    CFakeService squatter(bus.address(), "iot.dmp.configmanager");
    ASSERT_TRUE(squatter.start());
    spawn();
    EXPECT_EQ(255, wait_exit());
    EXPECT_NE(std::string::npos, read_file(dir + "/stderr").find("main, config business start error."));
}

TEST_F(AProcess, ExitsWithZeroWhenTheBusGoesAway) {
    spawn();
    ASSERT_TRUE(wait_started());
    bridge->stop();
    keychain->stop();
    bus.stop();
    EXPECT_EQ(0, wait_exit());
}

// The adapter's detached threads outlive it at every stop. Every other round stops the process
// while the adapter's shadow thread waits for a key owner that never answers.
TEST_F(AProcess, ExitsWithZeroWhenStoppedTwentyTimesInARow) {
    CFakeSubscriber owner(bus.address(), "iot.test.owner");
    owner.answer_nothing();
    ASSERT_TRUE(owner.start());
    CBusClient client(bus.address());
    ASSERT_TRUE(client.connect());
    for (int round = 0; round < 20; ++round) {
        SCOPED_TRACE(round);
        spawn();
        ASSERT_TRUE(wait_started());
        if (round % 2 == 1) {
            CCallBuilder subscribe("iot.dmp.configmanager", "/iot/dmp/configmanager", "iot.dmp.configmanager",
                                   "subscribe_config");
            subscribe.str("iot.test.owner").str("gw_vexa_switch").i32(0);
            ASSERT_EQ(std::vector<std::string>{"0"}, client.call(subscribe).args);
            const size_t seen = owner.notifications().size();
            ASSERT_TRUE(bridge->emit_event(CAdapterHarness::kGetTopic,
                                           R"({"method":"control","payload":{"state":{"desired":)"
                                           R"({"gw_vexa_switch":1,"gw_orlo_switch":0}}}})"));
            ASSERT_TRUE(owner.wait_for_notifications(seen + 1));
        }
        kill(pid, SIGTERM);
        ASSERT_EQ(0, wait_exit()) << read_file(dir + "/stderr");
    }
}

// A stream of sets with SIGTERM in the middle of it: whatever was answered 0 must be in the
// keychain once the process has exited, however the saver's timing falls.
TEST_F(AProcess, KeepsEverySetItAnsweredZeroInTheKeychainAcrossSigterm) {
    // A slow keychain keeps the saver busy while sets go on arriving.
    keychain->set_delay_ms(20);
    spawn();
    ASSERT_TRUE(wait_started());
    CBusClient client(bus.address());
    ASSERT_TRUE(client.connect());
    std::map<std::string, std::string> acknowledged;
    bool gone = false;
    for (int round = 0; round < 200 && !gone; ++round) {
        std::vector<std::pair<size_t, std::string>> tickets;
        for (int i = 0; i < 50; ++i) {
            const std::string key = "s" + std::to_string(round * 50 + i);
            CCallBuilder set("iot.dmp.configmanager", "/iot/dmp/configmanager", "iot.dmp.configmanager", "set_config");
            set.str(key).str("v" + key);
            tickets.emplace_back(client.send_call(set), key);
        }
        if (round == 4) kill(pid, SIGTERM);
        for (const auto& ticket : tickets) {
            const CRecordedMessage answer = client.collect(ticket.first);
            if (answer.args == std::vector<std::string>{"0"}) {
                acknowledged[ticket.second] = "v" + ticket.second;
            } else {
                gone = true;
            }
        }
    }
    ASSERT_EQ(0, wait_exit()) << read_file(dir + "/stderr");
    ASSERT_GE(acknowledged.size(), 200u);
    std::string bytes;
    ASSERT_TRUE(keychain->get_item("_configmanager.config.file", bytes));
    Json::Value document;
    ASSERT_TRUE(Json::Reader().parse(bytes.c_str(), document));
    size_t missing = 0;
    for (const auto& entry : acknowledged) {
        std::string encoded;
        Quorel::Iot::Configmanager::base64_encode(entry.second, encoded);
        if (document["config"][entry.first] != Json::Value(encoded)) ++missing;
    }
    EXPECT_EQ(missing, 0u) << "of " << acknowledged.size() << " sets answered 0";
}

}  // namespace
