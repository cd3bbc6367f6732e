// get, dump and keys: the commands that only read.
#include <stdio.h>

#include "arguments.h"
#include "commands.h"
#include "document.h"
#include "failure.h"
#include "text_format.h"

namespace Quorel {
namespace Iot {
namespace Cmctl {

namespace {

void write_text(const std::string& text) { fwrite(text.data(), 1, text.size(), stdout); }

// The pattern argument, or every key; kExitOk when it can go to the bus.
int pattern_of(const CInvocation& invocation, std::string& pattern) {
    pattern = invocation.args.empty() ? kEveryKey : invocation.args[0];
    return check_bus_text(invocation.command->name, "the pattern", pattern);
}

int unexpected_answer(const std::string& subject) {
    print_error(subject, "unexpected answer from the service");
    return kExitFailure;
}

}  // namespace

int run_get(CContext& context, const CInvocation& invocation) {
    const std::string& key = invocation.args[0];
    const bool with_ts = invocation.has("ts");
    const bool raw = invocation.has("raw");
    if (with_ts && raw) return usage_error("get", "--ts and --raw cannot be combined");
    int status = check_bus_text("get", "the key", key);
    if (status == kExitOk) status = context.connect();
    if (status != kExitOk) return status;
    CConfigClient& client = context.client();
    const CAnswer answer = with_ts ? client.get_with_ts(key) : client.get(key);
    if (!answer.ok()) {
        return report_failure(answer, with_ts ? Request::GetWithTs : Request::Get, key, context.timeout_ms());
    }
    write_text(answer.text);
    if (!raw) write_text("\n");
    if (with_ts) write_text(std::to_string(answer.ts) + " " + iso_time(answer.ts) + "\n");
    return kExitOk;
}

int run_dump(CContext& context, const CInvocation& invocation) {
    std::string pattern;
    int status = pattern_of(invocation, pattern);
    if (status == kExitOk) status = context.connect();
    if (status != kExitOk) return status;
    const CAnswer answer = context.client().batch_with_ts(pattern);
    if (!answer.ok()) return report_failure(answer, Request::Query, pattern, context.timeout_ms());
    std::vector<CEntry> entries;
    if (!parse_batch(answer.text, entries)) return unexpected_answer(pattern);
    if (invocation.has("json")) {
        write_text(answer.text);
        if (answer.text.empty() || answer.text.back() != '\n') write_text("\n");
        return kExitOk;
    }
    std::vector<std::vector<std::string>> rows = {{"KEY", "TIME", "VALUE"}};
    for (const CEntry& entry : entries) {
        rows.push_back(
            {escape_control(entry.key), entry.ts != 0 ? iso_time(entry.ts) : "-", escape_control(entry.value)});
    }
    write_text(format_table(rows));
    return kExitOk;
}

int run_keys(CContext& context, const CInvocation& invocation) {
    std::string pattern;
    int status = pattern_of(invocation, pattern);
    if (status == kExitOk) status = context.connect();
    if (status != kExitOk) return status;
    const CAnswer answer = context.client().keylist(pattern);
    if (!answer.ok()) return report_failure(answer, Request::Query, pattern, context.timeout_ms());
    std::vector<std::string> keys;
    if (!parse_keylist(answer.text, keys)) return unexpected_answer(pattern);
    for (const std::string& key : keys) write_text(escape_control(key) + "\n");
    return kExitOk;
}

}  // namespace Cmctl
}  // namespace Iot
}  // namespace Quorel
