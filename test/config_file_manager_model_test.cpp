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

// Without kc_init every keychain call answers "not initialised": a started store's document
// comes from the default file.
class AStoreDocument : public ::testing::Test {
protected:
    CLogCapture m_log;
    CConfigFileManagerFullamount m_store;
    std::string m_value = "untouched";
    Json::Value m_out = "stale";
};

class TheDefaultFileReader : public AStoreDocument, public ::testing::WithParamInterface<const char*> {};

}  // namespace

TEST_F(AStoreDocument, AddressesMetadataRecordsByDottedPath) {
    m_store.set_config("gw_a", "1");
    EXPECT_FALSE(m_store.get_metadata("subscribe", m_out));
    EXPECT_TRUE(m_out.isNull());
    m_store.set_metadata("outer.inner", Json::Value(7));
    m_store.set_metadata("list[1]", Json::Value("second"));
    m_store.set_metadata("empty", Json::Value(Json::objectValue));
    ASSERT_TRUE(m_store.get_metadata("outer", m_out));
    EXPECT_EQ(m_out.toStyledString(), "{\n\t\"inner\" : 7\n}\n");
    ASSERT_TRUE(m_store.get_metadata("list", m_out));
    EXPECT_EQ(m_out.toStyledString(), "[\n\tnull,\n\t\"second\"\n]\n");
    EXPECT_FALSE(m_store.get_metadata("empty", m_out));
    ASSERT_TRUE(m_store.get_config("gw_a", m_value));
}

TEST_F(AStoreDocument, TurnsANullDocumentIntoOneHoldingOnlyMetadata) {
    EXPECT_TRUE(m_store.set_metadata("subscribe", Json::Value(1)));
    ASSERT_TRUE(m_store.get_metadata("subscribe", m_out));
    EXPECT_EQ(m_out, Json::Value(1));
    EXPECT_FALSE(m_store.get_config("gw_a", m_value));
    EXPECT_EQ(m_log.count("get_config fail, member config error."), 1u);
}

TEST_F(AStoreDocument, ReadsADefaultFileWithCommentsAndTrailingText) {
    ASSERT_TRUE(m_store.start(fixture("commented.json")));
    EXPECT_EQ(m_log.count("load_json_file, kc_get_item key:_configmanager.config.file, ret:ffff0001, key_sec_len:0."),
              1u);
    ASSERT_TRUE(m_store.get_config("gw_a", m_value));
    EXPECT_EQ(m_value, "1");
    EXPECT_EQ(m_log.count_containing("load json file fail"), 0u);
}

TEST_F(AStoreDocument, ServesMetadataOfADocumentWithoutConfig) {
    ASSERT_TRUE(m_store.start(fixture("no_config.json")));
    EXPECT_FALSE(m_store.get_config("gw_a", m_value));
    EXPECT_EQ(m_log.count("get_config fail, member config error."), 1u);
    ASSERT_TRUE(m_store.get_metadata("subscribe.gw_a", m_out));
    EXPECT_EQ(m_out["iot.observer"], Json::Value(1));
}

TEST_F(AStoreDocument, RejectsValuesOfWrongTypesButServesTheOthers) {
    ASSERT_TRUE(m_store.start(fixture("wrong_types.json")));
    EXPECT_FALSE(m_store.get_config("gw_number", m_value));
    EXPECT_EQ(m_log.count("get_config fail, member gw_number error."), 1u);
    ASSERT_TRUE(m_store.get_config("gw_text", m_value));
    EXPECT_EQ(m_value, "1");
    EXPECT_FALSE(m_store.get_metadata("subscribe", m_out));
}

TEST_F(AStoreDocument, FindsNoKeysInADocumentThatIsNoObject) {
    ASSERT_TRUE(m_store.start(fixture("array_root.json")));
    EXPECT_FALSE(m_store.get_config_keylist(".", m_value));
    EXPECT_FALSE(m_store.set_config("gw_a", "1"));
    EXPECT_EQ(m_value, "untouched");
}

TEST_F(AStoreDocument, StartsEmptyFromATruncatedDefaultFile) {
    ASSERT_TRUE(m_store.start(fixture("truncated.json")));
    // The file names gw_a completely; none of a half-read file may be served.
    EXPECT_FALSE(m_store.get_config("gw_a", m_value));
    EXPECT_EQ(m_log.count("get_config fail, member config error."), 1u);
}

TEST_P(TheDefaultFileReader, RefusesABrokenFileAndLogsWhy) {
    const std::string path = fixture(GetParam());
    EXPECT_FALSE(m_store.load_json_file(m_out, path));
    EXPECT_EQ(m_out, Json::Value("stale"));
    const auto lines = m_log.lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].level, 3);
    EXPECT_EQ(lines[0].function, "load_json_file");
    EXPECT_EQ(lines[0].message.rfind("load json file fail, path:" + path + ", errs:* Line 1, Column ", 0), 0u);
    EXPECT_EQ(lines[0].message.back(), '.');
}

INSTANTIATE_TEST_SUITE_P(BrokenFixtures, TheDefaultFileReader,
                         ::testing::Values("empty.json", "truncated.json", "not_json.json", "no_such_file.json"));
