// The figures table and its JSON form.
#include "bench_report.h"

#include <gtest/gtest.h>
#include <json/json.h>
#include <unistd.h>

#include <fstream>

using Quorel::Iot::Bench::CReport;

namespace {

Json::Value written(const CReport& report) {
    char path[] = "/tmp/cm-bench-report-XXXXXX";
    const int fd = mkstemp(path);
    close(fd);
    std::string error;
    EXPECT_TRUE(report.write(path, error)) << error;
    std::ifstream in(path);
    Json::Value doc;
    std::string errors;
    EXPECT_TRUE(Json::parseFromStream(Json::CharReaderBuilder(), in, &doc, &errors)) << errors;
    unlink(path);
    return doc;
}

}  // namespace

TEST(AReport, RelatesAFigureToItsBaseline) {
    CReport report;
    report.figure("get", "get_config", 900, "calls/s");
    report.ratio("get", 1000);
    report.target("get", ">= 0.90x baseline", true);
    const Json::Value doc = written(report);
    EXPECT_DOUBLE_EQ(doc["figures"]["get"]["ratio"].asDouble(), 0.9);
    EXPECT_DOUBLE_EQ(doc["figures"]["get"]["baseline"].asDouble(), 1000);
    EXPECT_TRUE(doc["figures"]["get"]["pass"].asBool());
    EXPECT_EQ(report.misses(), 0);
}

TEST(AReport, PrefersAMeasuredRatioOverTheQuotientOfTotals) {
    CReport report;
    report.figure("set", "set_config", 500, "calls/s");
    report.ratio("set", 1000, 0.62);
    EXPECT_DOUBLE_EQ(written(report)["figures"]["set"]["ratio"].asDouble(), 0.62);
}

TEST(AReport, CountsMissedTargetsAndProblemsAsMisses) {
    CReport report;
    report.figure("start", "start-up", 150, "ms");
    report.target("start", "< 100 ms", false);
    report.figure("rss", "memory", 10, "MiB");
    report.problem("observers received 3 of 4 notifications");
    EXPECT_EQ(report.misses(), 2);
    EXPECT_EQ(report.problems(), 1);
    const Json::Value doc = written(report);
    EXPECT_FALSE(doc["figures"]["start"]["pass"].asBool());
    EXPECT_FALSE(doc["figures"]["rss"].isMember("pass"));
    EXPECT_EQ(doc["problems"][0].asString(), "observers received 3 of 4 notifications");
}

TEST(AReport, PrintsSmallValuesWithTwoSignificantDigitsInsteadOfZero) {
    using Quorel::Iot::Bench::format_value;
    EXPECT_EQ(format_value(0.0038), "0.0038");
    EXPECT_EQ(format_value(0.25), "0.25");
    EXPECT_EQ(format_value(0.8), "0.80");
    EXPECT_EQ(format_value(2.504), "2.50");
    EXPECT_EQ(format_value(94.62), "94.6");
    EXPECT_EQ(format_value(2817518.4), "2817518");
    EXPECT_EQ(format_value(0), "0");
}
