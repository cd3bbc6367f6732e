#include "quorel/dbus/dbus_message.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>

#include "quorel/testsupport/log_capture.h"

using namespace Quorel::Iot::DBus;
using Quorel::Iot::Testing::CLogCapture;

namespace {

constexpr const char kArgTypeFail[] = "get_next_iter dbus_message_iter_get_arg_type fail.";
constexpr const char kHasNextFail[] = "get_next_iter dbus_message_iter_has_next fail.";

CDBusMethodCall string_and_int_call() {
    CDBusMethodCall call("iot.dmp.configmanager", "/iot/dmp/configmanager", "iot.dmp.configmanager", "set_config");
    EXPECT_TRUE(call.set_string("gw_key") && call.set_int32(-42));
    return call;
}

// Observes when libdbus frees a message, i.e. when its last reference is dropped.
struct CFreeWatch {
    explicit CFreeWatch(DBusMessage* message) {
        dbus_message_allocate_data_slot(&slot);
        dbus_message_set_data(message, slot, &freed, [](void* flag) { *static_cast<bool*>(flag) = true; });
    }
    ~CFreeWatch() { dbus_message_free_data_slot(&slot); }
    dbus_int32_t slot = -1;
    bool freed = false;
};

}  // namespace

TEST(AMessage, ReadsAStringAndAnInt32InTheOrderTheyWereWritten) {
    CDBusMethodCall call = string_and_int_call();
    std::string key;
    int32_t number = 0;
    EXPECT_TRUE(call.get_string(key) && call.get_int32(number));
    EXPECT_EQ(key, "gw_key");
    EXPECT_EQ(number, -42);
    EXPECT_EQ(call.get_member(), "set_config");
}

TEST(AMessage, RejectsAnInt32WhereAStringIsExpectedAndConsumesIt) {
    CLogCapture log;
    CDBusMethodCall call = string_and_int_call();
    int32_t number = 7;
    std::string text = "untouched";
    EXPECT_FALSE(call.get_int32(number));
    // The failed check moved on: the next read meets the int32 and fails as well.
    EXPECT_FALSE(call.get_string(text));
    EXPECT_EQ(log.count(kArgTypeFail), 2u);
    EXPECT_EQ(number, 7);
    EXPECT_EQ(text, "untouched");
    const auto line = log.lines().at(0);
    EXPECT_EQ(line.level, 3);
    EXPECT_EQ(line.file, "core-services/config-manager/base/dbus/src/dbus_message.cpp");
    EXPECT_EQ(line.function, "get_next_iter");
}

TEST(AMessage, WithoutArgumentsFailsToInitialiseThenFailsToAdvance) {
    CLogCapture log;
    CDBusMethodReturn reply;
    std::string text;
    EXPECT_FALSE(reply.get_string(text));
    EXPECT_FALSE(reply.get_string(text));
    EXPECT_EQ(log.count("get_next_iter dbus_message_iter_init fail."), 1u);
    EXPECT_EQ(log.count(kHasNextFail), 1u);
}

TEST(AMessage, FailsToReadOnePastTheLastArgument) {
    CLogCapture log;
    CDBusMethodCall call = string_and_int_call();
    std::string key;
    int32_t number = 0;
    ASSERT_TRUE(call.get_string(key) && call.get_int32(number));
    EXPECT_FALSE(call.get_int32(number));
    EXPECT_EQ(log.count(kHasNextFail), 1u);
}

TEST(AMessage, RoundTripsByteArraysAndTheFullUint64Range) {
    const uint8_t bytes[] = {0x00, 0x7f, 0x80, 0xff, 0x10};
    CDBusSignal signal("/iot/test", "iot.test", "blob");
    ASSERT_TRUE(signal.set_array(bytes, sizeof(bytes)) && signal.set_uint64(UINT64_MAX) && signal.set_uint64(0));
    uint8_t* data = nullptr;
    int32_t length = 0;
    ASSERT_TRUE(signal.get_array(data, length));
    ASSERT_EQ(length, static_cast<int32_t>(sizeof(bytes)));
    EXPECT_EQ(0, std::memcmp(data, bytes, sizeof(bytes)));
    std::free(data);
    uint64_t values[2] = {1, 1};
    EXPECT_TRUE(signal.get_uint64(values[0]) && signal.get_uint64(values[1]));
    EXPECT_EQ(values[0], UINT64_MAX);
    EXPECT_EQ(values[1], 0u);
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
    EXPECT_EQ(log.count("get_array dbus_message_iter_get_fixed_array fail."), 1u);
}

TEST(AMessage, AssignedToItselfKeepsItsReferenceAndRestartsReading) {
    DBusMessage* raw = dbus_message_new_signal("/iot/test", "iot.test", "pair");
    CFreeWatch watch(raw);
    {
        CDBusSignal signal(raw);
        std::string key;
        ASSERT_TRUE(signal.set_string("gw_key") && signal.get_string(key));
        CDBusMessage& same = signal;
        signal = same;
        key.clear();
        EXPECT_TRUE(signal.get_string(key));
        EXPECT_EQ(key, "gw_key");
    }
    // The holder gave back exactly the one reference it took.
    EXPECT_FALSE(watch.freed);
    dbus_message_unref(raw);
    EXPECT_TRUE(watch.freed);
}

TEST(AMessage, CopiedOrAssignedSharesTheMessageAndReadsFromTheStart) {
    CDBusMethodCall call = string_and_int_call();
    CFreeWatch watch(call.get_message());
    std::string key;
    ASSERT_TRUE(call.get_string(key));
    CDBusMessage shared(call);
    shared = CDBusMethodReturn(call.get_message());  // the same message: no reference taken or dropped
    EXPECT_TRUE(shared.get_string(key));
    call = CDBusMethodCall();
    EXPECT_FALSE(watch.freed);  // still held by shared
    shared = CDBusMessage(static_cast<DBusMessage*>(nullptr));
    EXPECT_TRUE(watch.freed);
}

TEST(AnEmptyHolder, AnswersEveryReaderAndWriterWithFalse) {
    CDBusMessage empty(static_cast<DBusMessage*>(nullptr));
    std::string text;
    int32_t number = 0;
    uint8_t* data = nullptr;
    EXPECT_FALSE(empty.get_string(text) || empty.get_int32(number) || empty.get_array(data, number));
    EXPECT_FALSE(empty.set_string("x") || empty.set_int32(1) || empty.set_uint64(1));
    EXPECT_EQ(empty.get_member(), "");
}

TEST(AMethodReturn, TellsAReplyFromAnErrorReply) {
    CDBusMethodCall call = string_and_int_call();
    dbus_message_set_serial(call.get_message(), 9);
    DBusMessage* error = dbus_message_new_error(call.get_message(), "iot.test.Failed", "no");
    CDBusMethodReturn error_reply(error);
    dbus_message_unref(error);
    EXPECT_FALSE(error_reply.is_method_return());
    EXPECT_EQ(error_reply.get_reply_serial(), 9u);
    CDBusMethodReturn bare;
    EXPECT_TRUE(bare.is_method_return());
    EXPECT_EQ(bare.get_reply_serial(), 0u);
    EXPECT_EQ(dbus_message_get_destination(bare.get_message()), nullptr);
}

TEST(AMessage, RefusesToAppendTextThatIsNotUtf8AndStaysUsable) {
    CLogCapture log;
    CDBusMethodReturn reply;
    // A lone surrogate as a JSON reader decodes "\udc00", an overlong form, a stray continuation.
    for (const char* bad : {"\xed\xb0\x80", "\xc0\xaf", "ok\x80", "\xff"}) {
        EXPECT_FALSE(reply.set_string(bad)) << bad;
    }
    EXPECT_EQ(log.count("set_string, text is not valid UTF-8."), 4u);
    EXPECT_EQ(log.lines().at(0).level, 3);
    // Nothing was appended: the message carries exactly what follows.
    EXPECT_TRUE(reply.set_int32(100100) && reply.set_string("caf\xc3\xa9"));
    int32_t code = 0;
    std::string text;
    EXPECT_TRUE(reply.get_int32(code) && reply.get_string(text));
    EXPECT_EQ(code, 100100);
    EXPECT_EQ(text, "caf\xc3\xa9");
    EXPECT_FALSE(reply.get_string(text));
}

TEST(AMessage, RefusesAnArrayOfFileDescriptorsInsteadOfEndingTheProcess) {
    CLogCapture log;
    CDBusMethodCall call("iot.dmp.configmanager", "/iot/dmp/configmanager", "iot.dmp.configmanager", "set_config");
    DBusMessageIter append;
    DBusMessageIter elements;
    dbus_message_iter_init_append(call.get_message(), &append);
    ASSERT_TRUE(dbus_message_iter_open_container(&append, DBUS_TYPE_ARRAY, DBUS_TYPE_UNIX_FD_AS_STRING, &elements));
    const int fd = 0;
    ASSERT_TRUE(dbus_message_iter_append_basic(&elements, DBUS_TYPE_UNIX_FD, &fd));
    ASSERT_TRUE(dbus_message_iter_close_container(&append, &elements));
    uint8_t* data = nullptr;
    int32_t length = 0;
    // libdbus counts file descriptors as fixed-size yet aborts when asked for them as a block.
    EXPECT_FALSE(call.get_array(data, length));
    EXPECT_EQ(data, nullptr);
    EXPECT_EQ(log.count("get_array dbus_message_iter_get_fixed_array fail."), 1u);
}
