#include "quorel/dbus/dbus_server.h"

#include "dbus_error_guard.h"
#include "quorel/dbus/dbus_internal_handle.h"

namespace Quorel {
namespace Iot {
namespace DBus {

CDBusServer::CDBusServer(const std::string& address, const std::string& name, const std::list<std::string>& rules)
    : m_handle(new CDBusInternalHandle(this, address, name, rules)) {}

CDBusServer::~CDBusServer() { delete m_handle; }

int32_t CDBusServer::connect_to_bus() { return m_handle->connect_to_bus(); }

void CDBusServer::disconnect() { m_handle->disconnect(); }

void CDBusServer::set_watchdog(const std::string& path, const std::string& id, uint32_t interval_s) {
    m_handle->set_watchdog(path, id, interval_s);
}

int32_t CDBusServer::block_call(CDBusMessage& request, CDBusMessage& reply, uint32_t timeout_ms) {
    return m_handle->block_call(request, reply, timeout_ms);
}

int32_t CDBusServer::unblock_call(CDBusMessage& request, void* user_data, const DBusCallback& callback) {
    return m_handle->unblock_call(request, user_data, callback);
}

int32_t CDBusServer::send_no_reply(CDBusMessage& request) { return m_handle->send_no_reply(request); }

void CDBusServer::stop_reading() { m_handle->stop_reading(); }

bool CDBusServer::send_dbus_reply(CDBusMessage& reply) { return m_handle->send_dbus_reply(reply); }

bool CDBusServer::is_connected() const { return m_handle->is_connected(); }

bool CDBusServer::validate_bus_name(const std::string& name) {
    CDBusErrorGuard error;
    const dbus_bool_t valid = dbus_validate_bus_name(name.c_str(), error.get());
    if (CDBusInternalHandle::check_and_abort(error.get()) != 0) return false;
    return valid;
}

}  // namespace DBus
}  // namespace Iot
}  // namespace Quorel
