#include <gtest/gtest.h>
#include <json/json.h>

#include <string>
#include <tuple>

#include "quorel/configmanager/config_file_manager.h"
#include "quorel/testsupport/log_capture.h"

using Quorel::Iot::Configmanager::CConfigFileManagerFullamount;
using Quorel::Iot::Testing::CLogCapture;
using Query = bool (CConfigFileManagerFullamount::*)(const std::string&, std::string&);

namespace {

const Query kBatch = &CConfigFileManagerFullamount::get_config_batch;
const Query kBatchTs = &CConfigFileManagerFullamount::get_config_batch_with_ts;
const Query kKeys = &CConfigFileManagerFullamount::get_config_keylist;

class AStoreQuery : public ::testing::Test {
protected:
    // The query's output, or "<false>" when it found nothing.
    std::string run(Query query, const std::string& pattern) {
        std::string out = "<untouched>";
        return (m_store.*query)(pattern, out) ? out : "<false>";
    }
    int level_of(const std::string& text) const {
        for (const auto& line : m_log.lines())
            if (line.message == text) return line.level;
        return -1;
    }

    CLogCapture m_log;
    CConfigFileManagerFullamount m_store;
};

}  // namespace

TEST_F(AStoreQuery, ReturnsAValueAsItWasSetCutAtItsFirstNul) {
    std::string value = "untouched";
    EXPECT_FALSE(m_store.get_config("gw_a", value));
    EXPECT_EQ(level_of("get_config fail, member config error."), 3);
    m_store.set_config("gw_a", "{\"x\": [1, 2]}");
    m_store.set_config("gw_raw", std::string("ab\0cd", 5));
    EXPECT_FALSE(m_store.get_config("gw_b", value));
    EXPECT_EQ(level_of("get_config fail, member gw_b error."), 3);
    EXPECT_EQ(value, "untouched");
    ASSERT_TRUE(m_store.get_config("gw_a", value));
    EXPECT_EQ(value, "{\"x\": [1, 2]}");
    ASSERT_TRUE(m_store.get_config("gw_raw", value));
    EXPECT_EQ(value, "ab");
}

TEST_F(AStoreQuery, DeletesAKeyWhenSetToAnEmptyValue) {
    m_store.set_config("gw_a", "1");
    m_store.set_config("gw_b", "2");
    EXPECT_TRUE(m_store.set_config("gw_a", ""));
    EXPECT_TRUE(m_store.set_config("gw_never_set", ""));
    EXPECT_EQ(run(kKeys, "."), "[\"gw_b\"]\n");
}

TEST_F(AStoreQuery, UnwrapsEnvelopesAndReturnsOtherTextsWhole) {
    m_store.set_config("b", "{\"data\":\"on\",\"ts\":1700000000000}\n");
    m_store.set_config("a", "1");
    m_store.set_config("c_string", "\"hello\"");
    m_store.set_config("d_text", "abc");
    m_store.set_config("e_no_data", "{\"x\":1,\"ts\":5}");
    m_store.set_config("f_no_ts", "{\"data\":42}");
    EXPECT_EQ(run(kBatch, "^[ab]"), "[{\"key\":\"a\",\"value\":\"1\"},{\"key\":\"b\",\"value\":\"on\"}]\n");
    EXPECT_EQ(run(kBatchTs, "."),
              "[{\"key\":\"a\",\"ts\":0,\"value\":\"1\"},{\"key\":\"b\",\"ts\":1700000000000,\"value\":\"on\"},"
              "{\"key\":\"c_string\",\"ts\":0,\"value\":\"\\\"hello\\\"\"},{\"key\":\"d_text\",\"ts\":0,\"value\":"
              "\"abc\"},{\"key\":\"e_no_data\",\"ts\":5,\"value\":\"{\\\"x\\\":1,\\\"ts\\\":5}\"},"
              "{\"key\":\"f_no_ts\",\"ts\":0,\"value\":\"42\"}]\n");
}

TEST_F(AStoreQuery, LooksAtTimestampsOnlyWhenAskedFor) {
    m_store.set_config("k", "{\"data\":\"on\",\"ts\":\"soon\"}");
    EXPECT_EQ(run(kBatch, "k"), "[{\"key\":\"k\",\"value\":\"on\"}]\n");
    // A "ts" the conversion refuses is no reason to fail the whole query: it counts as 0.
    EXPECT_EQ(run(kBatchTs, "k"), "[{\"key\":\"k\",\"ts\":0,\"value\":\"on\"}]\n");
}

TEST_F(AStoreQuery, MatchesBasicRegularExpressionsAnywhereUnlessAnchored) {
    for (const char* key : {"x_gw_b", "gw_a+", "GW_A", "other"}) m_store.set_config(key, "1");
    EXPECT_EQ(run(kKeys, "^gw_"), "[\"gw_a+\"]\n");
    EXPECT_EQ(run(kKeys, "gw_"), "[\"gw_a+\",\"x_gw_b\"]\n");
    EXPECT_EQ(run(kKeys, "r$"), "[\"other\"]\n");
    EXPECT_EQ(run(kKeys, "a+"), "[\"gw_a+\"]\n");  // "+" is an ordinary character here
    EXPECT_EQ(run(kKeys, "."), "[\"GW_A\",\"gw_a+\",\"other\",\"x_gw_b\"]\n");
}

TEST_F(AStoreQuery, FindsNothingForAPatternThatDoesNotCompileOrInAnEmptyStore) {
    EXPECT_EQ(run(kKeys, "."), "<false>");
    m_store.set_config("gw_a", "1");
    for (Query query : {kBatch, kBatchTs, kKeys}) EXPECT_EQ(run(query, "\\("), "<false>");
    EXPECT_EQ(m_log.count("Didn't find the key: \\("), 3u);
    EXPECT_EQ(level_of("Didn't find the key: ."), 1);
}

TEST_F(AStoreQuery, LogsEachMatchAndTheResultAtTheirLevels) {
    m_store.set_config("a", "1");
    m_store.set_config("b", "2");
    const std::string batch = run(kBatch, "a");
    const std::string keys = run(kKeys, ".");
    EXPECT_EQ(level_of("The name a, key a is matched"), 1);
    EXPECT_EQ(m_log.count("The name ., key b is matched"), 1u);
    EXPECT_EQ(level_of("arrayObj: " + batch), 0);
    EXPECT_EQ(level_of("arrayObj: " + keys), 1);
}

// The results are written without building a JSON value first; they must stay byte for byte what
// the library's compact writer gives for the same elements, for every character clients may use.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
TEST_F(AStoreQuery, WritesResultsExactlyAsTheCompactJsonWriterDoes) {
    const std::string key = std::string("k \"q\" \\ /\t\x01 \xc3\xa9 \xe2\x82\xac ") + std::string(1, '\0') + "z";
    const std::string value = "line\nbreak \"quoted\" \x7f \xf0\x9f\x98\x80";
    const std::string envelope = "{\"data\":\"caf\\u00e9 \\\"x\\\"\",\"ts\":18446744073709551615}\n";
    m_store.set_config(key, value);
    m_store.set_config("e", envelope);

    Json::Value batch(Json::arrayValue), batch_ts(Json::arrayValue), keys(Json::arrayValue);
    for (const auto& [k, v, ts] : {std::make_tuple(std::string("e"), std::string("caf\xc3\xa9 \"x\""),
                                                   static_cast<Json::UInt64>(18446744073709551615ull)),
                                   std::make_tuple(key, value, static_cast<Json::UInt64>(0))}) {
        Json::Value element;
        element["key"] = k;
        element["value"] = v;
        batch.append(element);
        element["ts"] = ts;
        batch_ts.append(element);
        keys.append(k);
    }
    Json::FastWriter writer;
    EXPECT_EQ(run(kBatch, "."), writer.write(batch));
    EXPECT_EQ(run(kBatchTs, "."), writer.write(batch_ts));
    EXPECT_EQ(run(kKeys, "."), writer.write(keys));
}
#pragma GCC diagnostic pop
