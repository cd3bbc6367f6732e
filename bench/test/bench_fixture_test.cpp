// The generated default file and the statistics the figures are built from.
#include "bench_fixture.h"

#include <gtest/gtest.h>
#include <json/json.h>
#include <regex.h>
#include <unistd.h>

#include <fstream>

#include "bench_bus.h"
#include "bench_load.h"
#include "quorel/configmanager/base64.h"

using namespace Quorel::Iot::Bench;

TEST(TheDefaultFile, HoldsEveryKeyAsABase64Envelope) {
    char path[] = "/tmp/cm-bench-test-XXXXXX";
    const int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    close(fd);
    std::string error;
    ASSERT_TRUE(write_default_file(path, 250, error)) << error;
    std::ifstream in(path);
    Json::Value doc;
    std::string errors;
    ASSERT_TRUE(Json::parseFromStream(Json::CharReaderBuilder(), in, &doc, &errors)) << errors;
    unlink(path);
    ASSERT_EQ(doc["config"].size(), 250u);
    EXPECT_TRUE(doc["metadata"].isObject());
    std::string stored;
    Quorel::Iot::Configmanager::base64_decode(doc["config"][key_name(42)].asString(), stored);
    EXPECT_EQ(stored, "{\"data\":\"" + key_value(42) + "\",\"ts\":1700000000000}\n");
    EXPECT_EQ(key_name(42), "bench.key.000042");
    EXPECT_EQ(key_value(42), "value-000042");
}

namespace {

// Matched the way the service matches: a POSIX basic expression searched anywhere in the key.
size_t count_matches(const char* pattern, size_t keys) {
    regex_t regex;
    if (regcomp(&regex, pattern, 0) != 0) return 0;
    size_t found = 0;
    for (size_t i = 0; i < keys; ++i) {
        if (regexec(&regex, key_name(i).c_str(), 0, nullptr, 0) == 0) ++found;
    }
    regfree(&regex);
    return found;
}

}  // namespace

TEST(ThePatterns, SelectOneKeyInAHundredAndEveryKey) {
    EXPECT_EQ(count_matches(kOnePercentPattern, 10000), 100u);
    EXPECT_EQ(count_matches(kAllPattern, 10000), 10000u);
}

TEST(TheStatistics, GiveMedianAndNearestRankPercentile) {
    EXPECT_DOUBLE_EQ(median({3, 1, 2}), 2);
    EXPECT_DOUBLE_EQ(median({4, 1, 3, 2}), 2.5);
    EXPECT_DOUBLE_EQ(median({}), 0);
    std::vector<double> hundred;
    for (int i = 100; i >= 1; --i) hundred.push_back(i);
    EXPECT_DOUBLE_EQ(percentile(hundred, 0.99), 99);
    EXPECT_DOUBLE_EQ(percentile(hundred, 0), 1);
    EXPECT_DOUBLE_EQ(percentile(hundred, 1), 100);
}

TEST(ASubscriberTarget, UsesTheDottedNameAsPathAndInterface) {
    const CTarget target = subscriber_target("iot.demo.svc");
    EXPECT_EQ(target.destination, "iot.demo.svc");
    EXPECT_EQ(target.path, "/iot/demo/svc");
    EXPECT_EQ(target.interface, "iot.demo.svc");
}
