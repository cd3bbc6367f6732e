#include "quorel/dbus/dbus_message.h"

#include <cassert>
#include <cstdlib>
#include <cstring>

#include "quorel/log/log.h"

namespace Quorel {
namespace Iot {
namespace DBus {

namespace {
constexpr const char kLogFile[] = "core-services/config-manager/base/dbus/src/dbus_message.cpp";

std::string or_empty(const char* text) { return text != nullptr ? text : std::string(); }
}  // namespace

CDBusMessage::CDBusMessage(DBusMessage* message) : m_message(nullptr) { attach(message); }

CDBusMessage::CDBusMessage(int type) : m_message(nullptr) { adopt(dbus_message_new(type)); }

CDBusMessage::CDBusMessage(const CDBusMessage& other) : m_message(nullptr) { attach(other.m_message); }

CDBusMessage& CDBusMessage::operator=(const CDBusMessage& other) {
    if (other.m_message != m_message) {
        if (m_message != nullptr) dbus_message_unref(m_message);
        m_message = nullptr;
        attach(other.m_message);
    }
    // Even a self-assignment restarts reading: callers use it to read a reply a second time.
    reset_read();
    return *this;
}

CDBusMessage::~CDBusMessage() {
    if (m_message != nullptr) dbus_message_unref(m_message);
}

void CDBusMessage::attach(DBusMessage* message) {
    if (message != nullptr) dbus_message_ref(message);
    adopt(message);
}

void CDBusMessage::adopt(DBusMessage* message) {
    assert(m_message == nullptr);
    m_message = message;
    init_append();
}

void CDBusMessage::init_append() {
    m_append_iter = DBusMessageIter();
    if (m_message != nullptr) dbus_message_iter_init_append(m_message, &m_append_iter);
}

void CDBusMessage::reset_read() { m_read_started = false; }

int CDBusMessage::get_type() const {
    return m_message != nullptr ? dbus_message_get_type(m_message) : DBUS_MESSAGE_TYPE_INVALID;
}

std::string CDBusMessage::get_path() const {
    return m_message != nullptr ? or_empty(dbus_message_get_path(m_message)) : std::string();
}

std::string CDBusMessage::get_interface() const {
    return m_message != nullptr ? or_empty(dbus_message_get_interface(m_message)) : std::string();
}

std::string CDBusMessage::get_member() const {
    return m_message != nullptr ? or_empty(dbus_message_get_member(m_message)) : std::string();
}

std::string CDBusMessage::get_sender() const {
    return m_message != nullptr ? or_empty(dbus_message_get_sender(m_message)) : std::string();
}

std::string CDBusMessage::get_error_name() const {
    return m_message != nullptr ? or_empty(dbus_message_get_error_name(m_message)) : std::string();
}

uint32_t CDBusMessage::get_serial() const { return m_message != nullptr ? dbus_message_get_serial(m_message) : 0; }

uint32_t CDBusMessage::get_reply_serial() const {
    return m_message != nullptr ? dbus_message_get_reply_serial(m_message) : 0;
}

bool CDBusMessage::get_next_iter(int type) {
    if (m_message == nullptr) return false;
    if (!m_read_started) {
        // The iterator counts as started even when the message has no arguments, so the next read
        // reports "has_next" rather than trying to initialise again.
        m_read_started = true;
        if (!dbus_message_iter_init(m_message, &m_read_iter)) {
            QLOG(3, "get_next_iter dbus_message_iter_init fail.");
            return false;
        }
    } else {
        if (!dbus_message_iter_has_next(&m_read_iter)) {
            QLOG(3, "get_next_iter dbus_message_iter_has_next fail.");
            return false;
        }
        if (!dbus_message_iter_next(&m_read_iter)) {
            QLOG(3, "get_next_iter dbus_message_iter_next fail.");
            return false;
        }
    }
    if (dbus_message_iter_get_arg_type(&m_read_iter) != type) {
        QLOG(3, "get_next_iter dbus_message_iter_get_arg_type fail.");
        return false;
    }
    return true;
}

bool CDBusMessage::read_basic(int type, void* value) {
    if (m_message == nullptr || !get_next_iter(type)) return false;
    dbus_message_iter_get_basic(&m_read_iter, value);
    return true;
}

bool CDBusMessage::append_basic(int type, const void* value) {
    if (m_message == nullptr) return false;
    return dbus_message_iter_append_basic(&m_append_iter, type, value);
}

bool CDBusMessage::get_string(std::string& value) {
    const char* text = nullptr;
    if (!read_basic(DBUS_TYPE_STRING, &text)) return false;
    value = or_empty(text);
    return true;
}

bool CDBusMessage::get_int32(int32_t& value) {
    dbus_int32_t number = 0;
    if (!read_basic(DBUS_TYPE_INT32, &number)) return false;
    value = number;
    return true;
}

bool CDBusMessage::get_uint64(uint64_t& value) {
    dbus_uint64_t number = 0;
    if (!read_basic(DBUS_TYPE_UINT64, &number)) return false;
    value = number;
    return true;
}

bool CDBusMessage::get_array(uint8_t*& data, int32_t& length) {
    if (m_message == nullptr || !get_next_iter(DBUS_TYPE_ARRAY)) return false;
    DBusMessageIter elements;
    dbus_message_iter_recurse(&m_read_iter, &elements);
    const void* items = nullptr;
    int count = 0;
    // Only fixed-size element types are readable; libdbus leaves items null for any other, and
    // ends the process for file descriptors, which it counts as fixed all the same.
    const int element_type = dbus_message_iter_get_arg_type(&elements);
    if (dbus_type_is_fixed(element_type) && element_type != DBUS_TYPE_UNIX_FD) {
        dbus_message_iter_get_fixed_array(&elements, &items, &count);
    }
    if (items == nullptr || count <= 0) {
        QLOG(3, "get_array dbus_message_iter_get_fixed_array fail.");
        return false;
    }
    uint8_t* copy = static_cast<uint8_t*>(std::malloc(static_cast<size_t>(count)));
    std::memcpy(copy, items, static_cast<size_t>(count));
    data = copy;
    length = count;
    return true;
}

bool CDBusMessage::set_string(const std::string& value) {
    if (m_message == nullptr) return false;
    // libdbus ends the process on a string argument that is not UTF-8; stored values and cloud
    // documents can hold such text, so it is refused here rather than trusted to every caller.
    if (!dbus_validate_utf8(value.c_str(), nullptr)) {
        QLOG(3, "set_string, text is not valid UTF-8.");
        return false;
    }
    const char* text = value.c_str();
    return append_basic(DBUS_TYPE_STRING, &text);
}

bool CDBusMessage::set_int32(int32_t value) {
    const dbus_int32_t number = value;
    return append_basic(DBUS_TYPE_INT32, &number);
}

bool CDBusMessage::set_uint64(uint64_t value) {
    const dbus_uint64_t number = value;
    return append_basic(DBUS_TYPE_UINT64, &number);
}

bool CDBusMessage::set_array(const uint8_t* data, uint32_t length) {
    if (m_message == nullptr) return false;
    DBusMessageIter elements;
    if (!dbus_message_iter_open_container(&m_append_iter, DBUS_TYPE_ARRAY, DBUS_TYPE_BYTE_AS_STRING, &elements)) {
        QLOG(3, "set_array dbus_message_iter_open_container fail.");
        return false;
    }
    if (!dbus_message_iter_append_fixed_array(&elements, DBUS_TYPE_BYTE, &data, static_cast<int>(length))) {
        QLOG(3, "set_array dbus_message_iter_append_fixed_array fail.");
        // Leaves the message as it was, so the holder stays usable for further writes.
        dbus_message_iter_abandon_container(&m_append_iter, &elements);
        return false;
    }
    if (!dbus_message_iter_close_container(&m_append_iter, &elements)) {
        QLOG(3, "set_array dbus_message_iter_close_container fail.");
        return false;
    }
    return true;
}

CDBusMethodCall::CDBusMethodCall(DBusMessage* message) : CDBusMessage(message) {}

CDBusMethodCall::CDBusMethodCall() : CDBusMessage(DBUS_MESSAGE_TYPE_METHOD_CALL) {}

CDBusMethodCall::CDBusMethodCall(const std::string& destination, const std::string& path, const std::string& interface,
                                 const std::string& method) {
    // An empty destination is a call without one (peer-to-peer or to the bus's default).
    adopt(dbus_message_new_method_call(destination.empty() ? nullptr : destination.c_str(), path.c_str(),
                                       interface.empty() ? nullptr : interface.c_str(), method.c_str()));
}

CDBusMethodReturn::CDBusMethodReturn(DBusMessage* message) : CDBusMessage(message) {}

CDBusMethodReturn::CDBusMethodReturn() : CDBusMessage(DBUS_MESSAGE_TYPE_METHOD_RETURN) {}

bool CDBusMethodReturn::is_method_return() const { return get_type() == DBUS_MESSAGE_TYPE_METHOD_RETURN; }

CDBusSignal::CDBusSignal(DBusMessage* message) : CDBusMessage(message) {}

CDBusSignal::CDBusSignal() : CDBusMessage(DBUS_MESSAGE_TYPE_SIGNAL) {}

CDBusSignal::CDBusSignal(const std::string& path, const std::string& interface, const std::string& member) {
    adopt(dbus_message_new_signal(path.c_str(), interface.c_str(), member.c_str()));
}

}  // namespace DBus
}  // namespace Iot
}  // namespace Quorel
