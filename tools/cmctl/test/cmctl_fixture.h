// A real config-manager on a private bus with the fake keychain, for running cmctl against it as a
// child process. One service per test; each test runs many commands on it.
#ifndef CMCTL_TEST_CMCTL_FIXTURE_H
#define CMCTL_TEST_CMCTL_FIXTURE_H

#include <gtest/gtest.h>
#include <json/json.h>

#include <memory>
#include <string>
#include <vector>

#include "quorel/testsupport/bus_client.h"
#include "quorel/testsupport/child_process.h"
#include "quorel/testsupport/fake_keychain.h"
#include "quorel/testsupport/private_bus.h"

namespace Quorel {
namespace Iot {
namespace Testing {

// The stored text of a key set with set_config_with_ts, as the service writes it.
std::string envelope(const std::string& data, unsigned long long ts);
std::string base64(const std::string& text);
// What follows the local time ("2023-11-14T22:13:20.000+00:00 ") that begins line, or "no time: "
// and the line when it does not begin with one in UTC.
std::string after_utc_time(const std::string& line);
// The lines of text, without their newlines.
std::vector<std::string> lines_of(const std::string& text);

// Runs cmctl with the given environment (no bus of any kind unless the arguments name one).
CProcessResult run_cmctl(const std::vector<std::string>& args, const std::vector<std::string>& environment,
                         const std::string& input = "");

class CCmctlTest : public ::testing::Test {
protected:
    // The service's default file: two plain keys and one with a timestamp (1700000000000).
    static std::string default_document();

    void SetUp() override;
    void TearDown() override;

    // cmctl ARGS against the service, in UTC.
    CProcessResult cmctl(const std::vector<std::string>& args, const std::string& input = "");
    // cmctl ARGS as a long-running child (watch, own, or a set left waiting).
    bool start_cmctl(CChildProcess& child, const std::vector<std::string>& args, bool with_stdin = false);
    std::vector<std::string> environment() const;

    // The subscription table as the service last saved it to the keychain (null if none).
    Json::Value saved_subscriptions() const;
    // Waits until the saved table does (or does not) hold name under key.
    bool wait_saved(const std::string& name, const std::string& key, bool present) const;
    // True when the saved table names name under no key at all.
    bool saved_nowhere(const std::string& name) const;
    bool name_has_owner(const std::string& name) const;
    // Waits until child's standard output holds at least n lines.
    static bool wait_lines(const CChildProcess& child, size_t n);
    // Waits until child's standard error holds text.
    static bool wait_err(const CChildProcess& child, const std::string& text);

    void stop_service();
    const std::string& address() const { return m_bus.address(); }

    CPrivateBus m_bus;
    // For asking the bus daemon about names; polled, so connected once.
    std::unique_ptr<CBusClient> m_daemon_client;
    std::unique_ptr<CFakeKeychain> m_keychain;
    CChildProcess m_service;
    std::string m_dir;
};

}  // namespace Testing
}  // namespace Iot
}  // namespace Quorel

#endif
