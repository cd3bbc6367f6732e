// The binary under a service manager: a fake notify socket in the place of systemd's, reading the
// datagrams sd_notify sends.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <fstream>

#include "adapter_harness.h"
#include "quorel/testsupport/child_process.h"

using namespace Quorel::Iot::Testing;
using std::chrono::milliseconds;
using std::chrono::seconds;

namespace {

class ANotifySocket {
public:
    ANotifySocket() {
        char tmpl[] = "/tmp/cm-notify-XXXXXX";
        if (mkdtemp(tmpl) == nullptr) return;
        m_dir = tmpl;
        m_path = m_dir + "/notify";
        m_fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        snprintf(address.sun_path, sizeof(address.sun_path), "%s", m_path.c_str());
        if (bind(m_fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
            close(m_fd);
            m_fd = -1;
        }
    }
    ~ANotifySocket() {
        if (m_fd >= 0) close(m_fd);
        unlink(m_path.c_str());
        rmdir(m_dir.c_str());
    }
    bool ok() const { return m_fd >= 0; }
    const std::string& path() const { return m_path; }

    // The next datagram, or "" when none came within timeout.
    std::string next(milliseconds timeout) {
        timeval tv{static_cast<time_t>(timeout.count() / 1000),
                   static_cast<suseconds_t>(timeout.count() % 1000 * 1000)};
        setsockopt(m_fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv));
        char buffer[512];
        const ssize_t n = recv(m_fd, buffer, sizeof(buffer), 0);
        return n > 0 ? std::string(buffer, static_cast<size_t>(n)) : std::string();
    }

    // Reads datagrams until one equal to text came (true) or timeout passed; counts the others.
    bool wait_for(const std::string& text, milliseconds timeout, std::map<std::string, int>* seen = nullptr) {
        const auto deadline = std::chrono::steady_clock::now() + timeout;
        while (std::chrono::steady_clock::now() < deadline) {
            const std::string message = next(milliseconds(100));
            if (message.empty()) continue;
            if (seen != nullptr) ++(*seen)[message];
            if (message == text) return true;
        }
        return false;
    }

private:
    std::string m_dir;
    std::string m_path;
    int m_fd = -1;
};

class AManagedProcess : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(m_socket.ok());
        ASSERT_TRUE(m_bus.start());
        m_keychain.reset(new CFakeKeychain(m_bus.address()));
        ASSERT_TRUE(m_keychain->start());
        char tmpl[] = "/tmp/cm-managed-XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(tmpl));
        m_dir = tmpl;
        std::ofstream(m_dir + "/default.json") << identity_defaults();
    }
    void TearDown() override {
        m_process.kill_and_reap();
        unlink((m_dir + "/default.json").c_str());
        rmdir(m_dir.c_str());
    }

    void start(const std::vector<std::string>& environment) {
        std::vector<std::string> env = {"CONFIG_MANAGER_BUS_ADDRESS=" + m_bus.address(),
                                        "NOTIFY_SOCKET=" + m_socket.path()};
        env.insert(env.end(), environment.begin(), environment.end());
        ASSERT_TRUE(m_process.start({CM_BINARY, m_dir + "/default.json"}, env)) << m_process.error();
    }

    bool owned(const std::string& name) {
        CBusClient client(m_bus.address());
        if (!client.connect()) return false;
        CCallBuilder call("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "NameHasOwner");
        call.str(name);
        const CRecordedMessage answer = client.call(call, 2000);
        return answer.args.size() == 1 && answer.args[0] == "1";
    }

    ANotifySocket m_socket;
    CPrivateBus m_bus;
    std::unique_ptr<CFakeKeychain> m_keychain;
    std::string m_dir;
    CChildProcess m_process;
};

}  // namespace

TEST_F(AManagedProcess, SaysReadyOnceBothNamesAreOwnedAndStoppingWhenItShutsDown) {
    start({});
    ASSERT_TRUE(m_socket.wait_for("READY=1", seconds(20))) << m_process.err();
    // Ready means served: both names are on the bus by then.
    EXPECT_TRUE(owned("iot.dmp.configmanager"));
    EXPECT_TRUE(owned("iot.dmp.config.adapter"));
    ASSERT_TRUE(m_process.signal(SIGTERM));
    std::map<std::string, int> seen;
    EXPECT_TRUE(m_socket.wait_for("STOPPING=1", seconds(10), &seen));
    ASSERT_TRUE(m_process.wait_exit(seconds(20)));
    EXPECT_EQ(0, m_process.exit_status());
    // Without a watchdog time-out from the manager, no WATCHDOG=1 is sent.
    EXPECT_EQ(0, seen["WATCHDOG=1"]);
}

TEST_F(AManagedProcess, FeedsTheManagersWatchdogAtHalfItsTimeOut) {
    // 400 ms: a ping every 200 ms or so from the configuration service's reader.
    start({"WATCHDOG_USEC=400000"});
    ASSERT_TRUE(m_socket.wait_for("READY=1", seconds(20))) << m_process.err();
    const auto begin = std::chrono::steady_clock::now();
    int pings = 0;
    while (pings < 5 && std::chrono::steady_clock::now() - begin < seconds(5)) {
        if (m_socket.next(milliseconds(500)) == "WATCHDOG=1") ++pings;
    }
    EXPECT_EQ(5, pings);
    // Five pings at 200 ms steps take about a second; far fewer in that time would let the
    // manager's time-out pass, far more would flood it.
    const long long took = elapsed_ms(begin);
    EXPECT_GE(took, 600);
    EXPECT_LE(took, 3000);
}
