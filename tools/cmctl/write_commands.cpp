// set, unset, subscribe and unsubscribe: the commands that change one thing.
#include "arguments.h"
#include "commands.h"
#include "failure.h"
#include "text_format.h"

namespace Quorel {
namespace Iot {
namespace Cmctl {

namespace {

int change(CContext& context, const std::string& key, const std::string& value, bool with_ts, uint64_t ts) {
    const int status = context.connect();
    if (status != kExitOk) return status;
    CConfigClient& client = context.client();
    const CAnswer answer = with_ts ? client.set_with_ts(key, value, ts) : client.set(key, value);
    if (!answer.ok()) return report_failure(answer, Request::Change, key, context.timeout_ms());
    return kExitOk;
}

}  // namespace

int run_set(CContext& context, const CInvocation& invocation) {
    const std::string& key = invocation.args[0];
    std::string value = invocation.args[1];
    const bool with_ts = invocation.has("ts");
    uint64_t ts = 0;
    if (with_ts && !invocation.value("ts").empty() && (!parse_uint64(invocation.value("ts"), ts) || ts == 0)) {
        return usage_error("set", "--ts=MS needs a positive number of milliseconds");
    }
    if (value == "-") {
        value.clear();
        std::string error;
        if (!read_input("-", value, error)) {
            print_error("standard input: " + error);
            return kExitFailure;
        }
    }
    int status = check_bus_text("set", "the key", key);
    if (status == kExitOk) status = check_bus_text("set", "the value", value);
    if (status != kExitOk) return status;
    return change(context, key, value, with_ts, ts);
}

int run_unset(CContext& context, const CInvocation& invocation) {
    const std::string& key = invocation.args[0];
    const int status = check_bus_text("unset", "the key", key);
    if (status != kExitOk) return status;
    return change(context, key, "", false, 0);
}

int run_subscribe(CContext& context, const CInvocation& invocation) {
    const std::string& name = invocation.args[0];
    const std::string& key = invocation.args[1];
    const std::string& role = invocation.args[2];
    if (role != "owner" && role != "observer") {
        return usage_error("subscribe", "the role is 'owner' or 'observer', not '" + escape_control(role) + "'");
    }
    int status = check_bus_text("subscribe", "the name", name);
    if (status == kExitOk) status = check_bus_text("subscribe", "the key", key);
    if (status == kExitOk) status = context.connect();
    if (status != kExitOk) return status;
    const CAnswer answer = context.client().subscribe(name, key, role == "owner" ? kOwner : kObserver);
    if (!answer.ok()) return report_failure(answer, Request::Subscribe, name + " " + key, context.timeout_ms());
    return kExitOk;
}

int run_unsubscribe(CContext& context, const CInvocation& invocation) {
    const std::string& name = invocation.args[0];
    const std::string& key = invocation.args[1];
    int status = check_bus_text("unsubscribe", "the name", name);
    if (status == kExitOk) status = check_bus_text("unsubscribe", "the key", key);
    if (status == kExitOk) status = context.connect();
    if (status != kExitOk) return status;
    const CAnswer answer = context.client().unsubscribe(name, key);
    if (!answer.ok()) return report_failure(answer, Request::Unsubscribe, name + " " + key, context.timeout_ms());
    return kExitOk;
}

}  // namespace Cmctl
}  // namespace Iot
}  // namespace Quorel
