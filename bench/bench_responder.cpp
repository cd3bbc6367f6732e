#include "bench_responder.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <vector>

#include "bench_bus.h"

namespace Quorel {
namespace Iot {
namespace Bench {

const char kEchoMode[] = "--echo";
const char kObserverMode[] = "--observer";

namespace {

// What the service does for a set with observers, and nothing more: one no-reply notify_config
// call to each observer with the key and value.
void notify(DBusConnection* connection, DBusMessage* request, const std::vector<std::string>& observers) {
    const char* key = nullptr;
    const char* value = nullptr;
    if (!dbus_message_get_args(request, nullptr, DBUS_TYPE_STRING, &key, DBUS_TYPE_STRING, &value, DBUS_TYPE_INVALID)) {
        return;
    }
    for (const std::string& observer : observers) {
        CMessage call = make_call(subscriber_target(observer), "notify_config", {key, value});
        if (!call) continue;
        dbus_message_set_no_reply(call.get(), TRUE);
        dbus_connection_send(connection, call.get(), nullptr);
    }
}

CMessage answer(DBusMessage* request, bool echo, const std::string& value, dbus_int32_t& notified) {
    CMessage reply(dbus_message_new_method_return(request));
    if (!reply) return nullptr;
    const char* member = dbus_message_get_member(request);
    member = member != nullptr ? member : "";
    dbus_int32_t code = 0;
    if (echo && strcmp(member, "get_config") == 0) {
        const char* raw = value.c_str();
        dbus_message_append_args(reply.get(), DBUS_TYPE_INT32, &code, DBUS_TYPE_STRING, &raw, DBUS_TYPE_INVALID);
    } else if (echo && strcmp(member, "set_config") == 0) {
        dbus_message_append_args(reply.get(), DBUS_TYPE_INT32, &code, DBUS_TYPE_INVALID);
    } else if (!echo && strcmp(member, "notify_config") == 0) {
        ++notified;
        dbus_message_append_args(reply.get(), DBUS_TYPE_INT32, &code, DBUS_TYPE_INVALID);
    } else if (!echo && strcmp(member, "notify_count") == 0) {
        dbus_message_append_args(reply.get(), DBUS_TYPE_INT32, &code, DBUS_TYPE_INT32, &notified, DBUS_TYPE_INVALID);
    }
    return reply;
}

}  // namespace

int run_responder(int argc, char** argv) {
    if (argc < 3) {
        fprintf(stderr, "usage: cm-bench %s|%s ADDRESS NAME [VALUE]\n", kEchoMode, kObserverMode);
        return 1;
    }
    const bool echo = strcmp(argv[0], kEchoMode) == 0;
    const std::string value = argc > 3 ? argv[3] : "";
    const std::vector<std::string> observers(argv + std::min(argc, 4), argv + argc);
    std::string error;
    CConnection connection = open_connection(argv[1], argv[2], error);
    if (!connection) {
        fprintf(stderr, "cm-bench %s: %s\n", argv[0], error.c_str());
        return 1;
    }
    dbus_int32_t notified = 0;
    // Exactly what the bus costs: read, answer at once, nothing else. A call that asks for no
    // answer (the service's notifications do) gets none, as sd-bus and GDBus services behave: an
    // answer nobody asked for is only refused by the bus daemon, at the cost of the whole bus.
    while (dbus_connection_read_write(connection.get(), -1)) {
        while (CMessage request{dbus_connection_pop_message(connection.get())}) {
            if (dbus_message_get_type(request.get()) != DBUS_MESSAGE_TYPE_METHOD_CALL) continue;
            const char* member = dbus_message_get_member(request.get());
            if (echo && !observers.empty() && member != nullptr && strcmp(member, "set_config") == 0) {
                notify(connection.get(), request.get(), observers);
            }
            CMessage reply = answer(request.get(), echo, value, notified);
            if (reply && !dbus_message_get_no_reply(request.get())) {
                dbus_connection_send(connection.get(), reply.get(), nullptr);
            }
        }
    }
    return 0;
}

}  // namespace Bench
}  // namespace Iot
}  // namespace Quorel
