#include "quorel/dbus/dbus_message.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>

#include "quorel/testsupport/log_capture.h"

using Quorel::Iot::DBus::CDBusMessage;
using Quorel::Iot::DBus::CDBusMethodCall;
using Quorel::Iot::DBus::CDBusMethodReturn;
using Quorel::Iot::DBus::CDBusSignal;
using Quorel::Iot::Testing::CLogCapture;

namespace {

constexpr const char kArgTypeFail[] = "get_next_iter dbus_message_iter_get_arg_type fail.";
constexpr const char kInitFail[] = "get_next_iter dbus_message_iter_init fail.";
constexpr const char kHasNextFail[] = "get_next_iter dbus_message_iter_has_next fail.";
constexpr const char kFixedArrayFail[] = "get_array dbus_message_iter_get_fixed_array fail.";

CDBusMethodCall string_and_int_call() {
    CDBusMethodCall call("iot.dmp.configmanager", "/iot/dmp/configmanager", "iot.dmp.configmanager", "set_config");
    EXPECT_TRUE(call.set_string("gw_key"));
    EXPECT_TRUE(call.set_int32(-42));
    return call;
}

// Observes when libdbus frees a message, i.e. when its last reference is dropped.
class CFreeWatch {
public:
    explicit CFreeWatch(DBusMessage* message) {
        dbus_message_allocate_data_slot(&m_slot);
        dbus_message_set_data(message, m_slot, &m_freed, [](void* flag) { *static_cast<bool*>(flag) = true; });
    }
    ~CFreeWatch() { dbus_message_free_data_slot(&m_slot); }
    bool freed() const { return m_freed; }

private:
    dbus_int32_t m_slot = -1;
    bool m_freed = false;
};

}  // namespace

TEST(AMessage, ReadsAStringAndAnInt32InTheOrderTheyWereWritten) {
    CDBusMethodCall call = string_and_int_call();
    std::string key;
    int32_t number = 0;
    EXPECT_TRUE(call.get_string(key));
    EXPECT_TRUE(call.get_int32(number));
    EXPECT_EQ(key, "gw_key");
    EXPECT_EQ(number, -42);
    EXPECT_EQ(call.get_member(), "set_config");
    EXPECT_EQ(call.get_path(), "/iot/dmp/configmanager");
    EXPECT_EQ(call.get_interface(), "iot.dmp.configmanager");
}

TEST(AMessage, RejectsAnInt32WhereAStringIsExpectedAndConsumesIt) {
    CLogCapture log;
    CDBusMethodCall call = string_and_int_call();
    int32_t number = 7;
    std::string text = "untouched";
    EXPECT_FALSE(call.get_int32(number));
    EXPECT_EQ(log.count(kArgTypeFail), 1u);
    // The failed check moved on: the next read meets the int32 and fails as well.
    EXPECT_FALSE(call.get_string(text));
    EXPECT_EQ(log.count(kArgTypeFail), 2u);
    EXPECT_EQ(number, 7);
    EXPECT_EQ(text, "untouched");
    for (const auto& line : log.lines()) {
        EXPECT_EQ(line.level, 3);
        EXPECT_EQ(line.file, "core-services/config-manager/base/dbus/src/dbus_message.cpp");
        EXPECT_EQ(line.function, "get_next_iter");
    }
}

TEST(AMessage, WithoutArgumentsFailsToInitialiseThenFailsToAdvance) {
    CLogCapture log;
    CDBusMethodReturn reply;
    std::string text;
    EXPECT_FALSE(reply.get_string(text));
    EXPECT_EQ(log.count(kInitFail), 1u);
    EXPECT_FALSE(reply.get_string(text));
    EXPECT_EQ(log.count(kHasNextFail), 1u);
    EXPECT_EQ(log.count(kInitFail), 1u);
}

TEST(AMessage, FailsToReadOnePastTheLastArgument) {
    CLogCapture log;
    CDBusMethodCall call = string_and_int_call();
    std::string key;
    int32_t number = 0;
    ASSERT_TRUE(call.get_string(key));
    ASSERT_TRUE(call.get_int32(number));
    EXPECT_FALSE(call.get_int32(number));
    EXPECT_EQ(log.count(kHasNextFail), 1u);
}

TEST(AMessage, RoundTripsAByteArray) {
    const uint8_t bytes[] = {0x00, 0x7f, 0x80, 0xff, 0x10};
    CDBusSignal signal("/iot/test", "iot.test", "blob");
    ASSERT_TRUE(signal.set_array(bytes, sizeof(bytes)));
    ASSERT_TRUE(signal.set_string("after"));
    uint8_t* data = nullptr;
    int32_t length = 0;
    ASSERT_TRUE(signal.get_array(data, length));
    ASSERT_EQ(length, static_cast<int32_t>(sizeof(bytes)));
    EXPECT_EQ(0, std::memcmp(data, bytes, sizeof(bytes)));
    std::free(data);
    std::string after;
    EXPECT_TRUE(signal.get_string(after));
    EXPECT_EQ(after, "after");
}

TEST(AMessage, ReportsAnEmptyByteArrayAsAFailure) {
    CLogCapture log;
    CDBusMethodReturn reply;
    ASSERT_TRUE(reply.set_array(nullptr, 0));
    uint8_t* data = nullptr;
    int32_t length = -1;
    EXPECT_FALSE(reply.get_array(data, length));
    EXPECT_EQ(data, nullptr);
    EXPECT_EQ(length, -1);
    EXPECT_EQ(log.count(kFixedArrayFail), 1u);
}

TEST(AMessage, RoundTripsTheFullUint64Range) {
    CDBusMethodReturn reply;
    ASSERT_TRUE(reply.set_uint64(0));
    ASSERT_TRUE(reply.set_uint64(UINT64_MAX));
    ASSERT_TRUE(reply.set_uint64(1700000000123ull));
    uint64_t values[3] = {1, 1, 1};
    for (uint64_t& value : values) EXPECT_TRUE(reply.get_uint64(value));
    EXPECT_EQ(values[0], 0u);
    EXPECT_EQ(values[1], UINT64_MAX);
    EXPECT_EQ(values[2], 1700000000123ull);
}

TEST(AMessage, AssignedToItselfKeepsItsReferenceAndRestartsReading) {
    DBusMessage* raw = dbus_message_new_signal("/iot/test", "iot.test", "pair");
    CFreeWatch watch(raw);
    {
        CDBusSignal signal(raw);
        ASSERT_TRUE(signal.set_string("gw_key"));
        std::string key;
        ASSERT_TRUE(signal.get_string(key));
        CDBusMessage& same = signal;
        signal = same;
        key.clear();
        EXPECT_TRUE(signal.get_string(key));
        EXPECT_EQ(key, "gw_key");
    }
    // The holder gave back exactly the one reference it took.
    EXPECT_FALSE(watch.freed());
    dbus_message_unref(raw);
    EXPECT_TRUE(watch.freed());
}

TEST(AMessage, CopiedOrAssignedSharesTheMessageAndReadsFromTheStart) {
    CDBusMethodCall call = string_and_int_call();
    CFreeWatch watch(call.get_message());
    std::string key;
    ASSERT_TRUE(call.get_string(key));
    CDBusMessage shared(call);
    EXPECT_EQ(shared.get_message(), call.get_message());
    {
        CDBusMethodReturn holder(call.get_message());
        shared = holder;  // the same message: no reference taken or dropped
        std::string again;
        EXPECT_TRUE(shared.get_string(again));
        EXPECT_EQ(again, "gw_key");
    }
    call = CDBusMethodCall();
    EXPECT_FALSE(watch.freed());  // still held by shared
    shared = CDBusMessage(static_cast<DBusMessage*>(nullptr));
    EXPECT_TRUE(watch.freed());
    EXPECT_TRUE(shared.empty());
}

TEST(AnEmptyHolder, AnswersEveryReaderAndWriterWithFalse) {
    CLogCapture log;
    CDBusMessage empty(static_cast<DBusMessage*>(nullptr));
    std::string text;
    int32_t number = 0;
    uint64_t big = 0;
    uint8_t* data = nullptr;
    int32_t length = 0;
    EXPECT_FALSE(empty.get_string(text));
    EXPECT_FALSE(empty.get_int32(number));
    EXPECT_FALSE(empty.get_uint64(big));
    EXPECT_FALSE(empty.get_array(data, length));
    EXPECT_FALSE(empty.set_string("x"));
    EXPECT_FALSE(empty.set_int32(1));
    EXPECT_FALSE(empty.set_uint64(1));
    EXPECT_FALSE(empty.set_array(reinterpret_cast<const uint8_t*>("x"), 1));
    EXPECT_EQ(empty.get_member(), "");
    EXPECT_TRUE(log.lines().empty());
}

TEST(AMethodReturn, TellsAReplyFromAnErrorReply) {
    CDBusMethodCall call = string_and_int_call();
    dbus_message_set_serial(call.get_message(), 9);
    DBusMessage* error = dbus_message_new_error(call.get_message(), "iot.test.Failed", "no");
    CDBusMethodReturn error_reply(error);
    dbus_message_unref(error);
    EXPECT_FALSE(error_reply.is_method_return());
    EXPECT_EQ(error_reply.get_error_name(), "iot.test.Failed");
    EXPECT_EQ(error_reply.get_reply_serial(), 9u);

    CDBusMethodReturn bare;
    EXPECT_TRUE(bare.is_method_return());
    EXPECT_EQ(bare.get_reply_serial(), 0u);
    EXPECT_EQ(dbus_message_get_destination(bare.get_message()), nullptr);
    EXPECT_FALSE(CDBusMethodReturn(nullptr).is_method_return());
}
