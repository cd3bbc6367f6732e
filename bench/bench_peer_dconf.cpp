// Compiled only when libdconf was found.
#include "bench_peer_dconf.h"

#include <dconf.h>
#include <unistd.h>

#include "bench_fixture.h"
#include "bench_session.h"

namespace Quorel {
namespace Iot {
namespace Bench {

namespace {

const char kDconfName[] = "ca.desrt.dconf";

std::string take_message(GError* error) {
    const std::string text = error != nullptr ? error->message : "unknown error";
    if (error != nullptr) g_error_free(error);
    return text;
}

}  // namespace

const char kDconfService[] = "/usr/libexec/dconf-service";

struct CDconfPeer::CState {
    CIsolatedSession session;
    GDBusConnection* bus = nullptr;
    DConfClient* client = nullptr;
};

CDconfPeer::CDconfPeer() : m_state(new CState) {}

CDconfPeer::~CDconfPeer() { stop(); }

std::string CDconfPeer::missing() {
    if (access(kDconfService, X_OK) != 0) {
        return std::string(kDconfService) + " is missing (Debian package dconf-service)";
    }
    if (find_in_path("dbus-daemon").empty()) return "dbus-daemon is not in PATH";
    return "";
}

bool CDconfPeer::start(const std::string& dir, std::string& error) {
    CIsolatedSession& session = m_state->session;
    // Only the user's own database: no system profile or system databases of this machine.
    const std::string profile = dir + ".profile";
    if (!write_text_file(profile, "user-db:user\n", error)) return false;
    session.set_variable("DCONF_PROFILE", profile);
    if (!session.start(dir, {{kDconfName, kDconfService}}, error)) return false;
    // The client talks through the process's shared session connection, which by default
    // raises SIGTERM when its bus goes away: taking it first and holding it lets the session end
    // without ending the benchmark.
    GError* failure = nullptr;
    m_state->bus = g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, &failure);
    if (m_state->bus == nullptr) {
        error = "cannot connect to the dconf session bus: " + take_message(failure);
        return false;
    }
    g_dbus_connection_set_exit_on_close(m_state->bus, FALSE);
    m_state->client = dconf_client_new();
    if (m_state->client == nullptr) {
        error = "dconf_client_new failed";
        return false;
    }
    return true;
}

bool CDconfPeer::write(const std::string& key, const std::string& value, std::string& error) {
    GError* failure = nullptr;
    if (dconf_client_write_sync(m_state->client, key.c_str(), g_variant_new_string(value.c_str()), nullptr, nullptr,
                                &failure)) {
        return true;
    }
    error = "dconf write of " + key + ": " + take_message(failure);
    return false;
}

bool CDconfPeer::write_all(const std::vector<std::pair<std::string, std::string>>& values, std::string& error) {
    DConfChangeset* change = dconf_changeset_new();
    for (const auto& kv : values)
        dconf_changeset_set(change, kv.first.c_str(), g_variant_new_string(kv.second.c_str()));
    GError* failure = nullptr;
    const bool written = dconf_client_change_sync(m_state->client, change, nullptr, nullptr, &failure);
    dconf_changeset_unref(change);
    if (!written) error = "dconf change of " + std::to_string(values.size()) + " keys: " + take_message(failure);
    return written;
}

bool CDconfPeer::read(const std::string& key, std::string& value) {
    GVariant* found = dconf_client_read(m_state->client, key.c_str());
    if (found == nullptr) return false;
    const bool is_string = g_variant_is_of_type(found, G_VARIANT_TYPE_STRING);
    if (is_string) value = g_variant_get_string(found, nullptr);
    g_variant_unref(found);
    return is_string;
}

std::string CDconfPeer::database_path() const { return m_state->session.config_home() + "/dconf/user"; }

void CDconfPeer::stop() {
    if (m_state->client != nullptr) {
        g_object_unref(m_state->client);
        m_state->client = nullptr;
    }
    if (m_state->bus != nullptr) {
        g_dbus_connection_close_sync(m_state->bus, nullptr, nullptr);
        g_object_unref(m_state->bus);
        m_state->bus = nullptr;
    }
    m_state->session.stop();
}

}  // namespace Bench
}  // namespace Iot
}  // namespace Quorel
