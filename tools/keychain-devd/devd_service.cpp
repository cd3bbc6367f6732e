#include "devd_service.h"

#include <string.h>

#include "quorel/keychain/keychain_wire.h"
#include "quorel/log/log.h"

namespace {

constexpr const char kLogFile[] = "core-services/config-manager/tools/keychain-devd/devd_service";

namespace Wire = Quorel::Iot::Keychain;

// This service's answer when the data directory lets it down.
constexpr int32_t kResultStoreFailed = -65533;

using Wire::CBusError;

}  // namespace

CDevService::CDevService(CItemStore& store) : m_store(store) {}

bool CDevService::connect(const std::string& address) {
    CBusError error;
    m_connection.reset(dbus_connection_open_private(address.c_str(), error.get()));
    if (!m_connection) {
        QLOG(3, "connect, cannot open %s: %s", address.c_str(), error.message());
        return false;
    }
    dbus_connection_set_exit_on_disconnect(m_connection.get(), FALSE);
    if (!dbus_bus_register(m_connection.get(), error.get())) {
        QLOG(3, "connect, cannot register: %s", error.message());
        return false;
    }
    const int owned =
        dbus_bus_request_name(m_connection.get(), Wire::kServiceName, DBUS_NAME_FLAG_DO_NOT_QUEUE, error.get());
    if (owned != DBUS_REQUEST_NAME_REPLY_PRIMARY_OWNER) {
        QLOG(3, "connect, %s is not ours (%d): %s", Wire::kServiceName, owned, error.message());
        return false;
    }
    QLOG(1, "connect, serving %s on %s", Wire::kServiceName, address.c_str());
    return true;
}

bool CDevService::run(const volatile sig_atomic_t& stop) {
    while (stop == 0) {
        if (!dbus_connection_read_write(m_connection.get(), 100)) {
            QLOG(3, "run, lost the bus");
            return false;
        }
        while (DBusMessage* message = dbus_connection_pop_message(m_connection.get())) {
            if (dbus_message_get_type(message) == DBUS_MESSAGE_TYPE_METHOD_CALL) {
                // Built and finished with the client's segment before it goes out: the client
                // removes the segment as soon as it has the reply.
                if (DBusMessage* reply = answer(message)) {
                    dbus_connection_send(m_connection.get(), reply, nullptr);
                    dbus_message_unref(reply);
                }
            }
            dbus_message_unref(message);
        }
    }
    dbus_connection_flush(m_connection.get());
    return true;
}

DBusMessage* CDevService::answer(DBusMessage* call) {
    const char* interface = dbus_message_get_interface(call);
    const char* member = dbus_message_get_member(call);
    const bool ours = interface == nullptr || strcmp(interface, Wire::kInterface) == 0;
    if (ours && strcmp(member, Wire::kAddKey) == 0) return handle_add(call);
    if (ours && strcmp(member, Wire::kGetKey) == 0) return handle_get(call);
    if (dbus_message_get_no_reply(call)) return nullptr;
    return dbus_message_new_error_printf(call, DBUS_ERROR_UNKNOWN_METHOD, "%s is not served here", member);
}

DBusMessage* CDevService::handle_add(DBusMessage* call) {
    Wire::CAddRequest request;
    if (!Wire::read_add_request(call, request)) {
        QLOG(3, "handle_add, malformed call");
        return Wire::reply_ints(call, {KC_ERR_BAD_PARAMS});
    }
    if (request.type < 0 || request.type > 255) return Wire::reply_ints(call, {KC_ERR_BAD_PARAMS});
    QLOG(1, "handle_add, %s from %s, %zu bytes", request.name.c_str(), request.exe_path.c_str(), request.bytes.size());
    const bool saved = m_store.save(request.name, request.bytes, request.type);
    return Wire::reply_ints(call, {saved ? KC_SUCCESS : kResultStoreFailed});
}

DBusMessage* CDevService::handle_get(DBusMessage* call) {
    Wire::CGetRequest request;
    if (!request.read(call)) {
        QLOG(3, "handle_get, malformed call");
        return Wire::reply_ints(call, {KC_ERR_BAD_PARAMS, 0, 0});
    }
    std::string bytes;
    int32_t type = 0;
    switch (m_store.load(request.name(), bytes, type)) {
        case CItemStore::Load::Found:
            QLOG(0, "handle_get, %s for %s", request.name().c_str(), request.exe_path().c_str());
            return request.answer(call, &bytes, type);
        case CItemStore::Load::Absent:
            return request.answer(call, nullptr, 0);
        case CItemStore::Load::Failed:
            break;
    }
    return Wire::reply_ints(call, {kResultStoreFailed, 0, 0});
}
