// The bridge as a program: its command line, its exit statuses, and where it finds the bus.
#include <signal.h>

#include <string>
#include <vector>

#include "bridge_fixture.h"

namespace BridgeTesting {
namespace {

TEST(TheCommandLine, RefusesBadUsageWithStatusTwoAndSaysWhy) {
    struct CCase {
        std::vector<std::string> args;
        std::string says;
    };
    const CCase cases[] = {
        {{"--port", "abc"}, "--port must be a number from 1 to 65535, not 'abc'"},
        {{"--port", "0"}, "--port must be a number"},
        {{"--port", "65536"}, "--port must be a number"},
        {{"--port", "-1"}, "--port must be a number"},
        {{"--port=12x"}, "--port must be a number"},
        {{"--port", "99999999999999999999"}, "--port must be a number"},
        {{"--ack-timeout", "5"}, "--ack-timeout must be"},
        {{"--max-subscriptions", "0"}, "--max-subscriptions must be"},
        {{"--bogus"}, "unknown option --bogus"},
        {{"--host"}, "--host needs a value"},
        {{"--host="}, "--host needs a non-empty value"},
        {{"stray"}, "unexpected argument stray"},
    };
    for (const CCase& c : cases) {
        std::vector<std::string> argv = {BRIDGE_BINARY};
        argv.insert(argv.end(), c.args.begin(), c.args.end());
        // A bus that does not exist: a bridge that wrongly got past its arguments ends at once.
        const CProcessResult result = run_process(argv, {"CONFIG_MANAGER_BUS_ADDRESS=unix:path=/nonexistent"});
        EXPECT_EQ(result.status, 2) << c.args[0] << ": " << result.err;
        EXPECT_NE(result.err.find(c.says), std::string::npos) << c.args[0] << ": " << result.err;
    }
}

TEST(TheCommandLine, DescribesTheOptionsOnHelpWithStatusZero) {
    const CProcessResult result = run_process({BRIDGE_BINARY, "--help"});
    EXPECT_EQ(result.status, 0);
    for (const char* option : {"--host", "--port", "--address", "--ack-timeout", "--max-subscriptions"}) {
        EXPECT_NE(result.out.find(option), std::string::npos) << option;
    }
    EXPECT_NE(result.out.find("CONFIG_MANAGER_BUS_ADDRESS"), std::string::npos);
}

TEST(TheCommandLine, EndsWithOneWhenTheBusCannotBeReached) {
    const CProcessResult result = run_process({BRIDGE_BINARY, "--address", "unix:path=/nonexistent/socket"});
    EXPECT_EQ(result.status, 1);
    EXPECT_NE(result.err.find("cannot open the bus"), std::string::npos) << result.err;
}

class ABridgeProcess : public CBridgeTest {
protected:
    void SetUp() override { ASSERT_TRUE(start_environment()); }
};

TEST_F(ABridgeProcess, EndsWithZeroOnSigtermAndSigint) {
    for (int number : {SIGTERM, SIGINT}) {
        ASSERT_TRUE(start_bridge());
        ASSERT_EQ(subscribe("t").code, 0);
        ASSERT_TRUE(m_bridge.signal(number));
        ASSERT_TRUE(m_bridge.wait_exit(std::chrono::seconds(5))) << number;
        EXPECT_EQ(m_bridge.exit_status(), 0) << number << "\n" << m_bridge.err();
        EXPECT_NE(m_bridge.err().find("stopped"), std::string::npos);
    }
}

TEST_F(ABridgeProcess, EndsWithOneWhenItLosesTheBus) {
    ASSERT_TRUE(start_bridge());
    m_bus.stop();
    ASSERT_TRUE(m_bridge.wait_exit(std::chrono::seconds(5)));
    EXPECT_EQ(m_bridge.exit_status(), 1);
    EXPECT_NE(m_bridge.err().find("lost the bus"), std::string::npos) << m_bridge.err();
}

TEST_F(ABridgeProcess, EndsWithOneWhenItsNameIsTaken) {
    CFakeService impostor(m_bus.address(), kName);
    ASSERT_TRUE(impostor.start());
    ASSERT_TRUE(m_bridge.start({BRIDGE_BINARY, "--host", "127.0.0.1", "--port", std::to_string(m_broker.port()),
                                "--address", m_bus.address()}));
    ASSERT_TRUE(m_bridge.wait_exit(std::chrono::seconds(5)));
    EXPECT_EQ(m_bridge.exit_status(), 1);
    EXPECT_NE(m_bridge.err().find("is not ours"), std::string::npos) << m_bridge.err();
}

TEST_F(ABridgeProcess, TakesTheBusAddressFromTheEnvironment) {
    ASSERT_TRUE(m_bridge.start({BRIDGE_BINARY, "--host", "127.0.0.1", "--port", std::to_string(m_broker.port())},
                               {"CONFIG_MANAGER_BUS_ADDRESS=" + m_bus.address()}));
    ASSERT_TRUE(wait_for_log("connected to the broker"));
    EXPECT_EQ(subscribe("from/environment").code, 0);
}

}  // namespace
}  // namespace BridgeTesting
