#include <gtest/gtest.h>
#include <json/json.h>

#include <string>

#include "quorel/configmanager/config_file_manager.h"
#include "quorel/testsupport/log_capture.h"

using Quorel::Iot::Configmanager::CConfigFileManagerFullamount;
using Quorel::Iot::Testing::CLogCapture;

namespace {

std::string fixture(const std::string& name) {
    const std::string here = __FILE__;
    return here.substr(0, here.rfind('/')) + "/data/" + name;
}

Json::Value parsed(const std::string& text) {
    Json::Value value;
    Json::CharReaderBuilder builder;
    std::string errs;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    EXPECT_TRUE(reader->parse(text.data(), text.data() + text.size(), &value, &errs)) << errs;
    return value;
}

class AStoreDocument : public ::testing::Test {
protected:
    CLogCapture m_log;
    CConfigFileManagerFullamount m_store;
};

class TheDefaultFileReader : public AStoreDocument, public ::testing::WithParamInterface<const char*> {};

}  // namespace

TEST_F(AStoreDocument, HasNoMetadataWithoutAMetadataMember) {
    m_store.set_config("gw_a", "1");
    Json::Value out = "stale";
    EXPECT_FALSE(m_store.get_metadata("subscribe", out));
    EXPECT_TRUE(out.isNull());
}

TEST_F(AStoreDocument, TurnsANullDocumentIntoOneHoldingOnlyMetadata) {
    const Json::Value rules = parsed(R"({"gw_a": {"iot.observer": 1}})");
    EXPECT_TRUE(m_store.set_metadata("subscribe", rules));
    Json::Value out;
    ASSERT_TRUE(m_store.get_metadata("subscribe", out));
    EXPECT_EQ(out, rules);
    std::string value;
    EXPECT_FALSE(m_store.get_config("gw_a", value));
    EXPECT_EQ(m_log.count("get_config fail, member config error."), 1u);
}

TEST_F(AStoreDocument, AddressesMetadataRecordsByDottedPath) {
    m_store.set_metadata("outer.inner", Json::Value(7));
    m_store.set_metadata("list[1]", Json::Value("second"));
    Json::Value out;
    ASSERT_TRUE(m_store.get_metadata("outer", out));
    EXPECT_EQ(out, parsed(R"({"inner": 7})"));
    ASSERT_TRUE(m_store.get_metadata("list", out));
    ASSERT_EQ(out.size(), 2u);
    EXPECT_TRUE(out[0].isNull());
    EXPECT_EQ(out[1], Json::Value("second"));
    ASSERT_TRUE(m_store.get_metadata("outer.inner", out));
    EXPECT_EQ(out, Json::Value(7));
}

TEST_F(AStoreDocument, CallsAnEmptyRecordAbsent) {
    m_store.set_metadata("subscribe", Json::Value(Json::objectValue));
    Json::Value out = "stale";
    EXPECT_FALSE(m_store.get_metadata("subscribe", out));
    EXPECT_EQ(out, Json::Value(Json::objectValue));
}

TEST_F(AStoreDocument, KeepsMetadataBesideConfiguration) {
    m_store.set_config("gw_a", "1");
    m_store.set_metadata("subscribe", parsed(R"({"gw_a": {"iot.observer": 2}})"));
    std::string value;
    ASSERT_TRUE(m_store.get_config("gw_a", value));
    EXPECT_EQ(value, "1");
}

TEST_F(AStoreDocument, ReadsADefaultFileWithCommentsAndTrailingText) {
    Json::Value doc;
    ASSERT_TRUE(m_store.load_json_file(doc, fixture("commented.json")));
    EXPECT_EQ(doc["config"]["gw_a"], Json::Value("MQ=="));
    EXPECT_EQ(doc["config"].size(), 2u);
    EXPECT_EQ(m_log.count_containing("load json file fail"), 0u);
}

TEST_F(AStoreDocument, LeavesTheTargetAloneWhenAFileIsBroken) {
    Json::Value doc = "untouched";
    EXPECT_FALSE(m_store.load_json_file(doc, fixture("truncated.json")));
    EXPECT_EQ(doc, Json::Value("untouched"));
}

TEST_F(AStoreDocument, ReadsADefaultFileOfWrongTypesAsItIs) {
    Json::Value doc;
    ASSERT_TRUE(m_store.load_json_file(doc, fixture("wrong_types.json")));
    EXPECT_EQ(doc["metadata"], Json::Value("none"));
    EXPECT_EQ(doc["config"]["gw_number"], Json::Value(42));
}

TEST_P(TheDefaultFileReader, RefusesABrokenFileAndLogsWhy) {
    const std::string path = fixture(GetParam());
    Json::Value doc;
    EXPECT_FALSE(m_store.load_json_file(doc, path));
    const std::string prefix = "load json file fail, path:" + path + ", errs:* Line ";
    ASSERT_EQ(m_log.count_containing(prefix), 1u);
    for (const auto& line : m_log.lines()) {
        if (line.message.find(prefix) != 0) continue;
        EXPECT_EQ(line.level, 3);
        EXPECT_EQ(line.function, "load_json_file");
        EXPECT_EQ(line.message.back(), '.');
    }
}

INSTANTIATE_TEST_SUITE_P(BrokenFixtures, TheDefaultFileReader,
                         ::testing::Values("empty.json", "truncated.json", "not_json.json", "no_such_file.json"));

// Without kc_init every keychain call answers "not initialised": the document comes from the file.
class AStoreStartedWithoutKeychain : public AStoreDocument {
protected:
    void start_with(const char* name) { ASSERT_TRUE(m_store.start(fixture(name))); }
};

TEST_F(AStoreStartedWithoutKeychain, LogsTheKeychainResultInHexadecimal) {
    start_with("commented.json");
    EXPECT_EQ(m_log.count("load_json_file, kc_get_item key:_configmanager.config.file, ret:ffff0001, key_sec_len:0."),
              1u);
    std::string value;
    ASSERT_TRUE(m_store.get_config("gw_a", value));
    EXPECT_EQ(value, "1");
}

TEST_F(AStoreStartedWithoutKeychain, ServesMetadataOfADocumentWithoutConfig) {
    start_with("no_config.json");
    std::string value;
    EXPECT_FALSE(m_store.get_config("gw_a", value));
    EXPECT_EQ(m_log.count("get_config fail, member config error."), 1u);
    Json::Value rules;
    ASSERT_TRUE(m_store.get_metadata("subscribe", rules));
    EXPECT_EQ(rules, parsed(R"({"gw_a": {"iot.observer": 1}})"));
}

TEST_F(AStoreStartedWithoutKeychain, RejectsValuesOfWrongTypesButServesTheOthers) {
    start_with("wrong_types.json");
    std::string value;
    EXPECT_FALSE(m_store.get_config("gw_number", value));
    EXPECT_EQ(m_log.count("get_config fail, member gw_number error."), 1u);
    ASSERT_TRUE(m_store.get_config("gw_text", value));
    EXPECT_EQ(value, "1");
    Json::Value rules;
    EXPECT_FALSE(m_store.get_metadata("subscribe", rules));
}

TEST_F(AStoreStartedWithoutKeychain, FindsNoKeysInADocumentThatIsNoObject) {
    start_with("array_root.json");
    std::string out = "untouched";
    EXPECT_FALSE(m_store.get_config_keylist(".", out));
    EXPECT_FALSE(m_store.get_config("gw_a", out));
    EXPECT_FALSE(m_store.set_config("gw_a", "1"));
    EXPECT_EQ(out, "untouched");
}

TEST_F(AStoreStartedWithoutKeychain, StartsEmptyFromABrokenDefaultFile) {
    start_with("truncated.json");
    EXPECT_EQ(m_log.count_containing("load json file fail, path:"), 2u);
    std::string value;
    // The truncated file names gw_a completely; none of it may be served.
    EXPECT_FALSE(m_store.get_config("gw_a", value));
    EXPECT_EQ(m_log.count("get_config fail, member config error."), 1u);
    ASSERT_TRUE(m_store.set_config("gw_a", "1"));
    ASSERT_TRUE(m_store.get_config("gw_a", value));
    EXPECT_EQ(value, "1");
}
