// The store against hostile input: values and keys at and past their limits, a store that would
// outgrow its bounds, results longer than one answer may carry, stored values of odd shapes and
// JSON nested past the reader's depth limit.
#include <gtest/gtest.h>
#include <json/json.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include "quorel/configmanager/config_file_manager.h"
#include "quorel/configmanager/limits.h"
#include "quorel/testsupport/log_capture.h"

using Quorel::Iot::Configmanager::CConfigFileManagerFullamount;
using Quorel::Iot::Testing::CLogCapture;
namespace Limits = Quorel::Iot::Configmanager::Limits;

namespace {

std::string nested(size_t depth) { return std::string(depth, '[') + "1" + std::string(depth, ']'); }

class AStoreUnderHostileInput : public ::testing::Test {
protected:
    void TearDown() override {
        if (!m_path.empty()) {
            unlink(m_path.c_str());
            rmdir(m_dir.c_str());
        }
    }
    // A default file of the given text, for start().
    const std::string& default_file(const std::string& text) {
        char tmpl[] = "/tmp/cm-hostile-XXXXXX";
        EXPECT_NE(nullptr, mkdtemp(tmpl));
        m_dir = tmpl;
        m_path = m_dir + "/default.json";
        std::ofstream(m_path) << text;
        return m_path;
    }
    std::string batch(bool with_ts, const std::string& pattern = ".") {
        std::string out = "<false>";
        const bool found =
            with_ts ? m_store.get_config_batch_with_ts(pattern, out) : m_store.get_config_batch(pattern, out);
        return found ? out : "<false>";
    }

    CLogCapture m_log;
    CConfigFileManagerFullamount m_store;
    std::string m_dir;
    std::string m_path;
};

}  // namespace

TEST_F(AStoreUnderHostileInput, TakesKeysAndValuesUpToTheirLimitsAndRefusesOneByteMore) {
    const std::string longest_key(Limits::kMaxKeyBytes, 'k');
    const std::string largest_value(Limits::kMaxValueBytes, 'v');
    EXPECT_TRUE(m_store.set_config(longest_key, "1"));
    EXPECT_TRUE(m_store.set_config("big", largest_value));
    EXPECT_FALSE(m_store.set_config(longest_key + "k", "1"));
    EXPECT_FALSE(m_store.set_config("bigger", largest_value + "v"));
    std::string value;
    EXPECT_TRUE(m_store.get_config("big", value));
    EXPECT_EQ(value.size(), Limits::kMaxValueBytes);
    EXPECT_FALSE(m_store.get_config("bigger", value));
    EXPECT_EQ(m_log.count_containing("set_config, key or value over its limit"), 2u);
}

TEST_F(AStoreUnderHostileInput, RefusesASetThatWouldTakeTheStorePastItsSizeButTakesItAfterADelete) {
    const std::string value(Limits::kMaxValueBytes, 'v');
    size_t stored = 0;
    while (m_store.set_config("k" + std::to_string(stored), value)) {
        ++stored;
        ASSERT_LT(stored, 64u) << "the store never filled up";
    }
    // Each value is stored base64-coded, beside a key of at most 3 bytes: the bound lies between.
    const size_t per_value = (Limits::kMaxValueBytes + 2) / 3 * 4;
    EXPECT_LE(stored * per_value, Limits::kMaxStoreBytes);
    EXPECT_GT((stored + 1) * (per_value + 3), Limits::kMaxStoreBytes);
    EXPECT_EQ(m_log.count_containing("set_config, store full"), 1u);
    // Replacing a stored value by one of the same size does not grow the store.
    EXPECT_TRUE(m_store.set_config("k0", std::string(Limits::kMaxValueBytes, 'w')));
    EXPECT_TRUE(m_store.set_config("k1", ""));
    EXPECT_TRUE(m_store.set_config("again", value));
}

TEST_F(AStoreUnderHostileInput, RefusesANewKeyBeyondTheKeyCountButStillReplacesValues) {
    for (size_t i = 0; i < Limits::kMaxKeys; ++i) ASSERT_TRUE(m_store.set_config(std::to_string(i), "v")) << i;
    EXPECT_FALSE(m_store.set_config("one-more", "v"));
    EXPECT_TRUE(m_store.set_config("7", "changed"));
    std::string value;
    EXPECT_TRUE(m_store.get_config("7", value));
    EXPECT_EQ(value, "changed");
}

TEST_F(AStoreUnderHostileInput, RefusesAResultLongerThanOneAnswerMayCarry) {
    // Control characters grow sixfold when JSON-escaped: five such values outgrow the limit.
    const std::string control(Limits::kMaxValueBytes, '\x01');
    for (int i = 0; i < 5; ++i) ASSERT_TRUE(m_store.set_config("c" + std::to_string(i), control));
    EXPECT_EQ(batch(false), "<false>");
    EXPECT_EQ(batch(true), "<false>");
    EXPECT_EQ(m_log.count_containing("result longer than"), 2u);
    // The key list is short and still answered.
    std::string keys;
    EXPECT_TRUE(m_store.get_config_keylist(".", keys));
    EXPECT_EQ(keys, "[\"c0\",\"c1\",\"c2\",\"c3\",\"c4\"]\n");
}

TEST_F(AStoreUnderHostileInput, AnswersStructuredDataAsCompactJsonAndUnconvertibleTimestampsAsZero) {
    m_store.set_config("a_object", R"({"data":{"b":[1,2]},"ts":5})");
    m_store.set_config("b_array", R"({"data":[true,null],"ts":"soon"})");
    m_store.set_config("c_true", R"({"data":"x","ts":true})");
    m_store.set_config("d_null", R"({"data":"x","ts":null})");
    m_store.set_config("e_real", R"({"data":"x","ts":1.5})");
    m_store.set_config("f_negative", R"({"data":"x","ts":-1})");
    m_store.set_config("g_huge", R"({"data":"x","ts":1e300})");
    EXPECT_EQ(batch(false, "^[ab]"),
              R"([{"key":"a_object","value":"{\"b\":[1,2]}"},{"key":"b_array","value":"[true,null]"}])"
              "\n");
    EXPECT_EQ(batch(true),
              R"([{"key":"a_object","ts":5,"value":"{\"b\":[1,2]}"},{"key":"b_array","ts":0,"value":"[true,null]"},)"
              R"({"key":"c_true","ts":1,"value":"x"},{"key":"d_null","ts":0,"value":"x"},)"
              R"({"key":"e_real","ts":1,"value":"x"},{"key":"f_negative","ts":0,"value":"x"},)"
              R"({"key":"g_huge","ts":0,"value":"x"}])"
              "\n");
}

TEST_F(AStoreUnderHostileInput, ServesAValueNestedPastTheReadersDepthAsPlainText) {
    const std::string deep = "{\"data\":" + nested(1200) + "}";
    m_store.set_config("deep", deep);
    Json::Value expected(Json::arrayValue);
    expected[0]["key"] = "deep";
    expected[0]["ts"] = 0;
    expected[0]["value"] = deep;
    Json::Value parsed;
    ASSERT_TRUE(Json::Reader().parse(batch(true), parsed));
    EXPECT_EQ(parsed, expected);
}

TEST_F(AStoreUnderHostileInput, StartsWithoutADefaultFileNestedPastTheReadersDepth) {
    ASSERT_TRUE(m_store.start(default_file("{\"config\": {\"a\": \"MQ==\"}, \"metadata\": " + nested(1001) + "}")));
    std::string value;
    EXPECT_FALSE(m_store.get_config("a", value));
    EXPECT_EQ(m_log.count_containing("load json file fail, path:" + m_path), 2u);
    m_store.stop();
}

TEST_F(AStoreUnderHostileInput, StartsWithoutADefaultFileLargerThanADocumentMayBe) {
    const std::string& path = default_file("{\"config\": {\"a\": \"MQ==\"}}");
    // Sparse: the size is what counts, and no test should write 64 MiB.
    ASSERT_EQ(0, truncate(path.c_str(), static_cast<off_t>(Limits::kMaxDocumentBytes) + 1));
    ASSERT_TRUE(m_store.start(path));
    std::string value;
    EXPECT_FALSE(m_store.get_config("a", value));
    EXPECT_EQ(m_log.count_containing("file larger than"), 2u);
    m_store.stop();
}

TEST_F(AStoreUnderHostileInput, ReplacesMetadataThatIsNoObjectByOneHoldingTheRecord) {
    ASSERT_TRUE(m_store.start(default_file(R"({"config": {"a": "MQ=="}, "metadata": [5]})")));
    Json::Value table;
    table["k"]["iot.observer"] = 1;
    EXPECT_TRUE(m_store.set_metadata("subscribe", table));
    Json::Value out;
    ASSERT_TRUE(m_store.get_metadata("subscribe", out));
    EXPECT_EQ(out, table);
    Json::Value entry(Json::objectValue);
    entry["iot.owner"] = 0;
    EXPECT_TRUE(m_store.set_metadata_entry("other", "k", &entry));
    ASSERT_TRUE(m_store.get_metadata("other.k", out));
    EXPECT_EQ(out, entry);
    EXPECT_TRUE(m_store.set_metadata_entry("other", "k", nullptr));
    EXPECT_FALSE(m_store.get_metadata("other.k", out));
    m_store.stop();
}

TEST_F(AStoreUnderHostileInput, KeepsADocumentThatIsNoObjectWithoutThrowing) {
    ASSERT_TRUE(m_store.start(default_file("[1, 2]")));
    EXPECT_FALSE(m_store.set_metadata("subscribe", Json::Value(1)));
    EXPECT_FALSE(m_store.set_config("a", "1"));
    EXPECT_EQ(batch(false), "<false>");
    m_store.stop();
}
