// CAdapterGate: the only way the adapter's detached threads reach the adapter's bus handle.
//
// The adapter's subscription and shadow threads are never joined and outlive the adapter object
// (its stop does nothing), so they must learn, under a lock, that the adapter is gone before
// they touch its handle. A thread enters the gate around everything it does between two waits
// (bus calls and logging included) and leaves afterwards; the adapter's destructor closes the
// gate, which refuses new entries, makes every further call through the gate fail at once with
// -1 (the handle's own "not connected" code), and waits until every thread inside has left.
// Once close returns, the threads touch nothing but the shared core that holds this gate.
#ifndef QUOREL_CONFIGMANAGER_CONFIG_ADAPTER_GATE_H
#define QUOREL_CONFIGMANAGER_CONFIG_ADAPTER_GATE_H

#include <pthread.h>

#include <cstdint>

#include "quorel/dbus/dbus_message.h"
#include "quorel/dbus/dbus_server.h"

namespace Quorel {
namespace Iot {
namespace Configmanager {

class CAdapterGate {
public:
    explicit CAdapterGate(DBus::CDBusServer* server);
    ~CAdapterGate();
    CAdapterGate(const CAdapterGate&) = delete;
    CAdapterGate& operator=(const CAdapterGate&) = delete;

    // False once the gate is closed; every successful enter needs one leave.
    bool enter();
    void leave();
    bool is_open();
    // Called once, by the adapter's destructor; returns when nobody is inside any more.
    void close();

    // The server's calls, or -1 without touching the server once the gate is closed.
    int32_t block_call(DBus::CDBusMessage& request, DBus::CDBusMessage& reply, uint32_t timeout_ms);
    // Fire and forget: no user data, an empty completion.
    int32_t unblock_call(DBus::CDBusMessage& request);

private:
    DBus::CDBusServer* acquire();

    pthread_mutex_t m_mutex;
    pthread_cond_t m_left;  // signalled when m_inside drops to 0

    // Guarded by m_mutex.
    DBus::CDBusServer* m_server;  // null once closed
    uint32_t m_inside;            // threads between enter and leave
};

// Scoped entry: test it before use, it leaves on destruction when it entered.
class CAdapterPass {
public:
    explicit CAdapterPass(CAdapterGate& gate) : m_gate(gate), m_entered(gate.enter()) {}
    ~CAdapterPass() {
        if (m_entered) m_gate.leave();
    }
    CAdapterPass(const CAdapterPass&) = delete;
    CAdapterPass& operator=(const CAdapterPass&) = delete;

    explicit operator bool() const { return m_entered; }

private:
    CAdapterGate& m_gate;
    bool m_entered;
};

}  // namespace Configmanager
}  // namespace Iot
}  // namespace Quorel

#endif
