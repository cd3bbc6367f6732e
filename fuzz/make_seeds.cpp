// Writes the seed corpus of fuzz_dbus_message: the messages the configuration service reads,
// built with the bus layer's own writers and marshalled as they travel, each after the four bytes
// that name the target's reads (one per nibble, low nibble first), chosen so that the reads match
// the arguments and the fuzzer starts from the paths that succeed.
//   make_seeds DIR
#include <dbus/dbus.h>

#include <cstdio>
#include <cstdlib>
#include <initializer_list>
#include <string>

#include "quorel/dbus/dbus_message.h"

namespace {

using namespace Quorel::Iot::DBus;

constexpr const char kService[] = "iot.dmp.configmanager";
constexpr const char kPath[] = "/iot/dmp/configmanager";

// The target's reads; see run_op in fuzz_dbus_message.cpp.
enum Op : unsigned { kString = 0, kInt32 = 1, kUint64 = 2, kArray = 3, kRestart = 4, kCopy = 5, kHeader = 6 };

std::string op_bytes(std::initializer_list<unsigned> ops) {
    unsigned nibbles[8] = {kHeader, kHeader, kHeader, kHeader, kHeader, kHeader, kHeader, kHeader};
    unsigned i = 0;
    for (unsigned op : ops) nibbles[i++] = op;
    std::string bytes;
    for (unsigned k = 0; k < 8; k += 2) bytes += static_cast<char>(nibbles[k] | (nibbles[k + 1] << 4));
    return bytes;
}

void write_seed(const std::string& dir, const std::string& name, DBusMessage* message,
                std::initializer_list<unsigned> ops) {
    static dbus_uint32_t serial = 0;
    if (dbus_message_get_serial(message) == 0) dbus_message_set_serial(message, ++serial);
    char* wire = nullptr;
    int length = 0;
    if (!dbus_message_marshal(message, &wire, &length)) {
        fprintf(stderr, "make_seeds: cannot marshal %s\n", name.c_str());
        exit(1);
    }
    const std::string path = dir + "/" + name;
    FILE* file = fopen(path.c_str(), "wb");
    const std::string prefix = op_bytes(ops);
    if (file == nullptr || fwrite(prefix.data(), 1, prefix.size(), file) != prefix.size() ||
        fwrite(wire, 1, static_cast<size_t>(length), file) != static_cast<size_t>(length) || fclose(file) != 0) {
        fprintf(stderr, "make_seeds: cannot write %s\n", path.c_str());
        exit(1);
    }
    dbus_free(wire);
}

CDBusMethodCall call(const char* method) { return CDBusMethodCall(kService, kPath, kService, method); }

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        fprintf(stderr, "usage: make_seeds DIR\n");
        return 2;
    }
    const std::string dir = argv[1];

    CDBusMethodCall get_config = call("get_config");
    get_config.set_string("gw_system_productkey");
    write_seed(dir, "get_config", get_config.get_message(), {kHeader, kString, kRestart, kString});

    CDBusMethodCall set_config = call("set_config");
    set_config.set_string("gw_vexa_switch");
    set_config.set_string("{\"data\":\"1\",\"ts\":1700000000000}");
    write_seed(dir, "set_config", set_config.get_message(), {kString, kString, kCopy, kHeader});

    CDBusMethodCall subscribe = call("subscribe_config");
    subscribe.set_string("iot.dmp.config.adapter");
    subscribe.set_string("gw_orlo_reply");
    subscribe.set_int32(1);
    write_seed(dir, "subscribe_config", subscribe.get_message(), {kString, kString, kInt32, kHeader});

    CDBusMethodCall with_ts = call("set_config_with_ts");
    with_ts.set_string("gw_a");
    with_ts.set_string("1");
    with_ts.set_uint64(1700000000000ull);
    write_seed(dir, "set_config_with_ts", with_ts.get_message(), {kString, kString, kUint64, kHeader});

    CDBusMethodCall bytes = call("set_config_bytes");
    static const uint8_t kBytes[] = {0x00, 0x01, 0x7f, 0x80, 0xff, 'x', 'y', 'z'};
    bytes.set_array(kBytes, sizeof(kBytes));
    bytes.set_string("after the array");
    write_seed(dir, "byte_array", bytes.get_message(), {kArray, kString, kRestart, kArray});

    // An array of file descriptors where a byte array is read: its elements are of a fixed size,
    // yet libdbus refuses to hand them out as a fixed array. (Empty here: a non-empty one cannot
    // be marshalled without descriptors; found_array_of_unix_fds is one the fuzzer made.)
    CDBusMethodCall descriptors = call("set_config_bytes");
    DBusMessageIter args;
    DBusMessageIter elements;
    dbus_message_iter_init_append(descriptors.get_message(), &args);
    if (!dbus_message_iter_open_container(&args, DBUS_TYPE_ARRAY, DBUS_TYPE_UNIX_FD_AS_STRING, &elements) ||
        !dbus_message_iter_close_container(&args, &elements)) {
        fprintf(stderr, "make_seeds: cannot build an array of file descriptors\n");
        return 1;
    }
    write_seed(dir, "empty_array_of_unix_fds", descriptors.get_message(), {kArray, kHeader});

    // A read of the wrong type: every reader must answer false and move on.
    write_seed(dir, "wrong_types", with_ts.get_message(), {kInt32, kUint64, kArray, kString, kRestart, kString});

    CDBusSignal event("/iot/bridge/mqtt", "iot.bridge.mqtt", "subscribe_event");
    event.set_string("/shadow/get/pk/dn");
    event.set_string("{\"method\":\"control\",\"payload\":{\"state\":{\"desired\":{\"gw_vexa_switch\":1}}}}");
    write_seed(dir, "subscribe_event_signal", event.get_message(), {kHeader, kString, kString});

    // Replies: the method return a client reads its code and value from, and an error reply.
    DBusMessage* answered = get_config.get_message();
    DBusMessage* reply = dbus_message_new_method_return(answered);
    CDBusMethodReturn ret(reply);
    dbus_message_unref(reply);
    ret.set_int32(0);
    ret.set_string("[{\"key\":\"gw_a\",\"value\":\"1\"}]\n");
    write_seed(dir, "method_return", ret.get_message(), {kInt32, kString, kHeader});

    DBusMessage* error = dbus_message_new_error(answered, DBUS_ERROR_NO_REPLY, "no answer in time");
    write_seed(dir, "error_reply", error, {kHeader, kString, kInt32});
    dbus_message_unref(error);
    return 0;
}
