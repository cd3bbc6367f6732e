// gateway-bench: how long a value desired in the cloud takes to become what get_config answers,
// through the real broker, bridge and adapter. Run by scripts/bench.sh; not a test.
//
// Each round the simulator pushes a new value; the clock starts when the control document reaches
// a plain MQTT subscriber of the broker (the moment the bridge can have it too) and stops when
// get_config, asked over and over, answers the new value.
#include <json/json.h>
#include <stdio.h>
#include <stdlib.h>

#include <algorithm>
#include <string>
#include <vector>

#include "gateway_stack.h"
#include "quorel/testsupport/mqtt_client.h"
#include "quorel/testsupport/wait.h"

using namespace Quorel::Iot::Testing;
using std::chrono::duration;
using std::chrono::seconds;
using std::chrono::steady_clock;

namespace {

constexpr double kTargetMedianMs = 50.0;

double percentile(std::vector<double> values, double p) {
    std::sort(values.begin(), values.end());
    const size_t index = static_cast<size_t>(p * static_cast<double>(values.size() - 1) + 0.5);
    return values[index];
}

}  // namespace

int main(int argc, char** argv) {
    const int rounds = argc > 1 ? std::max(1, atoi(argv[1])) : 40;
    CGatewayStack stack;
    if (!stack.start("")) {
        fprintf(stderr, "gateway-bench: %s\n", stack.failure().c_str());
        return 1;
    }
    CMqttClient watcher;
    if (!watcher.connect(stack.broker().host(), stack.broker().port()) ||
        !watcher.subscribe("/shadow/get/pk01/gw-7", 1) ||
        !wait_until([&] { return stack.service().err().find("subscribe success:") != std::string::npos; },
                    seconds(10))) {
        fprintf(stderr, "gateway-bench: the adapter did not subscribe its topic\n%s\n", stack.logs().c_str());
        return 1;
    }
    std::vector<double> latencies;
    for (int round = 0; round < rounds; ++round) {
        const std::string value = std::to_string(1000 + round);
        watcher.clear();
        const CProcessResult pushed = stack.cloud_command({"desire", "pk01/gw-7", "gw_orlo_level=" + value});
        if (pushed.status != 0 || !watcher.wait_for_count("/shadow/get/pk01/gw-7", 1)) {
            fprintf(stderr, "gateway-bench: the simulator did not push round %d: %s\n", round, pushed.err.c_str());
            return 1;
        }
        const steady_clock::time_point published = watcher.messages()[0].arrived;
        if (!wait_until([&] { return stack.get("gw_orlo_level") == value; }, seconds(5))) {
            fprintf(stderr, "gateway-bench: round %d never arrived\n%s\n", round, stack.logs().c_str());
            return 1;
        }
        latencies.push_back(duration<double, std::milli>(steady_clock::now() - published).count());
    }
    const double median = percentile(latencies, 0.5);
    printf("desired value in the cloud -> get_config answers it, %d rounds:\n", rounds);
    printf("  median %.2f ms   p90 %.2f ms   max %.2f ms   target median < %.0f ms   %s\n", median,
           percentile(latencies, 0.9), percentile(latencies, 1.0), kTargetMedianMs,
           median < kTargetMedianMs ? "PASS" : "MISS");
    return 0;
}
