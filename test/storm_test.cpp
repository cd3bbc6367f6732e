// Hostile traffic against the whole config-manager binary on a private bus, with the development
// keychain service and a fake MQTT bridge: malformed calls, oversized and odd text, hostile key
// patterns, silent subscribers and a flood of broken cloud documents for the adapter.
//
// Every answer is checked. A check that goes wrong is reported once, with the number of wrong
// answers and a few samples, so that one run shows every fault at once; when the process dies or
// stops answering, the crash is counted and the process is started again on a fresh keychain so
// the remaining checks still run. Each test prints its figures (calls, answers by code, crashes,
// peak resident memory) on standard output.
#include <dbus/dbus.h>
#include <fcntl.h>
#include <ftw.h>
#include <gtest/gtest.h>
#include <json/json.h>
#include <signal.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <climits>
#include <cstdint>
#include <deque>
#include <fstream>
#include <functional>
#include <iostream>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "adapter_harness.h"
#include "quorel/testsupport/fake_bridge.h"
#include "quorel/testsupport/fake_service.h"
#include "quorel/testsupport/fake_subscriber.h"
#include "quorel/testsupport/private_bus.h"
#include "quorel/testsupport/wait.h"

using namespace Quorel::Iot::Testing;
using std::chrono::milliseconds;
using std::chrono::seconds;

namespace {

constexpr const char kService[] = "iot.dmp.configmanager";
constexpr const char kServicePath[] = "/iot/dmp/configmanager";
constexpr const char kAdapter[] = "iot.dmp.config.adapter";
constexpr const char kAdapterPath[] = "/iot/dmp/config/adapter";
constexpr const char kKeychain[] = "iot.gateway.security.keychain";

constexpr size_t kMiB = 1024 * 1024;
// dbus-daemon refuses a connection's calls beyond 128 waiting for replies; four connections with
// at most 64 each keep the service busy without ever touching that limit.
constexpr size_t kConnections = 4;
constexpr size_t kWindow = 64;
constexpr int kCallTimeoutMs = 10000;

// The configuration-manager binary is built with the same sanitizer flags as this test.
#if defined(__SANITIZE_ADDRESS__)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif
// Peak resident memory of the process (VmHWM). Measured: about 6 MiB plain and 15 to 55 MiB under
// ASan (its shadow memory, and freed blocks it holds back, capped at 16 MiB for the child) through
// storms of small text; 35 MiB plain and 55 MiB under ASan with calls of up to 4 MiB, which the
// process holds as message, argument, envelope and written text at once. About twice that is
// allowed; keeping anything per call, or a queue that grows with the storm, goes past it.
constexpr long kSmallTextBoundKiB = (kSanitized ? 96 : 16) * 1024;
constexpr long kLargeTextBoundKiB = (kSanitized ? 112 : 64) * 1024;
// A hostile pattern must not hold the service's only reader thread: answered within four times
// the query budget of 250 ms.
constexpr long long kPatternAnswerMs = 1000;

// ---------------------------------------------------------------------------------------------
// Calls with arguments of any basic type.

struct CValue {
    char type;
    std::string text;
    int64_t number;
    double real;
    std::vector<std::string> items;
};

CValue S(const std::string& v) { return {'s', v, 0, 0, {}}; }
CValue I(int32_t v) { return {'i', "", v, 0, {}}; }
CValue U(uint32_t v) { return {'u', "", v, 0, {}}; }
CValue T(uint64_t v) { return {'t', "", static_cast<int64_t>(v), 0, {}}; }
CValue X(int64_t v) { return {'x', "", v, 0, {}}; }
CValue N(int16_t v) { return {'n', "", v, 0, {}}; }
CValue Y(uint8_t v) { return {'y', "", v, 0, {}}; }
CValue B(bool v) { return {'b', "", v ? 1 : 0, 0, {}}; }
CValue D(double v) { return {'d', "", 0, v, {}}; }
CValue O(const std::string& v) { return {'o', v, 0, 0, {}}; }
CValue AS(std::vector<std::string> v) { return {'a', "", 0, 0, std::move(v)}; }
CValue V(const std::string& v) { return {'v', v, 0, 0, {}}; }

void append(DBusMessageIter* iter, const CValue& value) {
    switch (value.type) {
        case 's':
        case 'o': {
            const char* text = value.text.c_str();
            dbus_message_iter_append_basic(iter, value.type == 's' ? DBUS_TYPE_STRING : DBUS_TYPE_OBJECT_PATH, &text);
            break;
        }
        case 'i': {
            dbus_int32_t n = static_cast<dbus_int32_t>(value.number);
            dbus_message_iter_append_basic(iter, DBUS_TYPE_INT32, &n);
            break;
        }
        case 'u': {
            dbus_uint32_t n = static_cast<dbus_uint32_t>(value.number);
            dbus_message_iter_append_basic(iter, DBUS_TYPE_UINT32, &n);
            break;
        }
        case 't': {
            dbus_uint64_t n = static_cast<dbus_uint64_t>(value.number);
            dbus_message_iter_append_basic(iter, DBUS_TYPE_UINT64, &n);
            break;
        }
        case 'x': {
            dbus_int64_t n = value.number;
            dbus_message_iter_append_basic(iter, DBUS_TYPE_INT64, &n);
            break;
        }
        case 'n': {
            dbus_int16_t n = static_cast<dbus_int16_t>(value.number);
            dbus_message_iter_append_basic(iter, DBUS_TYPE_INT16, &n);
            break;
        }
        case 'y': {
            unsigned char n = static_cast<unsigned char>(value.number);
            dbus_message_iter_append_basic(iter, DBUS_TYPE_BYTE, &n);
            break;
        }
        case 'b': {
            dbus_bool_t n = value.number != 0 ? TRUE : FALSE;
            dbus_message_iter_append_basic(iter, DBUS_TYPE_BOOLEAN, &n);
            break;
        }
        case 'd': {
            double n = value.real;
            dbus_message_iter_append_basic(iter, DBUS_TYPE_DOUBLE, &n);
            break;
        }
        case 'a': {
            DBusMessageIter sub;
            dbus_message_iter_open_container(iter, DBUS_TYPE_ARRAY, "s", &sub);
            for (const std::string& item : value.items) {
                const char* text = item.c_str();
                dbus_message_iter_append_basic(&sub, DBUS_TYPE_STRING, &text);
            }
            dbus_message_iter_close_container(iter, &sub);
            break;
        }
        case 'v': {
            DBusMessageIter sub;
            dbus_message_iter_open_container(iter, DBUS_TYPE_VARIANT, "s", &sub);
            const char* text = value.text.c_str();
            dbus_message_iter_append_basic(&sub, DBUS_TYPE_STRING, &text);
            dbus_message_iter_close_container(iter, &sub);
            break;
        }
    }
}

// interface may be null: the service dispatches on the member alone.
DBusMessage* make_call(const char* destination, const char* path, const char* interface, const std::string& member,
                       const std::vector<CValue>& args) {
    DBusMessage* message = dbus_message_new_method_call(destination, path, interface, member.c_str());
    DBusMessageIter iter;
    dbus_message_iter_init_append(message, &iter);
    for (const CValue& arg : args) append(&iter, arg);
    return message;
}

DBusMessage* service_call(const std::string& member, const std::vector<CValue>& args,
                          const char* interface = kService) {
    return make_call(kService, kServicePath, interface, member, args);
}

DBusMessage* adapter_notify(const std::string& key, const std::string& value) {
    return make_call(kAdapter, kAdapterPath, kAdapter, "notify_config", {S(key), S(value)});
}

// ---------------------------------------------------------------------------------------------
// Answers and what is expected of them.

struct CAnswer {
    int type = 0;  // 0: no answer within the call's time limit
    std::string error;
    std::string signature;
    std::vector<std::string> args;
};

bool is_return(const CAnswer& a) { return a.type == DBUS_MESSAGE_TYPE_METHOD_RETURN; }

std::string shorten(const std::string& text) {
    if (text.size() <= 60) return "\"" + text + "\"";
    return "\"" + text.substr(0, 40) + "...\" (" + std::to_string(text.size()) + " bytes)";
}

std::string describe(const CAnswer& a) {
    if (a.type == 0) return "no answer";
    if (a.type == DBUS_MESSAGE_TYPE_ERROR) return "error " + a.error;
    if (a.signature.empty()) return "an empty reply";
    std::string text = "(" + a.signature + ")";
    for (const std::string& arg : a.args) text += " " + shorten(arg);
    return text;
}

// How an answer is counted in the figures: its code, or what came instead of one.
std::string label(const CAnswer& a) {
    if (a.type == 0) return "no answer";
    if (a.type == DBUS_MESSAGE_TYPE_ERROR) return a.error;
    if (a.signature.empty()) return "empty reply";
    if (a.signature[0] == 'i' && !a.args.empty()) return a.args[0];
    return "(" + a.signature + ")";
}

// "" when the answer is right, otherwise what was expected.
using Verdict = std::function<std::string(const CAnswer&)>;

std::string join(const std::vector<std::string>& args) {
    std::string text;
    for (const std::string& arg : args) text += " " + shorten(arg);
    return text;
}

Verdict exactly(const std::string& signature, std::vector<std::string> args) {
    return [signature, args](const CAnswer& a) -> std::string {
        if (is_return(a) && a.signature == signature && a.args == args) return "";
        return "(" + signature + ")" + join(args);
    };
}

Verdict code(int32_t expected) {
    return [expected](const CAnswer& a) -> std::string {
        if (is_return(a) && !a.signature.empty() && a.signature[0] == 'i' && a.args[0] == std::to_string(expected))
            return "";
        return "an int32 " + std::to_string(expected) + " first";
    };
}

Verdict any_code() {
    return [](const CAnswer& a) -> std::string {
        if (is_return(a) && !a.signature.empty() && a.signature[0] == 'i') return "";
        return "an int32 code first";
    };
}

Verdict empty_return() {
    return [](const CAnswer& a) -> std::string {
        if (is_return(a) && a.signature.empty()) return "";
        return "an empty method return";
    };
}

Verdict introspection() {
    return [](const CAnswer& a) -> std::string {
        if (is_return(a) && a.signature == "s" && a.args[0].rfind(" <!DOCTYPE node PUBLIC", 0) == 0) return "";
        return "(s) the introspection document";
    };
}

bool parse(const std::string& text, Json::Value& out) {
    std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
    std::string errors;
    return reader->parse(text.data(), text.data() + text.size(), &out, &errors);
}

// (i 0, s JSON array) whose elements all satisfy element; at least `at_least` of them.
Verdict array_of(size_t at_least, const std::string& what, std::function<bool(const Json::Value&)> element) {
    return [at_least, what, element](const CAnswer& a) -> std::string {
        const std::string expected = "(is) 0 and a JSON array of " + what;
        if (!is_return(a) || a.signature != "is" || a.args[0] != "0") return expected;
        Json::Value parsed;
        if (!parse(a.args[1], parsed) || !parsed.isArray() || parsed.size() < at_least) return expected;
        for (const Json::Value& each : parsed)
            if (!element(each)) return expected;
        return "";
    };
}

bool is_key_element(const Json::Value& e) { return e.isObject() && e["key"].isString() && e.isMember("value"); }
bool is_key_ts_element(const Json::Value& e) { return is_key_element(e) && e["ts"].isUInt64(); }

// ---------------------------------------------------------------------------------------------
// A plain client connection that keeps many calls outstanding and reads answers only when asked.

class CConnection {
public:
    explicit CConnection(const std::string& address) : m_address(address) { dbus_threads_init_default(); }
    ~CConnection() {
        if (m_connection != nullptr) {
            dbus_connection_close(m_connection);
            dbus_connection_unref(m_connection);
        }
    }
    CConnection(const CConnection&) = delete;
    CConnection& operator=(const CConnection&) = delete;

    bool open() {
        DBusError error;
        dbus_error_init(&error);
        m_connection = dbus_connection_open_private(m_address.c_str(), &error);
        if (m_connection != nullptr) {
            dbus_connection_set_exit_on_disconnect(m_connection, FALSE);
            dbus_bus_register(m_connection, &error);
        }
        const bool ok = m_connection != nullptr && !dbus_error_is_set(&error);
        dbus_error_free(&error);
        return ok;
    }

    // Takes the message; null when it could not be sent.
    DBusPendingCall* send(DBusMessage* call, int timeout_ms) {
        DBusPendingCall* pending = nullptr;
        if (!dbus_connection_send_with_reply(m_connection, call, &pending, timeout_ms)) pending = nullptr;
        dbus_message_unref(call);
        dbus_connection_flush(m_connection);
        return pending;
    }

    CAnswer call(DBusMessage* call, int timeout_ms) {
        return await(send(call, timeout_ms), std::chrono::steady_clock::now() + milliseconds(timeout_ms));
    }

    // Waits until the call is answered or its deadline has passed, and releases it. libdbus's own
    // blocking wait would count the time limit from the start of the wait rather than from the
    // send, so a deaf service would cost every outstanding call its whole limit one after another.
    CAnswer await(DBusPendingCall* pending, std::chrono::steady_clock::time_point deadline) {
        CAnswer answer;
        if (pending == nullptr) return answer;
        while (!dbus_pending_call_get_completed(pending)) {
            const long long left =
                std::chrono::duration_cast<milliseconds>(deadline - std::chrono::steady_clock::now()).count();
            if (left <= 0 ||
                !dbus_connection_read_write_dispatch(m_connection, static_cast<int>(std::min(left, 100LL))))
                break;
        }
        DBusMessage* reply =
            dbus_pending_call_get_completed(pending) ? dbus_pending_call_steal_reply(pending) : nullptr;
        if (reply == nullptr) dbus_pending_call_cancel(pending);
        if (reply != nullptr) {
            const char* error = dbus_message_get_error_name(reply);
            // libdbus answers a call that ran out of time itself, with no sender: that is no answer.
            const bool local_timeout = error != nullptr && std::string(error) == DBUS_ERROR_NO_REPLY &&
                                       dbus_message_get_sender(reply) == nullptr;
            if (!local_timeout) {
                const CRecordedMessage recorded = record_message(reply);
                answer.type = recorded.type;
                answer.signature = recorded.signature;
                answer.args = recorded.args;
                if (error != nullptr) answer.error = error;
            }
            dbus_message_unref(reply);
        }
        dbus_pending_call_unref(pending);
        return answer;
    }

    // Reads whatever has arrived, without blocking.
    void pump() {
        dbus_connection_read_write(m_connection, 0);
        while (dbus_connection_get_dispatch_status(m_connection) == DBUS_DISPATCH_DATA_REMAINS)
            dbus_connection_dispatch(m_connection);
    }

private:
    std::string m_address;
    DBusConnection* m_connection = nullptr;
};

// ---------------------------------------------------------------------------------------------
// The storm: calls spread over several connections, answers collected in order and judged.

class CStorm {
public:
    struct CTally {
        size_t answers = 0;
        size_t wrong = 0;
        std::vector<std::string> samples;
    };

    bool open(const std::string& address) {
        for (size_t i = 0; i <= kConnections; ++i) {
            m_connections.emplace_back(new CConnection(address));
            if (!m_connections.back()->open()) return false;
        }
        m_queues.resize(kConnections);
        return true;
    }

    void close() {
        drain();
        m_connections.clear();
    }

    void send(const std::string& check, DBusMessage* call, Verdict verdict, int timeout_ms = kCallTimeoutMs) {
        const size_t c = m_next++ % kConnections;
        if (m_queues[c].size() >= kWindow) collect_oldest(c);
        DBusPendingCall* pending = m_connections[c]->send(call, timeout_ms);
        ++m_sent;
        m_queues[c].push_back(COutstanding{pending, std::chrono::steady_clock::now() + milliseconds(timeout_ms), check,
                                           std::move(verdict)});
    }

    // A single call on a connection of its own, answered and judged before returning.
    CAnswer call(const std::string& check, DBusMessage* call, const Verdict& verdict, int timeout_ms = kCallTimeoutMs) {
        ++m_sent;
        const CAnswer answer = m_connections[kConnections]->call(call, timeout_ms);
        judge(check, answer, verdict);
        return answer;
    }

    void drain() {
        for (size_t c = 0; c < m_queues.size(); ++c)
            while (!m_queues[c].empty()) collect_oldest(c);
    }

    // Judges an answer obtained elsewhere (counted as a call).
    void judge(const std::string& check, const CAnswer& answer, const Verdict& verdict) {
        ++m_by_answer[label(answer)];
        CTally& tally = m_checks[check];
        ++tally.answers;
        const std::string expected = verdict(answer);
        if (expected.empty()) return;
        ++tally.wrong;
        if (tally.samples.size() < 3) tally.samples.push_back("expected " + expected + ", got " + describe(answer));
    }

    // A fact that is not an answer (timing, a call still waiting).
    void note(const std::string& check, bool right, const std::string& sample) {
        CTally& tally = m_checks[check];
        ++tally.answers;
        if (right) return;
        ++tally.wrong;
        if (tally.samples.size() < 3) tally.samples.push_back(sample);
    }
    void count_sent(size_t n) { m_sent += n; }

    size_t sent() const { return m_sent; }
    const std::map<std::string, size_t>& by_answer() const { return m_by_answer; }
    const std::map<std::string, CTally>& checks() const { return m_checks; }

private:
    struct COutstanding {
        DBusPendingCall* pending;
        std::chrono::steady_clock::time_point deadline;
        std::string check;
        Verdict verdict;
    };

    void collect_oldest(size_t c) {
        COutstanding oldest = std::move(m_queues[c].front());
        m_queues[c].pop_front();
        judge(oldest.check, m_connections[c]->await(oldest.pending, oldest.deadline), oldest.verdict);
    }

    // kConnections pipelined ones, then one for single calls.
    std::vector<std::unique_ptr<CConnection>> m_connections;
    std::vector<std::deque<COutstanding>> m_queues;
    size_t m_next = 0;
    size_t m_sent = 0;
    std::map<std::string, size_t> m_by_answer;
    std::map<std::string, CTally> m_checks;
};

std::string read_file(const std::string& path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

std::string last_lines(const std::string& text, size_t n) {
    size_t end = text.size();
    while (end > 0 && text[end - 1] == '\n') --end;
    size_t start = end;
    for (size_t lines = 0; start > 0 && lines < n; --start)
        if (text[start - 1] == '\n') ++lines;
    std::string tail = text.substr(start, end - start);
    for (char& c : tail)
        if (c == '\n') c = '|';
    return tail.size() > 600 ? "..." + tail.substr(tail.size() - 600) : tail;
}

long vm_hwm_kib(pid_t pid) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(status, line))
        if (line.rfind("VmHWM:", 0) == 0) return std::stol(line.substr(6));
    return -1;
}

int remove_entry(const char* path, const struct stat*, int, struct FTW*) { return remove(path); }

// ---------------------------------------------------------------------------------------------

class AProcessUnderStorm : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(m_bus.start());
        m_bus.export_address();
        char tmpl[] = "/tmp/cm-storm-XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(tmpl));
        m_dir = tmpl;
        std::ofstream(m_dir + "/default.json") << identity_defaults();
        m_bridge.reset(new CFakeBridge(m_bus.address()));
        ASSERT_TRUE(m_bridge->start());
        m_probe.reset(new CConnection(m_bus.address()));
        ASSERT_TRUE(m_probe->open());
        ASSERT_TRUE(start_processes());
        ASSERT_TRUE(m_storm.open(m_bus.address()));
        m_began = std::chrono::steady_clock::now();
    }

    void TearDown() override {
        m_storm.close();
        if (m_pid > 0) {
            kill(m_pid, SIGKILL);
            waitpid(m_pid, nullptr, 0);
        }
        stop_devd();
        if (m_bridge) m_bridge->stop();
        m_probe.reset();
        if (!m_dir.empty()) nftw(m_dir.c_str(), remove_entry, 16, FTW_DEPTH | FTW_PHYS);
    }

    // ---- the processes ----

    bool name_has_owner(const char* name) {
        const CAnswer a = m_probe->call(make_call("org.freedesktop.DBus", "/org/freedesktop/DBus",
                                                  "org.freedesktop.DBus", "NameHasOwner", {S(name)}),
                                        2000);
        return is_return(a) && a.args.size() == 1 && a.args[0] == "1";
    }

    // A fresh keychain directory for every life of the process, so a value that killed one life
    // is not loaded by the next.
    bool start_devd() {
        const std::string data = m_dir + "/keychain" + std::to_string(m_life);
        const std::string address = m_bus.address();
        m_devd = fork();
        if (m_devd < 0) return false;
        if (m_devd == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            const int null_fd = open("/dev/null", O_WRONLY);
            dup2(null_fd, STDOUT_FILENO);
            dup2(null_fd, STDERR_FILENO);
            execl(CM_KEYCHAIN_DEVD, "keychain-devd", data.c_str(), address.c_str(), static_cast<char*>(nullptr));
            _exit(127);
        }
        return wait_until([&] { return name_has_owner(kKeychain); }, seconds(20));
    }

    void stop_devd() {
        if (m_devd <= 0) return;
        kill(m_devd, SIGTERM);
        waitpid(m_devd, nullptr, 0);
        m_devd = -1;
    }

    std::string stderr_path() const { return m_dir + "/stderr" + std::to_string(m_life); }

    void spawn() {
        // The child only makes system calls: the parent's other threads may hold the allocator.
        const std::string out = m_dir + "/stdout" + std::to_string(m_life);
        const std::string err = stderr_path();
        const std::string defaults = m_dir + "/default.json";
        std::vector<std::string> environment = child_environment();
        std::vector<char*> envp;
        for (std::string& entry : environment) envp.push_back(&entry[0]);
        envp.push_back(nullptr);
        char* argv[] = {const_cast<char*>(CM_BINARY), const_cast<char*>(defaults.c_str()), nullptr};
        m_pid = fork();
        if (m_pid == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            dup2(open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), STDOUT_FILENO);
            dup2(open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), STDERR_FILENO);
            execve(CM_BINARY, argv, envp.data());
            _exit(127);
        }
    }

    // This process's environment with a small ASan quarantine of freed memory (the default keeps
    // up to 256 MiB of it resident), so that the child's resident memory shows what it holds.
    static std::vector<std::string> child_environment() {
        std::vector<std::string> environment;
        std::string asan = "ASAN_OPTIONS=";
        for (char** entry = environ; *entry != nullptr; ++entry) {
            const std::string text = *entry;
            if (text.rfind("ASAN_OPTIONS=", 0) == 0) {
                asan = text + ":";
            } else {
                environment.push_back(text);
            }
        }
        environment.push_back(asan + "quarantine_size_mb=16");
        return environment;
    }

    // Both services are up once the adapter has subscribed its topic and asked for the shadow.
    bool start_processes() {
        if (!start_devd()) return false;
        m_bridge->clear_received();
        spawn();
        if (m_pid < 0) return false;
        return wait_until([&] { return m_bridge->count("publish") >= 1 && m_bridge->count("subscribe") >= 1; },
                          seconds(30)) &&
               answers_probe();
    }

    bool answers_probe() {
        const CAnswer a = m_probe->call(service_call("Introspect", {}), 5000);
        return is_return(a) && a.signature == "s";
    }

    void sample_peak() {
        const long kib = vm_hwm_kib(m_pid);
        if (kib > m_peak_kib) m_peak_kib = kib;
    }

    // Collects every answer of a phase; a process that died or went deaf in it is counted as a
    // crash and replaced, so the following phases still run.
    void end_phase(const std::string& phase) {
        m_storm.drain();
        if (answers_probe()) {
            sample_peak();
            return;
        }
        int status = 0;
        std::string how;
        if (wait_until([&] { return waitpid(m_pid, &status, WNOHANG) == m_pid; }, seconds(5))) {
            how = WIFSIGNALED(status) ? std::string("killed by ") + strsignal(WTERMSIG(status))
                                      : "exited with status " + std::to_string(WEXITSTATUS(status));
        } else {
            how = "stopped answering";
            kill(m_pid, SIGKILL);
            waitpid(m_pid, nullptr, 0);
        }
        m_pid = -1;
        m_crashes.push_back(phase + ": " + how + "; log ends: " + last_lines(read_file(stderr_path()), 3));
        std::cout << "[storm] crash in " << m_crashes.back() << std::endl;
        stop_devd();
        ++m_life;
        EXPECT_TRUE(start_processes()) << "could not start again after: " << m_crashes.back();
    }

    // The process is alive at the end, exits with 0 on SIGTERM, kept its memory bound and answered
    // every check right; the figures are printed whatever the outcome.
    void finish(const std::string& surface, long bound_kib = kSmallTextBoundKiB) {
        m_storm.drain();
        const bool alive = m_pid > 0 && answers_probe();
        if (alive) sample_peak();
        int exit_code = -1;
        if (m_pid > 0) {
            kill(m_pid, SIGTERM);
            int status = 0;
            if (wait_until([&] { return waitpid(m_pid, &status, WNOHANG) == m_pid; }, seconds(20))) {
                exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
                m_pid = -1;
            }
        }
        const long long took = elapsed_ms(m_began);

        std::cout << "[storm] " << surface << ": " << m_storm.sent() << " calls, " << m_documents
                  << " cloud documents, " << took << " ms" << std::endl;
        std::cout << "[storm]   answers:";
        for (const auto& entry : m_storm.by_answer()) std::cout << " " << entry.first << "=" << entry.second;
        std::cout << std::endl;
        std::cout << "[storm]   crashes: " << m_crashes.size() << ", peak RSS " << m_peak_kib / 1024 << " MiB ("
                  << m_peak_kib << " kB, bound " << bound_kib / 1024 << " MiB), exit on SIGTERM " << exit_code
                  << std::endl;
        size_t wrong_checks = 0;
        for (const auto& entry : m_storm.checks()) {
            if (entry.second.wrong == 0) continue;
            ++wrong_checks;
            std::cout << "[storm]   WRONG " << entry.first << ": " << entry.second.wrong << " of "
                      << entry.second.answers << std::endl;
        }
        std::cout << "[storm]   checks: " << m_storm.checks().size() << ", wrong: " << wrong_checks << std::endl;
        RecordProperty("calls", static_cast<int>(m_storm.sent()));
        RecordProperty("documents", static_cast<int>(m_documents));
        RecordProperty("crashes", static_cast<int>(m_crashes.size()));
        RecordProperty("peak_rss_kib", static_cast<int>(m_peak_kib));

        for (const auto& entry : m_storm.checks()) {
            if (entry.second.wrong == 0) continue;
            std::string samples;
            for (const std::string& sample : entry.second.samples) samples += "\n    " + sample;
            ADD_FAILURE() << entry.first << ": " << entry.second.wrong << " of " << entry.second.answers
                          << " wrong, e.g." << samples;
        }
        for (const std::string& crash : m_crashes) ADD_FAILURE() << "crash in " << crash;
        EXPECT_TRUE(alive) << "the process does not answer at the end";
        EXPECT_EQ(0, exit_code) << "exit status on SIGTERM";
        EXPECT_GT(m_peak_kib, 0);
        EXPECT_LE(m_peak_kib, bound_kib) << "peak resident memory in kB";
    }

    // ---- shorthands ----

    CAnswer set(const std::string& key, const std::string& value, const std::string& check) {
        return m_storm.call(check, service_call("set_config", {S(key), S(value)}), exactly("i", {"0"}));
    }

    // Polls get_config until key holds value; gives up at the first call that is not answered.
    bool wait_value(const std::string& key, const std::string& value, milliseconds timeout) {
        bool answering = true;
        const bool found = wait_until(
            [&] {
                const CAnswer a = m_storm.call(
                    "get_config answers (is) while the adapter works", service_call("get_config", {S(key)}),
                    [](const CAnswer& x) { return is_return(x) && x.signature == "is" ? "" : "(is)"; });
                answering = is_return(a) && a.signature == "is";
                return !answering || (a.args[0] == "0" && a.args[1] == value);
            },
            timeout);
        return found && answering;
    }

    bool send_document(const std::string& document) {
        ++m_documents;
        return m_bridge->emit_event(CAdapterHarness::kGetTopic, document);
    }

    CPrivateBus m_bus;
    std::unique_ptr<CFakeBridge> m_bridge;
    std::unique_ptr<CConnection> m_probe;
    CStorm m_storm;
    std::string m_dir;
    pid_t m_pid = -1;
    pid_t m_devd = -1;
    int m_life = 0;
    long m_peak_kib = 0;
    size_t m_documents = 0;
    std::vector<std::string> m_crashes;
    std::chrono::steady_clock::time_point m_began;
};

// ---------------------------------------------------------------------------------------------

struct CVariant {
    std::string check;
    std::string member;
    std::vector<CValue> args;
    const char* interface;
    Verdict verdict;
};

std::vector<CVariant> malformed_calls() {
    std::vector<CVariant> v;
    const std::vector<CValue> not_strings = {I(7),    U(7),   T(7),          X(-7),     N(-7), Y(7),
                                             B(true), D(1.5), O("/storm/k"), AS({"k"}), V("k")};
    struct CGet {
        const char* member;
        const char* signature;
        std::vector<std::string> unevaluated;
        std::vector<std::string> absent;
    };
    const CGet gets[] = {
        {"get_config", "is", {"100000", ""}, {"100100", ""}},
        {"get_config_with_ts", "ist", {"100000", "", "0"}, {"100100", "", "0"}},
        {"get_config_batch", "is", {"100000", ""}, {"100100", ""}},
        {"get_config_batch_with_ts", "is", {"100000", ""}, {"100100", ""}},
        {"get_config_keylist", "is", {"100000", ""}, {"100100", ""}},
    };
    for (const CGet& g : gets) {
        const std::string check = std::string(g.member) + " without a string key answers 100000";
        const Verdict unevaluated = exactly(g.signature, g.unevaluated);
        v.push_back({check, g.member, {}, kService, unevaluated});
        for (const CValue& wrong : not_strings) v.push_back({check, g.member, {wrong}, kService, unevaluated});
        v.push_back({check, g.member, {I(1), S("storm.absent")}, kService, unevaluated});
        v.push_back({check, g.member, {}, "storm.elsewhere", unevaluated});
        v.push_back({check, g.member, {}, nullptr, unevaluated});
        const std::string extra = std::string(g.member) + " ignores arguments after the key";
        v.push_back({extra, g.member, {S("storm\\.absent"), I(1)}, kService, exactly(g.signature, g.absent)});
        v.push_back({extra, g.member, {S("storm\\.absent"), S("x"), T(3)}, kService, exactly(g.signature, g.absent)});
    }

    const Verdict bad_arguments = exactly("i", {"100001"});
    const std::string set = "set_config with missing or mistyped arguments answers 100001";
    for (const std::vector<CValue>& args : std::vector<std::vector<CValue>>{{},
                                                                            {S("storm.k")},
                                                                            {I(1)},
                                                                            {S("storm.k"), I(1)},
                                                                            {I(1), S("v")},
                                                                            {S("storm.k"), T(1)},
                                                                            {S("storm.k"), B(false)},
                                                                            {S("storm.k"), AS({"v"})},
                                                                            {S("storm.k"), V("v")},
                                                                            {O("/k"), S("v")},
                                                                            {AS({"storm.k"}), S("v")},
                                                                            {Y(1), Y(2)},
                                                                            {D(1), S("v")},
                                                                            {S("storm.k"), O("/v")}}) {
        v.push_back({set, "set_config", args, kService, bad_arguments});
    }
    v.push_back({set, "set_config", {}, nullptr, bad_arguments});
    v.push_back({set, "set_config", {S("storm.k")}, "storm.elsewhere", bad_arguments});

    const std::string set_ts = "set_config_with_ts with missing or mistyped arguments answers 100001";
    for (const std::vector<CValue>& args : std::vector<std::vector<CValue>>{{},
                                                                            {S("storm.k")},
                                                                            {S("storm.k"), I(1)},
                                                                            {I(1), S("v")},
                                                                            {S("storm.k"), D(1), T(5)},
                                                                            {B(true), S("v"), T(5)},
                                                                            {S("storm.k"), AS({"v"})},
                                                                            {T(5), S("storm.k"), S("v")}}) {
        v.push_back({set_ts, "set_config_with_ts", args, kService, bad_arguments});
    }

    const std::string subscribe = "subscribe_config with missing or mistyped arguments answers 100001";
    const std::string name = "iot.storm.a";
    for (const std::vector<CValue>& args : std::vector<std::vector<CValue>>{{},
                                                                            {S(name)},
                                                                            {S(name), S("storm.k")},
                                                                            {S(name), S("storm.k"), S("0")},
                                                                            {I(0), S("storm.k"), I(1)},
                                                                            {S(name), I(5), I(1)},
                                                                            {S(name), S("storm.k"), T(1)},
                                                                            {S(name), S("storm.k"), B(true)},
                                                                            {S(name), S("storm.k"), U(1)},
                                                                            {S(name), S("storm.k"), D(1)},
                                                                            {AS({name}), S("storm.k"), I(1)},
                                                                            {V(name), S("storm.k"), I(1)}}) {
        v.push_back({subscribe, "subscribe_config", args, kService, bad_arguments});
    }
    for (int32_t type : {2, -1, 3, INT32_MAX, INT32_MIN}) {
        v.push_back({"subscribe_config with a type other than 0 or 1 answers 100104",
                     "subscribe_config",
                     {S(name), S("storm.k"), I(type)},
                     kService,
                     exactly("i", {"100104"})});
    }
    const std::string long_name = "iot." + std::string(296, 'x');
    for (const std::string& bad :
         {std::string(""), std::string(":1.42"), std::string("a-b.c"), std::string(".."), long_name, std::string("a"),
          std::string("a..b"), std::string("1abc.d"), std::string("a.b/c"), std::string(".a.b"), std::string("a.b.")}) {
        for (int32_t type : {0, 1}) {
            v.push_back({"subscribe_config of a name that cannot be called back answers 100106",
                         "subscribe_config",
                         {S(bad), S("storm.k"), I(type)},
                         kService,
                         exactly("i", {"100106"})});
        }
    }

    const std::string unsubscribe = "unsubscribe_config with missing or mistyped arguments answers 100001";
    for (const std::vector<CValue>& args : std::vector<std::vector<CValue>>{{},
                                                                            {S(name)},
                                                                            {I(1), S("storm.k")},
                                                                            {S(name), I(1)},
                                                                            {S(name), T(1)},
                                                                            {AS({name}), S("storm.k")},
                                                                            {S(name), B(true)}}) {
        v.push_back({unsubscribe, "unsubscribe_config", args, kService, bad_arguments});
    }
    for (const std::string& nobody :
         {std::string("iot.storm.nobody"), std::string(""), std::string(":1.42"), long_name, std::string("a-b.c")}) {
        v.push_back({"unsubscribe_config of a name not subscribed answers 100107",
                     "unsubscribe_config",
                     {S(nobody), S("storm.k")},
                     kService,
                     exactly("i", {"100107"})});
    }
    v.push_back({"unsubscribe_config of a name not subscribed answers 100107",
                 "unsubscribe_config",
                 {S("iot.storm.nobody"), S("")},
                 kService,
                 exactly("i", {"100107"})});

    const std::string introspect = "Introspect answers the introspection document";
    v.push_back({introspect, "Introspect", {}, kService, introspection()});
    v.push_back({introspect, "Introspect", {S("x")}, kService, introspection()});
    v.push_back({introspect, "Introspect", {I(1), I(2)}, kService, introspection()});
    v.push_back({introspect, "Introspect", {}, "org.freedesktop.DBus.Introspectable", introspection()});
    v.push_back({introspect, "Introspect", {}, nullptr, introspection()});

    const std::string unknown = "an unknown member gets an empty method return";
    v.push_back({unknown, "storm_unknown", {}, kService, empty_return()});
    v.push_back({unknown, "Get_Config", {S("storm.k")}, kService, empty_return()});
    v.push_back({unknown, "get_config_", {S("storm.k")}, kService, empty_return()});
    v.push_back({unknown, "set_config_batch", {S("storm.k"), S("v")}, kService, empty_return()});
    v.push_back({unknown, "notify_config", {S("storm.k"), S("v")}, nullptr, empty_return()});
    return v;
}

TEST_F(AProcessUnderStorm, AnswersEveryMalformedCallWithItsCode) {
    const std::vector<CVariant> variants = malformed_calls();
    // Rounds of the whole set, so each variant meets the service in many states of its queues.
    const size_t rounds = 16000 / variants.size() + 1;
    for (size_t round = 0; round < rounds; ++round) {
        for (const CVariant& each : variants)
            m_storm.send(each.check, make_call(kService, kServicePath, each.interface, each.member, each.args),
                         each.verdict);
        if (round % 20 == 19) end_phase("malformed calls, round " + std::to_string(round));
    }
    end_phase("malformed calls");
    // Nothing of the above may have stored or subscribed anything.
    m_storm.call("no malformed set stored its key", service_call("get_config", {S("storm.k")}),
                 exactly("is", {"100100", ""}));
    m_storm.call("no malformed subscription was recorded",
                 service_call("unsubscribe_config", {S("iot.storm.a"), S("storm.k")}), exactly("i", {"100107"}));
    finish("malformed calls");
}

// ---------------------------------------------------------------------------------------------

std::string mebibyte_text() {
    std::string text;
    text.reserve(kMiB);
    while (text.size() < kMiB) text += "0123456789abcdef";
    text.resize(kMiB);
    return text;
}

DBusMessage* get(const std::string& key) { return service_call("get_config", {S(key)}); }
DBusMessage* get_ts(const std::string& key) { return service_call("get_config_with_ts", {S(key)}); }
DBusMessage* put(const std::string& key, const std::string& value) {
    return service_call("set_config", {S(key), S(value)});
}
DBusMessage* put_ts(const std::string& key, const std::string& value) {
    return service_call("set_config_with_ts", {S(key), S(value)});
}

const char* const kPatternQueries[] = {"get_config_batch", "get_config_batch_with_ts", "get_config_keylist"};

TEST_F(AProcessUnderStorm, BoundsTheLengthOfKeysAndValues) {
    const Verdict ok = exactly("i", {"0"});
    const Verdict refused = exactly("i", {"100101"});
    const Verdict absent = exactly("is", {"100100", ""});

    set("storm.empty", "x", "set_config of a plain value answers 0");
    m_storm.call("a set with an empty value deletes the key and answers 0", put("storm.empty", ""), ok);
    m_storm.call("get_config of a deleted key answers 100100", get("storm.empty"), absent);
    m_storm.call("a set with an empty value deletes the key and answers 0", put("storm.never", ""), ok);
    m_storm.call("get_config of the empty key answers 100100", get(""), absent);
    m_storm.call("set_config_with_ts of an empty value answers 0", put_ts("storm.empty.ts", ""), ok);
    m_storm.call(
        "get_config_with_ts of an empty value answers it with its time", get_ts("storm.empty.ts"),
        [](const CAnswer& a) -> std::string {
            if (is_return(a) && a.signature == "ist" && a.args[0] == "0" && a.args[1].empty() && a.args[2] != "0")
                return "";
            return "(ist) 0 \"\" and a time";
        });
    for (const char* query : kPatternQueries)
        m_storm.call("a pattern query with an empty pattern answers with a code", service_call(query, {S("")}),
                     any_code());
    end_phase("empty strings");

    const std::string mib = mebibyte_text();
    m_storm.call("a value of exactly 1 MiB is stored", put("storm.big", mib), ok);
    m_storm.call("a value of exactly 1 MiB reads back whole", get("storm.big"), exactly("is", {"0", mib}));
    m_storm.call("a value over 1 MiB is refused with 100101", put("storm.big", mib + "w"), refused);
    m_storm.call("a refused value leaves the stored one in place", get("storm.big"), exactly("is", {"0", mib}));
    m_storm.call("a value over 1 MiB is refused with 100101", put("storm.big2", mib + mib), refused);
    m_storm.call("a refused value stores nothing", get("storm.big2"), absent);
    m_storm.call("a value over 1 MiB is refused with 100101", put_ts("storm.bigts", mib + "w"), refused);
    m_storm.call("a value over 1 MiB is refused with 100101", put_ts("storm.bigts", mib + mib + mib + mib), refused);
    m_storm.call("a refused value stores nothing", get_ts("storm.bigts"), exactly("ist", {"100100", "", "0"}));
    m_storm.call("set_config_with_ts of a short value answers 0", put_ts("storm.bigts", mib.substr(0, 1000)), ok);
    end_phase("values at and past 1 MiB");

    const std::string key1024 = "storm." + std::string(1018, 'k');
    const std::string key1025 = key1024 + "k";
    const std::string key_mib = "storm." + mib;
    m_storm.call("a key of 1024 bytes is stored", put(key1024, "v"), ok);
    m_storm.call("a key of 1024 bytes reads back", get(key1024), exactly("is", {"0", "v"}));
    m_storm.call("a key over 1024 bytes is refused with 100101", put(key1025, "v"), refused);
    m_storm.call("a key over 1024 bytes is refused with 100101", put_ts(key1025, "v"), refused);
    m_storm.call("a key over 1024 bytes is refused with 100101", put(key_mib, "v"), refused);
    m_storm.call("a refused value stores nothing", get(key1025), absent);
    m_storm.call("a refused value stores nothing", get(key_mib), absent);
    m_storm.call("subscribe_config of a key over 1024 bytes answers 100105",
                 service_call("subscribe_config", {S("iot.storm.watcher"), S(key1025), I(1)}),
                 exactly("i", {"100105"}));
    m_storm.call("a set with an empty value deletes the key and answers 0", put(key1024, ""), ok);
    end_phase("keys at and past 1024 bytes");

    // Large refusals back to back: nothing of them may stay behind in memory.
    for (int i = 0; i < 16; ++i) {
        m_storm.call("a value over 1 MiB is refused with 100101", put("storm.burst" + std::to_string(i), mib + "w"),
                     refused);
        m_storm.call("a refused value stores nothing", get(key_mib), absent);
        m_storm.call("a value of exactly 1 MiB is stored", put("storm.burst", mib), ok);
    }
    m_storm.call("a set with an empty value deletes the key and answers 0", put("storm.burst", ""), ok);
    m_storm.call("a set with an empty value deletes the key and answers 0", put("storm.big", ""), ok);
    end_phase("large text back to back");
    finish("lengths of keys and values", kLargeTextBoundKiB);
}

// Stored values whose decoded text is odd: read one call at a time first, so that a crash is laid
// at the right call's door, then many times over, pipelined.
TEST_F(AProcessUnderStorm, AnswersForStoredValuesThatAreOddOrNotUtf8) {
    const Verdict ok = exactly("i", {"0"});
    const Verdict not_sendable = exactly("is", {"100100", ""});
    const Verdict not_sendable_ts = exactly("ist", {"100100", "", "0"});
    const std::string stored = "set_config of any text answers 0";

    set("storm.lone", R"({"data":"\udc00"})", stored);
    set("storm.lone.ts", R"({"data":"\udc00","ts":5})", stored);
    end_phase("storing a lone surrogate");
    m_storm.call("get_config of data that is not UTF-8 answers 100100", get("storm.lone"), not_sendable);
    end_phase("get_config of a lone surrogate");
    m_storm.call("get_config_with_ts of data that is not UTF-8 answers 100100", get_ts("storm.lone.ts"),
                 not_sendable_ts);
    end_phase("get_config_with_ts of a lone surrogate");
    set("storm.lone", R"({"data":"\udc00"})", stored);
    set("storm.lone.ts", R"({"data":"\udc00","ts":5})", stored);
    for (const char* query : kPatternQueries)
        m_storm.call("a pattern query over data that is not UTF-8 answers with a code",
                     service_call(query, {S("^storm\\.lone")}), any_code());
    end_phase("pattern queries over a lone surrogate");

    set("storm.other", R"({"other":"\udc00"})", stored);
    m_storm.call("get_config of an object without data answers the stored text", get("storm.other"),
                 exactly("is", {"0", R"({"other":"\udc00"})"}));
    set("storm.pair", R"({"data":"\ud83d\ude00"})", stored);
    m_storm.call("get_config decodes a surrogate pair", get("storm.pair"), exactly("is", {"0", "\xF0\x9F\x98\x80"}));
    set("storm.nul", R"({"data":"a\u0000b"})", stored);
    m_storm.call("get_config of data holding a NUL answers with a code", get("storm.nul"), any_code());
    m_storm.call("get_config_with_ts of data holding a NUL answers with a code", get_ts("storm.nul"), any_code());
    end_phase("other escapes");

    // The odd values, stored again in every life of the process.
    const std::vector<std::pair<std::string, std::string>> odd = {
        {"storm.obj", R"({"data":{"b":[true,null],"a":1}})"},
        {"storm.arr", R"({"data":[1,"x"]})"},
        {"storm.num", R"({"data":5})"},
        {"storm.bool", R"({"data":true})"},
        {"storm.tss", R"({"data":"x","ts":"12"})"},
        {"storm.tstrue", R"({"data":"x","ts":true})"},
        {"storm.tsnull", R"({"data":"x","ts":null})"},
        {"storm.tsreal", R"({"data":"x","ts":1.5})"},
        {"storm.tsneg", R"({"data":"x","ts":-1})"},
        {"storm.tsobj", R"({"data":"x","ts":{"t":1}})"},
        {"storm.lone", R"({"data":"\udc00"})"},
        {"storm.lone.ts", R"({"data":"\udc00","ts":5})"},
    };
    const auto store_odd = [&] {
        for (const auto& entry : odd) set(entry.first, entry.second, stored);
    };
    const auto element_ts = [](const char* key, uint64_t ts) {
        return [key, ts](const Json::Value& e) {
            return e["key"].isString() && e["key"].asString() == key && e["ts"].isUInt64() && e["ts"].asUInt64() == ts;
        };
    };
    struct CRead {
        std::string check;
        std::function<DBusMessage*()> call;
        Verdict verdict;
    };
    const std::vector<CRead> reads = {
        {"get_config of an object in data answers its compact JSON", [] { return get("storm.obj"); },
         exactly("is", {"0", R"({"a":1,"b":[true,null]})"})},
        {"get_config_batch over an object in data answers 0 and a JSON array",
         [] { return service_call("get_config_batch", {S("^storm\\.obj$")}); },
         array_of(1, "key/value elements", is_key_element)},
        {"get_config_batch_with_ts over an object in data answers 0 and a JSON array",
         [] { return service_call("get_config_batch_with_ts", {S("^storm\\.obj$")}); },
         array_of(1, "key/value/ts elements", is_key_ts_element)},
        {"get_config of an array in data answers with a code", [] { return get("storm.arr"); }, any_code()},
        {"get_config of a number in data answers its text", [] { return get("storm.num"); }, exactly("is", {"0", "5"})},
        {"get_config of a boolean in data answers its text", [] { return get("storm.bool"); },
         exactly("is", {"0", "true"})},
        {"get_config_with_ts of a string ts answers 100100", [] { return get_ts("storm.tss"); }, code(100100)},
        {"get_config_batch_with_ts gives a string ts as 0",
         [] { return service_call("get_config_batch_with_ts", {S("^storm\\.tss$")}); },
         array_of(1, "one element with ts 0", element_ts("storm.tss", 0))},
        {"get_config_with_ts converts a ts of true to 1", [] { return get_ts("storm.tstrue"); },
         exactly("ist", {"0", "x", "1"})},
        {"get_config_with_ts converts a ts of null to 0", [] { return get_ts("storm.tsnull"); },
         exactly("ist", {"0", "x", "0"})},
        {"get_config_with_ts converts a ts of 1.5 to 1", [] { return get_ts("storm.tsreal"); },
         exactly("ist", {"0", "x", "1"})},
        {"get_config_with_ts of a negative or structured ts answers with a code", [] { return get_ts("storm.tsneg"); },
         any_code()},
        {"get_config_with_ts of a negative or structured ts answers with a code", [] { return get_ts("storm.tsobj"); },
         any_code()},
        {"get_config_batch_with_ts over odd ts values answers with a code",
         [] { return service_call("get_config_batch_with_ts", {S("^storm\\.ts")}); }, any_code()},
        {"get_config_batch over all odd values answers with a code",
         [] { return service_call("get_config_batch", {S("^storm\\.")}); }, any_code()},
        {"get_config_keylist over all odd values answers 0 and the keys",
         [] { return service_call("get_config_keylist", {S("^storm\\.")}); },
         array_of(odd.size(), "key names", [](const Json::Value& e) { return e.isString(); })},
        {"get_config of data that is not UTF-8 answers 100100", [] { return get("storm.lone"); }, not_sendable},
        {"get_config_with_ts of data that is not UTF-8 answers 100100", [] { return get_ts("storm.lone.ts"); },
         not_sendable_ts},
    };
    // Each read alone first.
    store_odd();
    for (const CRead& read : reads) {
        m_storm.call(read.check, read.call(), read.verdict);
        end_phase(read.check);
    }
    // Then pipelined, over and over.
    store_odd();
    for (int round = 0; round < 150; ++round)
        for (const CRead& read : reads) m_storm.send(read.check, read.call(), read.verdict);
    end_phase("odd values read many times over");
    finish("odd and non-UTF-8 stored values");
}

TEST_F(AProcessUnderStorm, AnswersHostilePatternsQuicklyAndOrdinaryOnesAsUsual) {
    const std::string stored = "set_config of a plain value answers 0";
    set(std::string(255, 'a'), "v", stored);
    set("k", "v", stored);
    set("storm.k", "v", stored);

    const auto names = [](const Json::Value& e) { return e.isString(); };
    const auto send_ordinary = [&](int rounds) {
        for (int round = 0; round < rounds; ++round) {
            for (const char* pattern : {".", "^gw_", "k$"}) {
                const std::string check =
                    std::string("a pattern query with the ordinary pattern ") + pattern + " answers 0 and its matches";
                m_storm.send(check, service_call("get_config_batch", {S(pattern)}),
                             array_of(1, "key/value elements", is_key_element));
                m_storm.send(check, service_call("get_config_batch_with_ts", {S(pattern)}),
                             array_of(1, "key/value/ts elements", is_key_ts_element));
                m_storm.send(check, service_call("get_config_keylist", {S(pattern)}), array_of(1, "key names", names));
            }
            m_storm.send("a pattern query finds the device identity by ^gw_system_",
                         service_call("get_config_keylist", {S("^gw_system_")}),
                         exactly("is", {"0", "[\"gw_system_devicename\",\"gw_system_productkey\"]\n"}));
        }
    };
    send_ordinary(150);
    end_phase("ordinary patterns");

    const std::vector<std::string> hostile = {
        R"(\(\|\)\(\1\1\)*)",
        R"(\(.*\)\{1,32767\})",
        R"(\(a*\)*\1\1\1b)",
        R"(a\{1,32000\})",
        std::string(300, 'a'),
        R"(\()",
        "[",
        R"(a\{2,1\})",
    };
    for (int rep = 0; rep < 2; ++rep) {
        for (const std::string& pattern : hostile) {
            for (const char* query : kPatternQueries) {
                const auto began = std::chrono::steady_clock::now();
                m_storm.call("a pattern query with a hostile or broken pattern answers 100100",
                             service_call(query, {S(pattern)}), exactly("is", {"100100", ""}), 5000);
                const long long took = elapsed_ms(began);
                m_storm.note("a pattern query with a hostile or broken pattern answers within 1000 ms",
                             took <= kPatternAnswerMs,
                             std::string(query) + " " + shorten(pattern) + " took " + std::to_string(took) + " ms");
            }
            end_phase("pattern " + shorten(pattern));
        }
    }
    // The same store still answers ordinary patterns.
    set(std::string(255, 'a'), "v", stored);
    set("k", "v", stored);
    send_ordinary(50);
    end_phase("ordinary patterns after hostile ones");
    finish("key patterns");
}

TEST_F(AProcessUnderStorm, KeepsAnsweringPastASilentObserverAndASilentOwner) {
    const Verdict ok = exactly("i", {"0"});
    CFakeSubscriber silent(m_bus.address(), "iot.storm.silent");
    silent.answer_nothing();
    ASSERT_TRUE(silent.start());
    CFakeSubscriber owner(m_bus.address(), "iot.storm.owner");
    ASSERT_TRUE(owner.start());
    const auto subscribe = [](const std::string& name, const std::string& key, int32_t type) {
        return service_call("subscribe_config", {S(name), S(key), I(type)});
    };

    const std::string subscribed = "subscribe_config of a callable name answers 0";
    m_storm.call(subscribed, subscribe("iot.storm.silent", "storm.observed", 1), ok);
    m_storm.call(subscribed, subscribe("iot.storm.silent", "storm.owned", 0), ok);
    for (int i = 0; i < 200; ++i)
        m_storm.send("a set of a key with a silent observer answers 0", put("storm.observed", "v" + std::to_string(i)),
                     ok);
    end_phase("sets of a silently observed key");

    // Sixteen sets wait for the silent owner; every further one is refused at once.
    CConnection setter(m_bus.address());
    ASSERT_TRUE(setter.open());
    std::vector<DBusPendingCall*> waiting;
    for (int i = 0; i < 16; ++i) waiting.push_back(setter.send(put("storm.owned", "w" + std::to_string(i)), 30000));
    m_storm.count_sent(waiting.size());
    const auto owned_questions = [&] {
        size_t n = 0;
        for (const auto& notification : silent.notifications()) n += notification.first == "storm.owned" ? 1 : 0;
        return n;
    };
    m_storm.note("the silent owner is asked about each of the first 16 sets",
                 wait_until([&] { return owned_questions() >= 16; }, seconds(10)),
                 "owner questions received: " + std::to_string(owned_questions()));
    const std::string beyond = "a set beyond 16 waiting for one owner answers 100102";
    const auto began = std::chrono::steady_clock::now();
    for (int i = 0; i < 24; ++i)
        m_storm.judge(beyond, setter.call(put("storm.owned", "x" + std::to_string(i)), 5000), code(100102));
    m_storm.count_sent(24);
    const long long took = elapsed_ms(began);
    m_storm.note("24 sets beyond 16 waiting for one owner are refused within 2000 ms", took <= 2000,
                 "took " + std::to_string(took) + " ms");
    setter.pump();
    size_t answered_early = 0;
    for (DBusPendingCall* pending : waiting) answered_early += dbus_pending_call_get_completed(pending) ? 1 : 0;
    m_storm.note("a set waiting for a silent owner stays unanswered", answered_early == 0,
                 std::to_string(answered_early) + " of 16 were answered while the owner was silent");

    // Other keys are not held up: unowned ones, pipelined, mixed with more refused sets of the owned key.
    for (int i = 0; i < 200; ++i) {
        m_storm.send("a set of an unowned key answers 0 while an owner is silent",
                     put("storm.free." + std::to_string(i % 50), "v" + std::to_string(i)), ok);
        if (i % 5 == 0) m_storm.send(beyond, put("storm.owned", "y" + std::to_string(i)), code(100102), 5000);
    }
    end_phase("sets of other keys while an owner is silent");

    // The service can still ask an owner that answers: nothing of the above piled up on its connection.
    m_storm.call(subscribed, subscribe("iot.storm.owner", "storm.answered", 0), ok);
    for (int i = 0; i < 20; ++i)
        m_storm.call("a set of a key whose owner answers 0 answers 0", put("storm.answered", "a" + std::to_string(i)),
                     ok);
    m_storm.call("the value an owner agreed to is stored", get("storm.answered"), exactly("is", {"0", "a19"}));
    m_storm.call("nothing is stored for a key whose owner never answered", get("storm.owned"),
                 exactly("is", {"100100", ""}));
    end_phase("an answering owner after the silent ones");

    // The silent owner leaves: the bus answers its questions with an error, the waiting sets 100000.
    silent.stop();
    const auto deadline = std::chrono::steady_clock::now() + seconds(10);
    for (DBusPendingCall* pending : waiting)
        m_storm.judge("a set whose owner left without answering answers 100000", setter.await(pending, deadline),
                      exactly("i", {"100000"}));
    end_phase("the silent owner leaves");
    finish("silent subscribers");
}

// ---------------------------------------------------------------------------------------------
// The cloud: documents for the adapter, each a "subscribe_event" signal from the bridge.

// Documents that apply nothing, so the adapter's shadow thread keeps pace with any number of them.
std::vector<std::string> idle_documents() {
    return {
        "",
        "{not json",
        "}",
        "{\"method\":",
        "[1,2",
        "{'method':'control'}",
        "nul",
        "\x01\x02\x03\x7f",
        "\"unterminated",
        "[]",
        "[1,2,3]",
        "42",
        "-1",
        "\"control\"",
        "true",
        "null",
        "1e400",
        "{}",
        R"({"method":1})",
        R"({"method":true})",
        R"({"method":null})",
        R"({"method":[]})",
        R"({"method":{}})",
        R"({"method":1.5})",
        R"({"method":-3})",
        R"({"method":""})",
        R"({"method":"update"})",
        R"({"method":"get"})",
        R"({"method":"control"})",
        R"({"method":"reply"})",
        R"({"method":"control","payload":[]})",
        R"({"method":"control","payload":"x"})",
        R"({"method":"control","payload":{"state":[]}})",
        R"({"method":"control","payload":{"state":{"desired":[1,2]}}})",
        R"({"method":"reply","payload":{"state":{"reported":"x","desired":5}}})",
        R"({"method":"control","payload":{"state":{"desired":{}}}})",
        R"({"method":"control","version":"abc"})",
        R"({"method":"control","version":{"v":1}})",
        R"({"method":"control","version":[1]})",
        R"({"method":"control","version":-5})",
        R"({"method":"reply","version":18446744073709551616})",
        R"({"method":"control","version":1e30})",
        R"({"method":"control","version":1.5})",
        R"({"method":"control","version":true})",
        R"({"method":"control","version":null})",
        R"({"method":"reply","payload":{"state":{"reported":{"gw_vexa_switch":-3,"gw_orlo_level":2.5,)"
        R"("gw_orlo_project":true,"gw_vexa_accessKey":null,"gw_vexa_secretKey":[],"gw_orlo_logStore":{}}}}})",
        "/* comment */ {\"method\":\"update\"}",
        "{\"method\":\"update\"} trailing",
    };
}

// A document the adapter applies once and then skips: its last key as a reported string, so the
// test can see when the shadow thread got to it.
std::string marked(const std::string& mark, const std::string& rest = R"("method":"reply")",
                   const std::string& desired = "") {
    std::string state = R"("reported":{"gw_orlo_switch":")" + mark + "\"}";
    if (!desired.empty()) state = R"("desired":)" + desired + "," + state;
    return "{" + rest + R"(,"payload":{"state":{)" + state + "}}}";
}

TEST_F(AProcessUnderStorm, SurvivesTenThousandBrokenCloudDocuments) {
    const Verdict ok = exactly("i", {"0"});
    int mark = 0;
    // Sends document followed by nothing else and waits until the shadow thread applied its mark.
    const auto apply = [&](const std::string& rest, const std::string& desired, const std::string& what) {
        const std::string name = "mark-" + std::to_string(++mark);
        send_document(marked(name, rest, desired));
        m_storm.note("the adapter applies the keys after " + what, wait_value("gw_orlo_switch", name, seconds(10)),
                     "mark " + name + " was not applied");
    };
    const auto ping = [&](const std::string& check) { m_storm.call(check, adapter_notify("storm.ping", "p"), ok); };

    // "version" of every type; afterwards the adapter's reports still answer with their code.
    const std::vector<std::string> versions = {
        R"("abc")", R"({"v":1})", "[1]",  "-5",    "18446744073709551616",
        "1e30",     "1.5",        "true", R"("")", "99999999999999999999999",
        "7",
    };
    for (const std::string& version : versions) {
        apply(R"("method":"control","version":)" + version, "", "a version of " + version);
        m_storm.call("notify_config of the serial number answers 0 whatever the cloud's version",
                     adapter_notify("gw_vexa_serialNumber", "SN-" + std::to_string(mark)), ok);
        m_storm.call("notify_config of the log reply answers 0 whatever the cloud's version",
                     adapter_notify("gw_orlo_reply", "r"), ok);
        end_phase("version " + version);
    }

    // Desired values of every JSON type for six keys, the seventh key marking the end.
    struct CDesired {
        std::string json;
        std::string applied;  // what get_config answers afterwards; empty: any code
    };
    const std::vector<CDesired> desired = {
        {R"("s")", "s"},    {R"("")", ""},        {"0", "0"},
        {"1", "1"},         {"true", "1"},        {"false", "0"},
        {"null", "0"},      {"4294967295", "-1"}, {"3000000000", "-1294967296"},
        {"-1", ""},         {"-2147483649", ""},  {"4294967296", ""},
        {"1.5", ""},        {"-0.5", ""},         {"1e300", ""},
        {"[]", ""},         {"[1]", ""},          {"{}", ""},
        {R"({"a":1})", ""},
    };
    const char* const six[] = {"gw_vexa_accessKey", "gw_vexa_secretKey", "gw_vexa_switch",
                               "gw_orlo_logStore",  "gw_orlo_project",   "gw_orlo_level"};
    for (const CDesired& value : desired) {
        std::string object = "{";
        for (const char* key : six)
            object += std::string(object.size() > 1 ? "," : "") + "\"" + key + "\":" + value.json;
        object += "}";
        apply(R"("method":"control")", object, "a desired " + shorten(value.json));
        for (const char* key : six) {
            if (value.applied.empty()) {
                m_storm.call("a desired value of any type leaves the key readable", get(key), any_code());
            } else {
                m_storm.call("a desired value is applied as its text", get(key), exactly("is", {"0", value.applied}));
            }
        }
        end_phase("desired " + shorten(value.json));
    }

    // Text that is not UTF-8 once decoded, and nesting deeper than parsers like.
    apply(R"("method":"control")", R"({"gw_orlo_project":"bad\udc00x"})", "a desired lone surrogate");
    m_storm.call("a desired value that is not UTF-8 leaves the key readable", get("gw_orlo_project"), any_code());
    end_phase("desired lone surrogate");
    const std::string deep_array = std::string(1200, '[') + std::string(1200, ']');
    std::string deep_object;
    for (int i = 0; i < 1200; ++i) deep_object += "{\"a\":";
    deep_object += "1" + std::string(1200, '}');
    // A parser may refuse such a document whole, so the mark follows in a document of its own.
    for (const std::string& deep :
         {R"({"method":"control","payload":{"state":{"desired":{"gw_orlo_level":)" + deep_array + "}}}}",
          R"({"method":"control","version":)" + deep_object + "}", R"({"method":"reply","deep":)" + deep_array + "}",
          deep_array, deep_object}) {
        send_document(deep);
        apply(R"("method":"reply")", "", "a document nested 1200 deep");
        ping("notify_config answers 0 after documents nested 1200 deep");
    }
    end_phase("deep nesting");

    // The flood: rounds of documents that apply nothing, each round closed by a mark.
    const std::vector<std::string> idle = idle_documents();
    size_t round = 0;
    while (m_documents < 10000) {
        for (int copy = 0; copy < 4; ++copy)
            for (const std::string& document : idle) send_document(document);
        apply(R"("method":"reply")", "", "a round of broken documents");
        ping("notify_config answers 0 during the flood");
        if (++round % 5 == 0) end_phase("flood, round " + std::to_string(round));
    }
    end_phase("flood");

    ping("notify_config answers 0 after the flood");
    m_storm.call("notify_config of the serial number answers 0 after the flood",
                 adapter_notify("gw_vexa_serialNumber", "SN-last"), ok);
    send_document(R"({"method":"control","payload":{"state":{"desired":{"gw_orlo_logStore":"after-storm"}}}})");
    m_storm.note("the adapter applies a desired value after the flood",
                 wait_value("gw_orlo_logStore", "after-storm", seconds(10)), "after-storm was not applied");
    end_phase("after the flood");
    finish("cloud documents");
}

}  // namespace
