#include "failure.h"

#include <stdio.h>

#include "text_format.h"

namespace Quorel {
namespace Iot {
namespace Cmctl {

namespace {

struct CVerdict {
    int status;
    std::string text;
};

// The meaning of a service code, which depends on the method that answered it.
CVerdict verdict_for_code(int32_t code, Request request) {
    switch (code) {
        case 100000:
            if (request == Request::Change) return {kExitFailure, "the key's owner answered with an error"};
            return {kExitFailure, "the service could not read the request"};
        case 100001:
            return {kExitFailure, "the service could not read the request"};
        case 100100:
            if (request == Request::GetWithTs) return {kExitNotFound, "key not found, or it has no timestamp"};
            if (request == Request::Query) return {kExitNotFound, "no key matches, or the pattern was refused"};
            return {kExitNotFound, "key not found"};
        case 100101:
            return {kExitFailure, "the service refused the value (too large, or the store is full)"};
        case 100102:
            return {kExitFailure, "the key's owner could not be asked"};
        case 100103:
            return {kExitFailure, "the key's owner answered without a code"};
        case 100104:
            return {kExitUsage, "unknown subscription type"};
        case 100105:
            return {kExitRefused, "subscription refused: another service owns the key (or a limit was reached)"};
        case 100106:
            return {kExitUsage, "not a valid bus name"};
        case 100107:
            return {kExitNotFound, "not subscribed to that key"};
        default:
            break;
    }
    // A set of an owned key passes the owner's own code through unchanged.
    if (request == Request::Change) return {kExitRefused, "refused by the key's owner"};
    return {kExitFailure, "failed"};
}

}  // namespace

void print_error(const std::string& text) {
    fflush(stdout);
    fprintf(stderr, "cmctl: %s\n", text.c_str());
}

void print_error(const std::string& subject, const std::string& text) {
    print_error(escape_control(subject) + ": " + text);
}

int report_failure(const CAnswer& answer, Request request, const std::string& subject, int timeout_ms) {
    switch (answer.kind) {
        case CAnswer::Kind::Code: {
            const CVerdict verdict = verdict_for_code(answer.code, request);
            print_error(subject, verdict.text + " (" + std::to_string(answer.code) + ")");
            return verdict.status;
        }
        case CAnswer::Kind::Closed:
            print_error(subject,
                        "the service stopped before the key's owner answered (" + std::to_string(answer.code) + ")");
            return kExitUnreachable;
        case CAnswer::Kind::NoService:
            print_error(std::string(kServiceName) + " is not on the bus");
            return kExitUnreachable;
        case CAnswer::Kind::Timeout:
            print_error(subject, "no answer within " + std::to_string(timeout_ms) + " ms");
            return kExitTimeout;
        case CAnswer::Kind::Lost:
            print_error("lost the bus: " + answer.text);
            return kExitUnreachable;
        case CAnswer::Kind::BusError:
            print_error(subject, "bus error: " + answer.text);
            return kExitFailure;
        case CAnswer::Kind::Malformed:
            break;
    }
    print_error(subject, "unexpected answer from the service");
    return kExitFailure;
}

int usage_error(const std::string& command, const std::string& text) {
    print_error(command.empty() ? text : command + ": " + text);
    const std::string help = command.empty() ? "cmctl --help" : "cmctl " + command + " --help";
    fprintf(stderr, "Try '%s'.\n", help.c_str());
    return kExitUsage;
}

}  // namespace Cmctl
}  // namespace Iot
}  // namespace Quorel
