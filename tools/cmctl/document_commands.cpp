// export and import: the keys as a default-configuration document, and back.
#include <stdio.h>

#include <map>

#include "arguments.h"
#include "commands.h"
#include "document.h"
#include "failure.h"
#include "text_format.h"

namespace Quorel {
namespace Iot {
namespace Cmctl {

namespace {

// One key import would change, with what the readers answer before and after.
struct CChange {
    enum class Kind { Add, Change, Remove };
    Kind kind;
    CEntry before;
    CEntry after;
    std::string stored;
};

// What the service holds now, by key. An empty store answers "not found" to every pattern.
int current_entries(CContext& context, std::map<std::string, CEntry>& current) {
    const CAnswer answer = context.client().batch_with_ts(kEveryKey);
    if (answer.kind == CAnswer::Kind::Code && answer.code == 100100) return kExitOk;
    if (!answer.ok()) return report_failure(answer, Request::Query, kEveryKey, context.timeout_ms());
    std::vector<CEntry> entries;
    if (!parse_batch(answer.text, entries)) {
        print_error("unexpected answer from the service");
        return kExitFailure;
    }
    for (const CEntry& entry : entries) current[entry.key] = entry;
    return kExitOk;
}

std::vector<CChange> plan(const std::vector<CStoredItem>& items, const std::map<std::string, CEntry>& current) {
    std::vector<CChange> changes;
    for (const CStoredItem& item : items) {
        const auto found = current.find(item.key);
        const bool present = found != current.end();
        CChange change{CChange::Kind::Add, present ? found->second : CEntry(), reading_of(item.key, item.stored),
                       item.stored};
        if (item.stored.empty()) {
            if (!present) continue;
            change.kind = CChange::Kind::Remove;
        } else if (present) {
            if (same_reading(found->second, change.after)) continue;
            change.kind = CChange::Kind::Change;
        }
        changes.push_back(change);
    }
    return changes;
}

std::string shown(const CEntry& entry) {
    std::string text = escape_control(entry.value);
    if (entry.ts != 0) text += " @" + iso_time(entry.ts);
    return text;
}

void print_plan(const std::vector<CChange>& changes, size_t unchanged) {
    size_t counts[3] = {0, 0, 0};
    for (const CChange& change : changes) {
        const std::string key = escape_control(change.after.key);
        switch (change.kind) {
            case CChange::Kind::Add:
                printf("add %s = %s\n", key.c_str(), shown(change.after).c_str());
                break;
            case CChange::Kind::Change:
                printf("change %s: %s -> %s\n", key.c_str(), shown(change.before).c_str(), shown(change.after).c_str());
                break;
            case CChange::Kind::Remove:
                printf("remove %s\n", key.c_str());
                break;
        }
        ++counts[static_cast<int>(change.kind)];
    }
    printf("%zu to add, %zu to change, %zu to remove, %zu unchanged\n", counts[0], counts[1], counts[2], unchanged);
}

// Sets the key so that the readers answer change.after: an envelope goes back through
// set_config_with_ts with its own timestamp, anything else as the text it is.
int apply(CContext& context, const CChange& change) {
    CConfigClient& client = context.client();
    std::string data;
    uint64_t ts = 0;
    const CAnswer answer = split_envelope(change.stored, data, ts) ? client.set_with_ts(change.after.key, data, ts)
                                                                   : client.set(change.after.key, change.stored);
    if (answer.ok()) return kExitOk;
    return report_failure(answer, Request::Change, change.after.key, context.timeout_ms());
}

}  // namespace

int run_export(CContext& context, const CInvocation& invocation) {
    const std::string pattern = invocation.args.empty() ? kEveryKey : invocation.args[0];
    int status = check_bus_text("export", "the pattern", pattern);
    if (status == kExitOk) status = context.connect();
    if (status != kExitOk) return status;
    const CAnswer answer = context.client().batch_with_ts(pattern);
    if (!answer.ok()) return report_failure(answer, Request::Query, pattern, context.timeout_ms());
    std::vector<CEntry> entries;
    if (!parse_batch(answer.text, entries)) {
        print_error(pattern, "unexpected answer from the service");
        return kExitFailure;
    }
    const std::string document = make_document(entries);
    fwrite(document.data(), 1, document.size(), stdout);
    return kExitOk;
}

int run_import(CContext& context, const CInvocation& invocation) {
    const std::string& path = invocation.args[0];
    const std::string source = path == "-" ? "standard input" : path;
    std::string text;
    std::string error;
    if (!read_input(path, text, error)) {
        print_error(source, error);
        return kExitFailure;
    }
    std::vector<CStoredItem> items;
    if (!read_document(text, items, error)) {
        print_error(source, "not a default-configuration document: " + error);
        return kExitUsage;
    }
    int status = context.connect();
    std::map<std::string, CEntry> current;
    if (status == kExitOk) status = current_entries(context, current);
    if (status != kExitOk) return status;
    const std::vector<CChange> changes = plan(items, current);
    if (invocation.has("dry-run")) {
        print_plan(changes, items.size() - changes.size());
        return kExitOk;
    }
    int first_failure = kExitOk;
    for (const CChange& change : changes) {
        status = apply(context, change);
        // A bus that is gone or a service that stopped fails every remaining key the same way.
        if (status == kExitUnreachable) return status;
        if (first_failure == kExitOk) first_failure = status;
    }
    return first_failure;
}

}  // namespace Cmctl
}  // namespace Iot
}  // namespace Quorel
