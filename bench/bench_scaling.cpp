// Start-up, memory and pattern queries over growing stores.
#include <cstdio>
#include <memory>
#include <thread>

#include "bench_fixture.h"
#include "bench_run.h"
#include "bench_targets.h"

namespace Quorel {
namespace Iot {
namespace Bench {

namespace {

const size_t kTargetKeys = 10000;

struct CQuery {
    const char* member;
    const char* pattern;
    const char* id;  // figure id prefix
    const char* label;
    size_t per_hundred;  // expected matches per hundred keys
};

const CQuery kQueries[] = {
    {"get_config_batch", kAllPattern, "get_config_batch_all", "get_config_batch '.'", 100},
    {"get_config_batch", kOnePercentPattern, "get_config_batch_1pct", "get_config_batch '00$' (1 %)", 1},
    {"get_config_keylist", kAllPattern, "get_config_keylist_all", "get_config_keylist '.'", 100},
    {"get_config_keylist", kOnePercentPattern, "get_config_keylist_1pct", "get_config_keylist '00$' (1 %)", 1},
};

std::string thousands(size_t keys) { return keys >= 1000 ? std::to_string(keys / 1000) + "k" : std::to_string(keys); }

// Number of elements in the JSON array the query answered, -1 when it is not one.
long count_elements(DBusMessage* reply, int32_t& code) {
    std::string text;
    if (!read_code_and_text(reply, code, text)) return -1;
    Json::Value parsed;
    Json::CharReaderBuilder builder;
    std::string errors;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    if (!reader->parse(text.data(), text.data() + text.size(), &parsed, &errors) || !parsed.isArray()) return -1;
    return static_cast<long>(parsed.size());
}

double mib(long kib) { return kib < 0 ? -1 : static_cast<double>(kib) / 1024.0; }

}  // namespace

void CBenchRun::hold_to_limit(const std::string& id, double value) {
    const CLimitTarget* limit = limit_for(id);
    if (limit != nullptr) m_report.target(id, describe(*limit), met(*limit, value));
}

void CBenchRun::measure_queries(size_t keys, Json::Value& details) {
    std::string error;
    CConnection client = open_connection(m_address, "", error);
    if (!client) {
        m_report.problem(error);
        return;
    }
    const auto budget = m_options.quick ? std::chrono::milliseconds(300) : std::chrono::milliseconds(1500);
    for (const CQuery& q : kQueries) {
        const std::string member = q.member;
        const std::string pattern = q.pattern;
        CCallFactory factory = [member, pattern] { return make_call(config_manager_target(), member, {pattern}); };
        CMessage first;
        const std::vector<double> runs = time_calls(client.get(), factory, 3, 9, budget, error, &first);
        const std::string id = std::string(q.id) + "_" + std::to_string(keys);
        if (runs.empty()) {
            m_report.problem(id + ": " + error);
            continue;
        }
        int32_t code = -1;
        const long found = count_elements(first.get(), code);
        const long expected = static_cast<long>(keys * q.per_hundred / 100);
        m_report.figure(id, std::string(q.label) + ", " + thousands(keys) + " keys", median(runs), "ms",
                        std::to_string(runs.size()) + " runs, " + std::to_string(found) + " elements");
        hold_to_limit(id, median(runs));
        if (code != 0 || found != expected) {
            m_report.problem(id + " answered code " + std::to_string(code) + " with " + std::to_string(found) +
                             " elements, expected " + std::to_string(expected));
        }
        Json::Value& j = details[q.id];
        j["median_ms"] = median(runs);
        j["runs_ms"] = Json::Value(Json::arrayValue);
        for (double r : runs) j["runs_ms"].append(r);
        j["elements"] = static_cast<Json::Int64>(found);
    }
}

void CBenchRun::measure_scaling() {
    const std::vector<size_t> sizes =
        m_options.quick ? std::vector<size_t>{1000, 10000} : std::vector<size_t>{1000, 10000, 100000};
    Json::Value& scaling = m_report.details()["scaling"];
    std::string error;
    for (size_t keys : sizes) {
        progress("start-up and queries with " + std::to_string(keys) + " keys");
        const unsigned samples = keys == kTargetKeys && !m_options.quick ? 5 : 3;
        std::vector<double> service_ms;
        std::vector<double> adapter_ms;
        Json::Value& details = scaling[std::to_string(keys)];
        for (unsigned s = 0; s < samples; ++s) {
            CStartup startup;
            if (!m_stack.start(keys, startup, error)) {
                m_report.problem(error);
                return;
            }
            service_ms.push_back(startup.service_ms);
            adapter_ms.push_back(startup.adapter_ms);
            if (s + 1 < samples) details["exit_status"].append(m_stack.stop());
        }
        // The adapter owns its name once its start-up calls are done: the process is at rest.
        const long rss_kib = m_stack.service().rss_kib();
        details["startup_ms"] = Json::Value(Json::arrayValue);
        for (double ms : service_ms) details["startup_ms"].append(ms);
        details["startup_adapter_ms"] = Json::Value(Json::arrayValue);
        for (double ms : adapter_ms) details["startup_adapter_ms"].append(ms);
        details["rss_kib_after_start"] = static_cast<Json::Int64>(rss_kib);

        const std::string suffix = std::to_string(keys);
        char detail[160];
        snprintf(detail, sizeof(detail), "median of %u (fastest %.1f ms), adapter up after %.1f ms", samples,
                 percentile(service_ms, 0), median(adapter_ms));
        m_report.figure("startup_ms_" + suffix, "start-up, " + thousands(keys) + " keys", median(service_ms), "ms",
                        detail);
        m_report.figure("rss_mib_" + suffix, "resident memory after start, " + thousands(keys) + " keys", mib(rss_kib),
                        "MiB");
        hold_to_limit("startup_ms_" + suffix, median(service_ms));
        hold_to_limit("rss_mib_" + suffix, mib(rss_kib));
        measure_queries(keys, details);
        details["peak_rss_kib"] = static_cast<Json::Int64>(m_stack.service().peak_rss_kib());
        details["exit_status"].append(m_stack.stop());
    }
    // Linear growth: ten times the keys should cost about ten times as long, not more.
    for (size_t i = 1; i < sizes.size(); ++i) {
        const double before = scaling[std::to_string(sizes[i - 1])]["get_config_batch_all"]["median_ms"].asDouble();
        const double after = scaling[std::to_string(sizes[i])]["get_config_batch_all"]["median_ms"].asDouble();
        if (before <= 0 || after <= 0) continue;
        const std::string id = "get_config_batch_growth_" + std::to_string(sizes[i]);
        m_report.figure(id, "get_config_batch '.' growth " + thousands(sizes[i - 1]) + "->" + thousands(sizes[i]),
                        after / before, "x", "linear is 10x");
        m_report.target(id, describe(kBatchGrowthTarget), met(kBatchGrowthTarget, after / before));
    }
}

}  // namespace Bench
}  // namespace Iot
}  // namespace Quorel
