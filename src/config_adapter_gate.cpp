#include "config_adapter_gate.h"

#include <cassert>

namespace Quorel {
namespace Iot {
namespace Configmanager {

CAdapterGate::CAdapterGate(DBus::CDBusServer* server) : m_server(server), m_inside(0) {
    int ret = pthread_mutex_init(&m_mutex, nullptr);
    assert(0 == ret);
    ret = pthread_cond_init(&m_left, nullptr);
    assert(0 == ret);
    (void)ret;
}

CAdapterGate::~CAdapterGate() {
    pthread_cond_destroy(&m_left);
    pthread_mutex_destroy(&m_mutex);
}

bool CAdapterGate::enter() { return acquire() != nullptr; }

DBus::CDBusServer* CAdapterGate::acquire() {
    pthread_mutex_lock(&m_mutex);
    DBus::CDBusServer* server = m_server;
    if (server != nullptr) ++m_inside;
    pthread_mutex_unlock(&m_mutex);
    return server;
}

void CAdapterGate::leave() {
    pthread_mutex_lock(&m_mutex);
    assert(m_inside > 0);
    if (--m_inside == 0) pthread_cond_broadcast(&m_left);
    pthread_mutex_unlock(&m_mutex);
}

bool CAdapterGate::is_open() {
    pthread_mutex_lock(&m_mutex);
    const bool open = m_server != nullptr;
    pthread_mutex_unlock(&m_mutex);
    return open;
}

void CAdapterGate::close() {
    pthread_mutex_lock(&m_mutex);
    m_server = nullptr;
    while (m_inside > 0) pthread_cond_wait(&m_left, &m_mutex);
    pthread_mutex_unlock(&m_mutex);
}

int32_t CAdapterGate::block_call(DBus::CDBusMessage& request, DBus::CDBusMessage& reply, uint32_t timeout_ms) {
    DBus::CDBusServer* server = acquire();
    if (server == nullptr) return -1;
    const int32_t ret = server->block_call(request, reply, timeout_ms);
    leave();
    return ret;
}

int32_t CAdapterGate::unblock_call(DBus::CDBusMessage& request) {
    DBus::CDBusServer* server = acquire();
    if (server == nullptr) return -1;
    const int32_t ret = server->unblock_call(request, nullptr, DBus::DBusCallback());
    leave();
    return ret;
}

}  // namespace Configmanager
}  // namespace Iot
}  // namespace Quorel
