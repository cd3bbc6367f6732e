// The simulator's commands ("desire", "report", "show") as a client of a running simulator: the
// request goes over the broker to the simulator's request topic, and the answer comes back on a
// topic of this client's own.
#ifndef SHADOW_CLOUD_COMMAND_CLIENT_H
#define SHADOW_CLOUD_COMMAND_CLIENT_H

#include <json/json.h>

#include <string>

namespace ShadowCloud {

// Sends {"command", "device", "values"} and waits up to timeout_ms for the answer. Returns the
// answer's code (0 done, 1 refused by the simulator), or -1 when no simulator answered; answer
// holds the answer document, or the reason for -1.
int run_command(const std::string& host, int port, const std::string& command, const std::string& device,
                const Json::Value& values, int timeout_ms, Json::Value& answer, std::string& reason);

}  // namespace ShadowCloud

#endif
