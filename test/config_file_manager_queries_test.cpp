#include <gtest/gtest.h>
#include <json/json.h>

#include <string>

#include "quorel/configmanager/config_file_manager.h"
#include "quorel/testsupport/log_capture.h"

using Quorel::Iot::Configmanager::CConfigFileManagerFullamount;
using Quorel::Iot::Testing::CLogCapture;

namespace {

const char kEnvelopeOn[] = "{\"data\":\"on\",\"ts\":1700000000000}\n";

// Level of the first captured line whose message equals text, or -1.
int level_of(const CLogCapture& log, const std::string& text) {
    for (const auto& line : log.lines()) {
        if (line.message == text) return line.level;
    }
    return -1;
}

class AStoreQuery : public ::testing::Test {
protected:
    // Runs a query and returns its output, or "<false>" when it found nothing.
    template <typename Query>
    std::string run(Query query, const std::string& pattern) {
        std::string out = "<untouched>";
        return (m_store.*query)(pattern, out) ? out : "<false>";
    }

    CLogCapture m_log;
    CConfigFileManagerFullamount m_store;
};

}  // namespace

TEST_F(AStoreQuery, ReturnsAPlainValueAsItWasSet) {
    ASSERT_TRUE(m_store.set_config("gw_mode", "{\"x\": [1, 2]}"));
    std::string value;
    ASSERT_TRUE(m_store.get_config("gw_mode", value));
    EXPECT_EQ(value, "{\"x\": [1, 2]}");
}

TEST_F(AStoreQuery, CutsAValueAtItsFirstNulByte) {
    m_store.set_config("gw_raw", std::string("ab\0cd", 5));
    std::string value;
    ASSERT_TRUE(m_store.get_config("gw_raw", value));
    EXPECT_EQ(value, "ab");
}

TEST_F(AStoreQuery, FailsOnAnEmptyDocumentAndOnAnAbsentKey) {
    std::string value = "untouched";
    EXPECT_FALSE(m_store.get_config("gw_a", value));
    EXPECT_EQ(m_log.count("get_config fail, member config error."), 1u);
    m_store.set_config("gw_b", "1");
    EXPECT_FALSE(m_store.get_config("gw_a", value));
    EXPECT_EQ(m_log.count("get_config fail, member gw_a error."), 1u);
    EXPECT_EQ(level_of(m_log, "get_config fail, member gw_a error."), 3);
    EXPECT_EQ(value, "untouched");
}

TEST_F(AStoreQuery, DeletesAKeyWhenSetToAnEmptyValue) {
    m_store.set_config("gw_a", "1");
    m_store.set_config("gw_b", "2");
    EXPECT_TRUE(m_store.set_config("gw_a", ""));
    EXPECT_TRUE(m_store.set_config("gw_never_set", ""));
    EXPECT_EQ(run(&CConfigFileManagerFullamount::get_config_keylist, "."), "[\"gw_b\"]\n");
}

TEST_F(AStoreQuery, ListsValuesOfPlainAndEnvelopeKeysInByteOrder) {
    m_store.set_config("b", kEnvelopeOn);
    m_store.set_config("a", "1");
    EXPECT_EQ(run(&CConfigFileManagerFullamount::get_config_batch, "."),
              "[{\"key\":\"a\",\"value\":\"1\"},{\"key\":\"b\",\"value\":\"on\"}]\n");
    EXPECT_EQ(run(&CConfigFileManagerFullamount::get_config_batch_with_ts, "."),
              "[{\"key\":\"a\",\"ts\":0,\"value\":\"1\"},{\"key\":\"b\",\"ts\":1700000000000,\"value\":\"on\"}]\n");
}

TEST_F(AStoreQuery, ReturnsTextsThatAreNoEnvelopeWhole) {
    m_store.set_config("k1_string", "\"hello\"");
    m_store.set_config("k2_text", "abc");
    m_store.set_config("k3_no_data", "{\"x\":1,\"ts\":5}");
    m_store.set_config("k4_no_ts", "{\"data\":\"on\"}");
    EXPECT_EQ(run(&CConfigFileManagerFullamount::get_config_batch_with_ts, "."),
              "[{\"key\":\"k1_string\",\"ts\":0,\"value\":\"\\\"hello\\\"\"},"
              "{\"key\":\"k2_text\",\"ts\":0,\"value\":\"abc\"},"
              "{\"key\":\"k3_no_data\",\"ts\":5,\"value\":\"{\\\"x\\\":1,\\\"ts\\\":5}\"},"
              "{\"key\":\"k4_no_ts\",\"ts\":0,\"value\":\"on\"}]\n");
}

TEST_F(AStoreQuery, GivesScalarEnvelopeDataAsText) {
    m_store.set_config("k1", "{\"data\":42,\"ts\":1}");
    m_store.set_config("k2", "{\"data\":true}");
    EXPECT_EQ(run(&CConfigFileManagerFullamount::get_config_batch, "."),
              "[{\"key\":\"k1\",\"value\":\"42\"},{\"key\":\"k2\",\"value\":\"true\"}]\n");
}

TEST_F(AStoreQuery, LooksAtTimestampsOnlyWhenAskedFor) {
    m_store.set_config("k", "{\"data\":\"on\",\"ts\":\"soon\"}");
    EXPECT_EQ(run(&CConfigFileManagerFullamount::get_config_batch, "k"), "[{\"key\":\"k\",\"value\":\"on\"}]\n");
    std::string out;
    EXPECT_THROW(m_store.get_config_batch_with_ts("k", out), Json::LogicError);
}

TEST_F(AStoreQuery, MatchesPatternsAnywhereUnlessAnchored) {
    m_store.set_config("gw_a", "1");
    m_store.set_config("x_gw_b", "2");
    m_store.set_config("other", "3");
    EXPECT_EQ(run(&CConfigFileManagerFullamount::get_config_keylist, "^gw_"), "[\"gw_a\"]\n");
    EXPECT_EQ(run(&CConfigFileManagerFullamount::get_config_keylist, "gw_"), "[\"gw_a\",\"x_gw_b\"]\n");
    EXPECT_EQ(run(&CConfigFileManagerFullamount::get_config_keylist, "r$"), "[\"other\"]\n");
    EXPECT_EQ(run(&CConfigFileManagerFullamount::get_config_keylist, "."), "[\"gw_a\",\"other\",\"x_gw_b\"]\n");
}

TEST_F(AStoreQuery, UsesBasicRegularExpressionsCaseSensitively) {
    m_store.set_config("gw_a+", "1");
    m_store.set_config("GW_A", "2");
    // In basic syntax "+" is an ordinary character.
    EXPECT_EQ(run(&CConfigFileManagerFullamount::get_config_keylist, "gw_a+"), "[\"gw_a+\"]\n");
}

TEST_F(AStoreQuery, FindsNothingForAPatternThatDoesNotCompile) {
    m_store.set_config("gw_a", "1");
    EXPECT_EQ(run(&CConfigFileManagerFullamount::get_config_batch, "\\("), "<false>");
    EXPECT_EQ(run(&CConfigFileManagerFullamount::get_config_batch_with_ts, "\\("), "<false>");
    EXPECT_EQ(run(&CConfigFileManagerFullamount::get_config_keylist, "\\("), "<false>");
    EXPECT_EQ(m_log.count("Didn't find the key: \\("), 3u);
}

TEST_F(AStoreQuery, FindsNothingInAnEmptyDocument) {
    EXPECT_EQ(run(&CConfigFileManagerFullamount::get_config_batch, "."), "<false>");
    EXPECT_EQ(level_of(m_log, "Didn't find the key: ."), 1);
}

TEST_F(AStoreQuery, LogsEachMatchAndTheResultAtTheirLevels) {
    m_store.set_config("a", "1");
    m_store.set_config("b", "2");
    std::string batch;
    std::string keys;
    ASSERT_TRUE(m_store.get_config_batch("a", batch));
    ASSERT_TRUE(m_store.get_config_keylist(".", keys));
    EXPECT_EQ(level_of(m_log, "The name a, key a is matched"), 1);
    EXPECT_EQ(m_log.count("The name ., key b is matched"), 1u);
    EXPECT_EQ(level_of(m_log, "arrayObj: " + batch), 0);
    EXPECT_EQ(level_of(m_log, "arrayObj: " + keys), 1);
}
