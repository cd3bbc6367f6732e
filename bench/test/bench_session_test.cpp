// The session a peer runs in: its environment, its bus and the services the bus may start.
#include "bench_session.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <fstream>
#include <sstream>

#include "bench_bus.h"
#include "quorel/testsupport/wait.h"

using namespace Quorel::Iot::Bench;
using Quorel::Iot::Testing::wait_until;

namespace {

std::string variable(const char* name) {
    const char* value = getenv(name);
    return value != nullptr ? value : "(unset)";
}

std::string read_file(const std::string& path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

std::vector<std::string> activatable_names(DBusConnection* connection) {
    CMessage request = make_call({"org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus"},
                                 "ListActivatableNames", {});
    std::string error;
    CMessage reply = call(connection, request.get(), 5000, error);
    std::vector<std::string> names;
    char** raw = nullptr;
    int count = 0;
    CErrorGuard bus_error;
    if (reply && dbus_message_get_args(reply.get(), bus_error.get(), DBUS_TYPE_ARRAY, DBUS_TYPE_STRING, &raw, &count,
                                       DBUS_TYPE_INVALID)) {
        names.assign(raw, raw + count);
        dbus_free_string_array(raw);
    }
    std::sort(names.begin(), names.end());
    return names;
}

class ASession : public ::testing::Test {
protected:
    void SetUp() override {
        char tmpl[] = "/tmp/cm-bench-session-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        parent = tmpl;
        dir = parent + "/session";
        home_before = variable("HOME");
    }
    void TearDown() override {
        session.stop();
        setenv("HOME", home_before.c_str(), 1);
        const std::string command = "rm -rf '" + parent + "'";
        EXPECT_EQ(system(command.c_str()), 0);
    }

    std::string parent;
    std::string dir;
    std::string home_before;
    CIsolatedSession session;
    std::string error;
};

}  // namespace

TEST_F(ASession, PointsHomeAndTheXdgDirectoriesIntoItsDirectoryAndGivesThemBackWhenItEnds) {
    setenv("HOME", "/home/someone", 1);
    unsetenv("XDG_CONFIG_HOME");
    ASSERT_TRUE(session.start(dir, {}, error)) << error;
    EXPECT_EQ(variable("HOME"), dir + "/home");
    EXPECT_EQ(variable("XDG_CONFIG_HOME"), dir + "/config");
    EXPECT_EQ(variable("XDG_RUNTIME_DIR"), dir + "/runtime");
    EXPECT_EQ(variable("DBUS_SESSION_BUS_ADDRESS"), session.address());
    session.stop();
    EXPECT_EQ(variable("HOME"), "/home/someone");
    EXPECT_EQ(variable("XDG_CONFIG_HOME"), "(unset)");
}

TEST_F(ASession, StartsOnlyItsOwnServicesAndThoseSeeTheSessionsDirectories) {
    const std::string seen = parent + "/seen";
    const CActivatable probe{"bench.session.probe",
                             "/bin/sh -c 'echo $HOME $XDG_CONFIG_HOME $XDG_RUNTIME_DIR > " + seen + "'"};
    ASSERT_TRUE(session.start(dir, {probe}, error)) << error;
    CConnection client = open_connection(session.address(), "", error);
    ASSERT_TRUE(client) << error;
    // No service of the machine (such as the real dconf) can be started on this bus.
    EXPECT_EQ(activatable_names(client.get()),
              (std::vector<std::string>{"bench.session.probe", "org.freedesktop.DBus"}));
    // The probe never takes its name, so the start itself fails (late): what it saw is in the file.
    CMessage start = make_call({"org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus"},
                               "StartServiceByName", {probe.name});
    dbus_uint32_t flags = 0;
    ASSERT_TRUE(dbus_message_append_args(start.get(), DBUS_TYPE_UINT32, &flags, DBUS_TYPE_INVALID));
    ASSERT_TRUE(dbus_connection_send(client.get(), start.get(), nullptr));
    dbus_connection_flush(client.get());
    ASSERT_TRUE(wait_until([&] { return !read_file(seen).empty(); }));
    EXPECT_EQ(read_file(seen), dir + "/home " + dir + "/config " + dir + "/runtime\n");
}
