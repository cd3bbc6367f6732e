// cmctl's exit statuses and its one-line messages on standard error. Every failure is reported
// once, where it is decided, as "cmctl: SUBJECT: what happened (code)", and turned into the exit
// status a script can test.
#ifndef CMCTL_FAILURE_H
#define CMCTL_FAILURE_H

#include <string>

#include "config_client.h"

namespace Quorel {
namespace Iot {
namespace Cmctl {

enum ExitStatus : int {
    kExitOk = 0,
    kExitFailure = 1,      // anything not listed below
    kExitUsage = 2,        // bad arguments: the request never left cmctl, or the service refused them as such
    kExitNotFound = 3,     // no such key, no key matches, or the name is not subscribed to the key
    kExitRefused = 4,      // the key's owner refused the change, or another owner holds the key
    kExitUnreachable = 5,  // no bus, the service is not on it, or it stopped or vanished mid-request
    kExitTimeout = 6,      // no answer within the time-out
};

// What a request was for: the same code means different things to different methods.
enum class Request { Get, GetWithTs, Query, Change, Subscribe, Unsubscribe };

// "cmctl: " + text, on standard error.
void print_error(const std::string& text);
// "cmctl: " + subject + ": " + text, with the subject's control characters escaped.
void print_error(const std::string& subject, const std::string& text);
// Prints the message for an answer that is not a success, and returns its exit status.
int report_failure(const CAnswer& answer, Request request, const std::string& subject, int timeout_ms);
// "cmctl: COMMAND: text" for an argument error, then a pointer to the command's help; returns
// kExitUsage.
int usage_error(const std::string& command, const std::string& text);

}  // namespace Cmctl
}  // namespace Iot
}  // namespace Quorel

#endif
